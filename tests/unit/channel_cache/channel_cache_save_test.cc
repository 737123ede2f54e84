// What is saved, in which order, and when. Both backends.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/unit/channel_cache/channel_cache_fixture.h"

namespace quenor::test {
namespace {

class ChannelCacheSaveTest : public ChannelCacheTest {
 protected:
  void SetUp() override { Start(); }
};

// --- What ---

TEST_F(ChannelCacheSaveTest, FirstAdmittedMessageIsWritten) {
  Send("one", true);

  EXPECT_EQ(Writes(), (Texts{"clear", "append one"}));
  EXPECT_EQ(Content(), Packets{"one"});
}

TEST_F(ChannelCacheSaveTest, MessagesWithoutNeedCacheAreNeverInTheFile) {
  Send("pending", false);
  Send("in flight", false, true);
  EXPECT_EQ(Content(), Packets{});

  Send("cached", true);

  EXPECT_EQ(Content(), Packets{"cached"});
}

TEST_F(ChannelCacheSaveTest, ThoseInFlightComeFirstByAscendingIdThenThosePendingFromTheFront) {
  http_.ReturnNextIds({300, 7, 19});
  Send("id 300", true, true);
  Send("id 7", true, true);
  Send("front", true);
  Send("not cached", false);
  Send("back", true);

  Files().ForgetCalls();
  Send("id 19", true, true);

  EXPECT_EQ(Writes(), (Texts{"clear", "append id 7", "append id 19", "append id 300",
                             "append front", "append back"}));
  EXPECT_EQ(Content(), (Packets{"id 7", "id 19", "id 300", "front", "back"}));
}

TEST_F(ChannelCacheSaveTest, EmptyStoreClearsTheFile) {
  Send("one", true, true);
  Files().ForgetCalls();

  Answer(0, 200);

  EXPECT_EQ(Writes(), Texts{"clear"});
  EXPECT_EQ(Content(), Packets{});
}

TEST_F(ChannelCacheSaveTest, EmptyMessageIsAPacketOfNoBytes) {
  Send("", true);

  ASSERT_EQ(Writes(), (Texts{"clear", "append "}));
  EXPECT_FALSE(Files().Calls(Operation::kAppend)[0].had_data);
  EXPECT_EQ(Content(), Packets{""});
}

TEST_F(ChannelCacheSaveTest, SavedBytesAreTheStoresOwnAndTheRequestKeepsItsOwn) {
  Send("one", true, true);

  const auto requests = http_.Requests();
  const CopyOnWriteBuffer& stored = peer().sending().at(requests[0].id).data;
  EXPECT_NE(stored.cdata<char>(), requests[0].request.body.cdata<char>());
  EXPECT_EQ(Body(stored), "one");
  EXPECT_EQ(Body(requests[0].request.body), "one");
}

TEST_F(ChannelCacheSaveTest, BodyIsUnsharedOnceAndNotAtEverySave) {
  Send("one", true);
  const char* const bytes = peer().pending().front().data.cdata<char>();

  Send("two", true);

  EXPECT_EQ(peer().pending().front().data.cdata<char>(), bytes);
}

TEST_F(ChannelCacheSaveTest, TrimmedMessagesLeaveTheFileWithTheSameAdmission) {
  Configure(3600 * 1000);
  for (int i = 0; i < 200; ++i) Post("m" + std::to_string(i), true);
  time_.RunUntilIdle();
  EXPECT_EQ(Content().size(), 200u);

  Send("last", true);

  EXPECT_EQ(Content(), PendingBodies());
  EXPECT_EQ(Content().size(), 151u);
}

TEST_F(ChannelCacheSaveTest, FailedMessageIsSavedInFrontAndAnAcknowledgedOneIsGone) {
  Send("fails", true, true);
  Send("succeeds", true, true);
  Send("pending", true);

  Fail(0);
  EXPECT_EQ(Content(), (Packets{"succeeds", "fails", "pending"}));
  Answer(1, 200);

  EXPECT_EQ(Content(), (Packets{"fails", "pending"}));
}

TEST_F(ChannelCacheSaveTest, MessageWhoseRequestIdIsUsedAgainIsNoLongerSaved) {
  http_.ReturnNextIds({5, 5});
  Send("one", true, true);
  Send("two", true, true);

  EXPECT_EQ(Content(), Packets{"two"});
}

// --- When ---

TEST_F(ChannelCacheSaveTest, AdmissionSavesOnceBetweenTheImmediateSendAndTheTimersStart) {
  size_t writes_before = 99;
  int64_t period_at_save = 0;
  http_.SetOnSend([&](const HttpClient::Request&) { writes_before = Writes().size(); });
  events_.SetOnEvent([&](const ReportEvent& event) {
    if (event.kind == Kind::kSaved) period_at_save = SendPeriod();
  });

  Send("one", true, true);

  EXPECT_EQ(writes_before, 0u);
  EXPECT_EQ(period_at_save, -1);
  EXPECT_EQ(Writes(), (Texts{"clear", "append one"}));
  events_.SetOnEvent(nullptr);
}

TEST_F(ChannelCacheSaveTest, AdmissionOfAnUncachedMessageSavesToo) {
  Send("one", false);

  EXPECT_EQ(Writes(), Texts{"clear"});
}

TEST_F(ChannelCacheSaveTest, EachMatchedAnswerSavesOnce) {
  Send("one", true, true);
  Send("two", true, true);
  Files().ForgetCalls();

  Answer(0, 200);
  EXPECT_EQ(Writes(), (Texts{"clear", "append two"}));
  Files().ForgetCalls();
  Fail(1);

  EXPECT_EQ(Writes(), (Texts{"clear", "append two"}));
}

TEST_F(ChannelCacheSaveTest, AnswerThatMatchesNothingSavesNothing) {
  Send("one", true, true);
  Files().ForgetCalls();

  OnQueue([](Peer peer) {
    HttpClient::Request request;
    request.request_id = 987654321;
    peer.OnResponse(State::kCompleted, request, nullptr);
  });

  EXPECT_TRUE(Writes().empty());
}

TEST_F(ChannelCacheSaveTest, SendCycleSavesNothing) {
  Send("one", true);
  Files().ForgetCalls();

  Advance(1000);

  ASSERT_EQ(http_.RequestCount(), 1u);
  EXPECT_TRUE(Files().Calls().empty());
}

TEST_F(ChannelCacheSaveTest, SettingsTimersAndRefusedMessagesSaveNothing) {
  channel_->FlushPacket();
  channel_->SetResendInterval(500);
  channel_->SetMaxResendCount(3);
  channel_->SetServerDomain("");
  Send("refused: no server", true);
  Advance(700 * 1000);

  EXPECT_TRUE(Writes().empty());
}

TEST_F(ChannelCacheSaveTest, MessageThatDoesNotCompressSavesNothing) {
  Restart(true);
  Files().ForgetCalls();

  Send("x", true);

  EXPECT_TRUE(Files().Calls().empty());
}

TEST_F(ChannelCacheSaveTest, TerminationSavesNothingAndClosesTheFile) {
  Send("one", true);
  Send("two", true, true);
  Advance(0);
  Files().ForgetCalls();

  Stop();

  ASSERT_EQ(Files().Calls().size(), 1u);
  EXPECT_EQ(Files().Calls()[0].operation, Operation::kClose);
  EXPECT_EQ(Content(), (Packets{"two", "one"}));
}

TEST_F(ChannelCacheSaveTest, AnswersBehindTheTerminationChangeNothingInTheFile) {
  Send("one", true, true);
  ASSERT_TRUE(http_.Answer(0, 200, kSuccess));
  channel_->Terminate();
  Files().ForgetCalls();
  time_.RunUntilIdle();

  EXPECT_TRUE(Writes().empty());
  EXPECT_EQ(Content(), Packets{"one"});
}

TEST_F(ChannelCacheSaveTest, CleanTimerThatEndsTheClientSavesByTheAnswersAlone) {
  Send("one", true, true);
  Send("two", true, true);
  Answer(0, 200);
  Files().ForgetCalls();

  Advance(60 * 1000);

  EXPECT_EQ(Writes(), (Texts{"clear", "append two"})) << "by the request that it ended";
}

TEST_F(ChannelCacheSaveTest, SaveOfTheOtherBackendDoesNothingSilently) {
  Send("one", true);
  Files().ForgetCalls();
  RecordingLog::Clear();

  OnQueue([](Peer p) { Backend().option == 2 ? p.SaveCacheFile() : p.SaveCacheMmap(); });

  EXPECT_TRUE(Files().Calls().empty());
  EXPECT_TRUE(RecordingLog::Lines().empty());
}

TEST_F(ChannelCacheSaveTest, SavesLogNothing) {
  RecordingLog::Clear();

  Send("one", true, true);
  Answer(0, 200);

  EXPECT_TRUE(RecordingLog::Lines().empty());
}

}  // namespace
}  // namespace quenor::test
