// What the plain cache file costs and writes while nothing goes wrong.
#include "tests/support/memory_faults.h"
#include "tests/unit/cache/plain/plain_file_fixture.h"

namespace quenor::test {
namespace {

class CacheFileContractTest : public CacheFileTest {};

TEST_F(CacheFileContractTest, TheQuestionCompletesTheSaveWithOneSmallWrite) {
  ReliableReportCacheFile file;
  ASSERT_TRUE(OpenFile(file, path_));
  ASSERT_TRUE(SaveUnasked(file, {"a", "b"}));
  const uint64_t bytes = SizeOf(path_);
  const size_t calls = FileCalls::CountAll();

  EXPECT_TRUE(file.IsSaveComplete());

  EXPECT_FALSE(Append(file, "c")) << "it is complete";
  EXPECT_TRUE(file.IsSaveComplete());
  EXPECT_EQ(FileCalls::CountAll() - calls, 1u);
  EXPECT_EQ(FileCalls::Count(Call::kPwrite), 4u);  // The header, two packets and this.
  EXPECT_LE(SizeOf(path_) - bytes, 64u);
  ASSERT_TRUE(file.Clear());
  EXPECT_EQ(FileCalls::Count(Call::kPwrite), 4u) << "it is complete already";
  ASSERT_TRUE(Append(file, "b") && Append(file, "c"));
  file.Close();
  EXPECT_EQ(Reopened(), (Packets{"b", "c"}));
}

TEST_F(CacheFileContractTest, ReadingEndsWithTheFirstClear) {
  Leave({"a", "b"});
  ReliableReportCacheFile file;
  ASSERT_TRUE(OpenFile(file, path_));
  ASSERT_EQ(file.GetNextDataPacket().size, 1u);

  ASSERT_TRUE(file.Clear());

  EXPECT_EQ(file.GetNextDataPacket().data, nullptr);
}

TEST_F(CacheFileContractTest, ASaveThatOnlyRepeatsWritesFewBytes) {
  ReliableReportCacheFile file;
  ASSERT_TRUE(OpenFile(file, path_));
  Packets packets;
  for (int i = 0; i < 200; ++i)
    packets.push_back("message " + std::to_string(i) + std::string(500, '.'));
  ASSERT_TRUE(SaveUnasked(file, packets));
  ASSERT_TRUE(SaveUnasked(file, packets));
  const uint64_t before = SizeOf(path_);

  ASSERT_TRUE(SaveUnasked(file, packets));

  EXPECT_LE(SizeOf(path_) - before, 64u);
  EXPECT_EQ(FileCalls::Count(Call::kRename), 0u);
}

// The channel's own pattern: the oldest is acknowledged, a new one comes in.
TEST_F(CacheFileContractTest, ASaveInTheSteadyStateAllocatesNothing) {
  ReliableReportCacheFile file;
  ASSERT_TRUE(OpenFile(file, path_));
  Packets all;
  for (int i = 0; i < 3000; ++i)
    all.push_back("message " + std::to_string(i) + std::string(400, '.'));
  size_t next = 0;
  const auto save = [&] {
    bool saved = file.Clear();
    for (size_t i = next; i < next + 100; ++i) saved = Append(file, all[i]) && saved;
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
