// Several processes with one cache file: each sends messages of its own and whatever dead ones
// left, and any of them is killed at any time. Every message whose save was complete arrives. One
// arrives twice only when it had to: a process that had it was killed before a save without it was
// complete.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <string>

#include "tests/crash/support/crowd.h"
#include "tests/crash/support/promises.h"

namespace quenor::test {
namespace {

// Starts workers of this kind on the cache file, which log what they deliver.
auto StartOf(const std::string& kind, const std::string& path, const std::string& delivered) {
  return [=](const Crowd::Task& task) {
    return std::make_unique<Job>(
        std::vector<std::string>{QUENOR_CRASH_PROGRAM, kind, path, delivered, task.incarnation,
                                 std::to_string(task.first), std::to_string(task.count)});
  };
}

// How often each message stands in the log.
std::map<uint64_t, int> ArrivalsIn(const std::string& delivered) {
  std::map<uint64_t, int> arrivals;
  std::ifstream lines(delivered);
  uint64_t number;
  for (std::string incarnation; lines >> number >> incarnation;) ++arrivals[number];
  return arrivals;
}

class Processes : public ::testing::TestWithParam<int> {};

TEST_P(Processes, DeliverEveryMessageThatWasSaved) {
  TempFolder folder;
  TempFolder deliveries;
  const std::string path = Successor::PathIn(folder.path(), FileKind::kMapped);
  const std::string delivered = deliveries.File("delivered");
  ASSERT_TRUE(WriteWholeFile(delivered, ""));
  Crowd::Plan plan;
  plan.processes = GetParam();
  plan.messages = IsFullRun() ? 2000 : 150;
  plan.kills = IsFullRun() ? 100 : 12;
  plan.events_per_message = 3;
  plan.start = StartOf("worker", path, delivered);
  Crowd crowd(plan, Seed());

  crowd.Run();

  crowd.Count(ArrivalsIn(delivered));
  crowd.Print("the file alone");
  crowd.ExpectNothingLost();
  EXPECT_FALSE(HasSetAside(folder.path()));
}

// Stopped and killed wherever they are, also with the table's lock, so that saves of the others are
// refused for a while. Afterwards nothing of the dead takes room.
TEST(ManyProcesses, KilledAndStoppedAtAnyTimeLoseNothingAndBringNothingBack) {
  // Twenty-four owners and as many dead ones, each with what a process has at most.
  constexpr uint64_t kMostBytes = 48 * ((48 << 10) + 5 * 40 * 800 / 2);
  TempFolder folder;
  TempFolder deliveries;
  const std::string path = Successor::PathIn(folder.path(), FileKind::kMapped);
  const std::string delivered = deliveries.File("delivered");
  ASSERT_TRUE(WriteWholeFile(delivered, ""));
  uint64_t longest = 0;
  Crowd::Plan plan;
  plan.processes = 24;
  plan.seconds = IsFullRun() ? 600 : 5;
  plan.look = [&] {
    struct stat info;
    if (stat(path.c_str(), &info) == 0) {
      longest = std::max(longest, static_cast<uint64_t>(info.st_size));
    }
  };
  plan.start = StartOf("patient-worker", path, delivered);
  Crowd crowd(plan, Seed());

  crowd.Run();

  crowd.Count(ArrivalsIn(delivered));
  crowd.Print("stopped and killed");
  plan.look();
  struct stat left;
  ASSERT_EQ(0, stat(path.c_str(), &left));
  std::printf("processes: the file had at most %llu bytes, and %lld when all was delivered\n",
              static_cast<unsigned long long>(longest), static_cast<long long>(left.st_size));
  crowd.ExpectNothingLost();
  EXPECT_FALSE(HasSetAside(folder.path()));
  EXPECT_LE(longest, kMostBytes);
  EXPECT_LE(left.st_size, 65536);
}

INSTANTIATE_TEST_SUITE_P(Of, Processes, ::testing::Values(2, 4, 8),
                         ::testing::PrintToStringParamName());

}  // namespace
}  // namespace quenor::test
