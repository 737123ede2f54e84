// How long the file gets, and that it becomes short again.
#include <cerrno>
#include <iostream>

#include "tests/unit/cache/plain/plain_file_fixture.h"

namespace quenor::test {
namespace {

class CacheFileSizeTest : public CacheFileTest {};

// As docs/design/cache-file.md states it: four times a new file of the save before, or 64 KiB, and
// the save under way.
uint64_t Bound(const Packets& before, const Packets& now) {
  const auto live = [](const Packets& packets) {
    uint64_t bytes = 128;
    for (const std::string& packet : packets) bytes += 32 + packet.size();
    return bytes;
  };
  const uint64_t lists = 64 * (before.size() + now.size() + 2);
  return std::max<uint64_t>(64 * 1024, 4 * live(before)) + live(now) + lists;
}

TEST_F(CacheFileSizeTest, TenThousandRandomSavesStayWithinTheStatedBound) {
  const uint64_t seed = TestSeed();
  Random random(seed);
  ReliableReportCacheFile file;
  ASSERT_TRUE(OpenFile(file, path_));
  Packets before;
  Packets packets;
  uint64_t longest = 0;

  for (uint64_t i = 0; i < 10000; ++i) {
    before = packets;
    if (!packets.empty() && Below(random, 2) == 0)
      packets.erase(packets.begin(), packets.begin() + Below(random, packets.size()));
    if (Below(random, 50) == 0 && packets.size() > 1) std::swap(packets.front(), packets.back());
    for (size_t n = Below(random, 4); n > 0; --n) {
      packets.push_back(std::to_string(i) + std::string(Below(random, 3000), 'x'));
    }
    ASSERT_TRUE(SaveUnasked(file, packets));
    const uint64_t size = SizeOf(path_);
    longest = std::max(longest, size);
    ASSERT_LE(size, Bound(before, packets)) << "save " << i;
  }
  file.Close();

  std::cout << "at most " << longest << " bytes; QUENOR_TEST_SEED=" << seed << std::endl;
  EXPECT_EQ(Reopened(), packets);
  EXPECT_EQ(0, LinesWith(2, ""));
}

TEST_F(CacheFileSizeTest, AnEmptiedFileIsShortAgain) {
  for (const bool is_asked : {false, true}) {
    ReliableReportCacheFile file;
    ASSERT_TRUE(OpenFile(file, path_));
    Packets packets;
    for (int i = 0; i < 100; ++i) packets.push_back(std::to_string(i) + std::string(10000, 'x'));
    ASSERT_TRUE(SaveUnasked(file, packets));
    ASSERT_GT(SizeOf(path_), 1000000u);

    ASSERT_TRUE(SaveUnasked(file, {}));
    ASSERT_TRUE(!is_asked || file.IsSaveComplete());
    file.Close();

    EXPECT_LT(SizeOf(path_), 1000u);
    EXPECT_TRUE(Reopened().empty());
  }
}

TEST_F(CacheFileSizeTest, ARewriteThatFailedIsTriedAgainWhenTheFileHasGrown) {
  ReliableReportCacheFile file;
  ASSERT_TRUE(OpenFile(file, path_));
  ASSERT_TRUE(SaveUnasked(file, {std::string(500000, 'x')}));
  FileCalls::FailEach(Call::kRename, ENOSPC);
  for (int i = 0; i < 10; ++i) ASSERT_TRUE(SaveUnasked(file, {"a"}));
  EXPECT_EQ(FileCalls::Count(Call::kRename), 1u);
  ASSERT_TRUE(SaveUnasked(file, {"a", std::string(200000, 'y')}));
  FileCalls::Reset();

  ASSERT_TRUE(SaveUnasked(file, {"a"}) && SaveUnasked(file, {"a"}));
  EXPECT_LT(SizeOf(path_), 1000u);

  // And once it worked, a file is too long as soon as it was before.
  ASSERT_TRUE(SaveUnasked(file, {std::string(100000, 'z')}) && SaveUnasked(file, {"a"}) &&
              SaveUnasked(file, {"a"}));
  EXPECT_LT(SizeOf(path_), 1000u);
}

TEST_F(CacheFileSizeTest, WhatAVoidSaveHasWrittenCountsAsContent) {
  ReliableReportCacheFile file;
  ASSERT_TRUE(OpenFile(file, path_) && SaveUnasked(file, {std::string(100000, 'x')}));
  ASSERT_FALSE(file.AppendDataPacket({nullptr, 1}));

  ASSERT_TRUE(file.Clear());

  EXPECT_EQ(FileCalls::Count(Call::kRename), 0u) << "it is not too long for that";
}

TEST_F(CacheFileSizeTest, LargePacketsAreCarriedOverWhole) {
  ReliableReportCacheFile file;
  ASSERT_TRUE(OpenFile(file, path_));
  std::string large;
  for (int i = 0; i < 200000; ++i) large += static_cast<char>(i * 7919 >> 5);
  ASSERT_TRUE(SaveUnasked(file, {"a", large, "b", std::string(3000000, 'y')}));
  ASSERT_TRUE(SaveUnasked(file, {"b", large, "c"}));

  ASSERT_TRUE(file.Clear());  // Written anew.

  EXPECT_LT(SizeOf(path_), 300000u);
  EXPECT_EQ(AfterKill(), (Packets{"b", large, "c"}));
}

TEST_F(CacheFileSizeTest, ALongFileThatWasKilledBecomesShortAtTheNextSave) {
  {
    ReliableReportCacheFile file;
    ASSERT_TRUE(OpenFile(file, path_));
    ASSERT_TRUE(SaveUnasked(file, {std::string(500000, 'x')}));
  }
  ReliableReportCacheFile file;
  ASSERT_TRUE(OpenFile(file, path_));
  ASSERT_TRUE(SaveUnasked(file, {"a"}));

  ASSERT_TRUE(SaveUnasked(file, {"a", "b"}));

  EXPECT_LT(SizeOf(path_), 1000u);
}

}  // namespace
}  // namespace quenor::test
