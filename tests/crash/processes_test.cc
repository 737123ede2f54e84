// Several processes with one cache file: each sends messages of its own and whatever dead ones
// left, and any of them is killed at any time. Every message whose save was complete arrives. One
// arrives twice only when it had to: a process that had it was killed before a save without it was
// complete.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <memory>
#include <string>

#include "tests/crash/crowd.h"
#include "tests/crash/promises.h"

namespace quenor::test {
namespace {

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
  plan.start = [&](const Crowd::Task& task) {
    return std::make_unique<Job>(
        std::vector<std::string>{QUENOR_CRASH_PROGRAM, "worker", path, delivered, task.incarnation,
                                 std::to_string(task.first), std::to_string(task.count)});
  };
  Crowd crowd(plan, Seed());

  crowd.Run();

  std::map<uint64_t, int> arrivals;
  std::ifstream lines(delivered);
  uint64_t number;
  for (std::string incarnation; lines >> number >> incarnation;) ++arrivals[number];
  crowd.Count(arrivals);
  crowd.Print("the file alone");
  crowd.ExpectNothingLost();
  EXPECT_FALSE(HasSetAside(folder.path()));
}

INSTANTIATE_TEST_SUITE_P(Of, Processes, ::testing::Values(2, 4, 8),
                         ::testing::PrintToStringParamName());

}  // namespace
}  // namespace quenor::test
