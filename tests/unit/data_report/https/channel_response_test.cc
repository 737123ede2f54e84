// What becomes of a message once its request has been answered: retired, sent again or dropped, and
// what that does to the timers.
#include <gtest/gtest.h>

#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/channel_test_fixture.h"

namespace quenor::test {
namespace {

class ChannelResponseTest : public ChannelTest {
 protected:
  // One message in flight, nothing pending.
  void StartWithOneInFlight() {
    Start();
    Send("one", false, true);
    ASSERT_EQ(peer().sending().size(), 1u);
  }
  static HttpClient::Request RequestWithId(int64_t id) {
    HttpClient::Request request;
    request.request_id = id;
    return request;
  }
  static std::unique_ptr<HttpClient::Response> Response(int status) {
    auto response = std::make_unique<HttpClient::Response>();
    response->status_code = status;
    return response;
  }
};

// --- OnResponse: only forwards ---

TEST_F(ChannelResponseTest, CallbackOnlyPostsToTheQueue) {
  StartWithOneInFlight();
  const int64_t id = http_.Requests()[0].id;

  peer().OnResponse(State::kCompleted, RequestWithId(id), Response(200));

  EXPECT_EQ(peer().sending().size(), 1u);
  EXPECT_EQ(time_.DueTasks(), 1u);
  EXPECT_STREQ(time_.LastPostedFrom().file(), kSourcePath);
  EXPECT_EQ(channel_.use_count(), 3);  // The outstanding callback's, the task's.
  time_.RunUntilIdle();
  EXPECT_EQ(peer().successful(), 1u);
}

TEST_F(ChannelResponseTest, CallbackWhenNotInitializedLogsOneThrottledLine) {
  Make();
  for (const int32_t state : {0, 1, 3}) {
    peer().SetState(state);
    peer().OnResponse(State::kCompleted, RequestWithId(1), Response(200));
  }
  peer().SetState(0);

  const auto lines = RecordingLog::Lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].level, 1);
  EXPECT_EQ(lines[0].file, kSourcePath);
  EXPECT_EQ(lines[0].text, "OnResponse, channel is not initialized");
  EXPECT_EQ(time_.DueTasks(), 0u);
}

TEST_F(ChannelResponseTest, CallbackWithTheQueueGoneIsDiscardedSilently) {
  Make();
  peer().SetState(2);

  peer().OnResponse(State::kCompleted, RequestWithId(1), Response(200));

  EXPECT_TRUE(RecordingLog::Lines().empty());
  EXPECT_EQ(time_.DueTasks(), 0u);
  peer().SetState(0);
}

TEST_F(ChannelResponseTest, CallbackAfterTerminateIsDiscardedWithALine) {
  StartWithOneInFlight();
  RecordingLog::Clear();
  ASSERT_TRUE(http_.Answer(0, 200));  // On its way as the channel terminates.
  channel_->Terminate();

  time_.RunUntilIdle();

  EXPECT_EQ(RecordingLog::Texts(1), Texts{"OnResponse, channel is not initialized"});
  EXPECT_EQ(events_.Count(Kind::kAcknowledged), 0u);
}

TEST_F(ChannelResponseTest, TaskThatRunsAfterDoTerminateIsDiscardedWithALine) {
  StartWithOneInFlight();
  OnQueue([this](Peer peer) {
    // Behind this task: the answer's, which finds the channel stopped.
    peer.OnResponse(State::kCompleted, RequestWithId(http_.Requests()[0].id), Response(200));
    peer.DoTerminate();
  });

  EXPECT_EQ(RecordingLog::Texts(1), Texts{"DoOnResponse, channel is not running"});
  EXPECT_EQ(RecordingLog::Lines().back().file, kSourcePath);
  EXPECT_EQ(Counters(), (Counts{0, 0, 0, 0, 0}));
  EXPECT_FALSE(peer().clean_timer().IsRunning());
}

TEST_F(ChannelResponseTest, ResponseIsDestroyedWithItsTask) {
  StartWithOneInFlight();
  auto response = Response(200);
  response->body = CopyOnWriteBuffer(kSuccess, sizeof(kSuccess) - 1);
  CopyOnWriteBuffer held = response->body;
  const uint8_t* const address = held.cdata<uint8_t>();
  ASSERT_TRUE(http_.AnswerWith(0, State::kCompleted, std::move(response)));

  time_.RunUntilIdle();

  EXPECT_EQ(held.data<uint8_t>(), address);  // Nobody else holds it: nothing to unshare.
}

// --- What counts as a success ---

TEST_F(ChannelResponseTest, State2WithStatus200RetiresTheMessage) {
  StartWithOneInFlight();
  const size_t saved = events_.Count(Kind::kSaved);

  Answer(0, 200, "{}");

  EXPECT_TRUE(peer().sending().empty());
  EXPECT_TRUE(peer().pending().empty());
  EXPECT_EQ(Counters(), (Counts{1, 1, 1, 0, 0}));
  EXPECT_EQ(events_.Count(Kind::kSaved), saved);  // No cache is configured.
  EXPECT_EQ(events_.Count(Kind::kAcknowledged), 1u);
}

TEST_F(ChannelResponseTest, EmptyJsonObjectRetiresAndChangesNoSetting) {
  StartWithOneInFlight();
  Fail(0);
  Advance(1000);
  ASSERT_EQ(peer().continuous_fail_count(), 1u);

  Answer(1, 200, "{}");

  EXPECT_EQ(peer().successful(), 1u);
  EXPECT_EQ(peer().continuous_fail_count(), 0u);
  EXPECT_EQ(peer().resend_interval_ms(), 0u);
  EXPECT_EQ(peer().max_resend_count(), 5u);
  EXPECT_EQ(channel_->GetReportInterval(), 10000u);
}

TEST_F(ChannelResponseTest, EmptyBodyRetiresAndLogsThatItIsEmpty) {
  StartWithOneInFlight();

  Answer(0, 200, "");

  EXPECT_EQ(peer().successful(), 1u);
  EXPECT_EQ(RecordingLog::Texts(2), Texts{"body is empty"});
}

TEST_F(ChannelResponseTest, BodyThatIsNoJsonRetiresSilently) {
  StartWithOneInFlight();

  Answer(0, 200, "<html>");

  EXPECT_EQ(peer().successful(), 1u);
  EXPECT_TRUE(RecordingLog::Lines().empty());
}

TEST_F(ChannelResponseTest, VerdictOtherThanSuccessStillRetires) {
  StartWithOneInFlight();

  Answer(0, 200, "{\"bytes_errinfo\":\"busy\"}");

  EXPECT_EQ(peer().successful(), 1u);
  EXPECT_TRUE(peer().sending().empty());
  EXPECT_EQ(RecordingLog::Texts(2),
            Texts{"response_errinfo is not success, response_msg:{\"bytes_errinfo\":\"busy\"}"});
}

class ChannelFailingStatusTest : public ChannelResponseTest,
                                 public ::testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(All, ChannelFailingStatusTest,
                         ::testing::Values(0, -1, 100, 199, 201, 204, 206, 301, 302, 400, 404, 429,
                                           500, 503, 2000));

TEST_P(ChannelFailingStatusTest, IsAFailureWhateverTheBodySays) {
  StartWithOneInFlight();

  Answer(0, GetParam(), "{\"bytes_errinfo\":\"success\",\"uint32_send_interval\":3000}");

  EXPECT_EQ(Counters(), (Counts{1, 1, 0, 1, 0}));
  EXPECT_EQ(PendingBodies(), Texts{"one"});
  EXPECT_EQ(peer().resend_interval_ms(), 0u);
}

class ChannelFailingStateTest : public ChannelResponseTest,
                                public ::testing::WithParamInterface<int32_t> {};

INSTANTIATE_TEST_SUITE_P(All, ChannelFailingStateTest, ::testing::Values(0, 1, 3, 4, 5, 100, -2));

TEST_P(ChannelFailingStateTest, IsAFailureEvenWithA200) {
  StartWithOneInFlight();

  ASSERT_TRUE(http_.AnswerWith(0, static_cast<State>(GetParam()), Response(200)));
  time_.RunUntilIdle();

  EXPECT_EQ(Counters(), (Counts{1, 1, 0, 1, 0}));
  EXPECT_EQ(PendingBodies(), Texts{"one"});
}

TEST_P(ChannelFailingStateTest, IsAFailureWithoutAResponse) {
  StartWithOneInFlight();

  Fail(0, static_cast<State>(GetParam()));

  EXPECT_EQ(Counters(), (Counts{1, 1, 0, 1, 0}));
}

TEST_F(ChannelResponseTest, CompletedWithoutAResponseIsAFailure) {
  StartWithOneInFlight();

  Fail(0, State::kCompleted);

  EXPECT_EQ(Counters(), (Counts{1, 1, 0, 1, 0}));
  EXPECT_EQ(PendingBodies(), Texts{"one"});
}

// --- Finding the message ---

TEST_F(ChannelResponseTest, UnknownIdMovesNothing) {
  StartWithOneInFlight();
  Send("two");
  const int64_t period = SendPeriod();

  peer().OnResponse(State::kCompleted, RequestWithId(987654321), Response(200));
  peer().OnResponse(State::kFailed, RequestWithId(987654321), nullptr);
  time_.RunUntilIdle();

  EXPECT_EQ(Counters(), (Counts{2, 1, 0, 0, 0}));
  EXPECT_EQ(peer().sending().size(), 1u);
  EXPECT_EQ(SendPeriod(), period);
  EXPECT_EQ(peer().continuous_fail_count(), 0u);
  EXPECT_FALSE(peer().clean_timer().IsRunning());
  EXPECT_EQ(events_.Count(Kind::kSaved), 0u);
  EXPECT_TRUE(RecordingLog::Lines().empty());
}

TEST_F(ChannelResponseTest, UnknownIdStartsTheCleanTimerWhenNothingIsPending) {
  StartWithOneInFlight();

  peer().OnResponse(State::kFailed, RequestWithId(987654321), nullptr);
  time_.RunUntilIdle();

  EXPECT_TRUE(peer().clean_timer().IsRunning());
  EXPECT_EQ(Counters(), (Counts{1, 1, 0, 0, 0}));
}

TEST_F(ChannelResponseTest, DuplicateAnswerIsIgnored) {
  StartWithOneInFlight();
  const int64_t id = http_.Requests()[0].id;
  Answer(0, 200);

  peer().OnResponse(State::kFailed, RequestWithId(id), nullptr);
  time_.RunUntilIdle();

  EXPECT_EQ(Counters(), (Counts{1, 1, 1, 0, 0}));
  EXPECT_TRUE(peer().pending().empty());
}

TEST_F(ChannelResponseTest, AnswersMayComeInAnyOrder) {
  Start();
  for (const char* body : {"a", "b", "c"}) Send(body, false, true);

  Answer(2, 200);
  Answer(0, 500);
  Answer(1, 200);

  EXPECT_EQ(Counters(), (Counts{3, 3, 2, 1, 0}));
  EXPECT_EQ(PendingBodies(), Texts{"a"});
}

// --- The idle check ---

TEST_F(ChannelResponseTest, SuccessWithNothingPendingStartsTheCleanTimer) {
  StartWithOneInFlight();

  Answer(0, 200);

  EXPECT_TRUE(peer().clean_timer().IsRunning());
}

TEST_F(ChannelResponseTest, FailureWithNothingPendingStartsTheCleanTimerBeforeThePutBack) {
  StartWithOneInFlight();

  Fail(0);

  EXPECT_EQ(peer().pending().size(), 1u);
  EXPECT_TRUE(peer().clean_timer().IsRunning());
}

TEST_F(ChannelResponseTest, ResponseWithMessagesPendingDoesNotStartTheCleanTimer) {
  StartWithOneInFlight();
  Send("two");

  Answer(0, 200);

  EXPECT_FALSE(peer().clean_timer().IsRunning());
}

TEST_F(ChannelResponseTest, EachResponseRestartsTheCleanTimersDelay) {
  Start();
  Send("one", false, true);
  Send("two", false, true);
  Answer(0, 200);
  Advance(59000);
  Answer(1, 200);

  Advance(59999);
  EXPECT_EQ(http_.LiveClients(), 1u);
  Advance(1);

  EXPECT_EQ(http_.LiveClients(), 0u);
}

TEST_F(ChannelResponseTest, CleanTimerEndsRequestsStillOutAndTheirMessagesArePendingAgain) {
  Start();
  Send("slow", false, true);
  Send("quick", false, true);
  Answer(1, 200);

  Advance(60000);

  EXPECT_EQ(http_.LiveClients(), 0u);
  EXPECT_EQ(PendingBodies(), Texts{"slow"});
  EXPECT_EQ(peer().failed(), 1u);
  EXPECT_EQ(SendPeriod(), 1000);
}

// --- Failure: back to the front, or dropped ---

TEST_F(ChannelResponseTest, FailedMessageGoesInFrontOfNewerOnes) {
  StartWithOneInFlight();
  SendMany(2);

  Fail(0);

  EXPECT_EQ(PendingBodies(), (Texts{"one", "m0", "m1"}));
  EXPECT_EQ(peer().pending().front().send_count, 1u);
}

TEST_F(ChannelResponseTest, FailedMessageKeepsItsNeedCache) {
  Start();
  Send("cached", true, true);

  Fail(0);

  EXPECT_TRUE(peer().pending().front().need_cache);
}

TEST_F(ChannelResponseTest, AlwaysFailingMessageIsSentFiveTimesWithBackOffThenDropped) {
  Start();
  Send("one");
  Advance(100);
  const int64_t waits_ms[] = {1000, 2000, 4000, 8000};
  for (size_t attempt = 0; attempt < 4; ++attempt) {
    ASSERT_EQ(http_.RequestCount(), attempt + 1);
    Fail(attempt);
    EXPECT_EQ(SendPeriod(), waits_ms[attempt]);
    EXPECT_EQ(peer().current_interval_ms(), waits_ms[attempt]);
    EXPECT_EQ(peer().pending().front().send_count, attempt + 1);
    Advance(waits_ms[attempt] - 1);
    EXPECT_EQ(http_.RequestCount(), attempt + 1);
    Advance(1);
  }
  ASSERT_EQ(http_.RequestCount(), 5u);
  EXPECT_EQ(peer().dropping(), 0u);

  Fail(4);

  EXPECT_EQ(Counters(), (Counts{1, 5, 0, 5, 1}));
  EXPECT_TRUE(peer().pending().empty());
  EXPECT_TRUE(peer().sending().empty());
  Advance(3600 * 1000);
  EXPECT_EQ(http_.RequestCount(), 5u);
}

TEST_F(ChannelResponseTest, LimitOfNSendsNTimes) {
  for (const unsigned int limit : {1u, 2u, 3u, 7u}) {
    Start();
    channel_->SetMaxResendCount(limit);
    const size_t before = http_.RequestCount();
    Send("one");

    for (int i = 0; i < 20; ++i) {
      Advance(8000);
      for (const size_t index : http_.Outstanding()) Fail(index);
    }

    EXPECT_EQ(http_.RequestCount() - before, limit);
    EXPECT_EQ(peer().dropping(), 1u);
    Stop();
  }
}

TEST_F(ChannelResponseTest, LimitOfZeroDropsAtTheFirstFailure) {
  StartWithOneInFlight();
  channel_->SetMaxResendCount(0);
  time_.RunUntilIdle();

  Fail(0);

  EXPECT_EQ(Counters(), (Counts{1, 1, 0, 1, 1}));
  EXPECT_TRUE(peer().pending().empty());
}

TEST_F(ChannelResponseTest, LimitIsComparedUnsigned) {
  StartWithOneInFlight();
  channel_->SetMaxResendCount(std::numeric_limits<unsigned int>::max());
  time_.RunUntilIdle();

  Fail(0);

  EXPECT_EQ(peer().dropping(), 0u);
  EXPECT_EQ(peer().pending().size(), 1u);
}

TEST_F(ChannelResponseTest, LimitInForceWhenTheAnswerComesIsTheOneApplied) {
  Start();
  Send("one", false, true);
  Send("two", false, true);

  Answer(1, 200, "{\"bytes_errinfo\":\"success\",\"uint32_max_resend_count\":1}");
  Fail(0);

  EXPECT_EQ(peer().dropping(), 1u);
  EXPECT_TRUE(peer().pending().empty());
}

TEST_F(ChannelResponseTest, DroppedMessageStillBacksTheTimerOff) {
  StartWithOneInFlight();
  channel_->SetMaxResendCount(0);
  time_.RunUntilIdle();

  Fail(0);

  EXPECT_EQ(SendPeriod(), 1000);
  EXPECT_EQ(peer().continuous_fail_count(), 1u);
}

// --- Back-off ---

class ChannelBackoffTest : public ChannelResponseTest {
 protected:
  // Lets `count` messages out at once and fails them one after the other.
  void FailMany(int count) {
    const size_t first = http_.RequestCount();
    for (int i = 0; i < count; ++i) Send("f" + std::to_string(i), false, true);
    for (int i = 0; i < count; ++i) Fail(first + static_cast<size_t>(i));
  }
};

TEST_F(ChannelBackoffTest, WaitsOneTwoFourEightSecondsThenStays) {
  Start();
  for (int i = 0; i < 8; ++i) Send("f" + std::to_string(i), false, true);
  const int64_t periods[] = {1000, 2000, 4000, 8000, 8000, 8000, 8000, 8000};

  for (size_t i = 0; i < 8; ++i) {
    EXPECT_EQ(peer().continuous_fail_count(), i);
    Fail(i);
    EXPECT_EQ(SendPeriod(), periods[i]);
    EXPECT_EQ(peer().current_interval_ms(), periods[i]);
  }

  EXPECT_EQ(peer().continuous_fail_count(), 8u);
}

TEST_F(ChannelBackoffTest, FifthFailureDoesNotPostponeTheNextTick) {
  Start();
  for (int i = 0; i < 5; ++i) Send("f" + std::to_string(i), false, true);
  for (size_t i = 0; i < 4; ++i) Fail(i);
  Advance(7000);

  Fail(4);

  EXPECT_EQ(http_.RequestCount(), 5u);
  Advance(1000);
  EXPECT_EQ(http_.RequestCount(), 6u);
}

TEST_F(ChannelBackoffTest, FifthFailureStartsAStoppedTimerAtEightSeconds) {
  Start();
  for (int i = 0; i < 5; ++i) Send("f" + std::to_string(i), false, true);
  for (size_t i = 0; i < 4; ++i) Fail(i);
  OnQueue([](Peer peer) { peer.EnsureStopTimer(); });

  Fail(4);

  EXPECT_EQ(SendPeriod(), 8000);
}

TEST_F(ChannelBackoffTest, CountGoesOnPastThirtyTwoFailures) {
  Start();

  FailMany(40);

  EXPECT_EQ(peer().continuous_fail_count(), 40u);
  EXPECT_EQ(SendPeriod(), 8000);
}

TEST_F(ChannelBackoffTest, SuccessReturnsToTheFloorAndClearsTheCount) {
  Start();
  FailMany(3);
  ASSERT_EQ(SendPeriod(), 4000);
  Send("good", false, true);

  Answer(http_.RequestCount() - 1, 200);

  EXPECT_EQ(SendPeriod(), 100);
  EXPECT_EQ(peer().current_interval_ms(), 0u);
  EXPECT_EQ(peer().continuous_fail_count(), 0u);
}

TEST_F(ChannelBackoffTest, SuccessDrainsTheBacklogAtTheFloor) {
  Start();
  FailMany(4);
  Send("good", false, true);
  const size_t before = http_.RequestCount();
  Answer(before - 1, 200);

  Advance(400);

  EXPECT_EQ(http_.RequestCount(), before + 4);
}

TEST_F(ChannelBackoffTest, SuccessWithTheIntervalUnchangedDoesNotTouchTheTimer) {
  Start();
  Send("one", false, true);
  Send("two");  // Its tick is a hundred milliseconds away.
  Advance(60);

  Answer(0, 200);

  Advance(40);
  EXPECT_EQ(http_.RequestCount(), 2u);
}

TEST_F(ChannelBackoffTest, SuccessWithTheIntervalUnchangedDoesNotStartAStoppedTimer) {
  Start();
  Send("one");
  Advance(200);
  ASSERT_EQ(SendPeriod(), -1);

  Answer(0, 200);

  EXPECT_EQ(SendPeriod(), -1);
}

TEST_F(ChannelBackoffTest, BackOffStartsAgainAtOneSecondAfterASuccess) {
  Start();
  FailMany(4);
  Send("good", false, true);
  Answer(http_.RequestCount() - 1, 200);

  FailMany(1);

  EXPECT_EQ(SendPeriod(), 1000);
}

TEST_F(ChannelBackoffTest, ConfiguredIntervalIsKeptThroughFailures) {
  Start();
  Configure(700);
  Send("one");
  Advance(700);

  for (size_t i = 0; i < 5; ++i) {
    Fail(i);
    EXPECT_EQ(SendPeriod(), 700);
    EXPECT_EQ(peer().current_interval_ms(), 700u);
    Advance(700);
  }

  EXPECT_EQ(Counters(), (Counts{1, 5, 0, 5, 1}));
  EXPECT_EQ(peer().continuous_fail_count(), 5u);
}

TEST_F(ChannelBackoffTest, ConfiguredIntervalMakesSureThatTheTimerRuns) {
  Start();
  Configure(700);
  Send("one");
  Advance(700);
  Tick();
  ASSERT_EQ(SendPeriod(), -1);

  Fail(0);

  EXPECT_EQ(SendPeriod(), 700);
}

TEST_F(ChannelBackoffTest, ConfiguredIntervalDoesNotPostponeTheTickOnAFailure) {
  Start();
  Configure(700);
  SendMany(2);
  Advance(700);
  Advance(600);

  Fail(0);
  Advance(100);

  EXPECT_EQ(http_.RequestCount(), 2u);
}

TEST_F(ChannelBackoffTest, CountOfFailuresUnderAnIntervalIsInForceOnceThereIsNone) {
  Start();
  Configure(700);
  Send("one");
  Advance(700);
  Fail(0);
  Advance(700);
  Fail(1);
  ASSERT_EQ(peer().continuous_fail_count(), 2u);
  Configure(0);

  Advance(100);
  Fail(2);

  EXPECT_EQ(SendPeriod(), 4000);
}

TEST_F(ChannelBackoffTest, IntervalFromTheSameReplyEndsTheBackOff) {
  Start();
  FailMany(3);
  Send("good", false, true);

  Answer(http_.RequestCount() - 1, 200,
         "{\"bytes_errinfo\":\"success\",\"uint32_send_interval\":3000}");

  EXPECT_EQ(SendPeriod(), 3000);
  EXPECT_EQ(peer().current_interval_ms(), 3000u);
  Advance(3000);
  Fail(http_.RequestCount() - 1);
  EXPECT_EQ(SendPeriod(), 3000);
}

}  // namespace
}  // namespace quenor::test
