#include "tests/conformance/timer_conformance.h"

#include <memory>
#include <utility>
#include <vector>

namespace quenor::conformance {

using base::OneShotTimer;
using base::RepeatingTimer;
using base::TimeDelta;

namespace {

const base::Location kHere = base::Location::CreateFromHere("timer_conformance", 1);

constexpr TimeDelta Ms(int64_t ms) { return TimeDelta::FromMilliseconds(ms); }
constexpr TimeDelta kHour = TimeDelta::FromSeconds(3600);

}  // namespace

TimerConformance::~TimerConformance() {
  queue_.reset();
  EXPECT_TRUE(host_->Drain()) << "a timer keeps its queue";
}

bool TimerConformance::OnQueue(std::function<void()> act) {
  Gate acted;
  queue_->PostTask(kHere, [&] {
    act();
    acted.Open();
  });
  return host_->WaitFor(acted);
}

bool TimerConformance::Pass(int64_t delay_ms) {
  Gate passed;
  queue_->PostDelayedTask(
      kHere, [&] { passed.Open(); }, Ms(delay_ms));
  return host_->WaitFor(passed);
}

// --- Running ---

TEST_P(TimerConformance, NewTimerIsStoppedAndHasNoDelay) {
  RepeatingTimer repeating;
  OneShotTimer one_shot;

  EXPECT_FALSE(repeating.IsRunning());
  EXPECT_FALSE(one_shot.IsRunning());
  EXPECT_EQ(repeating.GetCurrentDelay(), Ms(-1));
  EXPECT_EQ(one_shot.GetCurrentDelay(), Ms(-1));
}

TEST_P(TimerConformance, OneShotTimerRunsOnceAndIsStoppedWhenItsTaskRuns) {
  OneShotTimer timer;
  bool running_inside = true;
  target_.task = [&] {
    notes_.Add(1);
    running_inside = timer.IsRunning();
    done_.Open();
  };
  ASSERT_TRUE(OnQueue([&] { timer.Start(kHere, Ms(2), &target_, &TimerTarget::Run); }));

  ASSERT_TRUE(host_->WaitFor(done_));
  ASSERT_TRUE(Pass(20));

  EXPECT_FALSE(running_inside);
  EXPECT_FALSE(timer.IsRunning());
  EXPECT_EQ(notes_.All(), std::vector<int>{1});
  EXPECT_EQ(timer.GetCurrentDelay(), Ms(-1));
}

TEST_P(TimerConformance, RepeatingTimerRunsUntilItIsStopped) {
  RepeatingTimer timer;
  int runs = 0;
  target_.task = [&] {
    EXPECT_TRUE(timer.IsRunning());
    if (++runs == 5) {
      timer.Stop();
      done_.Open();
    }
  };
  ASSERT_TRUE(OnQueue([&] { timer.Start(kHere, Ms(1), &target_, &TimerTarget::Run); }));

  ASSERT_TRUE(host_->WaitFor(done_));
  ASSERT_TRUE(Pass(20));

  EXPECT_EQ(runs, 5);
  EXPECT_FALSE(timer.IsRunning());
}

TEST_P(TimerConformance, TaskRunsOnTheQueueThatStartedTheTimer) {
  OneShotTimer timer;
  const auto other = NewQueue();
  std::shared_ptr<DispatchQueue> seen;
  target_.task = [&] {
    seen = DispatchQueue::Current();
    done_.Open();
  };
  other->PostTask(kHere, [&] { timer.Start(kHere, Ms(1), &target_, &TimerTarget::Run); });

  ASSERT_TRUE(host_->WaitFor(done_));

  EXPECT_EQ(seen, other);
}

TEST_P(TimerConformance, DelayOfZeroOrLessRunsAtOnce) {
  OneShotTimer zero;
  OneShotTimer negative;
  target_.task = [this] { notes_.Add(1); };
  ASSERT_TRUE(OnQueue([&] {
    zero.Start(kHere, TimeDelta(), &target_, &TimerTarget::Run);
    negative.Start(kHere, Ms(-5), &target_, &TimerTarget::Run);
    EXPECT_EQ(zero.GetCurrentDelay(), TimeDelta());
    EXPECT_EQ(negative.GetCurrentDelay(), TimeDelta());
  }));

  ASSERT_TRUE(Pass(5));

  EXPECT_EQ(notes_.All(), (std::vector<int>{1, 1}));
}

// --- The current delay ---

TEST_P(TimerConformance, CurrentDelayIsTheRunningTimers) {
  RepeatingTimer timer;
  target_.task = [] {};
  ASSERT_TRUE(OnQueue([&] { timer.Start(kHere, kHour, &target_, &TimerTarget::Run); }));
  EXPECT_EQ(timer.GetCurrentDelay(), kHour);

  timer.Stop();

  EXPECT_EQ(timer.GetCurrentDelay(), Ms(-1));
}

TEST_P(TimerConformance, CurrentDelayInsideTheTaskOfARepeatingTimerIsItsPeriod) {
  RepeatingTimer timer;
  TimeDelta seen;
  target_.task = [&] {
    seen = timer.GetCurrentDelay();
    timer.Stop();
    done_.Open();
  };
  ASSERT_TRUE(OnQueue([&] { timer.Start(kHere, Ms(1), &target_, &TimerTarget::Run); }));

  ASSERT_TRUE(host_->WaitFor(done_));

  EXPECT_EQ(seen, Ms(1));
}

// --- Starting again ---

TEST_P(TimerConformance, StartOfARunningTimerReplacesItsDeadline) {
  OneShotTimer timer;
  target_.task = [this] { notes_.Add(1); };
  TimerTarget second{[this] {
    notes_.Add(2);
    done_.Open();
  }};
  ASSERT_TRUE(OnQueue([&] {
    timer.Start(kHere, Ms(3), &target_, &TimerTarget::Run);
    timer.Start(kHere, Ms(6), &second, &TimerTarget::Run);
  }));

  ASSERT_TRUE(host_->WaitFor(done_));
  ASSERT_TRUE(Pass(10));

  EXPECT_EQ(notes_.All(), std::vector<int>{2});
}

TEST_P(TimerConformance, OneShotTimerMayStartAgainInsideItsTask) {
  OneShotTimer timer;
  int runs = 0;
  target_.task = [&] {
    if (++runs < 3) {
      timer.Start(kHere, Ms(1), &target_, &TimerTarget::Run);
    } else {
      done_.Open();
    }
  };
  ASSERT_TRUE(OnQueue([&] { timer.Start(kHere, Ms(1), &target_, &TimerTarget::Run); }));

  ASSERT_TRUE(host_->WaitFor(done_));
  ASSERT_TRUE(Pass(10));

  EXPECT_EQ(runs, 3);
}

TEST_P(TimerConformance, RepeatingTimerMayStartAgainWithAnotherDelayInsideItsTask) {
  RepeatingTimer timer;
  int runs = 0;
  target_.task = [&] {
    if (++runs == 1) {
      timer.Start(kHere, kHour, &target_, &TimerTarget::Run);
      done_.Open();
    }
  };
  ASSERT_TRUE(OnQueue([&] { timer.Start(kHere, Ms(1), &target_, &TimerTarget::Run); }));

  ASSERT_TRUE(host_->WaitFor(done_));
  ASSERT_TRUE(Pass(10));

  EXPECT_EQ(runs, 1);
  EXPECT_EQ(timer.GetCurrentDelay(), kHour);
}

TEST_P(TimerConformance, StoppedTimerMayBeStartedAgain) {
  RepeatingTimer timer;
  target_.task = [&] {
    notes_.Add(1);
    timer.Stop();
    done_.Open();
  };
  ASSERT_TRUE(OnQueue([&] {
    timer.Start(kHere, kHour, &target_, &TimerTarget::Run);
    timer.Stop();
    timer.AbandonAndStop();
    timer.Start(kHere, Ms(1), &target_, &TimerTarget::Run);
  }));

  ASSERT_TRUE(host_->WaitFor(done_));

  EXPECT_EQ(notes_.All(), std::vector<int>{1});
}

TEST_P(TimerConformance, TimerMayMoveToAnotherQueue) {
  const auto other = NewQueue();
  OneShotTimer timer;
  std::shared_ptr<DispatchQueue> seen;
  target_.task = [&] {
    seen = DispatchQueue::Current();
    done_.Open();
  };
  ASSERT_TRUE(OnQueue([&] { timer.Start(kHere, kHour, &target_, &TimerTarget::Run); }));
  timer.Stop();

  other->PostTask(kHere, [&] { timer.Start(kHere, Ms(1), &target_, &TimerTarget::Run); });

  ASSERT_TRUE(host_->WaitFor(done_));
  EXPECT_EQ(seen, other);
}

// --- Stopping ---

TEST_P(TimerConformance, StoppedTimerDoesNotRun) {
  RepeatingTimer timer;
  target_.task = [this] { notes_.Add(1); };
  ASSERT_TRUE(OnQueue([&] {
    timer.Start(kHere, Ms(1), &target_, &TimerTarget::Run);
    timer.Stop();
  }));
  EXPECT_FALSE(timer.IsRunning());

  ASSERT_TRUE(Pass(10));

  EXPECT_TRUE(notes_.All().empty());
}

TEST_P(TimerConformance, AbandonedTimerNeverRunsEvenWhenItsDeadlineHadPassed) {
  RepeatingTimer first;
  RepeatingTimer second;
  target_.task = [this] { notes_.Add(1); };
  // Both are due together: whichever runs first abandons both.
  TimerTarget abandon{[&] {
    notes_.Add(2);
    first.AbandonAndStop();
    second.AbandonAndStop();
  }};
  ASSERT_TRUE(OnQueue([&] {
    first.Start(kHere, Ms(2), &abandon, &TimerTarget::Run);
    second.Start(kHere, Ms(2), &abandon, &TimerTarget::Run);
  }));

  ASSERT_TRUE(Pass(20));

  EXPECT_EQ(notes_.All(), std::vector<int>{2});
}

TEST_P(TimerConformance, TimerMayBeAbandonedInsideItsTask) {
  RepeatingTimer timer;
  target_.task = [&] {
    notes_.Add(1);
    timer.AbandonAndStop();
    EXPECT_FALSE(timer.IsRunning());
    done_.Open();
  };
  ASSERT_TRUE(OnQueue([&] { timer.Start(kHere, Ms(1), &target_, &TimerTarget::Run); }));

  ASSERT_TRUE(host_->WaitFor(done_));
  ASSERT_TRUE(Pass(10));

  EXPECT_EQ(notes_.All(), std::vector<int>{1});
}

TEST_P(TimerConformance, StopAndAbandonOfAStoppedTimerDoNothing) {
  RepeatingTimer timer;

  timer.Stop();
  timer.AbandonAndStop();
  timer.Stop();

  EXPECT_FALSE(timer.IsRunning());
}

TEST_P(TimerConformance, TimerMayBeStoppedOnAnotherThread) {
  RepeatingTimer timer;
  target_.task = [this] { notes_.Add(1); };
  ASSERT_TRUE(OnQueue([&] { timer.Start(kHere, kHour, &target_, &TimerTarget::Run); }));

  timer.AbandonAndStop();

  EXPECT_FALSE(timer.IsRunning());
  EXPECT_EQ(timer.GetCurrentDelay(), Ms(-1));
}

TEST_P(TimerConformance, StopKeepsTheBindingAndAbandonReleasesIt) {
  ClosureTimer timer;
  const auto bound = std::make_shared<int>(0);
  ASSERT_TRUE(OnQueue([&] { timer.StartClosure(kHour, [bound] { ++*bound; }); }));

  timer.Stop();
  EXPECT_GT(bound.use_count(), 1);
  timer.AbandonAndStop();

  EXPECT_EQ(bound.use_count(), 1);
}

TEST_P(TimerConformance, DestructionReleasesTheBinding) {
  const auto bound = std::make_shared<int>(0);
  {
    ClosureTimer timer;
    ASSERT_TRUE(OnQueue([&] { timer.StartClosure(kHour, [bound] { ++*bound; }); }));
  }

  EXPECT_EQ(bound.use_count(), 1);
}

// --- Destruction ---

TEST_P(TimerConformance, DestroyedTimerDoesNotRun) {
  target_.task = [this] { notes_.Add(1); };
  ASSERT_TRUE(OnQueue([&] {
    RepeatingTimer timer;
    timer.Start(kHere, Ms(1), &target_, &TimerTarget::Run);
  }));

  ASSERT_TRUE(Pass(10));

  EXPECT_TRUE(notes_.All().empty());
}

TEST_P(TimerConformance, TimerMayBeDestroyedInsideItsTask) {
  auto timer = std::make_unique<RepeatingTimer>();
  target_.task = [&] {
    notes_.Add(1);
    timer.reset();
    notes_.Add(2);
    done_.Open();
  };
  ASSERT_TRUE(OnQueue([&] { timer->Start(kHere, Ms(1), &target_, &TimerTarget::Run); }));

  ASSERT_TRUE(host_->WaitFor(done_));
  ASSERT_TRUE(Pass(10));

  EXPECT_EQ(notes_.All(), (std::vector<int>{1, 2}));
}

// --- A receiver that std::shared_ptrs own ---

TEST_P(TimerConformance, TaskInProgressHoldsItsReceiverAndNothingElseDoes) {
  auto target = std::make_shared<SharedTarget>();
  const std::weak_ptr<SharedTarget> watch = target;
  long outside = 0;
  bool inside = false;
  target->task = [&] {
    target->timer.AbandonAndStop();
    target.reset();
    inside = !watch.expired();
    done_.Open();
  };
  ASSERT_TRUE(OnQueue([&] {
    target->timer.Start(kHere, Ms(1), target.get(), &SharedTarget::Run);
    outside = target.use_count();
  }));

  ASSERT_TRUE(host_->WaitFor(done_));
  ASSERT_TRUE(Pass(10));

  EXPECT_EQ(outside, 1);
  EXPECT_TRUE(inside);
  EXPECT_TRUE(watch.expired());
}

TEST_P(TimerConformance, StoppedTimerLetsItsReceiverGo) {
  auto target = std::make_shared<SharedTarget>();
  ASSERT_TRUE(OnQueue([&] {
    target->timer.Start(kHere, kHour, target.get(), &SharedTarget::Run);
    target->timer.Stop();
  }));

  target.reset();

  ASSERT_TRUE(Pass(10));
}

// --- Without a queue, and with one that goes ---

TEST_P(TimerConformance, StartOffAQueueLeavesTheTimerStopped) {
  RepeatingTimer timer;
  target_.task = [this] { notes_.Add(1); };

  timer.Start(kHere, Ms(1), &target_, &TimerTarget::Run);

  EXPECT_FALSE(timer.IsRunning());
  EXPECT_EQ(timer.GetCurrentDelay(), Ms(-1));
}

TEST_P(TimerConformance, StartOnAQueueThatIsShuttingDownLeavesTheTimerStopped) {
  RepeatingTimer timer;
  target_.task = [this] { notes_.Add(1); };
  auto queue = NewQueue();
  Gate dropped;
  queue->PostTask(kHere, [&] {
    dropped.Wait();
    timer.Start(kHere, Ms(1), &target_, &TimerTarget::Run);
    done_.Open();
  });

  queue.reset();
  dropped.Open();

  ASSERT_TRUE(host_->WaitFor(done_));
  ASSERT_TRUE(host_->Drain());
  EXPECT_FALSE(timer.IsRunning());
  EXPECT_TRUE(notes_.All().empty());
}

TEST_P(TimerConformance, RunningTimerDoesNotKeepItsQueue) {
  RepeatingTimer timer;
  target_.task = [this] { notes_.Add(1); };
  ASSERT_TRUE(OnQueue([&] { timer.Start(kHere, kHour, &target_, &TimerTarget::Run); }));
  const std::weak_ptr<DispatchQueue> watch = queue_;

  queue_.reset();

  EXPECT_TRUE(watch.expired());
  ASSERT_TRUE(host_->Drain());
  EXPECT_TRUE(notes_.All().empty());
}

TEST_P(TimerConformance, TimerMayOutliveItsQueue) {
  RepeatingTimer timer;
  target_.task = [this] { notes_.Add(1); };
  ASSERT_TRUE(OnQueue([&] { timer.Start(kHere, kHour, &target_, &TimerTarget::Run); }));
  queue_.reset();
  ASSERT_TRUE(host_->Drain());

  timer.Stop();
  timer.AbandonAndStop();

  EXPECT_FALSE(timer.IsRunning());
}

TEST_P(TimerConformance, ImplementationHasAName) {
  EXPECT_STRNE(base::internal::TimerBase::ImplementationName(), "");
}

GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(TimerConformance);

}  // namespace quenor::conformance
