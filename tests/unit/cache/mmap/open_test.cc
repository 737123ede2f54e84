// Open() and Close(): which paths and states are accepted, and what a refusal leaves.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "tests/support/unprivileged.h"
#include "tests/unit/cache/mmap/mmap_file_fixture.h"

namespace quenor::test {
namespace {

class MmapFileOpenTest : public MmapFileTest {
 protected:
  // Refused with one line that names the path and says why.
  void ExpectRefused(const std::string& path, const char* why = "") {
    RecordingLog::Clear();
    MultiProcessSafetyMmapFile file;

    EXPECT_FALSE(OpenFile(file, path)) << path;

    EXPECT_EQ(1, LinesWith(2, "")) << path;
    EXPECT_EQ(1, LinesWith(2, path)) << path;
    EXPECT_EQ(1, LinesWith(2, why)) << path;
    EXPECT_EQ(0u, file.GetNextDataPacket().size);
    EXPECT_FALSE(file.Clear(0));
    EXPECT_FALSE(Append(file, "x"));
  }
};

TEST_F(MmapFileOpenTest, RefusesEveryAccessButExtend) {
  using base::MemoryMappedFile;
  for (const auto access : {MemoryMappedFile::READ_ONLY, MemoryMappedFile::READ_WRITE,
                            static_cast<MemoryMappedFile::Access>(3)}) {
    RecordingLog::Clear();
    MultiProcessSafetyMmapFile file;

    EXPECT_FALSE(file.Open(base::FilePath(path_), access, 0));

    EXPECT_EQ(1, LinesWith(2, path_));
    EXPECT_FALSE(Exists(path_));
  }
}

TEST_F(MmapFileOpenTest, MakesTheRoomThatItsSizeWishes) {
  MultiProcessSafetyMmapFile file;
  ASSERT_TRUE(file.Open(base::FilePath(path_), base::MemoryMappedFile::READ_WRITE_EXTEND, 1 << 20));

  ASSERT_TRUE(Save(file, {"small"}));

  EXPECT_GE(BytesOnDisk(path_), 1u << 20);
  file.Close();
  EXPECT_EQ(Packets{"small"}, LoadMapped(path_));
}

TEST_F(MmapFileOpenTest, RefusesAFolderThatMayNotBeWritten) {
  const Unprivileged unprivileged(folder_.path());
  if (!unprivileged.holds()) GTEST_SKIP() << "root cannot become another user here";
  ASSERT_EQ(0, chmod(folder_.path().c_str(), 0500));

  ExpectRefused(path_);

  ASSERT_EQ(0, chmod(folder_.path().c_str(), 0700));
}

TEST_F(MmapFileOpenTest, RefusesAFileThatMayNotBeWritten) {
  const Unprivileged unprivileged(folder_.path());
  if (!unprivileged.holds()) GTEST_SKIP() << "root cannot become another user here";
  Leave({"a"});
  ASSERT_EQ(0, chmod(path_.c_str(), 0400));

  ExpectRefused(path_);

  ASSERT_EQ(0, chmod(path_.c_str(), 0600));
  EXPECT_EQ(Packets{"a"}, LoadMapped(path_));
}

// A kill while it was written to would leave it damaged, for nothing.
TEST_F(MmapFileOpenTest, OfAFileWithoutContentLeavesItAsItIs) {
  for (const int seal_in_force : {1, 0}) {
    Leave({"a"});
    Leave({});
    const std::string bytes = ReadWholeFile(path_);

    EXPECT_EQ(Packets{}, LoadMapped(path_));

    EXPECT_TRUE(bytes == ReadWholeFile(path_)) << seal_in_force;
  }
}

TEST_F(MmapFileOpenTest, ReadsOnceMoreWhatTheDiskFailedToRead) {
  Leave(NamedPackets("p", 5, 300));
  int reads = 0;

  for (int nth = 1;; ++nth) {
    FileCalls::Reset();
    FileCalls::Fail(Call::kPread, nth, EIO);
    MultiProcessSafetyMmapFile file;
    ASSERT_TRUE(OpenFile(file, path_)) << nth;
    ASSERT_EQ(NamedPackets("p", 5, 300), ReadAll(file)) << nth;
    if (!FileCalls::HasFailed()) break;
    ++reads;
  }

  EXPECT_GT(reads, 10);
  EXPECT_FALSE(Exists(SetAside(path_)));
}

TEST_F(MmapFileOpenTest, LeavesNothingElseInTheFolder) {
  Leave(NamedPackets("p", 100, 1000));
  Leave({});

  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder_.path())) {
    names.push_back(entry.path().filename());
  }

  EXPECT_EQ(std::vector<std::string>{"channel.mmap"}, names);
}

TEST_F(MmapFileOpenTest, LeavesNoDescriptorBehind) {
  const auto lowest_free = [] {
    const int fd = dup(0);
    close(fd);
    return fd;
  };
  Leave({"a"});
  const int before = lowest_free();

  for (int i = 0; i < 5; ++i) {
    Leave(NamedPackets("p", 10, 100));
    LoadMapped(path_);
    LoadMapped(folder_.path());
    LoadMapped("..");
  }

  EXPECT_EQ(before, lowest_free());
}

}  // namespace
}  // namespace quenor::test
