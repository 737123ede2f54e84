// What wakes a queue's thread, and what does not. A wake-up too few shows elsewhere as a delay
// only, one too many as nothing at all; so here they are counted, where the queue calls the C++
// library, and so are its pauses.
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "quenor_base/platform/base/thread_create_flag.h"
#include "quenor_base/platform/gathered_wake_ups.h"
#include "quenor_base/platform/thread_manager.h"
#include "services/dispatch_queue_pthread/short_lock.h"
#include "tests/conformance/dispatch_queue_conformance.h"
#include "tests/support/patience.h"

// How often queues' threads have gone to sleep, and how often the calling thread has woken
// somebody.
static std::atomic<int> sleeps{0};
static thread_local int wake_ups = 0;
// Pauses of any thread by their length, and the calling thread's yields.
static std::atomic<int> naps{0};
static std::atomic<int> rests{0};
static thread_local int yields = 0;
// Runs once, when the calling thread has next given back a mutex.
static thread_local const std::function<void()>* at_unlock = nullptr;

static void NoteSleep() {
  if (quenor::base::ThreadCreateFlag::IsThreadCreateByQuenor()) ++sleeps;
}

// The linker redirects the library's calls here (--wrap): condition_variable::notify_one(), its
// wait(), and what its wait_until() and others come to.
extern "C" {
void __real__ZNSt18condition_variable10notify_oneEv(std::condition_variable* self);
void __wrap__ZNSt18condition_variable10notify_oneEv(std::condition_variable* self) {
  ++wake_ups;
  __real__ZNSt18condition_variable10notify_oneEv(self);
}
void __real__ZNSt18condition_variable4waitERSt11unique_lockISt5mutexE(
    std::condition_variable* self, std::unique_lock<std::mutex>* hold);
void __wrap__ZNSt18condition_variable4waitERSt11unique_lockISt5mutexE(
    std::condition_variable* self, std::unique_lock<std::mutex>* hold) {
  NoteSleep();
  __real__ZNSt18condition_variable4waitERSt11unique_lockISt5mutexE(self, hold);
}
int __real_pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                  clockid_t clock, const struct timespec* until);
int __wrap_pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                  clockid_t clock, const struct timespec* until) {
  NoteSleep();
  return __real_pthread_cond_clockwait(condition, mutex, clock, until);
}
int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
  const int result = __real_pthread_mutex_unlock(mutex);
  const auto* const act = std::exchange(at_unlock, nullptr);
  if (act != nullptr) (*act)();
  return result;
}
int __real_nanosleep(const struct timespec* time, struct timespec* left);
int __wrap_nanosleep(const struct timespec* time, struct timespec* left) {
  ++(time->tv_nsec <= 20000 ? naps : rests);
  return __real_nanosleep(time, left);
}
int __real_sched_yield();
int __wrap_sched_yield() {
  ++yields;
  return __real_sched_yield();
}
}

namespace quenor::test {
namespace {

using base::TimeDelta;
using conformance::Gate;

constexpr TimeDelta kHour = TimeDelta::FromSeconds(3600);
constexpr TimeDelta kDay = TimeDelta::FromSeconds(86400);
const base::Location kHere = base::Location::CreateFromHere("wake_test", 1);

class QueueWakeTest : public ::testing::Test {
 protected:
  QueueWakeTest() {
    const int before = sleeps;
    queue_ = core::ThreadManager::CreateNewDispatchQueue(core::BusinessID::kReliableReport, "wake",
                                                         base::nullopt);
    AwaitSleep(before);
  }
  ~QueueWakeTest() override { End(); }

  // Before what a task uses goes.
  void End() {
    queue_.reset();
    EXPECT_TRUE(core::ThreadManager::WaitForDrain(TimeDelta::FromSeconds(60)));
  }

  // Until the queue's thread has gone to sleep more than `before` times.
  static void AwaitSleep(int before) {
    while (sleeps <= before) std::this_thread::yield();
  }

  // How often `act` wakes the thread, which is asleep; afterwards it is asleep again, unless it was
  // the last that it did.
  static int WakeUpsOf(const std::function<void()>& act, bool sleeps_again = true) {
    const int sleeps_before = sleeps;
    const int wake_ups_before = wake_ups;
    act();
    const int count = wake_ups - wake_ups_before;
    if (count > 0 && sleeps_again) AwaitSleep(sleeps_before);
    return count;
  }

  void Nothing() {
    queue_->PostTask(kHere, [] {});
  }

  // A task that is held until its gate is opened.
  struct Held {
    Gate inside;
    Gate go_on;
  };
  std::shared_ptr<Held> Hold() {
    auto held = std::make_shared<Held>();
    queue_->PostTask(kHere, [held] {
      held->inside.Open();
      held->go_on.Wait();
    });
    return held;
  }

  std::shared_ptr<DispatchQueue> queue_;
};

TEST_F(QueueWakeTest, PostWakesASleepingThreadOnce) {
  for (int i = 0; i < 100; ++i) EXPECT_EQ(WakeUpsOf([&] { Nothing(); }), 1) << i;
}

TEST_F(QueueWakeTest, PostsDoNotWakeAThreadThatIsAtWork) {
  const auto held = Hold();
  ASSERT_TRUE(held->inside.Wait());
  const int before = wake_ups;

  for (int i = 0; i < 100; ++i) Nothing();
  queue_->PostDelayedTask(
      kHere, [] {}, kHour);

  EXPECT_EQ(wake_ups, before);
  held->go_on.Open();
}

TEST_F(QueueWakeTest, PostsBehindTheOneThatWakesDoNotWakeAgain) {
  const int before = wake_ups;
  const auto held = Hold();
  for (int i = 0; i < 10; ++i) Nothing();

  EXPECT_EQ(wake_ups - before, 1);
  held->go_on.Open();
}

TEST_F(QueueWakeTest, OnlyADeadlineThatComesFirstWakesTheThread) {
  uint64_t first = 0;
  uint64_t last = 0;
  const auto post = [&](uint64_t* id, TimeDelta delay) {
    return WakeUpsOf([&] {
      *id = queue_->PostCancelableDelayedTask(
          kHere, [] {}, delay);
    });
  };
  const auto cancel = [&](uint64_t id) {
    return WakeUpsOf([&] { EXPECT_TRUE(queue_->CancelDelayedTask(id)); });
  };

  EXPECT_EQ(post(&last, kDay), 1) << "the thread waits without a deadline";
  EXPECT_EQ(post(&first, kHour), 1) << "the thread waits for a later one";
  uint64_t between = 0;
  EXPECT_EQ(post(&between, TimeDelta::FromSeconds(7200)), 0);
  EXPECT_EQ(cancel(between), 0);
  EXPECT_EQ(cancel(first), 1) << "the thread waits for this very one";
  EXPECT_EQ(cancel(last), 1);
}

// A thread that waits for an hour runs what is posted meanwhile, of whatever kind, at once.
TEST_F(QueueWakeTest, ThreadThatWaitsForAFarDeadlineRunsWhatComesBefore) {
  EXPECT_EQ(WakeUpsOf([&] {
              queue_->PostDelayedTask(
                  kHere, [] {}, kHour);
            }),
            1);
  Gate posted;
  Gate at_once;
  Gate soon;

  queue_->PostTask(kHere, [&] { posted.Open(); });
  queue_->PostDelayedTask(
      kHere, [&] { at_once.Open(); }, TimeDelta());
  queue_->PostDelayedTask(
      kHere, [&] { soon.Open(); }, TimeDelta::FromMilliseconds(1));

  EXPECT_TRUE(posted.Wait());
  EXPECT_TRUE(at_once.Wait());
  EXPECT_TRUE(soon.Wait());
  End();
}

TEST_F(QueueWakeTest, RetireDoesNotWakeAndTheLastReferenceDoes) {
  EXPECT_EQ(WakeUpsOf([&] {
              queue_->PostDelayedTask(
                  kHere, [] {}, kHour);
            }),
            1);

  EXPECT_EQ(WakeUpsOf([&] { queue_->Retire(); }), 0);
  EXPECT_EQ(WakeUpsOf([&] { queue_.reset(); }, false), 1);
}

// Behind the thread's look at the deadlines, and in front of its sleep.
TEST_F(QueueWakeTest, DeadlineThatComesWhileTheThreadGoesToSleepIsSeen) {
  Gate passed;
  const std::function<void()> post = [&] {
    queue_->PostDelayedTask(
        kHere, [&] { passed.Open(); }, TimeDelta::FromMilliseconds(1));
  };
  const auto held = Hold();
  ASSERT_TRUE(held->inside.Wait());
  queue_->PostTask(kHere, [&] { at_unlock = &post; });  // Alone, and behind no sleep: no nap.

  held->go_on.Open();

  EXPECT_TRUE(passed.Wait());
  End();
}

TEST_F(QueueWakeTest, ThreadNapsBehindMoreThanFourTasks) {
  for (const int tasks : {1, 4, 5, 100}) {
    const auto first = Hold();
    ASSERT_TRUE(first->inside.Wait());
    const auto second = Hold();  // Ahead of it there is no sleep, and so no short one.
    first->go_on.Open();
    ASSERT_TRUE(second->inside.Wait());
    const int before = naps;

    for (int i = 1; i < tasks; ++i) Nothing();
    const auto last = Hold();
    second->go_on.Open();
    ASSERT_TRUE(last->inside.Wait());
    const auto next = Hold();
    last->go_on.Open();
    ASSERT_TRUE(next->inside.Wait());

    EXPECT_EQ(naps - before, tasks > 4 ? 1 : 0) << tasks;
    next->go_on.Open();
  }
}

// What the SDK's own threads post comes in batches that are over: responses, and what a task posts.
TEST_F(QueueWakeTest, ThreadDoesNotNapBehindPostsOfTheSdksThreads) {
  const auto first = Hold();
  ASSERT_TRUE(first->inside.Wait());
  const auto second = Hold();  // Ahead of it there is no sleep, and so no short one.
  first->go_on.Open();
  ASSERT_TRUE(second->inside.Wait());
  const int before = naps;

  base::ThreadCreateFlag::SetThreadCreateByQuenor(true);
  for (int i = 0; i < 100; ++i) Nothing();
  const auto third = Hold();
  base::ThreadCreateFlag::SetThreadCreateByQuenor(false);
  second->go_on.Open();
  ASSERT_TRUE(third->inside.Wait());
  const auto last = Hold();
  third->go_on.Open();
  ASSERT_TRUE(last->inside.Wait());

  EXPECT_EQ(naps, before);
  last->go_on.Open();
}

TEST_F(QueueWakeTest, PostsOfAScopeWakeEachQueueOnceAtItsEnd) {
  std::vector<std::shared_ptr<DispatchQueue>> queues;
  for (int i = 0; i < 20; ++i) {
    const int sleeps_before = sleeps;
    queues.push_back(core::ThreadManager::CreateNewDispatchQueue(core::BusinessID::kReliableReport,
                                                                 "gathered", base::nullopt));
    AwaitSleep(sleeps_before);
  }
  std::atomic<int> ran{0};
  const int before = wake_ups;
  const int sleeps_before = sleeps;

  {
    const base::GatheredWakeUps gathered;
    for (int i = 0; i < 60; ++i) queues[i % 20]->PostTask(kHere, [&] { ++ran; });
    EXPECT_EQ(wake_ups, before);
    EXPECT_EQ(ran, 0);
  }

  EXPECT_EQ(wake_ups - before, 20);
  AwaitSleep(sleeps_before + 19);
  EXPECT_EQ(ran, 60);
}

TEST_F(QueueWakeTest, ScopeHoldsUpNoPostOfAnotherThread) {
  int wake_ups_of_other = 0;
  {
    const base::GatheredWakeUps gathered;
    Nothing();
    const int sleeps_before = sleeps;
    std::thread([&] {
      Nothing();
      wake_ups_of_other = wake_ups;
    }).join();
    AwaitSleep(sleeps_before);
    const int before = wake_ups;

    base::GatheredWakeUps::CloseOpen();

    EXPECT_EQ(wake_ups, before) << "there is nothing to run any more";
  }
  EXPECT_EQ(wake_ups_of_other, 1);
}

TEST_F(QueueWakeTest, ClosedScopeWakesWhoWaitsAndGathersNoMore) {
  const base::GatheredWakeUps gathered;
  EXPECT_EQ(WakeUpsOf([&] {
              Nothing();
              base::GatheredWakeUps::CloseOpen();
            }),
            1);

  EXPECT_EQ(WakeUpsOf([&] { Nothing(); }), 1);
}

TEST_F(QueueWakeTest, ScopesOfTwoThreadsEachWakeForWhatTheyPosted) {
  const base::GatheredWakeUps gathered;
  Nothing();
  const int sleeps_before = sleeps;
  int wake_ups_of_other = 0;

  std::thread([&] {
    const base::GatheredWakeUps others;
    Nothing();
    wake_ups_of_other = wake_ups;
  }).join();

  EXPECT_EQ(wake_ups_of_other, 1);
  AwaitSleep(sleeps_before);
}

TEST_F(QueueWakeTest, QueueThatIsDroppedInAScopeRunsWhatWasPosted) {
  bool ran = false;
  {
    const base::GatheredWakeUps gathered;
    queue_->PostTask(kHere, [&] { ran = true; });
    End();
  }
  EXPECT_TRUE(ran);
}

TEST(ShortLockTest, WhoWaitsForLongYieldsAndThenRests) {
  dispatch_queue::ShortLock lock;
  lock.lock();
  int yields_of_waiter = 0;
  std::thread waiter([&] {
    lock.lock();
    lock.unlock();
    yields_of_waiter = yields;
  });
  const int rests_before = rests;
  const auto until = Now() + kPatience;

  while (rests == rests_before && Now() < until) sched_yield();
  EXPECT_GT(rests, rests_before);
  lock.unlock();
  waiter.join();

  EXPECT_GT(yields_of_waiter, 0);
}

// Each wake-up leads to one look and one sleep: a thread that finds nothing does not go round.
TEST_F(QueueWakeTest, ThreadSleepsOnceForEachWakeUp) {
  const int before = sleeps;
  for (int i = 0; i < 50; ++i) ASSERT_EQ(WakeUpsOf([&] { Nothing(); }), 1);

  EXPECT_LE(sleeps - before, 50 + 5) << "spurious ones apart";
}

}  // namespace
}  // namespace quenor::test
