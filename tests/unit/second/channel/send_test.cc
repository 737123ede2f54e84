// The send cycle: one POST per call. Written without sight of the implementation, from the promises
// alone.
#include <limits>

#include "tests/unit/second/channel/promise_fixture.h"

namespace quenor::test {
namespace {

class PromisedSendTest : public PromiseTest {
 protected:
  void DoSend() {
    OnQueue([this] { Inside().DoSend(); });
  }
};

TEST_F(PromisedSendTest, StoppedChannelWritesItsThrottledLine) {
  Start();
  const auto queue = Inside().queue();
  Stop();
  Inside().pending().emplace_back(false);

  for (int i = 0; i < 2; ++i) {
    queue->PostTask(base::Location(), [this] { Inside().DoSend(); });
    time_.RunUntilIdle();
  }

  EXPECT_EQ(Refusals(), Strings{"DoSend, channel is not running"});
  EXPECT_EQ(RecordingLog::Lines().back().file, kChannelSource);
  EXPECT_EQ(http_.RequestCount(), 0u);
  EXPECT_EQ(Inside().pending().size(), 1u);
  Advance(Seconds(60));
  queue->PostTask(base::Location(), [this] { Inside().DoSend(); });
  time_.RunUntilIdle();
  EXPECT_EQ(Refusals().size(), 2u);
}

TEST_F(PromisedSendTest, EmptyListStopsTheSendTimerAndNotTheCleanTimer) {
  Start();
  Send("one", false, true);
  Answer(0, 200);
  ASSERT_TRUE(Inside().clean_timer().IsRunning());
  ASSERT_TRUE(Inside().send_timer().IsRunning());

  DoSend();

  EXPECT_FALSE(Inside().send_timer().IsRunning());
  EXPECT_TRUE(Inside().clean_timer().IsRunning());
}

TEST_F(PromisedSendTest, EmptyListStopsTheTimerEvenWithoutAUrl) {
  Start();
  channel_->FlushPacket();
  channel_->SetServerDomain("");
  time_.RunUntilIdle();
  DoSend();
  EXPECT_FALSE(Inside().send_timer().IsRunning());
}

TEST_F(PromisedSendTest, EmptyUrlKeepsBothTimersAndTheMessage) {
  Start();
  Send("one", false, true);
  Answer(0, 200);
  Send("two");
  channel_->SetServerDomain("");
  time_.RunUntilIdle();
  ASSERT_TRUE(Inside().clean_timer().IsRunning());

  DoSend();

  EXPECT_TRUE(Inside().send_timer().IsRunning());
  EXPECT_TRUE(Inside().clean_timer().IsRunning());
  EXPECT_EQ(PendingBodies(), Strings{"two"});
  EXPECT_EQ(http_.RequestCount(), 1u);
  EXPECT_TRUE(Refusals().empty());
}

TEST_F(PromisedSendTest, RequestIsAPlainPostOfTheBody) {
  Start();
  const std::string body("a\0b\xff", 4);
  Send(body, false, true);

  const auto sent = http_.Requests().at(0);
  EXPECT_EQ(sent.request.url, kUrl);
  EXPECT_EQ(sent.request.method, "POST");
  EXPECT_EQ(sent.body, body);
  EXPECT_EQ(sent.request.request_id, 0);
  EXPECT_TRUE(sent.request.headers.empty());
  EXPECT_EQ(sent.request.timeout_ms, 0u);
}

TEST_F(PromisedSendTest, RequestStoreAndListShareOneBody) {
  Start();
  Send("shared");
  const char* const bytes = Inside().pending().front().data.cdata<char>();

  DoSend();

  EXPECT_EQ(Inside().sending().begin()->second.data.cdata<char>(), bytes);
  EXPECT_EQ(http_.Requests()[0].request.body.cdata<char>(), bytes);
}

TEST_F(PromisedSendTest, SentMessageMovesUnderItsIdWithItsCountRaised) {
  Start();
  Send("one", true);
  http_.ReturnNextIds({std::numeric_limits<int64_t>::max()});
  http_.SetOnSend([this](const HttpClient::Request&) {
    EXPECT_EQ(Inside().pending().front().send_count, 0u);  // Only the copy's is raised.
    EXPECT_TRUE(Inside().sending().empty());
    EXPECT_EQ(Inside().actual(), 0u);
  });

  DoSend();

  EXPECT_TRUE(Inside().pending().empty());
  ASSERT_EQ(Inside().sending().size(), 1u);
  const auto& entry = *Inside().sending().begin();
  EXPECT_EQ(entry.first, std::numeric_limits<int64_t>::max());
  EXPECT_EQ(entry.second.send_count, 1u);
  EXPECT_TRUE(entry.second.need_cache);
  EXPECT_EQ(Counters(), (Numbers{1, 1, 0, 0, 0}));
}

TEST_F(PromisedSendTest, FiveMessagesTakeFiveTicksAndFlyTogether) {
  Start();
  SendMany(5);
  for (size_t tick = 1; tick <= 5; ++tick) {
    AdvanceToTheEdge(Ms(100), [&] { EXPECT_EQ(http_.RequestCount(), tick - 1); });
    EXPECT_EQ(http_.RequestCount(), tick);
  }
  EXPECT_EQ(Inside().sending().size(), 5u);
  EXPECT_EQ(SentBodies(), (Strings{"m0", "m1", "m2", "m3", "m4"}));
}

TEST_F(PromisedSendTest, ClientIsMadeOnFirstUseAndKept) {
  Start();
  EXPECT_TRUE(http_.Configs().empty());
  SendMany(3);
  Advance(Seconds(1));
  EXPECT_EQ(http_.Configs().size(), 1u);
  EXPECT_EQ(http_.LiveClients(), 1u);
}

TEST_F(PromisedSendTest, OptionIsCopiedIntoTheConfiguration) {
  for (bool option : {false, true}) {
    Make(false, option);
    Start();
    Send("x", false, true);
    EXPECT_EQ(http_.Configs().back().enable_http2, option);
    EXPECT_FALSE(http_.Configs().back().use_socks5);
    Stop();
  }
}

TEST_F(PromisedSendTest, EnabledProxyIsHandedOn) {
  GetSocks5ProxyConfigHolder()->SetConfig({"proxy", 65535, "user", "secret", true});
  Start();
  Send("x", false, true);

  const auto config = http_.Configs().at(0);
  EXPECT_TRUE(config.use_socks5);
  EXPECT_EQ(config.socks5_host, "proxy");
  EXPECT_EQ(config.socks5_port, 65535);
  EXPECT_EQ(config.socks5_user, "user");
  EXPECT_EQ(config.socks5_password, "secret");
}

TEST_F(PromisedSendTest, DisabledProxyIsNotHandedOn) {
  GetSocks5ProxyConfigHolder()->SetConfig({"proxy", 1080, "user", "secret", false});
  Start();
  Send("x", false, true);
  EXPECT_FALSE(http_.Configs().at(0).use_socks5);
  EXPECT_EQ(http_.Configs().at(0).socks5_host, "");
}

TEST_F(PromisedSendTest, ProxyIsReadOnlyWhenAClientIsMade) {
  Start();
  Send("x", false, true);
  GetSocks5ProxyConfigHolder()->SetConfig({"proxy", 1080, "", "", true});
  Send("y", false, true);
  EXPECT_EQ(http_.Configs().size(), 1u);
  Answer(0, 200);
  Answer(1, 200);
  Advance(Seconds(60));
  ASSERT_EQ(http_.LiveClients(), 0u);

  Send("z", false, true);

  ASSERT_EQ(http_.Configs().size(), 2u);
  EXPECT_TRUE(http_.Configs()[1].use_socks5);
}

TEST_F(PromisedSendTest, FailedClientLeavesTheMessageForTheNextTick) {
  Start();
  http_.FailNextCreations(2);
  Send("one");

  Advance(Ms(200));

  EXPECT_EQ(http_.Configs().size(), 2u);
  EXPECT_EQ(PendingBodies(), Strings{"one"});
  EXPECT_EQ(Inside().pending().front().send_count, 0u);
  EXPECT_EQ(Counters(), (Numbers{1, 0, 0, 0, 0}));
  EXPECT_TRUE(RecordingLog::Texts(1).empty());
  EXPECT_TRUE(RecordingLog::Texts(2).empty());
  Advance(Ms(100));
  EXPECT_EQ(SentBodies(), Strings{"one"});
}

TEST_F(PromisedSendTest, FailedClientHasAlreadyStoppedTheCleanTimer) {
  Start();
  Send("one", false, true);
  Answer(0, 200);
  OnQueue([this] { Inside().DoClean(); });
  http_.FailNextCreations(1);
  ASSERT_TRUE(Inside().clean_timer().IsRunning());

  Send("two", false, true);

  EXPECT_FALSE(Inside().clean_timer().IsRunning());
}

TEST_F(PromisedSendTest, SendStopsTheCleanTimer) {
  Start();
  Send("one", false, true);
  Answer(0, 200);
  Send("two", false, true);
  EXPECT_FALSE(Inside().clean_timer().IsRunning());
  Advance(Seconds(300));
  EXPECT_EQ(http_.LiveClients(), 1u);
}

TEST_F(PromisedSendTest, IdBelowOneLeavesEverythingAsItWas) {
  Start();
  Send("one");
  http_.ReturnNextIds({0, -1, std::numeric_limits<int64_t>::min()});

  for (int i = 0; i < 3; ++i) {
    DoSend();
    EXPECT_EQ(PendingBodies(), Strings{"one"});
    EXPECT_EQ(Inside().pending().front().send_count, 0u);
    EXPECT_TRUE(Inside().sending().empty());
    EXPECT_EQ(Counters(), (Numbers{1, 0, 0, 0, 0}));
    EXPECT_EQ(Inside().fail_count(), 0u);
    EXPECT_EQ(Inside().current_interval(), 0u);
  }
  EXPECT_EQ(http_.RequestCount(), 3u);
  EXPECT_TRUE(RecordingLog::Texts(1).empty());
  EXPECT_TRUE(RecordingLog::Texts(2).empty());
}

TEST_F(PromisedSendTest, RefusedMessageIsTriedAgainAtEachTickForEver) {
  Start();
  http_.RefuseAll(-5);
  Send("one");
  Advance(Seconds(10));
  EXPECT_EQ(http_.RequestCount(), 100u);
  EXPECT_EQ(PendingBodies(), Strings{"one"});
}

TEST_F(PromisedSendTest, IdOneIsASuccess) {
  Start();
  http_.ReturnNextIds({1});
  Send("one", false, true);
  EXPECT_EQ(Inside().sending().count(1), 1u);
  EXPECT_EQ(Counters()[1], 1u);
}

TEST_F(PromisedSendTest, IdUsedTwiceLosesTheOlderMessage) {
  Start();
  http_.ReturnNextIds({7, 7});
  Send("older", false, true);
  Send("newer", false, true);

  ASSERT_EQ(Inside().sending().size(), 1u);
  EXPECT_EQ(Bytes(Inside().sending().at(7).data), "newer");
  EXPECT_EQ(Counters(), (Numbers{2, 2, 0, 0, 0}));

  Answer(0, 200);
  EXPECT_EQ(Counters(), (Numbers{2, 2, 1, 0, 0}));
  Answer(1, 200);
  EXPECT_EQ(Counters(), (Numbers{2, 2, 1, 0, 0}));
}

TEST_F(PromisedSendTest, OutstandingRequestKeepsTheChannelAlive) {
  Start();
  Send("one", false, true);
  const std::weak_ptr<Channel> watched = channel_;
  Inside().StopTimers();
  channel_.reset();
  EXPECT_FALSE(watched.expired());

  ASSERT_TRUE(http_.Drop(0));
  time_.RunUntilIdle();

  EXPECT_TRUE(watched.expired());
}

TEST_F(PromisedSendTest, UnansweredMessageStaysInFlight) {
  Start();
  Send("one", true, true);
  ASSERT_TRUE(http_.Drop(0));
  Advance(Seconds(100));
  EXPECT_EQ(Inside().sending().size(), 1u);
  EXPECT_EQ(Counters(), (Numbers{1, 1, 0, 0, 0}));
}

}  // namespace
}  // namespace quenor::test
