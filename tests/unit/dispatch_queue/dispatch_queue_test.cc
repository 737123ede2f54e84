// The real queue: its threads, their settings, and many of them at once.
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "quenor_base/platform/base/thread_create_flag.h"
#include "tests/conformance/timer_conformance.h"
#include "tests/support/memory_faults.h"

namespace quenor::conformance {
namespace {

using base::TimeDelta;
using core::ThreadManager;

const base::Location kHere = base::Location::CreateFromHere("dispatch_queue_test", 1);

std::shared_ptr<DispatchQueue> NewQueueWithStack(size_t stack_size) {
  base::Thread::Options options;
  options.stack_size = stack_size;
  return ThreadManager::CreateNewDispatchQueue(core::BusinessID::kReliableReport, "stack", options);
}

class PthreadQueueTest : public ::testing::Test {
 protected:
  ~PthreadQueueTest() override {
    EXPECT_TRUE(ThreadManager::WaitForDrain(TimeDelta::FromSeconds(60)));
  }

  // Runs `act` on the queue and waits for it.
  static void OnQueue(const std::shared_ptr<DispatchQueue>& queue, std::function<void()> act) {
    Gate acted;
    queue->PostTask(kHere, [&] {
      act();
      acted.Open();
    });
    ASSERT_TRUE(acted.Wait());
  }
  // So many posts while the thread is busy, so many times.
  static std::vector<size_t> AllocationsOfBursts(int bursts, int posts) {
    const auto queue = NewQueue();
    std::vector<size_t> counts;
    while (bursts-- > 0) {
      Gate busy, go_on;
      queue->PostTask(kHere, [&] {
        busy.Open();
        go_on.Wait();
      });
      busy.Wait();  // It takes no list meanwhile, for which room might be made in vain.
      const test::MemoryFaults::Counter allocations;
      for (int i = 0; i < posts; ++i) queue->PostTask(kHere, [] {});
      counts.push_back(allocations.count());
      go_on.Open();
      OnQueue(queue, [] {});
    }
    return counts;
  }
  static bool Drain() { return ThreadManager::WaitForDrain(TimeDelta::FromSeconds(60)); }
};

// --- The thread ---

TEST_F(PthreadQueueTest, EachQueueHasAThreadOfItsOwn) {
  const auto first = NewQueue();
  const auto second = NewQueue();
  std::thread::id first_id;
  std::thread::id second_id;

  OnQueue(first, [&] { first_id = std::this_thread::get_id(); });
  OnQueue(second, [&] { second_id = std::this_thread::get_id(); });

  EXPECT_NE(first_id, second_id);
  EXPECT_NE(first_id, std::this_thread::get_id());
  OnQueue(first, [&] { EXPECT_EQ(std::this_thread::get_id(), first_id); });
}

TEST_F(PthreadQueueTest, ThreadIsNamedAfterTheQueueAsFarAsTheSystemAllows) {
  for (const auto& [name, shown] : std::vector<std::pair<std::string, std::string>>{
           {"short", "short"}, {"a name of twenty byt", "a name of twent"}, {"", ""}}) {
    const auto queue = NewQueue(name);
    char buffer[32] = {};

    OnQueue(queue, [&] { pthread_getname_np(pthread_self(), buffer, sizeof(buffer)); });

    EXPECT_EQ(buffer, shown);
  }
}

TEST_F(PthreadQueueTest, EverySignalIsBlockedOnTheThreadAndTheCallersMaskIsKept) {
  sigset_t before;
  pthread_sigmask(SIG_SETMASK, nullptr, &before);
  const auto queue = NewQueue();
  sigset_t mask;
  sigset_t after;

  OnQueue(queue, [&] { pthread_sigmask(SIG_SETMASK, nullptr, &mask); });
  pthread_sigmask(SIG_SETMASK, nullptr, &after);

  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE, SIGUSR1, SIGALRM, SIGCHLD}) {
    EXPECT_EQ(sigismember(&mask, signal), 1) << signal;
    EXPECT_EQ(sigismember(&after, signal), sigismember(&before, signal)) << signal;
  }
}

size_t StackSizeOfThisThread() {
  pthread_attr_t attributes;
  size_t size = 0;
  if (pthread_getattr_np(pthread_self(), &attributes) != 0) return 0;
  pthread_attr_getstacksize(&attributes, &size);
  pthread_attr_destroy(&attributes);
  return size;
}

TEST_F(PthreadQueueTest, StackSizeIsAsAskedFor) {
  constexpr size_t kAsked = size_t{24} << 20;  // Beyond the usual default.
  const auto queue = NewQueueWithStack(kAsked);
  const auto standard = NewQueueWithStack(0);
  size_t size = 0;
  size_t standard_size = 0;

  OnQueue(queue, [&] { size = StackSizeOfThisThread(); });
  OnQueue(standard, [&] { standard_size = StackSizeOfThisThread(); });

  EXPECT_GE(size, kAsked);
  EXPECT_GT(standard_size, 0u);
}

TEST_F(PthreadQueueTest, StackSizeBelowTheMinimumIsRaised) {
  const auto queue = NewQueueWithStack(1);

  ASSERT_NE(queue, nullptr);
  // A sanitizer needs room of its own on every stack.
  OnQueue(queue, [] {});
}

TEST_F(PthreadQueueTest, StackSizeThatIsNoWholePageIsTaken) {
  const auto queue = NewQueueWithStack((size_t{1} << 20) + 1);

  ASSERT_NE(queue, nullptr);
  OnQueue(queue, [] {});
}

TEST_F(PthreadQueueTest, ThreadThatCannotBeCreatedMakesNoQueueAndNothingToDrain) {
  EXPECT_EQ(NewQueueWithStack(size_t{1} << 60), nullptr);

  EXPECT_TRUE(ThreadManager::WaitForDrain(TimeDelta()));
  EXPECT_NE(NewQueue(), nullptr);
}

// --- Draining ---

TEST_F(PthreadQueueTest, DrainIsFalseWhenTheTimeIsOverFirst) {
  auto queue = NewQueue();
  Gate go_on;
  queue->PostTask(kHere, [&] { go_on.Wait(); });
  queue.reset();

  EXPECT_FALSE(ThreadManager::WaitForDrain(TimeDelta()));
  EXPECT_FALSE(ThreadManager::WaitForDrain(TimeDelta::FromMilliseconds(1)));
  EXPECT_FALSE(ThreadManager::WaitForDrain(TimeDelta::FromSeconds(-1)));
  go_on.Open();

  EXPECT_TRUE(Drain());
}

TEST_F(PthreadQueueTest, DrainWithAnEndlessTimeoutReturnsWhenTheQueuesHaveEnded) {
  NewQueue()->PostTask(kHere, [] {});

  EXPECT_TRUE(ThreadManager::WaitForDrain(TimeDelta::FromMicroseconds(INT64_MAX)));
}

TEST_F(PthreadQueueTest, DrainOnSeveralThreadsAtOnceIsTrueOnEach) {
  for (int i = 0; i < 8; ++i) {
    auto queue = NewQueue();
    queue->PostTask(kHere, [] {});
  }
  std::atomic<int> drained{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < 4; ++i) waiters.emplace_back([&] { drained += Drain() ? 1 : 0; });
  for (std::thread& waiter : waiters) waiter.join();

  EXPECT_EQ(drained, 4);
}

TEST_F(PthreadQueueTest, DrainDoesNotWaitForQueuesThatAreHeld) {
  const auto held = NewQueue();
  Gate go_on;
  held->PostTask(kHere, [&] { go_on.Wait(); });

  EXPECT_TRUE(ThreadManager::WaitForDrain(TimeDelta()));

  go_on.Open();
  OnQueue(held, [] {});
}

// --- Many ---

TEST_F(PthreadQueueTest, ThousandQueuesCreatedAndDroppedRunAllTheirTasks) {
  std::atomic<int> ran{0};
  std::atomic<int> destroyed{0};

  for (int i = 0; i < 1000; ++i) {
    auto queue = NewQueue();
    ASSERT_NE(queue, nullptr) << i;
    for (int n = 0; n < 3; ++n) queue->PostTask(kHere, [&] { ++ran; });
    queue->PostDelayedTask(
        kHere, [bound = Bound([&] { ++destroyed; })] { FAIL(); }, TimeDelta::FromSeconds(3600));
  }

  ASSERT_TRUE(Drain());
  EXPECT_EQ(ran, 3000);
  EXPECT_EQ(destroyed, 1000);
}

TEST_F(PthreadQueueTest, ProducersAndCancellersOnFourThreadsLoseNothing) {
  const auto queue = NewQueue();
  std::atomic<int> ran{0};
  std::atomic<int> cancelled{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 2000; ++i) {
        queue->PostTask(kHere, [&] { ++ran; });
        const uint64_t id = queue->PostCancelableDelayedTask(
            kHere, [&] { ++ran; }, TimeDelta::FromMicroseconds((i * 7 + t) % 50));
        if (i % 2 == 0 && queue->CancelDelayedTask(id)) ++cancelled;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  Gate last;
  queue->PostDelayedTask(
      kHere, [&] { last.Open(); }, TimeDelta::FromMilliseconds(5));
  ASSERT_TRUE(last.Wait());
  OnQueue(queue, [] {});

  EXPECT_EQ(ran + cancelled, 16000);
}

// --- Many posts at once ---

TEST_F(PthreadQueueTest, BurstBeyondTheRoomThatIsKeptRunsInOrder) {
  const auto queue = NewQueue();
  std::vector<int> ran;
  for (const int count : {5000, 1, 300}) {
    Gate go_on;
    ran.clear();
    queue->PostTask(kHere, [&] { go_on.Wait(); });
    for (int i = 0; i < count; ++i) queue->PostTask(kHere, [&ran, i] { ran.push_back(i); });
    go_on.Open();
    OnQueue(queue, [] {});

    ASSERT_EQ(ran.size(), static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) ASSERT_EQ(ran[static_cast<size_t>(i)], i);
  }
}

TEST_F(PthreadQueueTest, ThreadsThatMakeRoomTogetherLoseNothingAndKeepTheirOrder) {
  constexpr int kThreads = 4;
  constexpr int kPosts = 3000;
  const auto queue = NewQueue();
  Gate go_on;
  queue->PostTask(kHere, [&] { go_on.Wait(); });
  std::vector<int> next(kThreads, 0);
  int out_of_order = 0;
  std::vector<std::thread> threads;
  for (size_t t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kPosts; ++i) {
        queue->PostTask(kHere, [&next, &out_of_order, t, i] { out_of_order += next[t]++ != i; });
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  go_on.Open();
  OnQueue(queue, [] {});

  EXPECT_EQ(next, std::vector<int>(kThreads, kPosts));
  EXPECT_EQ(out_of_order, 0);
}

// Some posts meet a thread that is at work, some one that sleeps, some one that pauses in a burst.
TEST_F(PthreadQueueTest, PostsInTurnOnFourThreadsRunInTheOrderOfTheTurns) {
  constexpr int kThreads = 4;
  constexpr int kTurns = 4000;
  const auto queue = NewQueue();
  std::atomic<int> turn{0};
  std::vector<int> ran;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int mine = t; mine < kTurns; mine += kThreads) {
        while (turn.load() != mine) std::this_thread::yield();
        queue->PostTask(kHere, [&ran, mine] { ran.push_back(mine); });
        turn.store(mine + 1);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  OnQueue(queue, [] {});

  ASSERT_EQ(ran.size(), static_cast<size_t>(kTurns));
  EXPECT_TRUE(std::is_sorted(ran.begin(), ran.end()));
}

TEST_F(PthreadQueueTest, DeadlineInABurstWaitsForWhatWasPostedBeforeIt) {
  const auto queue = NewQueue();
  int overtaken = 0;
  int due = 0;
  std::atomic<int> posted_before{0};
  std::atomic<int> ran{0};
  for (int i = 0; i < 2000; ++i) {
    queue->PostTask(kHere, [&] { ++ran; });
    const int before = ++posted_before;
    queue->PostDelayedTask(
        kHere,
        [&, before] {
          ++due;
          if (ran < before) ++overtaken;
        },
        TimeDelta::FromMicroseconds(1 + i % 3));
  }
  Gate last;
  queue->PostDelayedTask(
      kHere, [&] { last.Open(); }, TimeDelta::FromMilliseconds(5));
  ASSERT_TRUE(last.Wait());
  OnQueue(queue, [] {});

  EXPECT_EQ(due, 2000);
  EXPECT_EQ(overtaken, 0);
}

TEST_F(PthreadQueueTest, PostAllocatesOnlyUntilTheQueueHasRoom) {
  const std::vector<size_t> allocations = AllocationsOfBursts(20, 200);

  // Two lists, one of which the thread works on, grow to 256 tasks from 16.
  EXPECT_LE(std::accumulate(allocations.begin(), allocations.end(), size_t{0}), 10u);
}

TEST_F(PthreadQueueTest, RoomOfALargeBurstIsGivenBack) {
  EXPECT_GT(AllocationsOfBursts(20, 1000).back(), 0u);  // That for 256 tasks has stayed.
}

// A channel's clean-up timer is started and stopped with every message.
TEST_F(PthreadQueueTest, DeadlineThatIsSetAndCancelledAgainAllocatesNothing) {
  const auto queue = NewQueue();
  const auto set_and_cancel = [&] {
    const uint64_t id = queue->PostCancelableDelayedTask(
        kHere, [] {}, TimeDelta::FromSeconds(3600));
    EXPECT_TRUE(queue->CancelDelayedTask(id));
  };
  set_and_cancel();

  const test::MemoryFaults::Counter allocations;
  for (int i = 0; i < 10; ++i) set_and_cancel();

  EXPECT_EQ(allocations.count(), 0u);
}

TEST_F(PthreadQueueTest, QueuesThatPostToEachOtherEndTogether) {
  std::atomic<int> hops{0};
  Gate last;
  // Each hop holds both queues; the last one drops them, on the thread of one of them.
  struct Hop {
    std::shared_ptr<DispatchQueue> here, there;
    std::atomic<int>* hops;
    Gate* last;
    void operator()() && {
      if (++*hops == 1000) {
        here.reset();
        there.reset();
        return last->Open();
      }
      // Whoever posts holds the queue until the call has returned.
      there->PostTask(kHere, Hop{there, here, hops, last});
    }
  };
  auto first = NewQueue();
  auto second = NewQueue();
  first->PostTask(kHere, Hop{first, second, &hops, &last});
  first->Retire();  // The hop before the last may be the one that drops a queue.
  second->Retire();
  first.reset();
  second.reset();

  ASSERT_TRUE(last.Wait());
  ASSERT_TRUE(Drain());
  EXPECT_EQ(hops, 1000);
}

TEST_F(PthreadQueueTest, QueueMayBeCreatedAndDroppedOnAnothersThread) {
  std::atomic<int> ran{0};
  {
    auto outer = NewQueue();
    for (int i = 0; i < 50; ++i) {
      outer->PostTask(kHere, [&] {
        auto inner = NewQueue();
        inner->PostTask(kHere, [&] { ++ran; });
      });
    }
  }

  ASSERT_TRUE(Drain());
  ASSERT_TRUE(Drain());
  EXPECT_EQ(ran, 50);
}

TEST_F(PthreadQueueTest, LastReferencesDroppedOnManyThreadsEndTheQueueOnce) {
  for (int round = 0; round < 100; ++round) {
    std::atomic<int> ran{0};
    {
      auto queue = NewQueue();
      std::vector<std::thread> threads;
      for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&ran, held = queue]() mutable {
          held->PostTask(kHere, [&ran] { ++ran; });
          held.reset();
        });
      }
      queue.reset();
      for (std::thread& thread : threads) thread.join();
    }
    ASSERT_TRUE(Drain());
    EXPECT_EQ(ran, 3);
  }
}

// --- Timers, where two threads meet ---

TEST_F(PthreadQueueTest, DestructionOfATimerWaitsForItsTaskInProgress) {
  const auto queue = NewQueue();
  auto timer = std::make_unique<base::OneShotTimer>();
  Gate inside;
  Gate destroying;
  std::atomic<bool> finished{false};
  TimerTarget target{[&] {
    inside.Open();
    destroying.Wait();
    // The other thread is about to enter the destructor, or is inside it.
    std::this_thread::yield();
    finished = true;
  }};
  OnQueue(queue, [&] { timer->Start(kHere, TimeDelta(), &target, &TimerTarget::Run); });
  ASSERT_TRUE(inside.Wait());

  destroying.Open();
  timer.reset();

  EXPECT_TRUE(finished);
}

TEST_F(PthreadQueueTest, ReceiverMayGoRightAfterItsTimerOnAnotherThread) {
  const auto queue = NewQueue();
  for (int round = 0; round < 200; ++round) {
    auto target = std::make_unique<TimerTarget>();
    auto counter = std::make_unique<int>(0);
    target->task = [bare = counter.get()] { ++*bare; };
    auto timer = std::make_unique<base::RepeatingTimer>();
    OnQueue(queue, [&] {
      timer->Start(kHere, TimeDelta::FromMicroseconds(1), target.get(), &TimerTarget::Run);
    });
    if (round % 2 == 0) std::this_thread::yield();

    timer.reset();
    target.reset();
    counter.reset();
  }
}

TEST_F(PthreadQueueTest, TimerStoppedOnAnotherThreadWhileItTicksStaysStopped) {
  const auto queue = NewQueue();
  base::RepeatingTimer timer;
  std::atomic<int> runs{0};
  TimerTarget target{[&] { ++runs; }};
  for (int round = 0; round < 200; ++round) {
    OnQueue(queue, [&] {
      timer.Start(kHere, TimeDelta::FromMicroseconds(10), &target, &TimerTarget::Run);
    });
    timer.AbandonAndStop();
    EXPECT_FALSE(timer.IsRunning());
    OnQueue(queue, [] {});  // A task in progress has returned.
    const int before = runs;
    OnQueue(queue, [] {});
    EXPECT_EQ(runs, before);
  }
}

}  // namespace
}  // namespace quenor::conformance
