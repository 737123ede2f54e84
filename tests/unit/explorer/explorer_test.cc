// Many random lives of a channel, each compared with a model after every task.
// QUENOR_TEST_STEPS sets how many steps they have together, QUENOR_TEST_SEED the first life; each
// further life has the next seed, so that a failure's seed begins with the life that failed.
// Linked twice: for channels without a cache, and for channels with the mapped file.
#include "tests/unit/explorer/explorer.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>
#include <random>
#include <string>
#include <vector>

namespace quenor::test {
namespace {

constexpr uint64_t kLongestLife = 5000;
// From this many steps on every life together has met everything.
constexpr uint64_t kStepsToSeeAll = 100000;

uint64_t FromEnvironment(const char* name, uint64_t otherwise) {
  const char* const text = std::getenv(name);
  return text == nullptr ? otherwise : std::strtoull(text, nullptr, 10);
}

// Lives of all lengths, whatever the first seed is.
uint64_t LengthOfLife(uint64_t seed) {
  return 1 + (seed * 0x9E3779B97F4A7C15u >> 40) % kLongestLife;
}

std::vector<std::string> Everything() {
  std::vector<std::string> everything = {"200 pending",
                                         "a fifth failure in a row",
                                         "acknowledged",
                                         "client cleaned up",
                                         "dropped: never run",
                                         "dropped: not compressed",
                                         "dropped: replaced",
                                         "dropped: resend limit",
                                         "dropped: terminated",
                                         "dropped: trimmed",
                                         "failed",
                                         "refused: no server",
                                         "refused: not initialized",
                                         "refused: not running",
                                         "request refused",
                                         "retuned",
                                         "sent",
                                         "statistics line"};
  if (Explorer::HasCache()) {
    everything.insert(everything.end(),
                      {"cache not opened", "kept", "loaded", "not saved", "packet unreadable",
                       "save failed", "save refused", "saved"});
  }
  return everything;
}

TEST(ChannelExplorerTest, EveryRandomLifeGoesAsTheModelSays) {
  const uint64_t steps = FromEnvironment("QUENOR_TEST_STEPS", 100000);
  const uint64_t first_seed = FromEnvironment("QUENOR_TEST_SEED", std::random_device()());
  std::cout << "QUENOR_TEST_SEED=" << first_seed << " QUENOR_TEST_STEPS=" << steps << std::endl;
  Sightings sightings;
  uint64_t done = 0, tasks = 0, seed = first_seed;

  for (; done < steps; ++seed) {
    Explorer explorer(seed, &sightings);
    const std::string error = explorer.Run(std::min(steps - done, LengthOfLife(seed)));
    done += explorer.steps();
    tasks += explorer.tasks();
    ASSERT_EQ(error, "") << "after " << done << " steps; repeat it with QUENOR_TEST_SEED=" << seed;
  }

  std::cout << done << " steps, " << tasks << " tasks, " << seed - first_seed << " lives\n";
  for (const auto& [what, count] : sightings) std::cout << "  " << what << ": " << count << "\n";
  EXPECT_EQ(done, steps);
  for (const std::string& what : Everything()) {
    EXPECT_TRUE(steps < kStepsToSeeAll || sightings[what] > 0) << what << " never happened";
  }
}

}  // namespace
}  // namespace quenor::test
