#include "tests/conformance/dispatch_queue_conformance.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <limits>
#include <set>
#include <thread>

#include "quenor_base/platform/base/thread_create_flag.h"

namespace quenor::conformance {

using base::TimeDelta;

namespace {

const base::Location kHere = base::Location::CreateFromHere("dispatch_queue_conformance", 1);

}  // namespace

void Gate::Open() {
  // Notified under the lock: the waiter may destroy the gate as soon as it is released.
  std::lock_guard<std::mutex> hold(mutex_);
  open_ = true;
  opened_.notify_all();
}

bool Gate::IsOpen() const {
  std::lock_guard<std::mutex> hold(mutex_);
  return open_;
}

bool Gate::Wait() {
  std::unique_lock<std::mutex> hold(mutex_);
  return opened_.wait_for(hold, std::chrono::minutes(1), [this] { return open_; });
}

void Notes::Add(int what) {
  std::lock_guard<std::mutex> hold(mutex_);
  notes_.push_back(what);
}

std::vector<int> Notes::All() const {
  std::lock_guard<std::mutex> hold(mutex_);
  return notes_;
}

base::OnceClosure Notes::Note(int what, std::function<void()> then) {
  return [this, what, then = std::move(then)] {
    Add(what);
    if (then) then();
  };
}

bool QueueHost::Drain() { return core::ThreadManager::WaitForDrain(TimeDelta::FromSeconds(60)); }

std::unique_ptr<QueueHost> MakeThreadedHost() { return std::make_unique<QueueHost>(); }

std::shared_ptr<DispatchQueue> NewQueue(const std::string& name) {
  return core::ThreadManager::CreateNewDispatchQueue(core::BusinessID::kReliableReport, name,
                                                     base::Thread::Options());
}

DispatchQueueConformance::~DispatchQueueConformance() {
  EXPECT_TRUE(host_->Drain()) << "a dropped queue has not ended";
}

bool DispatchQueueConformance::Settle(const std::shared_ptr<DispatchQueue>& queue) {
  Gate settled;
  queue->PostTask(kHere, [&settled] { settled.Open(); });
  return host_->WaitFor(settled);
}

// --- Posting ---

TEST_P(DispatchQueueConformance, PostedTasksRunInTheOrderPosted) {
  const auto queue = NewQueue();
  std::vector<int> expected;
  for (int i = 0; i < 1000; ++i) {
    queue->PostTask(kHere, notes_.Note(i));
    expected.push_back(i);
  }

  ASSERT_TRUE(Settle(queue));

  EXPECT_EQ(notes_.All(), expected);
}

TEST_P(DispatchQueueConformance, TaskPostedAfterAnothersPostReturnedRunsAfterItOnAllThreads) {
  constexpr int kThreads = 4;
  constexpr int kEach = 2000;
  struct Post {
    int before;
    int after;
  };
  std::vector<Post> posts(kThreads * kEach);
  std::atomic<int> ticket{0};
  const auto queue = NewQueue();
  std::vector<std::thread> producers;
  for (int t = 0; t < kThreads; ++t) {
    producers.emplace_back([&, t] {
      for (int i = 0; i < kEach; ++i) {
        const int index = t * kEach + i;
        posts[static_cast<size_t>(index)].before = ticket.fetch_add(1);
        queue->PostTask(kHere, [this, index] { notes_.Add(index); });
        posts[static_cast<size_t>(index)].after = ticket.fetch_add(1);
      }
    });
  }
  for (std::thread& producer : producers) producer.join();
  ASSERT_TRUE(Settle(queue));

  const std::vector<int> order = notes_.All();
  ASSERT_EQ(order.size(), posts.size());
  // Nothing that ran later may have been posted, wholly, before.
  int earliest_return_of_later = std::numeric_limits<int>::max();
  for (auto it = order.rbegin(); it != order.rend(); ++it) {
    const Post& post = posts[static_cast<size_t>(*it)];
    ASSERT_GT(earliest_return_of_later, post.before);
    earliest_return_of_later = std::min(earliest_return_of_later, post.after);
  }
}

TEST_P(DispatchQueueConformance, TaskMayPostToItsOwnQueue) {
  const auto queue = NewQueue();
  queue->PostTask(kHere, [&] {
    queue->PostTask(kHere, notes_.Note(2, [&] {
      queue->PostTask(kHere, notes_.Note(4, [this] { done_.Open(); }));
    }));
    queue->PostTask(kHere, notes_.Note(3));
    notes_.Add(1);
  });

  ASSERT_TRUE(host_->WaitFor(done_));

  EXPECT_EQ(notes_.All(), (std::vector<int>{1, 2, 3, 4}));
}

TEST_P(DispatchQueueConformance, BoundValuesGoRightAfterTheirTaskRan) {
  const auto queue = NewQueue();
  queue->PostTask(kHere, [this, bound = Bound([this] { notes_.Add(2); })] { notes_.Add(1); });
  queue->PostTask(kHere, notes_.Note(3));

  ASSERT_TRUE(Settle(queue));

  EXPECT_EQ(notes_.All(), (std::vector<int>{1, 2, 3}));
}

TEST_P(DispatchQueueConformance, TaskSeesItsQueueAsTheCurrentOne) {
  const auto queue = NewQueue();
  const auto other = NewQueue();
  std::shared_ptr<DispatchQueue> seen;
  std::shared_ptr<DispatchQueue> seen_by_other;
  queue->PostTask(kHere, [&] { seen = DispatchQueue::Current(); });
  other->PostTask(kHere, [&] { seen_by_other = DispatchQueue::Current(); });

  ASSERT_TRUE(Settle(queue));
  ASSERT_TRUE(Settle(other));

  EXPECT_EQ(seen, queue);
  EXPECT_EQ(seen_by_other, other);
  EXPECT_EQ(DispatchQueue::Current(), nullptr);
}

TEST_P(DispatchQueueConformance, TaskRunsOnAThreadThatTheSdkCreated) {
  const auto queue = NewQueue();
  bool flag = false;
  queue->PostTask(kHere, [&] { flag = base::ThreadCreateFlag::IsThreadCreateByQuenor(); });

  ASSERT_TRUE(Settle(queue));

  EXPECT_TRUE(flag);
  EXPECT_FALSE(base::ThreadCreateFlag::IsThreadCreateByQuenor());
}

TEST_P(DispatchQueueConformance, QueueIsMadeWithoutOptionsToo) {
  const auto queue = core::ThreadManager::CreateNewDispatchQueue(core::BusinessID::kReliableReport,
                                                                 "", base::nullopt);
  ASSERT_NE(queue, nullptr);

  EXPECT_TRUE(Settle(queue));
}

// --- Delays ---

TEST_P(DispatchQueueConformance, DelayedTasksRunByTheirDeadlines) {
  const auto queue = NewQueue();
  queue->PostTask(kHere, notes_.Note(1));
  queue->PostDelayedTask(kHere, notes_.Note(2), TimeDelta::FromMilliseconds(2));
  queue->PostDelayedTask(kHere, notes_.Note(3, [this] { done_.Open(); }),
                         TimeDelta::FromMilliseconds(4));

  ASSERT_TRUE(host_->WaitFor(done_));

  EXPECT_EQ(notes_.All(), (std::vector<int>{1, 2, 3}));
}

TEST_P(DispatchQueueConformance, EqualDelaysRunFirstInFirstOut) {
  const auto queue = NewQueue();
  std::vector<int> expected;
  for (int i = 0; i < 100; ++i) {
    queue->PostDelayedTask(kHere, notes_.Note(i), TimeDelta::FromMilliseconds(5));
    expected.push_back(i);
  }
  queue->PostDelayedTask(
      kHere, [this] { done_.Open(); }, TimeDelta::FromMilliseconds(5));

  ASSERT_TRUE(host_->WaitFor(done_));

  EXPECT_EQ(notes_.All(), expected);
}

TEST_P(DispatchQueueConformance, DelayOfZeroOrLessRunsInTurn) {
  const auto queue = NewQueue();
  queue->PostTask(kHere, notes_.Note(1));
  queue->PostDelayedTask(kHere, notes_.Note(2), TimeDelta());
  queue->PostDelayedTask(kHere, notes_.Note(3), TimeDelta::FromSeconds(-10));
  queue->PostDelayedTask(kHere, notes_.Note(4),
                         TimeDelta::FromMicroseconds(std::numeric_limits<int64_t>::min()));
  queue->PostTask(kHere, notes_.Note(5));

  ASSERT_TRUE(Settle(queue));

  EXPECT_EQ(notes_.All(), (std::vector<int>{1, 2, 3, 4, 5}));
}

TEST_P(DispatchQueueConformance, DelayThatCannotBeRepresentedIsNeverReached) {
  auto queue = NewQueue();
  queue->PostDelayedTask(kHere, notes_.Note(1),
                         TimeDelta::FromMicroseconds(std::numeric_limits<int64_t>::max()));
  queue->PostDelayedTask(
      kHere, [this] { done_.Open(); }, TimeDelta::FromMilliseconds(5));

  ASSERT_TRUE(host_->WaitFor(done_));
  queue.reset();
  ASSERT_TRUE(host_->Drain());

  EXPECT_TRUE(notes_.All().empty());
}

TEST_P(DispatchQueueConformance, EarlierDeadlinePostedLaterRunsFirst) {
  const auto queue = NewQueue();
  queue->PostDelayedTask(kHere, notes_.Note(1), TimeDelta::FromSeconds(3600));
  ASSERT_TRUE(Settle(queue));  // The thread waits for the far deadline.

  queue->PostDelayedTask(kHere, notes_.Note(2, [this] { done_.Open(); }),
                         TimeDelta::FromMilliseconds(5));

  ASSERT_TRUE(host_->WaitFor(done_));
  EXPECT_EQ(notes_.All(), std::vector<int>{2});
}

// --- Taking a delayed task back ---

TEST_P(DispatchQueueConformance, CancelledTaskNeverRunsAndGoesOnTheCallersThread) {
  const auto queue = NewQueue();
  const std::thread::id here = std::this_thread::get_id();
  std::thread::id gone_on;
  bool flag = true;
  const uint64_t id = queue->PostCancelableDelayedTask(
      kHere, [this, bound = Bound([&] {
                      gone_on = std::this_thread::get_id();
                      flag = base::ThreadCreateFlag::IsThreadCreateByQuenor();
                    })] { notes_.Add(1); },
      TimeDelta::FromSeconds(3600));
  EXPECT_GT(id, 0u);

  EXPECT_TRUE(queue->CancelDelayedTask(id));

  EXPECT_EQ(gone_on, here);
  EXPECT_FALSE(flag);
  EXPECT_FALSE(queue->CancelDelayedTask(id));
  EXPECT_TRUE(notes_.All().empty());
}

TEST_P(DispatchQueueConformance, CancelOfAnUnknownIdIsFalse) {
  const auto queue = NewQueue();
  const auto other = NewQueue();
  const uint64_t id =
      queue->PostCancelableDelayedTask(kHere, notes_.Note(1), TimeDelta::FromSeconds(3600));

  EXPECT_FALSE(queue->CancelDelayedTask(0));
  EXPECT_FALSE(queue->CancelDelayedTask(id + 1000000));
  EXPECT_FALSE(other->CancelDelayedTask(id + 1000000));
  EXPECT_TRUE(queue->CancelDelayedTask(id));
}

TEST_P(DispatchQueueConformance, CancelOfATaskThatHasRunIsFalse) {
  const auto queue = NewQueue();
  const uint64_t id = queue->PostCancelableDelayedTask(
      kHere, [this] { done_.Open(); }, TimeDelta::FromMilliseconds(1));
  ASSERT_TRUE(host_->WaitFor(done_));

  EXPECT_FALSE(queue->CancelDelayedTask(id));
}

TEST_P(DispatchQueueConformance, IdsAreNeverUsedTwice) {
  const auto queue = NewQueue();
  std::set<uint64_t> ids;

  for (int i = 0; i < 1000; ++i) {
    const uint64_t id =
        queue->PostCancelableDelayedTask(kHere, notes_.Note(i), TimeDelta::FromSeconds(3600));
    EXPECT_TRUE(ids.insert(id).second);
    EXPECT_TRUE(queue->CancelDelayedTask(id));
  }
}

TEST_P(DispatchQueueConformance, CancelOfTheEarliestDeadlineLetsTheNextOneCome) {
  const auto queue = NewQueue();
  const uint64_t id =
      queue->PostCancelableDelayedTask(kHere, notes_.Note(1), TimeDelta::FromMilliseconds(20));
  queue->PostDelayedTask(kHere, notes_.Note(2, [this] { done_.Open(); }),
                         TimeDelta::FromMilliseconds(40));

  const bool cancelled = queue->CancelDelayedTask(id);

  ASSERT_TRUE(host_->WaitFor(done_));
  EXPECT_EQ(notes_.All(), cancelled ? std::vector<int>{2} : (std::vector<int>{1, 2}));
}

TEST_P(DispatchQueueConformance, ValueOfACancelledTaskMayUseTheQueue) {
  const auto queue = NewQueue();
  const uint64_t id = queue->PostCancelableDelayedTask(
      kHere, [bound = Bound([&] { queue->PostTask(kHere, notes_.Note(1)); })] {},
      TimeDelta::FromSeconds(3600));

  EXPECT_TRUE(queue->CancelDelayedTask(id));

  ASSERT_TRUE(Settle(queue));
  EXPECT_EQ(notes_.All(), std::vector<int>{1});
}

// --- The last reference ---

TEST_P(DispatchQueueConformance, PostedTasksStillRunInOrderAfterTheLastReferenceWent) {
  auto queue = NewQueue();
  std::vector<int> expected;
  for (int i = 0; i < 100; ++i) {
    queue->PostTask(kHere, notes_.Note(i));
    expected.push_back(i);
  }

  queue.reset();

  ASSERT_TRUE(host_->Drain());
  EXPECT_EQ(notes_.All(), expected);
}

TEST_P(DispatchQueueConformance, DelayedTasksAreDestroyedUnrunOnTheQueuesThread) {
  auto queue = NewQueue();
  bool flag = false;
  queue->PostDelayedTask(
      kHere, [this, bound = Bound([&] {
                      flag = base::ThreadCreateFlag::IsThreadCreateByQuenor();
                      notes_.Add(1);
                    })] { notes_.Add(2); },
      TimeDelta::FromSeconds(3600));

  queue.reset();

  ASSERT_TRUE(host_->Drain());
  EXPECT_EQ(notes_.All(), std::vector<int>{1});
  EXPECT_TRUE(flag);
}

TEST_P(DispatchQueueConformance, DelayedTasksAreDestroyedAfterThePostedOnesRan) {
  auto queue = NewQueue();
  queue->PostDelayedTask(
      kHere, [bound = Bound([this] { notes_.Add(2); })] {}, TimeDelta::FromSeconds(3600));
  queue->PostTask(kHere, notes_.Note(1));

  queue.reset();

  ASSERT_TRUE(host_->Drain());
  EXPECT_EQ(notes_.All(), (std::vector<int>{1, 2}));
}

TEST_P(DispatchQueueConformance, ValueOfADelayedTaskMayUseAnotherQueueAsItIsDestroyed) {
  auto queue = NewQueue();
  const auto other = NewQueue();
  queue->PostDelayedTask(
      kHere,
      // Holds a reference: whoever posts to a queue must, until the call has returned.
      [bound = Bound(
           [this, other] { other->PostTask(kHere, notes_.Note(1, [this] { done_.Open(); })); })] {},
      TimeDelta::FromSeconds(3600));

  queue.reset();

  ASSERT_TRUE(host_->WaitFor(done_));
  EXPECT_EQ(notes_.All(), std::vector<int>{1});
}

TEST_P(DispatchQueueConformance, DelayedTaskMayHoldTheLastReferenceToAnotherQueue) {
  auto queue = NewQueue();
  auto other = NewQueue();
  other->PostTask(kHere, notes_.Note(1));
  queue->PostDelayedTask(
      kHere, [held = std::move(other)] {}, TimeDelta::FromSeconds(3600));

  queue.reset();

  ASSERT_TRUE(host_->Drain());
  ASSERT_TRUE(host_->Drain());  // The other's end began on the first one's thread.
  EXPECT_EQ(notes_.All(), std::vector<int>{1});
}

TEST_P(DispatchQueueConformance, LastReferenceMayGoOnTheQueuesOwnThread) {
  auto queue = NewQueue();
  Gate dropped_here;
  queue->PostTask(kHere, [this, &dropped_here, held = queue]() mutable {
    dropped_here.Wait();
    notes_.Add(1);
    held.reset();
    notes_.Add(2);
    EXPECT_EQ(DispatchQueue::Current(), nullptr);
    done_.Open();
  });

  queue.reset();
  dropped_here.Open();

  ASSERT_TRUE(host_->WaitFor(done_));
  ASSERT_TRUE(host_->Drain());
  EXPECT_EQ(notes_.All(), (std::vector<int>{1, 2}));
}

TEST_P(DispatchQueueConformance, LastReferenceMayGoUnderALockThatItsTasksTake) {
  auto queue = NewQueue();
  std::mutex mutex;
  for (int i = 0; i < 100; ++i) {
    queue->PostTask(kHere, [this, &mutex, i] {
      std::lock_guard<std::mutex> hold(mutex);
      notes_.Add(i);
    });
  }
  queue->PostDelayedTask(
      kHere, [bound = Bound([this, &mutex] {
                std::lock_guard<std::mutex> hold(mutex);
                notes_.Add(100);
              })] {},
      TimeDelta::FromSeconds(3600));

  {
    std::lock_guard<std::mutex> hold(mutex);
    queue.reset();
  }

  ASSERT_TRUE(host_->Drain());
  EXPECT_EQ(notes_.All().size(), 101u);
}

// --- Draining ---

TEST_P(DispatchQueueConformance, DrainWithNothingDroppedIsTrueAtOnce) {
  const auto held = NewQueue();

  EXPECT_TRUE(core::ThreadManager::WaitForDrain(TimeDelta()));
}

TEST_P(DispatchQueueConformance, DrainOnAQueuesThreadIsFalseAtOnce) {
  const auto queue = NewQueue();
  bool drained = true;
  queue->PostTask(kHere,
                  [&] { drained = core::ThreadManager::WaitForDrain(TimeDelta::FromSeconds(60)); });

  ASSERT_TRUE(Settle(queue));

  EXPECT_FALSE(drained);
}

TEST_P(DispatchQueueConformance, DrainWaitsForWhatEveryDroppedQueueHasLeft) {
  for (int i = 0; i < 20; ++i) {
    auto queue = NewQueue();
    for (int n = 0; n < 20; ++n) queue->PostTask(kHere, notes_.Note(n));
  }

  ASSERT_TRUE(host_->Drain());

  EXPECT_EQ(notes_.All().size(), 400u);
}

TEST_P(DispatchQueueConformance, DrainWaitsForARetiredQueueThatSomebodyStillHolds) {
  auto queue = NewQueue();
  queue->Retire();
  queue->Retire();  // Counts once.

  EXPECT_FALSE(core::ThreadManager::WaitForDrain(TimeDelta()));

  queue->PostTask(kHere, notes_.Note(1));
  queue.reset();
  ASSERT_TRUE(host_->Drain());
  EXPECT_EQ(notes_.All(), std::vector<int>{1});
}

TEST_P(DispatchQueueConformance, RetiredQueueWorksAsBefore) {
  const auto queue = NewQueue();
  queue->Retire();
  queue->PostTask(kHere, notes_.Note(1));
  queue->PostDelayedTask(kHere, notes_.Note(2, [this] { done_.Open(); }),
                         TimeDelta::FromMilliseconds(1));

  ASSERT_TRUE(host_->WaitFor(done_));

  EXPECT_EQ(notes_.All(), (std::vector<int>{1, 2}));
}

TEST_P(DispatchQueueConformance, ImplementationHasAName) {
  EXPECT_STRNE(core::ThreadManager::ImplementationName(), "");
}

GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(DispatchQueueConformance);

}  // namespace quenor::conformance
