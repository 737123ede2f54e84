// When the disk is asked to take what was saved.
#include <gtest/gtest.h>

#include "quenor_base/platform/reliable_report_cache_file.h"
#include "tests/unit/cache/plain/cache_file_test_support.h"

namespace quenor::test {
namespace {

class CacheFileDurabilityTest : public CacheFileTest {};

TEST_F(CacheFileDurabilityTest, NothingIsAskedOfTheDiskByDefault) {
  Write({"a", "b"});

  EXPECT_EQ(DiskCalls::CountOf("fsync"), 0u);
  EXPECT_EQ(DiskCalls::CountOf("sync_file_range"), 0u);
}

TEST_F(CacheFileDurabilityTest, OneStartsTheWritingOfEachNewPacket) {
  SetDurability(1);
  ReliableReportCacheFile file;
  ASSERT_TRUE(file.Open(file_path()));
  ASSERT_TRUE(Save(&file, {"a", "b"}));
  EXPECT_EQ(DiskCalls::CountOf("sync_file_range"), 2u);

  ASSERT_TRUE(Save(&file, {"a", "b", "c"}));

  EXPECT_EQ(DiskCalls::CountOf("sync_file_range"), 3u);
  EXPECT_EQ(DiskCalls::CountOf("fsync"), 0u);
}

TEST_F(CacheFileDurabilityTest, TwoWaitsOncePerNewPacketAndNotForKnownOnes) {
  SetDurability(2);
  ReliableReportCacheFile file;
  ASSERT_TRUE(file.Open(file_path()));
  const size_t opened = DiskCalls::CountOf("fsync");
  EXPECT_EQ(opened, 2u);  // The file and the folder that names it.
  ASSERT_TRUE(Save(&file, {"a", "b"}));
  EXPECT_EQ(DiskCalls::CountOf("fsync"), opened + 2);

  ASSERT_TRUE(Save(&file, {"a", "b", "c"}));
  EXPECT_EQ(DiskCalls::CountOf("fsync"), opened + 3);
  ASSERT_TRUE(Save(&file, {"a", "b"}));
  ASSERT_TRUE(file.IsSaveComplete());
  EXPECT_EQ(DiskCalls::CountOf("fsync"), opened + 3);
  file.Close();

  EXPECT_EQ(DiskCalls::CountOf("fsync"), opened + 4);
}

TEST_F(CacheFileDurabilityTest, TwoWaitsAtOpenForWhatAFormerOwnerWrote) {
  Write({"a"});
  SetDurability(2);
  ReliableReportCacheFile file;

  ASSERT_TRUE(file.Open(file_path()));

  EXPECT_EQ(DiskCalls::CountOf("fsync"), 2u);
}

TEST_F(CacheFileDurabilityTest, TwoHasANewFileAndItsNameOnTheDisk) {
  SetDurability(2);
  ReliableReportCacheFile file;
  ASSERT_TRUE(file.Open(file_path()));
  ASSERT_TRUE(Save(&file, {std::string(500000, 'x')}));
  ASSERT_TRUE(Save(&file, {"a"}));
  const size_t before = DiskCalls::CountOf("fsync");

  ASSERT_TRUE(file.Clear());

  EXPECT_EQ(DiskCalls::CountOf("fsync"), before + 2);
}

TEST_F(CacheFileDurabilityTest, AFailedSyncRefusesThePacketAndWritesTheFileAnew) {
  SetDurability(2);
  ReliableReportCacheFile file;
  ASSERT_TRUE(file.Open(file_path()));
  ASSERT_TRUE(Save(&file, {"a"}));
  ASSERT_TRUE(file.Clear());
  DiskCalls::FailAll("fsync", EIO);
  EXPECT_FALSE(Append(&file, "b"));
  EXPECT_FALSE(file.IsSaveComplete());
  EXPECT_FALSE(file.Clear());
  struct stat before;
  ASSERT_EQ(lstat(path().c_str(), &before), 0);
  DiskCalls::Reset();

  EXPECT_TRUE(Save(&file, {"a", "b"}));

  struct stat after;
  ASSERT_EQ(lstat(path().c_str(), &after), 0);
  EXPECT_NE(before.st_ino, after.st_ino);
  file.Close();
  EXPECT_EQ(Reopened(), (Packets{"a", "b"}));
}

}  // namespace
}  // namespace quenor::test
