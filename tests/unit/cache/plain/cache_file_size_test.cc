// How long the file gets, and that it becomes short again.
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <random>

#include "quenor_base/platform/reliable_report_cache_file.h"
#include "tests/unit/cache/plain/cache_file_test_support.h"

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
  const uint64_t seed =
      NumberOr("QUENOR_TEST_SEED",
               static_cast<uint64_t>(std::chrono::system_clock::now().time_since_epoch().count()));
  std::printf("QUENOR_TEST_SEED=%llu\n", static_cast<unsigned long long>(seed));
  std::mt19937_64 random(seed);
  const auto below = [&](size_t end) {
    return std::uniform_int_distribution<size_t>(0, end - 1)(random);
  };
  ReliableReportCacheFile file;
  ASSERT_TRUE(file.Open(file_path()));
  Packets before;
  Packets packets;
  uint64_t longest = 0;

  for (uint64_t i = 0; i < 10000; ++i) {
    before = packets;
    if (!packets.empty() && below(2) == 0)
      packets.erase(packets.begin(), packets.begin() + below(packets.size()));
    if (below(50) == 0 && packets.size() > 1) std::swap(packets.front(), packets.back());
    for (size_t n = below(4); n > 0; --n) {
      packets.push_back(std::to_string(i) + std::string(below(3000), 'x'));
    }
    ASSERT_TRUE(Save(&file, packets));
    const uint64_t size = FileBytes(path());
    longest = std::max(longest, size);
    ASSERT_LE(size, Bound(before, packets)) << "save " << i;
  }
  file.Close();

  std::printf("at most %llu bytes\n", static_cast<unsigned long long>(longest));
  EXPECT_EQ(Reopened(), packets);
  EXPECT_TRUE(Complaints().empty());
}

TEST_F(CacheFileSizeTest, AnEmptiedFileIsShortAgain) {
  for (const bool is_asked : {false, true}) {
    ReliableReportCacheFile file;
    ASSERT_TRUE(file.Open(file_path()));
    Packets packets;
    for (int i = 0; i < 100; ++i) packets.push_back(std::to_string(i) + std::string(10000, 'x'));
    ASSERT_TRUE(Save(&file, packets));
    ASSERT_GT(FileBytes(path()), 1000000u);

    ASSERT_TRUE(Save(&file, {}));
    ASSERT_TRUE(!is_asked || file.IsSaveComplete());
    file.Close();

    EXPECT_LT(FileBytes(path()), 1000u);
    EXPECT_TRUE(Reopened().empty());
  }
}

TEST_F(CacheFileSizeTest, ARewriteThatFailedIsTriedAgainWhenTheFileHasGrown) {
  ReliableReportCacheFile file;
  ASSERT_TRUE(file.Open(file_path()));
  ASSERT_TRUE(Save(&file, {std::string(500000, 'x')}));
  DiskCalls::FailAll("rename", ENOSPC);
  for (int i = 0; i < 10; ++i) ASSERT_TRUE(Save(&file, {"a"}));
  EXPECT_EQ(DiskCalls::CountOf("rename"), 1u);
  ASSERT_TRUE(Save(&file, {"a", std::string(200000, 'y')}));
  DiskCalls::Reset();

  ASSERT_TRUE(Save(&file, {"a"}) && Save(&file, {"a"}));
  EXPECT_LT(FileBytes(path()), 1000u);

  // And once it worked, a file is too long as soon as it was before.
  ASSERT_TRUE(Save(&file, {std::string(100000, 'z')}) && Save(&file, {"a"}) && Save(&file, {"a"}));
  EXPECT_LT(FileBytes(path()), 1000u);
}

TEST_F(CacheFileSizeTest, LargePacketsAreCarriedOverWhole) {
  ReliableReportCacheFile file;
  ASSERT_TRUE(file.Open(file_path()));
  std::string large;
  for (int i = 0; i < 200000; ++i) large += static_cast<char>(i * 7919 >> 5);
  ASSERT_TRUE(Save(&file, {"a", large, "b", std::string(3000000, 'y')}));
  ASSERT_TRUE(Save(&file, {"b", large, "c"}));

  ASSERT_TRUE(file.Clear());  // Written anew.

  EXPECT_LT(FileBytes(path()), 300000u);
  EXPECT_EQ(AfterKill(), (Packets{"b", large, "c"}));
}

TEST_F(CacheFileSizeTest, ALongFileThatWasKilledBecomesShortAtTheNextSave) {
  {
    ReliableReportCacheFile file;
    ASSERT_TRUE(file.Open(file_path()));
    ASSERT_TRUE(Save(&file, {std::string(500000, 'x')}));
  }
  ReliableReportCacheFile file;
  ASSERT_TRUE(file.Open(file_path()));
  ASSERT_TRUE(Save(&file, {"a"}));

  ASSERT_TRUE(Save(&file, {"a", "b"}));

  EXPECT_LT(FileBytes(path()), 1000u);
}

}  // namespace
}  // namespace quenor::test
