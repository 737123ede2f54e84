// What only a virtual queue can show of the timers: exact ticks, late wake-ups, deadlines left
// over.
#include "quenor_base/platform/base/timer.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <vector>

#include "tests/support/fakes/virtual_time.h"

namespace quenor::test {
namespace {

using base::OneShotTimer;
using base::RepeatingTimer;
using base::TimeDelta;

struct Target {
  std::function<void()> task = [] {};
  void Run() { task(); }
};

class TimerTest : public ::testing::Test {
 protected:
  TimerTest()
      : queue_(core::ThreadManager::CreateNewDispatchQueue(core::BusinessID::kReliableReport,
                                                           "timers", base::nullopt)) {
    target_.task = [this] { runs_ms_.push_back(time_.NowUs() / 1000); };
  }

  template <typename Timer>
  void Start(Timer* timer, int64_t ms) {
    OnQueue([this, timer, ms] {
      timer->Start(base::Location(), TimeDelta::FromMilliseconds(ms), &target_, &Target::Run);
    });
  }
  void OnQueue(std::function<void()> act) {
    queue_->PostTask(base::Location(), std::move(act));
    time_.RunUntilIdle();
  }
  void Advance(int64_t ms) { time_.AdvanceBy(TimeDelta::FromMilliseconds(ms)); }

  using Times = std::vector<int64_t>;
  Times runs_ms_;
  Target target_;
  VirtualTime time_;
  std::shared_ptr<DispatchQueue> queue_;
};

TEST_F(TimerTest, RepeatingTimerRunsAtEveryMultipleOfItsPeriod) {
  RepeatingTimer timer;
  Start(&timer, 30);

  Advance(100);

  EXPECT_EQ(runs_ms_, (Times{30, 60, 90}));
}

TEST_F(TimerTest, OneShotTimerRunsAtItsDelayOnly) {
  OneShotTimer timer;
  Start(&timer, 30);

  Advance(29);
  EXPECT_TRUE(runs_ms_.empty());
  Advance(100);

  EXPECT_EQ(runs_ms_, Times{30});
}

TEST_F(TimerTest, RestartPostponesAOneShotTimerByItsWholeDelay) {
  OneShotTimer timer;
  Start(&timer, 30);
  Advance(20);

  Start(&timer, 30);
  Advance(100);

  EXPECT_EQ(runs_ms_, Times{50});
}

TEST_F(TimerTest, RestartAfterAStopCountsFromTheRestart) {
  RepeatingTimer timer;
  Start(&timer, 30);
  Advance(20);
  timer.Stop();
  Advance(100);

  Start(&timer, 30);
  Advance(30);

  EXPECT_EQ(runs_ms_, Times{150});
}

TEST_F(TimerTest, LateWakeUpRunsARepeatingTimerOnce) {
  RepeatingTimer timer;
  Start(&timer, 30);

  time_.WakeLateBy(TimeDelta::FromMilliseconds(1000));

  EXPECT_EQ(runs_ms_, Times{1000});
  Advance(1000);
  EXPECT_GE(runs_ms_.size(), 33u);
  EXPECT_LE(runs_ms_.size(), 35u);
}

TEST_F(TimerTest, PeriodOfZeroDoesNotStarveTheQueue) {
  RepeatingTimer timer;
  int runs = 0;
  target_.task = [&] {
    if (++runs == 10) timer.Stop();
  };

  Start(&timer, 0);

  EXPECT_EQ(runs, 10);
}

TEST_F(TimerTest, StopTakesTheDeadlineBack) {
  RepeatingTimer timer;
  Start(&timer, 1000);
  EXPECT_EQ(time_.PendingDeadlines(), 1u);

  timer.Stop();

  EXPECT_EQ(time_.PendingDeadlines(), 0u);
}

TEST_F(TimerTest, AbandonTakesTheDeadlineBack) {
  OneShotTimer timer;
  Start(&timer, 1000);

  timer.AbandonAndStop();

  EXPECT_EQ(time_.PendingDeadlines(), 0u);
}

TEST_F(TimerTest, DestructionTakesTheDeadlineBack) {
  auto timer = std::make_unique<RepeatingTimer>();
  Start(timer.get(), 1000);

  timer.reset();

  EXPECT_EQ(time_.PendingDeadlines(), 0u);
}

TEST_F(TimerTest, ThousandRestartsLeaveOneDeadline) {
  OneShotTimer timer;

  for (int i = 0; i < 1000; ++i) {
    Start(&timer, 60000);
    Advance(1);
  }

  EXPECT_EQ(time_.PendingDeadlines(), 1u);
}

TEST_F(TimerTest, RunningTimerHasOneDeadlineAndAFinishedOneNone) {
  RepeatingTimer repeating;
  OneShotTimer one_shot;
  Start(&repeating, 10);
  Start(&one_shot, 10);
  EXPECT_EQ(time_.PendingDeadlines(), 2u);

  Advance(100);

  EXPECT_EQ(time_.PendingDeadlines(), 1u);
}

TEST_F(TimerTest, StopInsideItsTaskLeavesNoDeadline) {
  RepeatingTimer timer;
  target_.task = [&] { timer.Stop(); };
  Start(&timer, 10);

  Advance(10);

  EXPECT_EQ(time_.PendingDeadlines(), 0u);
}

TEST_F(TimerTest, DueTimerAbandonedBeforeItsTurnDoesNotRun) {
  RepeatingTimer timer;
  queue_->PostDelayedTask(
      base::Location(), [&] { timer.AbandonAndStop(); }, TimeDelta::FromMilliseconds(30));
  Start(&timer, 30);  // Due at the same moment, behind the task above.

  Advance(100);

  EXPECT_TRUE(runs_ms_.empty());
}

TEST_F(TimerTest, DueTimerStoppedAndStartedAgainBeforeItsTurnRunsAtTheNewDeadlineOnly) {
  RepeatingTimer timer;
  queue_->PostDelayedTask(
      base::Location(),
      [&] {
        timer.Stop();
        timer.Start(base::Location(), TimeDelta::FromMilliseconds(50), &target_, &Target::Run);
      },
      TimeDelta::FromMilliseconds(30));
  Start(&timer, 30);

  Advance(100);

  EXPECT_EQ(runs_ms_, Times{80});
}

TEST_F(TimerTest, DueTimerDestroyedBeforeItsTurnDoesNotRun) {
  auto timer = std::make_unique<OneShotTimer>();
  queue_->PostDelayedTask(
      base::Location(), [&] { timer.reset(); }, TimeDelta::FromMilliseconds(30));
  Start(timer.get(), 30);

  Advance(100);

  EXPECT_TRUE(runs_ms_.empty());
}

// Whatever a timer has been through, its next start goes as the first one of a new timer does.
TEST_F(TimerTest, TimerThatIsUsedAgainRunsAsANewOne) {
  const std::function<void(RepeatingTimer*)> pasts[] = {
      [](RepeatingTimer*) {},
      [&](RepeatingTimer* timer) { Start(timer, 1000); },
      [&](RepeatingTimer* timer) {
        Start(timer, 7);
        Advance(25);
      },
      [&](RepeatingTimer* timer) {
        Start(timer, 7);
        Advance(25);
        timer->Stop();
      },
      [&](RepeatingTimer* timer) {
        Start(timer, 7);
        Advance(25);
        timer->AbandonAndStop();
      },
      [&](RepeatingTimer* timer) {
        target_.task = [timer] { timer->AbandonAndStop(); };
        Start(timer, 7);
        Advance(25);
      },
      [&](RepeatingTimer* timer) {
        Start(timer, 7);
        queue_ = core::ThreadManager::CreateNewDispatchQueue(core::BusinessID::kReliableReport,
                                                             "next", base::nullopt);
        Advance(25);
      }};
  for (const auto& past : pasts) {
    RepeatingTimer timer;
    target_.task = [] {};
    past(&timer);
    const int64_t begin_ms = time_.NowUs() / 1000;
    Times seen;
    target_.task = [&] { seen.push_back(time_.NowUs() / 1000 - begin_ms); };

    Start(&timer, 30);
    EXPECT_EQ(timer.GetCurrentDelay(), TimeDelta::FromMilliseconds(30));
    EXPECT_EQ(time_.PendingDeadlines(), 1u);
    Advance(100);
    timer.Stop();
    Advance(100);

    EXPECT_EQ(seen, (Times{30, 60, 90})) << "after past " << &past - pasts;
    EXPECT_FALSE(timer.IsRunning());
    EXPECT_EQ(time_.PendingDeadlines(), 0u);
  }
}

TEST_F(TimerTest, DelayBeyondTheClockIsKeptAndNeverReached) {
  RepeatingTimer timer;
  const TimeDelta forever = TimeDelta::FromMicroseconds(INT64_MAX);
  OnQueue([&] { timer.Start(base::Location(), forever, &target_, &Target::Run); });

  Advance(int64_t{1000} * 3600 * 24 * 365);

  EXPECT_TRUE(runs_ms_.empty());
  EXPECT_EQ(timer.GetCurrentDelay(), forever);
}

}  // namespace
}  // namespace quenor::test
