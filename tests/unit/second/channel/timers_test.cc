// The send timer's start, retiming and stop, and the report interval. Written without sight of the
// implementation, from the promises alone.
#include <thread>

#include "tests/unit/second/channel/promise_fixture.h"

namespace quenor::test {
namespace {

class PromisedTimersTest : public PromiseTest {
 protected:
  int64_t DelayMs() { return Inside().send_timer().GetCurrentDelay().InMilliseconds(); }
  bool Ticking() { return Inside().send_timer().IsRunning(); }
  void SetInterval(unsigned int interval_ms) {
    channel_->SetResendInterval(interval_ms);
    time_.RunUntilIdle();
  }
};

TEST_F(PromisedTimersTest, FirstMessageStartsTheTimerAtAHundredMilliseconds) {
  Start();
  Send("one");

  EXPECT_TRUE(Ticking());
  EXPECT_EQ(DelayMs(), 100);
  AdvanceToTheEdge(Ms(100), [this] { EXPECT_EQ(http_.RequestCount(), 0u); });
  EXPECT_EQ(http_.RequestCount(), 1u);
}

TEST_F(PromisedTimersTest, EachTickSendsOneAndAnEmptyListStopsIt) {
  Start();
  SendMany(3);

  for (size_t tick = 1; tick <= 3; ++tick) {
    Advance(Ms(100));
    EXPECT_EQ(http_.RequestCount(), tick);
    EXPECT_TRUE(Ticking());
  }
  Advance(Ms(100));
  EXPECT_FALSE(Ticking());
  EXPECT_EQ(http_.RequestCount(), 3u);
}

TEST_F(PromisedTimersTest, PeriodHasAFloorOfAHundredMilliseconds) {
  const std::vector<std::pair<uint32_t, int64_t>> cases = {
      {0, 100}, {1, 100}, {99, 100}, {100, 100}, {101, 101}, {4294967295u, 4294967295}};
  for (const auto& [interval, period] : cases) {
    Start();
    Inside().current_interval() = interval;
    OnQueue([this] { Inside().EnsureStartTimer(); });
    EXPECT_TRUE(Ticking());
    EXPECT_EQ(Inside().send_timer().GetCurrentDelay().InMicroseconds(), period * 1000);
    Stop();
  }
}

TEST_F(PromisedTimersTest, RunningTimerKeepsItsPeriodWhateverTheInterval) {
  Start();
  Send("one");
  Advance(Ms(60));
  Inside().current_interval() = 5000;

  Send("two");

  EXPECT_EQ(DelayMs(), 100);
  Advance(Ms(40));
  EXPECT_EQ(http_.RequestCount(), 1u);
}

TEST_F(PromisedTimersTest, FlushChangesNothingWhileTheTimerRuns) {
  Start();
  Send("one");
  Advance(Ms(99));

  channel_->FlushPacket();
  time_.RunUntilIdle();

  EXPECT_EQ(http_.RequestCount(), 0u);
  Advance(Ms(1));
  EXPECT_EQ(http_.RequestCount(), 1u);
}

TEST_F(PromisedTimersTest, FlushOfAnEmptyListTicksOnceAndStops) {
  Start();

  channel_->FlushPacket();
  time_.RunUntilIdle();

  EXPECT_TRUE(Ticking());
  Advance(Ms(99));
  EXPECT_TRUE(Ticking());
  Advance(Ms(1));
  EXPECT_FALSE(Ticking());
  EXPECT_EQ(http_.RequestCount(), 0u);
}

TEST_F(PromisedTimersTest, StoppedChannelStartsNoTimer) {
  Start();
  const auto queue = Inside().queue();
  Stop();

  queue->PostTask(base::Location(), [this] {
    Inside().EnsureStartTimer();
    Inside().ResetTimer(500);
  });
  time_.RunUntilIdle();

  EXPECT_FALSE(Ticking());
  EXPECT_TRUE(Refusals().empty());
}

TEST_F(PromisedTimersTest, ResetToTheSamePeriodTouchesNothing) {
  Start();
  SetInterval(5000);
  Send("one");
  Advance(Ms(3000));

  OnQueue([this] { Inside().ResetTimer(5000); });

  Advance(Ms(2000));
  EXPECT_EQ(http_.RequestCount(), 1u);
}

TEST_F(PromisedTimersTest, ResetToExactlyTheFloorTouchesNothing) {
  Start();
  Send("one");
  Advance(Ms(60));

  OnQueue([this] { Inside().ResetTimer(100); });

  Advance(Ms(40));
  EXPECT_EQ(http_.RequestCount(), 1u);
}

TEST_F(PromisedTimersTest, ResetBelowTheFloorAlwaysPostponesTheTick) {
  for (unsigned int interval : {0u, 50u, 99u}) {
    Start();
    Send("one");
    const size_t before = http_.RequestCount();
    Advance(Ms(60));

    OnQueue([&] { Inside().ResetTimer(interval); });

    EXPECT_EQ(DelayMs(), 100);
    AdvanceToTheEdge(Ms(100), [&] { EXPECT_EQ(http_.RequestCount(), before); });
    EXPECT_EQ(http_.RequestCount(), before + 1);
    Stop();
  }
}

TEST_F(PromisedTimersTest, RepeatedResetsBelowTheFloorStarveTheTick) {
  Start();
  Send("one");

  for (int i = 0; i < 50; ++i) {
    Advance(Ms(99));
    OnQueue([this] { Inside().ResetTimer(50); });
  }

  EXPECT_EQ(http_.RequestCount(), 0u);
}

TEST_F(PromisedTimersTest, ResetStartsAStoppedTimer) {
  Start();

  OnQueue([this] { Inside().ResetTimer(250); });

  EXPECT_TRUE(Ticking());
  EXPECT_EQ(DelayMs(), 250);
}

TEST_F(PromisedTimersTest, ResetLeavesTheIntervalsAlone) {
  Start();
  OnQueue([this] { Inside().ResetTimer(250); });
  EXPECT_EQ(Inside().current_interval(), 0u);
  EXPECT_EQ(Inside().resend_interval(), 0u);
}

TEST_F(PromisedTimersTest, NewIntervalRetimesAtOnceAndTheSameOneDoesNothing) {
  Start();
  Send("one");
  Advance(Ms(50));
  SetInterval(5000);
  EXPECT_EQ(Inside().resend_interval(), 5000u);
  EXPECT_EQ(Inside().current_interval(), 5000u);
  EXPECT_EQ(DelayMs(), 5000);
  Advance(Ms(4000));

  SetInterval(5000);

  AdvanceToTheEdge(Ms(1000), [this] { EXPECT_EQ(http_.RequestCount(), 0u); });
  EXPECT_EQ(http_.RequestCount(), 1u);
}

TEST_F(PromisedTimersTest, IntervalBelowTheFloorIsStoredAsItIs) {
  Start();
  SetInterval(50);

  EXPECT_EQ(Inside().resend_interval(), 50u);
  EXPECT_EQ(Inside().current_interval(), 50u);
  EXPECT_EQ(DelayMs(), 100);
}

TEST_F(PromisedTimersTest, LargestIntervalIsNotCut) {
  Start();
  Send("one");
  SetInterval(4294967295u);

  EXPECT_EQ(Inside().send_timer().GetCurrentDelay().InMicroseconds(), 4294967295000);
  AdvanceToTheEdge(Ms(4294967295), [this] { EXPECT_EQ(http_.RequestCount(), 0u); });
  EXPECT_EQ(http_.RequestCount(), 1u);
}

TEST_F(PromisedTimersTest, NewIntervalStartsTheTimerOfAnIdleChannel) {
  Start();
  SetInterval(300);

  EXPECT_TRUE(Ticking());
  Advance(Ms(300));
  EXPECT_FALSE(Ticking());
}

TEST_F(PromisedTimersTest, EqualIntervalDoesNotEndABackOff) {
  Start();
  Send("one", false, true);
  Answer(0, 500);
  ASSERT_EQ(Inside().current_interval(), 1000u);

  SetInterval(0);

  EXPECT_EQ(Inside().current_interval(), 1000u);
  EXPECT_EQ(DelayMs(), 1000);
}

TEST_F(PromisedTimersTest, NewIntervalEndsABackOff) {
  Start();
  Send("one", false, true);
  Answer(0, 500);

  SetInterval(400);

  EXPECT_EQ(Inside().current_interval(), 400u);
  EXPECT_EQ(DelayMs(), 400);
}

TEST_F(PromisedTimersTest, ZeroGoesBackToTheUnconfiguredMode) {
  Start();
  SetInterval(5000);
  SetInterval(0);

  EXPECT_EQ(Inside().resend_interval(), 0u);
  EXPECT_EQ(Inside().current_interval(), 0u);
  EXPECT_EQ(DelayMs(), 100);
  Send("now", false, true);
  EXPECT_EQ(SentBodies(), Strings{"now"});
}

TEST_F(PromisedTimersTest, TimerStartsAgainWithTheThenCurrentPeriod) {
  Start();
  Send("one");
  Advance(Ms(200));
  ASSERT_FALSE(Ticking());
  Inside().current_interval() = 700;

  Send("two");

  EXPECT_EQ(DelayMs(), 700);
  AdvanceToTheEdge(Ms(700), [this] { EXPECT_EQ(http_.RequestCount(), 1u); });
  EXPECT_EQ(http_.RequestCount(), 2u);
}

TEST_F(PromisedTimersTest, IntervalSetWhileStoppedTakesEffectAtTheNextStart) {
  Start();
  const auto queue = Inside().queue();
  channel_->Terminate();
  // A call that raced with the termination: its task comes behind it.
  Inside().SetState(2);
  Inside().SetQueue(queue);
  channel_->SetResendInterval(900);
  Inside().SetQueue(nullptr);
  Inside().SetState(0);
  time_.RunUntilIdle();
  EXPECT_EQ(Inside().resend_interval(), 900u);
  EXPECT_EQ(Inside().current_interval(), 900u);
  EXPECT_FALSE(Ticking());

  Start();
  Send("one");

  EXPECT_EQ(DelayMs(), 900);
}

TEST_F(PromisedTimersTest, EnsureStopStopsTheSendTimerOnly) {
  Start();
  Send("one");
  OnQueue([this] { Inside().EnsureStopTimer(); });

  EXPECT_FALSE(Ticking());
  EXPECT_TRUE(Inside().statistic_timer().IsRunning());
  Advance(Seconds(5));
  EXPECT_EQ(http_.RequestCount(), 0u);
}

TEST_F(PromisedTimersTest, ReportIntervalIsReadOnAnyThreadInAnyState) {
  uint32_t before = 0;
  std::thread([&] { before = channel_->GetReportInterval(); }).join();
  EXPECT_EQ(before, 10000u);

  Start();
  EXPECT_EQ(channel_->GetReportInterval(), 10000u);
  Reply(R"({"bytes_errinfo":"success","uint32_report_duration":30})");
  uint32_t after = 0;
  std::thread([&] { after = channel_->GetReportInterval(); }).join();
  EXPECT_EQ(after, 30000u);
  Stop();

  EXPECT_EQ(channel_->GetReportInterval(), 30000u);
  EXPECT_TRUE(Refusals().empty());
}

TEST_F(PromisedTimersTest, ReportIntervalChangesNoTimer) {
  Start();
  Send("x");
  Reply(R"({"bytes_errinfo":"success","uint32_report_duration":30})");
  EXPECT_EQ(DelayMs(), 100);
  EXPECT_EQ(Inside().statistic_timer().GetCurrentDelay().InMilliseconds(), 600000);
}

}  // namespace
}  // namespace quenor::test
