// What the cache keeps of the channel's messages, and when it is saved. Written without sight of
// the implementation, from the promises alone.
#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/recording_report_events.h"
#include "tests/unit/second/channel/promise_fixture.h"

namespace quenor::test {
namespace {

class PromisedCacheTest : public PromiseTest {
 protected:
  PromisedCacheTest() : PromiseTest(QUENOR_TEST_CACHE_OPTION) {}

  bool Ticking() { return Inside().send_timer().IsRunning(); }
  int64_t DelayMs() { return Inside().send_timer().GetCurrentDelay().InMilliseconds(); }
};

TEST_F(PromisedCacheTest, TrimmedMessagesLeaveTheCache) {
  Start();
  for (int i = 0; i < 201; ++i) Post("m" + std::to_string(i), true);
  time_.RunUntilIdle();

  Restart();

  EXPECT_EQ(Inside().pending().size(), 151u);
  EXPECT_EQ(PendingBodies().front(), "m50");
  EXPECT_EQ(PendingBodies().back(), "m200");
}

TEST_F(PromisedCacheTest, SendNowIsSentThenSavedThenTheTimerStarts) {
  RecordingReportEvents events;
  Start();
  size_t sent_before_save = 99;
  bool timer_before_save = true;
  events.SetOnEvent([&](const ReportEvent& event) {
    if (event.kind != ReportEventKind::kSaved) return;
    sent_before_save = http_.RequestCount();
    timer_before_save = Inside().send_timer().IsRunning();
    EXPECT_EQ(Inside().sending().size(), 1u);
    EXPECT_EQ(event.count, 1u);
  });

  Send("now", true, true);

  EXPECT_EQ(sent_before_save, 1u);
  EXPECT_FALSE(timer_before_save);
  EXPECT_TRUE(Inside().send_timer().IsRunning());
}

TEST_F(PromisedCacheTest, EachAdmissionSavesOnce) {
  RecordingReportEvents events;
  Start();
  events.Clear();
  Send("a", true);
  EXPECT_EQ(events.Count(ReportEventKind::kSaved), 1u);
  Send("b");
  EXPECT_EQ(events.Count(ReportEventKind::kSaved), 2u);
  Send("c", true, true);
  EXPECT_EQ(events.Count(ReportEventKind::kSaved), 3u);
}

TEST_F(PromisedCacheTest, OnlyMarkedMessagesSurviveARestart) {
  Start();
  Send("plain");
  Send("kept", true);
  Send("plain too");

  Restart();

  EXPECT_EQ(PendingBodies(), Strings{"kept"});
}

TEST_F(PromisedCacheTest, LoadedMessagesAreCountedUnsentAndMarked) {
  Start();
  Send("a", true);
  Send("b", true);
  Restart();

  EXPECT_EQ(Counters(), (Numbers{2, 0, 0, 0, 0}));
  for (const auto& message : Inside().pending()) {
    EXPECT_EQ(message.send_count, 0u);
    EXPECT_TRUE(message.need_cache);
  }
}

TEST_F(PromisedCacheTest, SecondDoInitDoesNotEvenLoadACacheThatIsMarkedUnloaded) {
  Start();
  Send("one", true);
  Inside().cache_loaded() = false;

  OnQueue([this] { Inside().DoInit(); });

  EXPECT_FALSE(Inside().cache_loaded());
  EXPECT_EQ(PendingBodies(), Strings{"one"});
}

TEST_F(PromisedCacheTest, DoInitSkipsALoadedCache) {
  Start();
  Send("one", true);
  Stop();
  Inside().cache_loaded() = true;

  Start();

  EXPECT_TRUE(Inside().running());
  EXPECT_TRUE(Inside().pending().empty());
  EXPECT_EQ(Counters()[0], 0u);
}

TEST_F(PromisedCacheTest, DoTerminateDoesNotSave) {
  RecordingReportEvents events;
  Start();
  Send("kept", true);
  events.Clear();

  Stop();

  EXPECT_EQ(events.Count(ReportEventKind::kSaved), 0u);
  Start();
  EXPECT_EQ(PendingBodies(), Strings{"kept"});
}

TEST_F(PromisedCacheTest, MessagesInFlightAtTerminationComeBackFromTheCache) {
  Start();
  Send("flying", true, true);
  EXPECT_EQ(Inside().sending().size(), 1u);

  Restart();

  EXPECT_EQ(PendingBodies(), Strings{"flying"});
  EXPECT_EQ(Inside().pending().front().send_count, 0u);
}

TEST_F(PromisedCacheTest, CycleMayBeRepeatedEachTimeOnANewQueue) {
  std::vector<std::shared_ptr<DispatchQueue>> queues;
  Start();
  Send("kept", true);
  for (int i = 0; i < 5; ++i) {
    queues.push_back(Inside().queue());
    Restart();
    EXPECT_EQ(PendingBodies(), Strings{"kept"});
    EXPECT_EQ(Inside().max_resend(), 5u);
    EXPECT_EQ(std::count(queues.begin(), queues.end(), Inside().queue()), 0);
    Send("lost");
  }
  EXPECT_EQ(time_.Creations().size(), 6u);
}

TEST_F(PromisedCacheTest, LoadedMessagesWaitForAFlush) {
  Start();
  Send("kept", true);
  Restart();
  EXPECT_EQ(PendingBodies(), Strings{"kept"});
  Advance(Seconds(1000));
  EXPECT_EQ(http_.RequestCount(), 0u);

  channel_->FlushPacket();
  Advance(Ms(100));

  EXPECT_EQ(SentBodies(), Strings{"kept"});
}

TEST_F(PromisedCacheTest, LoadedMessagesGoBeforeTheMessageThatStartsTheTimer) {
  Start();
  Send("kept", true);
  Restart();

  Send("new");
  Advance(Ms(200));

  EXPECT_EQ(SentBodies(), (Strings{"kept", "new"}));
}

TEST_F(PromisedCacheTest, DestructionNeitherLogsNorSavesNorSends) {
  RecordingReportEvents events;
  Start();
  Send("kept", true);
  RecordingLog::Clear();
  const size_t saved = events.Count(ReportEventKind::kSaved);

  Inside().StopTimers();
  channel_.reset();
  Advance(Seconds(1200));

  EXPECT_TRUE(RecordingLog::Lines().empty());
  EXPECT_EQ(events.Count(ReportEventKind::kSaved), saved);
  EXPECT_EQ(http_.RequestCount(), 0u);
  Make();
  Start();
  EXPECT_EQ(PendingBodies(), Strings{"kept"});
}

TEST_F(PromisedCacheTest, FailedMessageStaysInTheCache) {
  Start();
  Send("failing", true, true);
  Answer(0, 500);
  Restart();
  EXPECT_EQ(PendingBodies(), Strings{"failing"});
}

TEST_F(PromisedCacheTest, EachMatchedAnswerSavesOnceAtItsVeryEnd) {
  RecordingReportEvents events;
  Start();
  Send("a", true, true);
  Send("b", true, true);
  int saves = 0;
  events.SetOnEvent([&](const ReportEvent& event) {
    if (event.kind != ReportEventKind::kSaved) return;
    if (++saves == 1) {
      EXPECT_EQ(Counters()[3], 1u);
      EXPECT_EQ(PendingBodies(), Strings{"a"});
      EXPECT_EQ(Inside().fail_count(), 1u);
      EXPECT_EQ(DelayMs(), 1000);
      EXPECT_EQ(event.count, 2u);
    } else {
      EXPECT_EQ(Counters()[2], 1u);
      EXPECT_TRUE(Inside().sending().empty());
      EXPECT_EQ(Inside().fail_count(), 0u);
      EXPECT_EQ(DelayMs(), 100);
      EXPECT_EQ(event.count, 1u);
    }
  });
  Answer(0, 500);
  EXPECT_EQ(saves, 1);
  Answer(1, 200);
  EXPECT_EQ(saves, 2);
}

TEST_F(PromisedCacheTest, DroppedMessageStillBacksOffAndLeavesTheCache) {
  RecordingReportEvents events;
  Start();
  channel_->SetMaxResendCount(0);
  Send("failing", true, true);
  events.Clear();

  Answer(0, 500);

  EXPECT_EQ(DelayMs(), 1000);
  EXPECT_EQ(Inside().fail_count(), 1u);
  EXPECT_EQ(events.Count(ReportEventKind::kSaved), 1u);
  Restart();
  EXPECT_TRUE(Inside().pending().empty());
}

TEST_F(PromisedCacheTest, UnknownIdOnlyStartsTheCleanTimer) {
  RecordingReportEvents events;
  Start();
  events.Clear();
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
  EXPECT_EQ(events.Count(ReportEventKind::kSaved), 0u);
  EXPECT_TRUE(RecordingLog::Lines().empty());
}

TEST_F(PromisedCacheTest, AnswerOfTheLastRunIsForeignToTheNext) {
  RecordingReportEvents events;
  Start();
  Send("kept", true, true);
  channel_->Terminate();
  ASSERT_TRUE(time_.RunNext());  // DoTerminate; the request's end waits behind it.
  ASSERT_GE(time_.DueTasks(), 1u);
  channel_->Initialize();

  time_.RunUntilIdle();

  EXPECT_EQ(PendingBodies(), Strings{"kept"});
  EXPECT_EQ(Counters(), (Numbers{1, 0, 0, 0, 0}));
}

TEST_F(PromisedCacheTest, SendingSavesNothing) {
  RecordingReportEvents events;
  Start();
  Send("one", true);
  events.Clear();
  Advance(Ms(100));
  EXPECT_EQ(http_.RequestCount(), 1u);
  EXPECT_EQ(events.Count(ReportEventKind::kSaved), 0u);
}

TEST_F(PromisedCacheTest, LoadedMessagesThatAreSentCountEverywhere) {
  Start();
  for (const char* body : {"a", "b", "c"}) Send(body, true);
  Restart();
  RecordingLog::Clear();
  channel_->FlushPacket();
  Advance(Ms(300));
  for (size_t index : http_.Outstanding()) Answer(index, 200);

  Advance(Seconds(600));

  EXPECT_EQ(StatisticLines(), Strings{StatisticLine("second", kUrl, {3, 3, 3, 0, 0})});
}

}  // namespace
}  // namespace quenor::test
