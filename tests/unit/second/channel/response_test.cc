// What becomes of a message once its request is answered: retired, put back, dropped; and the
// back-off. Written without sight of the implementation, from the promises alone.
#include "tests/unit/second/channel/promise_fixture.h"

namespace quenor::test {
namespace {

class PromisedResponseTest : public PromiseTest {
 protected:
  bool Ticking() { return Inside().send_timer().IsRunning(); }
  int64_t DelayMs() { return Inside().send_timer().GetCurrentDelay().InMilliseconds(); }
  size_t Last() { return http_.RequestCount() - 1; }
  // Has the next request made and failed, `count` times.
  void FailTimes(int count) {
    for (int i = 0; i < count; ++i) {
      OnQueue([this] { Inside().DoSend(); });
      Answer(Last(), 500);
    }
  }
};

TEST_F(PromisedResponseTest, CallbackOnlyForwards) {
  Start();
  Send("one", false, true);
  ASSERT_TRUE(http_.Answer(0, 200));

  ASSERT_TRUE(time_.RunNext());  // The client's own thread.

  EXPECT_EQ(Inside().sending().size(), 1u);
  EXPECT_EQ(Counters(), (Numbers{1, 1, 0, 0, 0}));
  EXPECT_STREQ(time_.LastPostedFrom().file(), kChannelSource);
  ASSERT_TRUE(time_.RunNext());
  EXPECT_TRUE(Inside().sending().empty());
  EXPECT_EQ(Counters(), (Numbers{1, 1, 1, 0, 0}));
}

TEST_F(PromisedResponseTest, ForwardedTaskKeepsTheChannelAlive) {
  auto queue = std::make_shared<HoldingQueue>();
  Inside().SetState(2);
  Inside().SetQueue(queue);
  Inside().OnResponse(State::kCompleted, 3, MakeResponse(200));
  EXPECT_EQ(channel_.use_count(), 2);
  ASSERT_EQ(queue->posts.size(), 1u);
  EXPECT_FALSE(queue->posts[0].delayed);
  queue->posts.clear();
  EXPECT_EQ(channel_.use_count(), 1);
}

TEST_F(PromisedResponseTest, CallbackOfAnUninitializedChannelWritesItsThrottledLine) {
  for (int32_t state : {0, 1, 3}) {
    Make();
    RecordingLog::Clear();
    auto queue = std::make_shared<HoldingQueue>();
    Inside().SetQueue(queue);
    Inside().SetState(state);
    Inside().OnResponse(State::kCompleted, 1, MakeResponse(200));
    Inside().OnResponse(State::kCompleted, 1, MakeResponse(200));
    EXPECT_EQ(Refusals(), Strings{"OnResponse, channel is not initialized"});
    EXPECT_EQ(RecordingLog::Lines().at(0).file, kChannelSource);
    EXPECT_TRUE(queue->posts.empty());
    Inside().SetState(0);
  }
}

TEST_F(PromisedResponseTest, CallbackWithoutAQueueIsSilent) {
  Inside().SetState(2);
  Inside().OnResponse(State::kCompleted, 1, MakeResponse(200));
  EXPECT_TRUE(RecordingLog::Lines().empty());
  Inside().SetState(0);
}

TEST_F(PromisedResponseTest, AnswersAfterTerminationAreDiscardedWithOneLine) {
  Start();
  Send("one", false, true);
  Send("two", false, true);
  RecordingLog::Clear();

  Stop();  // The client ends, and both requests with it.

  EXPECT_EQ(Refusals(), Strings{"OnResponse, channel is not initialized"});
  EXPECT_EQ(Counters(), (Numbers{0, 0, 0, 0, 0}));
  EXPECT_EQ(StatisticLines(), Strings{StatisticLine("second", kUrl, {2, 2, 0, 0, 0})});
}

TEST_F(PromisedResponseTest, TaskOfAStoppedChannelWritesItsThrottledLineAndTouchesNothing) {
  Start();
  const auto queue = Inside().queue();
  Stop();
  Inside().sending().emplace(5, Channel::CachedMessage(false));

  for (int i = 0; i < 2; ++i) {
    queue->PostTask(base::Location(),
                    [this] { Inside().DoOnResponse(State::kCompleted, 5, MakeResponse(200)); });
    time_.RunUntilIdle();
  }

  EXPECT_EQ(Refusals(), Strings{"DoOnResponse, channel is not running"});
  EXPECT_EQ(Inside().sending().size(), 1u);
  EXPECT_EQ(Counters(), (Numbers{0, 0, 0, 0, 0}));
  EXPECT_FALSE(Inside().clean_timer().IsRunning());
}

TEST_F(PromisedResponseTest, AnswerOfTheLastRunIsForeignToTheNext) {
  Start();
  Send("lost", false, true);
  channel_->Terminate();
  ASSERT_TRUE(time_.RunNext());  // DoTerminate; the request's end waits behind it.
  ASSERT_GE(time_.DueTasks(), 1u);
  channel_->Initialize();

  time_.RunUntilIdle();

  EXPECT_TRUE(Inside().running());
  EXPECT_TRUE(Inside().pending().empty());
  EXPECT_EQ(Counters(), (Numbers{0, 0, 0, 0, 0}));
  EXPECT_TRUE(Refusals().empty());
}

TEST_F(PromisedResponseTest, OnlyState2WithStatus200IsASuccess) {
  Start();
  uint32_t count = 0;
  for (int status : {-200, 0, 100, 199, 201, 204, 302, 400, 404, 500, 2000}) {
    Send("x", false, true);
    Answer(Last(), status);
    EXPECT_EQ(Counters()[3], ++count) << status;
    EXPECT_EQ(Counters()[2], 0u) << status;
  }
  for (State state : {State::kFailed, State::kCancelled, State::kTimedOut, State::kTooLarge,
                      static_cast<State>(-1), static_cast<State>(200)}) {
    Send("x", false, true);
    ASSERT_TRUE(http_.AnswerWith(Last(), state, MakeResponse(200)));
    time_.RunUntilIdle();
    EXPECT_EQ(Counters()[3], ++count) << static_cast<int>(state);
    EXPECT_EQ(Counters()[2], 0u);
  }
  Send("x", false, true);
  Answer(Last(), 200);
  EXPECT_EQ(Counters()[2], 1u);
}

TEST_F(PromisedResponseTest, MissingResponseOfAFailedExchangeIsAFailure) {
  Start();
  Send("x", false, true);
  ASSERT_TRUE(http_.Fail(0));
  time_.RunUntilIdle();
  EXPECT_EQ(Counters(), (Numbers{1, 1, 0, 1, 0}));
  EXPECT_EQ(PendingBodies(), Strings{"x"});
}

TEST_F(PromisedResponseTest, SuccessRetiresWhateverTheBodySays) {
  Start();
  uint32_t count = 0;
  for (const char* body : {"", "{}", "no json", "[1]", R"({"bytes_errinfo":"failure"})",
                           R"({"bytes_errinfo":"success"})"}) {
    Send("x", true, true);
    Answer(Last(), 200, body);
    EXPECT_EQ(Counters()[2], ++count) << body;
    EXPECT_TRUE(Inside().sending().empty());
    EXPECT_TRUE(Inside().pending().empty());
  }
}

TEST_F(PromisedResponseTest, SuccessWithAnEmptyObjectChangesNoSetting) {
  Start();
  Send("x", false, true);
  Inside().fail_count() = 2;

  Answer(0, 200, "{}");

  EXPECT_EQ(Inside().fail_count(), 0u);
  EXPECT_EQ(Inside().resend_interval(), 0u);
  EXPECT_EQ(Inside().current_interval(), 0u);
  EXPECT_EQ(Inside().max_resend(), 5u);
  EXPECT_EQ(channel_->GetReportInterval(), 10000u);
}

TEST_F(PromisedResponseTest, FailureGoesInFrontOfWhatArrivedMeanwhile) {
  Start();
  Send("failing", false, true);
  Send("a");
  Send("b");

  Answer(0, 503);

  EXPECT_EQ(PendingBodies(), (Strings{"failing", "a", "b"}));
  EXPECT_EQ(Inside().pending().front().send_count, 1u);
}

TEST_F(PromisedResponseTest, LaterFailureStandsBeforeAnEarlierOne) {
  Start();
  Send("a", false, true);
  Send("b", false, true);
  Answer(0, 500);
  Answer(1, 500);
  EXPECT_EQ(PendingBodies(), (Strings{"b", "a"}));
}

TEST_F(PromisedResponseTest, AnswersMayComeInAnyOrder) {
  Start();
  Send("a", false, true);
  Send("b", false, true);
  Answer(1, 200);
  ASSERT_EQ(Inside().sending().size(), 1u);
  EXPECT_EQ(Bytes(Inside().sending().begin()->second.data), "a");
  Answer(0, 500);
  EXPECT_EQ(PendingBodies(), Strings{"a"});
}

TEST_F(PromisedResponseTest, AlwaysFailingMessageIsSentFiveTimesOverTheWholeBackOff) {
  Start();
  std::vector<int64_t> sent_at_ms;
  std::vector<int64_t> periods;
  http_.SetOnSend([&](const HttpClient::Request&) { sent_at_ms.push_back(time_.NowUs() / 1000); });
  http_.SetOnStarted([this] { http_.Answer(Last(), 500); });
  time_.SetAfterEachTask([&] {
    if (Counters()[3] == periods.size() + 1) periods.push_back(DelayMs());
  });
  Send("failing", true);

  Advance(Seconds(200));
  time_.SetAfterEachTask(nullptr);

  EXPECT_EQ(sent_at_ms, (std::vector<int64_t>{100, 1100, 3100, 7100, 15100}));
  EXPECT_EQ(periods, (std::vector<int64_t>{1000, 2000, 4000, 8000, 8000}));
  EXPECT_EQ(Counters(), (Numbers{1, 5, 0, 5, 1}));
  EXPECT_TRUE(Inside().pending().empty());
  EXPECT_TRUE(Inside().sending().empty());
  EXPECT_EQ(Inside().fail_count(), 5u);
}

TEST_F(PromisedResponseTest, BackOffGoesOneTwoFourEightAndStays) {
  Start();
  channel_->SetMaxResendCount(1000);
  Send("failing");
  const std::vector<uint32_t> periods = {1000, 2000, 4000, 8000, 8000, 8000, 8000};
  for (size_t i = 0; i < periods.size(); ++i) {
    FailTimes(1);
    EXPECT_EQ(Inside().current_interval(), periods[i]) << i;
    EXPECT_EQ(DelayMs(), periods[i]) << i;
    EXPECT_EQ(Inside().fail_count(), i + 1);
  }
  FailTimes(60);
  EXPECT_EQ(Inside().current_interval(), 8000u);
  EXPECT_EQ(Inside().resend_interval(), 0u);
  EXPECT_EQ(Inside().fail_count(), 67u);
}

TEST_F(PromisedResponseTest, FifthFailureDoesNotPostponeTheTick) {
  Start();
  Send("failing");
  FailTimes(4);
  ASSERT_EQ(DelayMs(), 8000);
  Advance(Ms(5000));
  channel_->SetMaxResendCount(100);
  FailTimes(1);
  const size_t before = http_.RequestCount();

  AdvanceToTheEdge(Ms(3000), [&] { EXPECT_EQ(http_.RequestCount(), before); });

  EXPECT_EQ(http_.RequestCount(), before + 1);
}

TEST_F(PromisedResponseTest, FifthFailureStartsAStoppedTimerWithTheCurrentPeriod) {
  Start();
  Send("failing");
  FailTimes(4);
  OnQueue([this] {
    Inside().DoSend();
    Inside().EnsureStopTimer();
  });
  channel_->SetMaxResendCount(100);

  Answer(Last(), 500);

  EXPECT_TRUE(Ticking());
  EXPECT_EQ(DelayMs(), 8000);
}

TEST_F(PromisedResponseTest, BackOffStartsAStoppedTimer) {
  Start();
  Send("failing", false, true);
  Advance(Ms(100));
  ASSERT_FALSE(Ticking());

  Answer(0, 500);

  EXPECT_TRUE(Ticking());
  EXPECT_EQ(DelayMs(), 1000);
}

TEST_F(PromisedResponseTest, BackOffCountsFailuresOfAllMessages) {
  Start();
  for (const char* body : {"a", "b", "c"}) Send(body, false, true);
  for (size_t i = 0; i < 3; ++i) Answer(i, 500);
  EXPECT_EQ(DelayMs(), 4000);
  EXPECT_EQ(Inside().fail_count(), 3u);
}

TEST_F(PromisedResponseTest, ConfiguredIntervalKnowsNoBackOff) {
  Start();
  channel_->SetResendInterval(500);
  channel_->SetMaxResendCount(100);
  Send("failing");
  for (uint32_t i = 1; i <= 6; ++i) {
    FailTimes(1);
    EXPECT_EQ(DelayMs(), 500);
    EXPECT_EQ(Inside().current_interval(), 500u);
    EXPECT_EQ(Inside().fail_count(), i);
  }
}

TEST_F(PromisedResponseTest, FailureUnderAnIntervalKeepsTheRunningPhase) {
  Start();
  channel_->SetResendInterval(500);
  Send("failing");
  Send("waits");
  Advance(Ms(500));
  ASSERT_EQ(http_.RequestCount(), 1u);
  Advance(Ms(400));

  Answer(0, 500);

  Advance(Ms(100));
  EXPECT_EQ(SentBodies(), (Strings{"failing", "failing"}));
}

TEST_F(PromisedResponseTest, FailureUnderAnIntervalStartsAStoppedTimer) {
  Start();
  channel_->SetResendInterval(500);
  Send("failing");
  Advance(Ms(1000));
  ASSERT_FALSE(Ticking());

  Answer(0, 500);

  EXPECT_TRUE(Ticking());
  EXPECT_EQ(DelayMs(), 500);
}

TEST_F(PromisedResponseTest, FailuresUnderAnIntervalCountForALaterBackOff) {
  Start();
  channel_->SetResendInterval(500);
  channel_->SetMaxResendCount(100);
  Send("failing");
  FailTimes(2);
  channel_->SetResendInterval(0);
  time_.RunUntilIdle();

  FailTimes(1);
  EXPECT_EQ(DelayMs(), 4000);
  FailTimes(1);
  EXPECT_EQ(DelayMs(), 8000);
}

TEST_F(PromisedResponseTest, FourFailuresUnderAnIntervalLeaveNoBackOffLater) {
  Start();
  channel_->SetResendInterval(500);
  channel_->SetMaxResendCount(100);
  Send("failing");
  FailTimes(4);
  channel_->SetResendInterval(0);
  time_.RunUntilIdle();

  FailTimes(3);

  EXPECT_EQ(Inside().current_interval(), 0u);
  EXPECT_EQ(DelayMs(), 100);
}

TEST_F(PromisedResponseTest, FailureCountWrapsAndTheBackOffStartsAnew) {
  Start();
  channel_->SetMaxResendCount(100);
  Send("failing");
  Inside().fail_count() = 4294967295u;
  FailTimes(1);
  EXPECT_EQ(Inside().fail_count(), 0u);
  EXPECT_EQ(Inside().current_interval(), 0u);
  FailTimes(1);
  EXPECT_EQ(Inside().current_interval(), 1000u);
}

TEST_F(PromisedResponseTest, SuccessAfterFailuresDrainsAtTheFloor) {
  Start();
  Send("a", false, true);
  Send("b", false, true);
  Send("c");
  Answer(0, 500);
  ASSERT_EQ(DelayMs(), 1000);

  Answer(1, 200);

  EXPECT_EQ(Inside().current_interval(), 0u);
  EXPECT_EQ(DelayMs(), 100);
  EXPECT_EQ(Inside().fail_count(), 0u);
  Advance(Ms(200));
  EXPECT_EQ(SentBodies(), (Strings{"a", "b", "a", "c"}));
}

TEST_F(PromisedResponseTest, SuccessAfterFailuresStartsAStoppedTimerThatStopsItself) {
  Start();
  Send("a", false, true);
  Answer(0, 500);
  OnQueue([this] {
    Inside().DoSend();
    Inside().EnsureStopTimer();
  });

  Answer(1, 200);

  EXPECT_TRUE(Ticking());
  Advance(Ms(100));
  EXPECT_FALSE(Ticking());
}

TEST_F(PromisedResponseTest, SuccessWithoutABackOffTouchesNoTimer) {
  Start();
  Send("a", false, true);
  Send("b");
  Advance(Ms(60));
  Answer(0, 200);
  Advance(Ms(40));
  EXPECT_EQ(SentBodies(), (Strings{"a", "b"}));

  Advance(Ms(100));
  ASSERT_FALSE(Ticking());
  Answer(1, 200);
  EXPECT_FALSE(Ticking());
}

TEST_F(PromisedResponseTest, SuccessReturnsToTheConfiguredInterval) {
  Start();
  Send("a", false, true);
  Answer(0, 500);
  Inside().resend_interval() = 700;  // Configured, while the back-off's period is in force.
  OnQueue([this] { Inside().DoSend(); });

  Answer(1, 200);

  EXPECT_EQ(Inside().current_interval(), 700u);
  EXPECT_EQ(DelayMs(), 700);
}

TEST_F(PromisedResponseTest, LimitOfNMeansNSends) {
  for (unsigned int limit : {0u, 1u, 2u, 3u, 7u}) {
    Make();
    Start();
    channel_->SetMaxResendCount(limit);
    Send("failing");
    const uint32_t sends = limit == 0 ? 1 : limit;
    for (uint32_t i = 1; i < sends; ++i) {
      FailTimes(1);
      ASSERT_EQ(Inside().pending().size(), 1u);
      EXPECT_EQ(Inside().pending().front().send_count, i);
    }
    FailTimes(1);
    EXPECT_TRUE(Inside().pending().empty()) << limit;
    EXPECT_EQ(Counters(), (Numbers{1, sends, 0, sends, 1}));
    Stop();
  }
}

TEST_F(PromisedResponseTest, LimitInForceAtTheAnswerCounts) {
  Start();
  Send("a", false, true);
  channel_->SetMaxResendCount(1);
  Answer(0, 500);
  EXPECT_EQ(Counters()[4], 1u);

  channel_->SetMaxResendCount(3);
  Send("b");
  FailTimes(2);
  channel_->SetMaxResendCount(1);  // Below what it has been sent already.
  FailTimes(1);
  EXPECT_EQ(Counters()[4], 2u);
  EXPECT_TRUE(Inside().pending().empty());
}

TEST_F(PromisedResponseTest, LimitIsComparedUnsigned) {
  Start();
  channel_->SetMaxResendCount(4294967295u);
  Send("failing");
  Inside().pending().front().send_count = 4294967293u;
  FailTimes(1);
  EXPECT_EQ(Inside().pending().size(), 1u);
  FailTimes(1);
  EXPECT_TRUE(Inside().pending().empty());
  EXPECT_EQ(Counters()[4], 1u);
}

TEST_F(PromisedResponseTest, SendCountWrapsToZero) {
  Start();
  Send("failing");
  Inside().pending().front().send_count = 4294967295u;
  FailTimes(1);
  ASSERT_EQ(Inside().pending().size(), 1u);
  EXPECT_EQ(Inside().pending().front().send_count, 0u);
}

TEST_F(PromisedResponseTest, DroppedMessageStillBacksOff) {
  Start();
  channel_->SetMaxResendCount(0);
  Send("failing", false, true);

  Answer(0, 500);

  EXPECT_EQ(DelayMs(), 1000);
  EXPECT_EQ(Inside().fail_count(), 1u);
}

TEST_F(PromisedResponseTest, UnknownIdOnlyStartsTheCleanTimer) {
  Start();
  RecordingLog::Clear();
  for (int status : {200, 500}) {
    OnQueue([&] {
      Inside().DoOnResponse(
          State::kCompleted, 424242,
          MakeResponse(status, R"({"bytes_errinfo":"success","uint32_send_interval":3000})"));
    });
    EXPECT_EQ(Counters(), (Numbers{0, 0, 0, 0, 0}));
    EXPECT_FALSE(Ticking());
    EXPECT_EQ(Inside().fail_count(), 0u);
    EXPECT_EQ(Inside().resend_interval(), 0u);
    EXPECT_TRUE(Inside().clean_timer().IsRunning());
    EXPECT_EQ(Inside().clean_timer().GetCurrentDelay().InMilliseconds(), 60000);
  }
  EXPECT_TRUE(RecordingLog::Lines().empty());
}

TEST_F(PromisedResponseTest, UnknownIdWithPendingMessagesDoesNothing) {
  Start();
  Send("pending");
  OnQueue([&] { Inside().DoOnResponse(State::kCompleted, 424242, MakeResponse(200)); });
  EXPECT_FALSE(Inside().clean_timer().IsRunning());
  EXPECT_EQ(PendingBodies(), Strings{"pending"});
}

TEST_F(PromisedResponseTest, SecondAnswerToOneRequestIsIgnored) {
  Start();
  Send("a", false, true);
  const int64_t id = http_.Requests()[0].id;
  Answer(0, 200);
  Inside().OnResponse(State::kCompleted, id, MakeResponse(500));
  time_.RunUntilIdle();
  EXPECT_EQ(Counters(), (Numbers{1, 1, 1, 0, 0}));
  EXPECT_TRUE(Inside().pending().empty());
}

TEST_F(PromisedResponseTest, IdleClientGoesAfterExactlySixtySeconds) {
  Start();
  Send("a", false, true);
  Answer(0, 200);
  AdvanceToTheEdge(Seconds(60), [this] { EXPECT_EQ(http_.LiveClients(), 1u); });
  EXPECT_EQ(http_.LiveClients(), 0u);
  EXPECT_EQ(Inside().client(), nullptr);
  EXPECT_FALSE(Inside().clean_timer().IsRunning());

  Send("b", false, true);
  EXPECT_EQ(http_.Configs().size(), 2u);
}

TEST_F(PromisedResponseTest, EachAnswerRestartsTheIdleMinute) {
  Start();
  Send("a", false, true);
  Send("b", false, true);
  Advance(Ms(100));
  Answer(0, 200);
  Advance(Seconds(40));
  Answer(1, 200);
  AdvanceToTheEdge(Seconds(60), [this] { EXPECT_EQ(http_.LiveClients(), 1u); });
  EXPECT_EQ(http_.LiveClients(), 0u);
}

TEST_F(PromisedResponseTest, PendingMessagesKeepTheIdleMinuteFromStarting) {
  Start();
  Send("a", false, true);
  Send("b");
  Answer(0, 200);
  EXPECT_FALSE(Inside().clean_timer().IsRunning());
}

TEST_F(PromisedResponseTest, IdleCheckComesBeforeTheMessageIsPutBack) {
  Start();
  Send("a", false, true);
  Answer(0, 500);
  EXPECT_EQ(PendingBodies(), Strings{"a"});
  EXPECT_TRUE(Inside().clean_timer().IsRunning());
  Advance(Ms(1000));  // Sent again.
  EXPECT_FALSE(Inside().clean_timer().IsRunning());
}

TEST_F(PromisedResponseTest, IdleMinuteRunsOutWhileAMessageWaitsForALongInterval) {
  Start();
  Send("a", false, true);
  channel_->SetResendInterval(100000);
  time_.RunUntilIdle();
  Answer(0, 500);
  ASSERT_EQ(Inside().pending().size(), 1u);

  Advance(Seconds(60));

  EXPECT_EQ(http_.LiveClients(), 0u);
  EXPECT_EQ(PendingBodies(), Strings{"a"});
  Advance(Seconds(40));
  EXPECT_EQ(http_.RequestCount(), 2u);
}

}  // namespace
}  // namespace quenor::test
