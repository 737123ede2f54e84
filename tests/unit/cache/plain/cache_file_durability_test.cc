// When the disk is asked to take what was saved.
#include <sys/stat.h>

#include <cerrno>

#include "tests/unit/cache/plain/plain_file_fixture.h"

namespace quenor::test {
namespace {

class CacheFileDurabilityTest : public CacheFileTest {};

TEST_F(CacheFileDurabilityTest, NothingIsAskedOfTheDiskByDefault) {
  Leave({"a", "b"});

  EXPECT_EQ(FileCalls::Count(Call::kFsync), 0u);
  EXPECT_EQ(FileCalls::Count(Call::kSyncFileRange), 0u);
}

TEST_F(CacheFileDurabilityTest, OneStartsTheWritingOfEachNewPacket) {
  const DurabilityScope durability(1);
  ReliableReportCacheFile file;
  ASSERT_TRUE(OpenFile(file, path_));
  ASSERT_TRUE(SaveUnasked(file, {"a", "b"}));
  EXPECT_EQ(FileCalls::Count(Call::kSyncFileRange), 2u);

  ASSERT_TRUE(SaveUnasked(file, {"a", "b", "c"}));

  EXPECT_EQ(FileCalls::Count(Call::kSyncFileRange), 3u);
  EXPECT_EQ(FileCalls::Count(Call::kFsync), 0u);
}

TEST_F(CacheFileDurabilityTest, TwoWaitsOncePerNewPacketAndNotForKnownOnes) {
  const DurabilityScope durability(2);
  ReliableReportCacheFile file;
  ASSERT_TRUE(OpenFile(file, path_));
  const size_t opened = FileCalls::Count(Call::kFsync);
  EXPECT_EQ(opened, 2u);  // The file and the folder that names it.
  ASSERT_TRUE(SaveUnasked(file, {"a", "b"}));
  EXPECT_EQ(FileCalls::Count(Call::kFsync), opened + 2);

  ASSERT_TRUE(SaveUnasked(file, {"a", "b", "c"}));
  EXPECT_EQ(FileCalls::Count(Call::kFsync), opened + 3);
  ASSERT_TRUE(SaveUnasked(file, {"a", "b"}));
  ASSERT_TRUE(file.IsSaveComplete());
  EXPECT_EQ(FileCalls::Count(Call::kFsync), opened + 3);
  file.Close();

  EXPECT_EQ(FileCalls::Count(Call::kFsync), opened + 4);
}

TEST_F(CacheFileDurabilityTest, TwoWaitsAtOpenForWhatAFormerOwnerWrote) {
  Leave({"a"});
  const DurabilityScope durability(2);
  ReliableReportCacheFile file;

  ASSERT_TRUE(OpenFile(file, path_));

  EXPECT_EQ(FileCalls::Count(Call::kFsync), 2u);
}

TEST_F(CacheFileDurabilityTest, TwoHasANewFileAndItsNameOnTheDisk) {
  const DurabilityScope durability(2);
  ReliableReportCacheFile file;
  ASSERT_TRUE(OpenFile(file, path_));
  ASSERT_TRUE(SaveUnasked(file, {std::string(500000, 'x')}));
  ASSERT_TRUE(SaveUnasked(file, {"a"}));
  const size_t before = FileCalls::Count(Call::kFsync);

  ASSERT_TRUE(file.Clear());

  EXPECT_EQ(FileCalls::Count(Call::kFsync), before + 2);
}

TEST_F(CacheFileDurabilityTest, AFailedSyncRefusesThePacketAndWritesTheFileAnew) {
  const DurabilityScope durability(2);
  ReliableReportCacheFile file;
  ASSERT_TRUE(OpenFile(file, path_));
  ASSERT_TRUE(SaveUnasked(file, {"a"}));
  ASSERT_TRUE(file.Clear());
  FileCalls::FailEach(Call::kFsync, EIO);
  EXPECT_FALSE(Append(file, "b"));
  EXPECT_FALSE(file.IsSaveComplete());
  EXPECT_FALSE(file.Clear());
  struct stat before;
  ASSERT_EQ(lstat(path_.c_str(), &before), 0);
  FileCalls::Reset();

  EXPECT_TRUE(SaveUnasked(file, {"a", "b"}));

  struct stat after;
  ASSERT_EQ(lstat(path_.c_str(), &after), 0);
  EXPECT_NE(before.st_ino, after.st_ino);
  file.Close();
  EXPECT_EQ(Reopened(), (Packets{"a", "b"}));
}

}  // namespace
}  // namespace quenor::test
