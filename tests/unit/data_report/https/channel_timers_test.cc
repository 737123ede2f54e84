// The send timer's period, and the rules by which it starts, changes and stops.
#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "tests/support/channel_test_fixture.h"

namespace quenor::test {
namespace {

class ChannelTimerTest : public ChannelTest {
 protected:
  void EnsureStartTimer() {
    OnQueue([](Peer peer) { peer.EnsureStartTimer(); });
  }
  void ResetTimer(unsigned int ms) {
    OnQueue([ms](Peer peer) { peer.ResetTimer(ms); });
  }
};

// --- EnsureStartTimer ---

TEST_F(ChannelTimerTest, FirstAdmittedMessageStartsTheTimerAtAHundredMilliseconds) {
  Start();
  EXPECT_EQ(SendPeriod(), -1);

  Send("one");

  EXPECT_EQ(SendPeriod(), 100);
  Advance(99);
  EXPECT_EQ(http_.RequestCount(), 0u);
  Advance(1);
  EXPECT_EQ(http_.RequestCount(), 1u);
}

TEST_F(ChannelTimerTest, EnsureStartTimerDoesNothingWhenNotRunning) {
  Start();
  OnQueue([](Peer peer) { peer.DoTerminate(); });

  EnsureStartTimer();

  EXPECT_EQ(SendPeriod(), -1);
}

TEST_F(ChannelTimerTest, EnsureStartTimerKeepsTheDeadlineOfARunningTimer) {
  Start();
  Send("one");
  Advance(60);

  EnsureStartTimer();

  Advance(40);
  EXPECT_EQ(http_.RequestCount(), 1u);
}

TEST_F(ChannelTimerTest, EnsureStartTimerUsesTheCurrentInterval) {
  Start();
  Configure(2500);
  Tick();  // Nothing pending: stops the timer.
  ASSERT_EQ(SendPeriod(), -1);

  EnsureStartTimer();

  EXPECT_EQ(SendPeriod(), 2500);
}

TEST_F(ChannelTimerTest, EnsureStartTimerRaisesAnIntervalBelowTheFloor) {
  Start();
  Configure(99);
  Tick();

  EnsureStartTimer();

  EXPECT_EQ(SendPeriod(), 100);
}

TEST_F(ChannelTimerTest, FlushPacketWhileTheTimerRunsChangesNothing) {
  Start();
  Configure(5000);
  Send("one");
  Advance(3000);

  channel_->FlushPacket();
  time_.RunUntilIdle();

  EXPECT_EQ(SendPeriod(), 5000);
  Advance(1999);
  EXPECT_EQ(http_.RequestCount(), 0u);
  Advance(1);
  EXPECT_EQ(http_.RequestCount(), 1u);
}

TEST_F(ChannelTimerTest, FlushPacketKeepsTheBackOffPeriodOfARunningTimer) {
  Start();
  Send("one", false, true);
  Fail(0);
  ASSERT_EQ(SendPeriod(), 1000);

  channel_->FlushPacket();
  time_.RunUntilIdle();

  EXPECT_EQ(SendPeriod(), 1000);
}

// --- EnsureStopTimer ---

TEST_F(ChannelTimerTest, EnsureStopTimerStopsTheSendTimer) {
  Start();
  Send("one");

  OnQueue([](Peer peer) { peer.EnsureStopTimer(); });

  EXPECT_EQ(SendPeriod(), -1);
  Advance(10000);
  EXPECT_EQ(http_.RequestCount(), 0u);
}

// --- Ticks ---

TEST_F(ChannelTimerTest, TicksGoOnWhileMessagesArePendingThenTheTimerStopsItself) {
  Start();
  SendMany(2);

  Advance(200);
  EXPECT_EQ(http_.RequestCount(), 2u);
  EXPECT_EQ(SendPeriod(), 100);
  Advance(100);

  EXPECT_EQ(SendPeriod(), -1);
  EXPECT_EQ(time_.PendingDeadlines(), 1u);  // The statistics timer's.
}

TEST_F(ChannelTimerTest, NextMessageStartsAStoppedTimerWithTheThenCurrentPeriod) {
  Start();
  Send("one");
  Advance(200);
  ASSERT_EQ(SendPeriod(), -1);
  Configure(700);
  Advance(700);
  ASSERT_EQ(SendPeriod(), -1);

  Send("two");

  EXPECT_EQ(SendPeriod(), 700);
}

TEST_F(ChannelTimerTest, LateWakeUpSendsOneMessageAndNotOnePerMissedTick) {
  Start();
  SendMany(5);

  time_.WakeLateBy(TimeDelta::FromMilliseconds(500));

  EXPECT_EQ(http_.RequestCount(), 1u);
}

// --- ResetTimer ---

TEST_F(ChannelTimerTest, ResetTimerDoesNothingWhenNotRunning) {
  Start();
  OnQueue([](Peer peer) { peer.DoTerminate(); });

  ResetTimer(500);

  EXPECT_EQ(SendPeriod(), -1);
}

TEST_F(ChannelTimerTest, ResetTimerToTheRunningDelayLeavesTheDeadlineAlone) {
  Start();
  Send("one");
  Advance(60);

  ResetTimer(100);

  Advance(40);
  EXPECT_EQ(http_.RequestCount(), 1u);
}

TEST_F(ChannelTimerTest, ResetTimerBelowTheFloorAlwaysPostponesTheNextTick) {
  Start();
  Send("one");
  for (int i = 0; i < 10; ++i) {
    Advance(60);
    ResetTimer(50);
    EXPECT_EQ(SendPeriod(), 100);
  }
  EXPECT_EQ(http_.RequestCount(), 0u);

  Advance(100);

  EXPECT_EQ(http_.RequestCount(), 1u);
}

TEST_F(ChannelTimerTest, ResetTimerToAnotherDelayRestartsAtIt) {
  Start();
  Send("one");
  Advance(60);

  ResetTimer(300);

  EXPECT_EQ(SendPeriod(), 300);
  Advance(299);
  EXPECT_EQ(http_.RequestCount(), 0u);
  Advance(1);
  EXPECT_EQ(http_.RequestCount(), 1u);
}

TEST_F(ChannelTimerTest, ResetTimerStartsAStoppedTimer) {
  Start();
  ASSERT_EQ(SendPeriod(), -1);

  ResetTimer(300);

  EXPECT_EQ(SendPeriod(), 300);
}

TEST_F(ChannelTimerTest, ResetTimerStartsATimerThatWasStoppedAtTheSameDelay) {
  Start();
  ResetTimer(300);
  OnQueue([](Peer peer) { peer.EnsureStopTimer(); });

  ResetTimer(300);

  EXPECT_EQ(SendPeriod(), 300);
}

TEST_F(ChannelTimerTest, ResetTimerStartsATimerThatWasNeverStartedAtAnyInterval) {
  for (const unsigned int ms : {0u, 1u, 100u, std::numeric_limits<unsigned int>::max()}) {
    Start();

    ResetTimer(ms);

    EXPECT_EQ(SendPeriod(), ms < 100 ? 100 : int64_t{ms});
    Stop();
  }
}

// --- DoSetResendInterval ---

TEST_F(ChannelTimerTest, SetResendIntervalRetimesAtOnceAndTheSecondTimeDoesNothing) {
  Start();
  Send("one");
  Advance(60);

  Configure(5000);
  EXPECT_EQ(SendPeriod(), 5000);
  Advance(3000);
  Configure(5000);

  Advance(1999);
  EXPECT_EQ(http_.RequestCount(), 0u);
  Advance(1);
  EXPECT_EQ(http_.RequestCount(), 1u);
}

TEST_F(ChannelTimerTest, SetResendIntervalBelowTheFloorIsStoredAndRunsAtTheFloor) {
  Start();
  Send("one");

  Configure(50);

  EXPECT_EQ(peer().resend_interval_ms(), 50u);
  EXPECT_EQ(peer().current_interval_ms(), 50u);
  EXPECT_EQ(SendPeriod(), 100);
}

TEST_F(ChannelTimerTest, SetResendIntervalEqualToTheConfiguredOneKeepsTheBackOff) {
  Start();
  Send("one", false, true);
  Fail(0);
  Advance(1000);
  Fail(1);
  ASSERT_EQ(peer().current_interval_ms(), 2000u);

  Configure(0);

  EXPECT_EQ(peer().current_interval_ms(), 2000u);
  EXPECT_EQ(SendPeriod(), 2000);
}

TEST_F(ChannelTimerTest, SetResendIntervalEndsABackOff) {
  Start();
  Send("one", false, true);
  Fail(0);
  ASSERT_EQ(SendPeriod(), 1000);

  Configure(300);

  EXPECT_EQ(peer().current_interval_ms(), 300u);
  EXPECT_EQ(SendPeriod(), 300);
}

TEST_F(ChannelTimerTest, SetResendIntervalZeroReturnsToTheUnconfiguredMode) {
  Start();
  Configure(5000);
  Send("queued", false, true);
  ASSERT_EQ(http_.RequestCount(), 0u);

  Configure(0);
  Send("now", false, true);

  EXPECT_EQ(peer().resend_interval_ms(), 0u);
  EXPECT_EQ(peer().current_interval_ms(), 0u);
  ASSERT_EQ(http_.RequestCount(), 1u);
  EXPECT_EQ(http_.Requests()[0].body, "now");
  Fail(0);
  EXPECT_EQ(SendPeriod(), 1000);
}

TEST_F(ChannelTimerTest, LargestIntervalDoesNotOverflow) {
  Start();

  Configure(std::numeric_limits<uint32_t>::max());

  EXPECT_EQ(peer().resend_interval_ms(), 4294967295u);
  EXPECT_EQ(SendPeriod(), 4294967295);
  Send("one");
  Advance(4294967294);
  EXPECT_EQ(http_.RequestCount(), 0u);
  Advance(1);
  EXPECT_EQ(http_.RequestCount(), 1u);
}

TEST_F(ChannelTimerTest, LargestIntervalIsKeptWhenAskedForAgain) {
  Start();
  Configure(std::numeric_limits<uint32_t>::max());
  Send("one");
  Advance(1000);

  ResetTimer(std::numeric_limits<uint32_t>::max());

  Advance(4294966295);
  EXPECT_EQ(http_.RequestCount(), 1u);
}

// --- The other two timers ---

TEST_F(ChannelTimerTest, StatisticsTimerRunsEverySixHundredSeconds) {
  Start();
  Send("one");

  Advance(599999);
  EXPECT_TRUE(RecordingLog::Texts(0).empty());
  Advance(1);
  EXPECT_EQ(RecordingLog::Texts(0).size(), 1u);
  Send("two");
  Advance(600000);

  EXPECT_EQ(RecordingLog::Texts(0).size(), 2u);
}

TEST_F(ChannelTimerTest, CleanTimerRunsOnceAfterSixtySeconds) {
  Start();
  Send("one", false, true);
  Answer(0, 200);
  EXPECT_EQ(peer().clean_timer().GetCurrentDelay(), TimeDelta::FromSeconds(60));

  Advance(59999);
  EXPECT_NE(peer().http_client(), nullptr);
  Advance(1);

  EXPECT_EQ(peer().http_client(), nullptr);
  EXPECT_FALSE(peer().clean_timer().IsRunning());
}

// --- Across a restart ---

TEST_F(ChannelTimerTest, BackOffIntervalSurvivesTerminateAndInitialize) {
  Start();
  Send("one", false, true);
  Fail(0);
  Stop();
  EXPECT_EQ(peer().current_interval_ms(), 1000u);
  channel_->Initialize();

  Send("two");

  EXPECT_EQ(SendPeriod(), 1000);
}

TEST_F(ChannelTimerTest, SendTimerStaysStoppedUntilDoInitHasRunAgain) {
  Start();
  Stop();
  channel_->Initialize();

  EXPECT_EQ(SendPeriod(), -1);
  time_.RunUntilIdle();
  EXPECT_EQ(SendPeriod(), -1);
  channel_->FlushPacket();
  time_.RunUntilIdle();

  EXPECT_EQ(SendPeriod(), 100);
}

TEST_F(ChannelTimerTest, ReportIntervalSurvivesTerminateAndInitialize) {
  Start();
  Send("one", false, true);
  Answer(0, 200, "{\"bytes_errinfo\":\"success\",\"uint32_report_duration\":30}");
  Stop();

  channel_->Initialize();
  time_.RunUntilIdle();

  EXPECT_EQ(channel_->GetReportInterval(), 30000u);
}

TEST_F(ChannelTimerTest, GetReportIntervalIsTenSecondsUntilTheServerSendsAnother) {
  Start();
  EXPECT_EQ(channel_->GetReportInterval(), 10000u);
  Send("one", false, true);
  Answer(0, 200, "{\"bytes_errinfo\":\"success\",\"uint32_report_duration\":30}");

  EXPECT_EQ(channel_->GetReportInterval(), 30000u);
}

}  // namespace
}  // namespace quenor::test
