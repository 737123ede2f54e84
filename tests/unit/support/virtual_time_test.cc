// The virtual clock keeps the promises that every other test relies on.
#include "tests/support/fakes/virtual_time.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "quenor_base/platform/base/thread_create_flag.h"

namespace quenor::test {
namespace {

using base::TimeDelta;

const base::Location kHere = base::Location::CreateFromHere("virtual_time_test", 1);

class VirtualTimeTest : public ::testing::Test {
 protected:
  std::shared_ptr<DispatchQueue> NewQueue(const std::string& name = "queue") {
    return core::ThreadManager::CreateNewDispatchQueue(core::BusinessID::kReliableReport, name,
                                                       base::Thread::Options());
  }
  base::OnceClosure Note(int what) {
    return [this, what] { order_.push_back(what); };
  }

  std::vector<int> order_;  // Outlives the tasks that write it.
  VirtualTime time_;
};

TEST_F(VirtualTimeTest, RunsNothingUntilTold) {
  const auto queue = NewQueue();

  queue->PostTask(kHere, Note(1));

  EXPECT_TRUE(order_.empty());
  EXPECT_EQ(time_.DueTasks(), 1u);
}

TEST_F(VirtualTimeTest, RunsPostedTasksInOrderAcrossQueues) {
  const auto first = NewQueue();
  const auto second = NewQueue();
  first->PostTask(kHere, Note(1));
  second->PostTask(kHere, Note(2));
  first->PostTask(kHere, Note(3));

  EXPECT_EQ(time_.RunUntilIdle(), 3u);

  EXPECT_EQ(order_, (std::vector<int>{1, 2, 3}));
}

TEST_F(VirtualTimeTest, ClockStandsAtTheDueTimeWhileATaskRuns) {
  const auto queue = NewQueue();
  int64_t seen_us = -1;
  queue->PostDelayedTask(
      kHere, [&] { seen_us = time_.NowUs(); }, TimeDelta::FromMilliseconds(7));

  time_.AdvanceBy(TimeDelta::FromMilliseconds(50));

  EXPECT_EQ(seen_us, 7000);
  EXPECT_EQ(time_.NowUs(), 50000);
}

TEST_F(VirtualTimeTest, ClockHasJumpedBeforeTasksOfALateWakeUpRun) {
  const auto queue = NewQueue();
  int64_t seen_us = -1;
  queue->PostDelayedTask(
      kHere, [&] { seen_us = time_.NowUs(); }, TimeDelta::FromMilliseconds(7));

  time_.WakeLateBy(TimeDelta::FromMilliseconds(50));

  EXPECT_EQ(seen_us, 50000);
}

TEST_F(VirtualTimeTest, NetworkTaskRunsOnNoQueue) {
  bool flag = true;
  bool on_queue = true;
  time_.PostToNetwork([&] {
    flag = base::ThreadCreateFlag::IsThreadCreateByQuenor();
    on_queue = DispatchQueue::Current() != nullptr;
  });

  time_.RunUntilIdle();

  EXPECT_FALSE(flag);
  EXPECT_FALSE(on_queue);
}

TEST_F(VirtualTimeTest, DroppedQueueRunsWhatIsPostedAndDestroysDelayedTasksLater) {
  auto queue = NewQueue();
  auto bound = std::make_shared<int>(0);
  queue->PostDelayedTask(
      kHere, [bound] { FAIL() << "ran after its queue had gone"; }, TimeDelta::FromSeconds(1));
  queue->PostTask(kHere, Note(1));

  queue.reset();

  EXPECT_EQ(bound.use_count(), 2);
  EXPECT_EQ(time_.DrainingQueues(), 1u);
  time_.RunUntilIdle();
  EXPECT_EQ(bound.use_count(), 1);
  EXPECT_EQ(order_, std::vector<int>{1});
  EXPECT_EQ(time_.DrainingQueues(), 0u);
  EXPECT_EQ(time_.AdvanceBy(TimeDelta::FromSeconds(2)), 0u);
}

TEST_F(VirtualTimeTest, CancelTakesTheDeadlineBack) {
  const auto queue = NewQueue();
  const uint64_t id = queue->PostCancelableDelayedTask(kHere, Note(1), TimeDelta::FromSeconds(1));
  EXPECT_EQ(time_.PendingDeadlines(), 1u);

  EXPECT_TRUE(queue->CancelDelayedTask(id));

  EXPECT_FALSE(queue->CancelDelayedTask(id));
  EXPECT_EQ(time_.PendingDeadlines(), 0u);
  time_.AdvanceBy(TimeDelta::FromSeconds(2));
  EXPECT_TRUE(order_.empty());
}

TEST_F(VirtualTimeTest, DeadlineBeyondTheClockIsNeverReached) {
  const auto queue = NewQueue();
  time_.AdvanceBy(TimeDelta::FromSeconds(1));
  queue->PostDelayedTask(kHere, Note(1), TimeDelta::FromMicroseconds(INT64_MAX));

  time_.AdvanceBy(TimeDelta::FromSeconds(int64_t{100} * 365 * 24 * 3600));

  EXPECT_TRUE(order_.empty());
}

TEST_F(VirtualTimeTest, CreationIsRecordedAndFailsWhenTold) {
  time_.FailNextCreations(1);

  EXPECT_EQ(NewQueue("a"), nullptr);
  EXPECT_NE(NewQueue("b"), nullptr);

  const auto creations = time_.Creations();
  ASSERT_EQ(creations.size(), 2u);
  EXPECT_EQ(creations[0].name, "a");
  EXPECT_FALSE(creations[0].succeeded);
  EXPECT_EQ(creations[1].business_id, 709);
  EXPECT_TRUE(creations[1].has_options);
  EXPECT_TRUE(creations[1].succeeded);
}

}  // namespace
}  // namespace quenor::test
