// What the plain cache file costs and writes while nothing goes wrong.
#include <gtest/gtest.h>

#include "quenor_base/platform/reliable_report_cache_file.h"
#include "tests/support/memory_faults.h"
#include "tests/unit/cache/plain/cache_file_test_support.h"

namespace quenor::test {
namespace {

class CacheFileContractTest : public CacheFileTest {};

TEST_F(CacheFileContractTest, TheQuestionCompletesTheSaveWithOneSmallWrite) {
  ReliableReportCacheFile file;
  ASSERT_TRUE(file.Open(file_path()));
  ASSERT_TRUE(Save(&file, {"a", "b"}));
  const uint64_t bytes = FileBytes(path());
  const size_t calls = DiskCalls::Count();

  EXPECT_TRUE(file.IsSaveComplete());

  EXPECT_FALSE(Append(&file, "c")) << "it is complete";
  EXPECT_TRUE(file.IsSaveComplete());
  EXPECT_EQ(DiskCalls::Count() - calls, 1u);
  EXPECT_EQ(DiskCalls::CountOf("pwrite"), 4u);  // The header, two packets and this.
  EXPECT_LE(FileBytes(path()) - bytes, 64u);
  ASSERT_TRUE(file.Clear());
  EXPECT_EQ(DiskCalls::CountOf("pwrite"), 4u) << "it is complete already";
  ASSERT_TRUE(Append(&file, "b") && Append(&file, "c"));
  file.Close();
  EXPECT_EQ(Reopened(), (Packets{"b", "c"}));
}

TEST_F(CacheFileContractTest, ReadingEndsWithTheFirstClear) {
  Write({"a", "b"});
  ReliableReportCacheFile file;
  ASSERT_TRUE(file.Open(file_path()));
  ASSERT_EQ(file.GetNextDataPacket().size, 1u);

  ASSERT_TRUE(file.Clear());

  EXPECT_EQ(file.GetNextDataPacket().data, nullptr);
}

TEST_F(CacheFileContractTest, TheFileIsForItsUserAloneWhateverTheUmask) {
  for (const mode_t mask : {mode_t{0}, mode_t{0777}}) {
    const mode_t before = umask(mask);
    Write({"a"});
    umask(before);

    struct stat info;
    ASSERT_EQ(lstat(path().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, mode_t{0600});
    ASSERT_EQ(remove(path().c_str()), 0);
  }
}

TEST_F(CacheFileContractTest, ASaveThatOnlyRepeatsWritesFewBytes) {
  ReliableReportCacheFile file;
  ASSERT_TRUE(file.Open(file_path()));
  Packets packets;
  for (int i = 0; i < 200; ++i)
    packets.push_back("message " + std::to_string(i) + std::string(500, '.'));
  ASSERT_TRUE(Save(&file, packets));
  ASSERT_TRUE(Save(&file, packets));
  const uint64_t before = FileBytes(path());

  ASSERT_TRUE(Save(&file, packets));

  EXPECT_LE(FileBytes(path()) - before, 64u);
  EXPECT_EQ(DiskCalls::CountOf("rename"), 0u);
}

// The channel's own pattern: the oldest is acknowledged, a new one comes in.
TEST_F(CacheFileContractTest, ASaveInTheSteadyStateAllocatesNothing) {
  ReliableReportCacheFile file;
  ASSERT_TRUE(file.Open(file_path()));
  Packets all;
  for (int i = 0; i < 3000; ++i)
    all.push_back("message " + std::to_string(i) + std::string(400, '.'));
  size_t next = 0;
  const auto save = [&] {
    bool saved = file.Clear();
    for (size_t i = next; i < next + 100; ++i) saved = Append(&file, all[i]) && saved;
    ++next;
    return saved;
  };
  // Enough for the first time that the file is written anew.
  for (int i = 0; i < 1000; ++i) ASSERT_TRUE(save());

  const MemoryFaults::Counter allocations;
  bool saved = true;
  for (int i = 0; i < 1000; ++i) saved = save() && saved;
  const size_t count = allocations.count();

  EXPECT_TRUE(saved);
  EXPECT_EQ(count, 0u);
}

}  // namespace
}  // namespace quenor::test
