// The send cycle: one request per call, the client made late and reused, refusals tried again.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/support/channel_test_fixture.h"

namespace quenor::test {
namespace {

class ChannelSendTest : public ChannelTest {
 protected:
  // Has an answer start the clean timer, and a message pending again behind it.
  void StartWithCleanTimerRunning() {
    Start();
    Send("first", false, true);
    Answer(0, 200);
    ASSERT_TRUE(peer().clean_timer().IsRunning());
  }
};

// --- Nothing to do ---

TEST_F(ChannelSendTest, NotRunningLogsOneThrottledLine) {
  Start();
  OnQueue([](Peer peer) { peer.DoTerminate(); });

  Tick();
  Tick();

  const auto lines = RecordingLog::Lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].level, 1);
  EXPECT_EQ(lines[0].file, kSourcePath);
  EXPECT_EQ(lines[0].text, "DoSend, channel is not running");
}

TEST_F(ChannelSendTest, NothingPendingStopsTheSendTimerButNotTheCleanTimer) {
  StartWithCleanTimerRunning();
  ASSERT_NE(SendPeriod(), -1);

  Tick();

  EXPECT_EQ(SendPeriod(), -1);
  EXPECT_TRUE(peer().clean_timer().IsRunning());
  EXPECT_EQ(http_.RequestCount(), 1u);
}

TEST_F(ChannelSendTest, EmptyUrlKeepsTheMessageAndTheCleanTimer) {
  StartWithCleanTimerRunning();
  Send("second");
  channel_->SetServerDomain("");
  time_.RunUntilIdle();

  Tick();

  EXPECT_EQ(http_.RequestCount(), 1u);
  EXPECT_EQ(PendingBodies(), Texts{"second"});
  EXPECT_TRUE(peer().clean_timer().IsRunning());
  EXPECT_NE(SendPeriod(), -1);
  EXPECT_TRUE(RecordingLog::Lines().empty());
}

TEST_F(ChannelSendTest, MessageHeldByAnEmptyUrlGoesOutOnceThereIsOne) {
  Start();
  Send("held");
  channel_->SetServerDomain("");
  Advance(1000);
  ASSERT_EQ(http_.RequestCount(), 0u);
  channel_->SetServerDomain("https://new.example/");

  Advance(100);

  ASSERT_EQ(http_.RequestCount(), 1u);
  EXPECT_EQ(http_.Requests()[0].request.url, "https://new.example/");
}

// --- The request ---

TEST_F(ChannelSendTest, RequestIsAPostOfTheBytesWithEverythingElseAtItsDefault) {
  Start();

  Send("the bytes", false, true);

  ASSERT_EQ(http_.RequestCount(), 1u);
  const FakeHttp::Sent sent = http_.Requests()[0];
  EXPECT_EQ(sent.request.url, kUrl);
  EXPECT_EQ(sent.request.method, "POST");
  EXPECT_EQ(sent.body, "the bytes");
  EXPECT_TRUE(sent.request.headers.empty());
  EXPECT_EQ(sent.request.timeout_ms, 0u);
  EXPECT_EQ(sent.request.request_id, 0);
}

TEST_F(ChannelSendTest, RequestSharesTheBytesOfTheStoredMessage) {
  Start();

  Send("the bytes", false, true);

  const FakeHttp::Sent sent = http_.Requests()[0];
  EXPECT_EQ(sent.request.body.cdata<char>(), peer().sending().at(sent.id).data.cdata<char>());
}

TEST_F(ChannelSendTest, BodyWithZeroBytesInsideIsSentWhole) {
  Start();
  const std::string body("a\0b\0", 4);

  Send(body, false, true);

  EXPECT_EQ(http_.Requests()[0].body, body);
}

TEST_F(ChannelSendTest, RequestHasReachedTheClientBeforeTheStoreIsChanged) {
  Start();
  size_t pending = 0;
  size_t sending = 1;
  http_.SetOnSend([&](const HttpClient::Request&) {
    pending = peer().pending().size();
    sending = peer().sending().size();
  });

  Send("one", false, true);

  EXPECT_EQ(pending, 1u);
  EXPECT_EQ(sending, 0u);
}

TEST_F(ChannelSendTest, StartedRequestMovesTheMessageIntoFlight) {
  Start();

  Send("one", false, true);

  const int64_t id = http_.Requests()[0].id;
  EXPECT_TRUE(peer().pending().empty());
  ASSERT_EQ(peer().sending().count(id), 1u);
  EXPECT_EQ(peer().sending().at(id).send_count, 1u);
  EXPECT_EQ(Counters(), (Counts{1, 1, 0, 0, 0}));
}

TEST_F(ChannelSendTest, SendingSavesNothing) {
  Start();
  Configure(1000);
  Send("one", true);
  const size_t saved = events_.Count(Kind::kSaved);

  Tick();

  EXPECT_EQ(http_.RequestCount(), 1u);
  EXPECT_EQ(events_.Count(Kind::kSaved), saved);
}

TEST_F(ChannelSendTest, EachTickSendsOneMessageAndAllMayBeInFlightTogether) {
  Start();
  SendMany(5);

  for (size_t tick = 1; tick <= 5; ++tick) {
    Advance(100);
    EXPECT_EQ(http_.RequestCount(), tick);
  }

  EXPECT_EQ(http_.Outstanding().size(), 5u);
  EXPECT_EQ(peer().sending().size(), 5u);
  EXPECT_TRUE(peer().pending().empty());
  EXPECT_EQ(http_.Requests()[0].body, "m0");
  EXPECT_EQ(http_.Requests()[4].body, "m4");
}

TEST_F(ChannelSendTest, LargestRequestIdIsKept) {
  Start();
  http_.ReturnNextIds({INT64_MAX});

  Send("one", false, true);

  EXPECT_EQ(peer().sending().count(INT64_MAX), 1u);
  Answer(0, 200);
  EXPECT_EQ(peer().successful(), 1u);
}

TEST_F(ChannelSendTest, RequestIdGivenTwiceLosesTheOlderMessage) {
  Start();
  http_.ReturnNextIds({77, 77});

  Send("older", false, true);
  Send("newer", false, true);

  ASSERT_EQ(peer().sending().size(), 1u);
  EXPECT_EQ(Body(peer().sending().at(77).data), "newer");
  EXPECT_EQ(Counters(), (Counts{2, 2, 0, 0, 0}));
  const auto dropped = events_.OfKind(Kind::kDropped);
  ASSERT_EQ(dropped.size(), 1u);
  EXPECT_EQ(dropped[0].cause, Cause::kReplaced);
  EXPECT_EQ(dropped[0].data, "older");
}

// --- Requests and clients that cannot be started ---

TEST_F(ChannelSendTest, IdBelowOneLeavesEverythingAsItWas) {
  for (const int64_t id : {int64_t{0}, int64_t{-1}, INT64_MIN}) {
    Start();
    http_.ReturnNextIds({id});

    Send("one", false, true);

    EXPECT_EQ(PendingBodies(), Texts{"one"}) << id;
    EXPECT_EQ(peer().pending().front().send_count, 0u) << id;
    EXPECT_TRUE(peer().sending().empty()) << id;
    EXPECT_EQ(Counters(), (Counts{1, 0, 0, 0, 0})) << id;
    EXPECT_TRUE(RecordingLog::Lines().empty()) << id;
    EXPECT_EQ(channel_.use_count(), 1) << id;
    Stop();
    RecordingLog::Clear();
  }
}

TEST_F(ChannelSendTest, RefusedRequestIsTriedAgainAtTheNextTick) {
  Start();
  http_.ReturnNextIds({0, -5});
  Send("one");

  Advance(200);
  EXPECT_EQ(peer().actual(), 0u);
  Advance(100);

  EXPECT_EQ(http_.RequestCount(), 3u);
  EXPECT_EQ(peer().actual(), 1u);
  EXPECT_EQ(peer().sending().begin()->second.send_count, 1u);
}

TEST_F(ChannelSendTest, FailedClientCreationKeepsTheMessageForTheNextTick) {
  Start();
  http_.FailNextCreations(2);
  Send("one", false, true);

  EXPECT_EQ(PendingBodies(), Texts{"one"});
  EXPECT_EQ(peer().pending().front().send_count, 0u);
  EXPECT_EQ(Counters(), (Counts{1, 0, 0, 0, 0}));
  EXPECT_TRUE(RecordingLog::Lines().empty());
  Advance(200);

  EXPECT_EQ(http_.Configs().size(), 3u);
  EXPECT_EQ(http_.RequestCount(), 1u);
}

TEST_F(ChannelSendTest, FailedClientCreationHasStoppedTheCleanTimerAlready) {
  StartWithCleanTimerRunning();
  OnQueue([](Peer peer) { peer.DoClean(); });
  http_.FailNextCreations(1);

  Send("second", false, true);

  EXPECT_FALSE(peer().clean_timer().IsRunning());
  EXPECT_EQ(PendingBodies(), Texts{"second"});
}

TEST_F(ChannelSendTest, SendStopsTheCleanTimer) {
  StartWithCleanTimerRunning();

  Send("second", false, true);

  EXPECT_FALSE(peer().clean_timer().IsRunning());
  Advance(120000);
  EXPECT_EQ(http_.LiveClients(), 1u);
}

// --- The client ---

TEST_F(ChannelSendTest, ClientIsMadeByTheFirstSendAndReused) {
  Start();
  EXPECT_TRUE(http_.Configs().empty());
  Send("one");
  EXPECT_TRUE(http_.Configs().empty());

  Advance(100);
  EXPECT_EQ(http_.Configs().size(), 1u);
  SendMany(3);
  Advance(300);

  EXPECT_EQ(http_.RequestCount(), 4u);
  EXPECT_EQ(http_.Configs().size(), 1u);
}

TEST_F(ChannelSendTest, ClientOptionIsCopiedIntoTheConfiguration) {
  for (const bool option : {false, true}) {
    Make(false, option);
    channel_->Initialize();

    Send("one", false, true);

    EXPECT_EQ(http_.Configs().back().enable_http2, option);
    Stop();
  }
}

TEST_F(ChannelSendTest, IdleClientIsReleasedAndANewOneMadeByTheNextSend) {
  StartWithCleanTimerRunning();
  Advance(60000);
  EXPECT_EQ(http_.LiveClients(), 0u);

  Send("second", false, true);

  EXPECT_EQ(http_.Configs().size(), 2u);
  EXPECT_EQ(http_.LiveClients(), 1u);
}

TEST_F(ChannelSendTest, TerminationReleasesTheClientAndTheNextRunMakesANewOne) {
  Start();
  Send("one", false, true);
  Stop();
  EXPECT_EQ(http_.LiveClients(), 0u);
  channel_->Initialize();

  Send("two", false, true);

  EXPECT_EQ(http_.Configs().size(), 2u);
}

TEST_F(ChannelSendTest, EnabledProxyIsSetWithAllItsValues) {
  Start();
  Socks5ProxyConfigHolder::Socks5ProxyConfig proxy;
  proxy.host = "proxy.example";
  proxy.port = 1080;
  proxy.user = "user";
  proxy.password = "secret";
  proxy.enabled = true;
  GetSocks5ProxyConfigHolder()->SetConfig(proxy);

  Send("one", false, true);

  ASSERT_EQ(http_.Configs().size(), 1u);
  const HttpClient::Config config = http_.Configs()[0];
  EXPECT_TRUE(config.use_socks5);
  EXPECT_EQ(config.socks5_host, "proxy.example");
  EXPECT_EQ(config.socks5_port, 1080);
  EXPECT_EQ(config.socks5_user, "user");
  EXPECT_EQ(config.socks5_password, "secret");
}

TEST_F(ChannelSendTest, DisabledProxyIsNotSetEvenWhenFilledIn) {
  Start();
  Socks5ProxyConfigHolder::Socks5ProxyConfig proxy;
  proxy.host = "proxy.example";
  proxy.port = 1080;
  GetSocks5ProxyConfigHolder()->SetConfig(proxy);

  Send("one", false, true);

  ASSERT_EQ(http_.Configs().size(), 1u);
  EXPECT_FALSE(http_.Configs()[0].use_socks5);
  EXPECT_EQ(http_.Configs()[0].socks5_host, "");
}

TEST_F(ChannelSendTest, ProxyChangeTakesEffectWithTheNextClient) {
  StartWithCleanTimerRunning();
  Socks5ProxyConfigHolder::Socks5ProxyConfig proxy;
  proxy.host = "proxy.example";
  proxy.port = 1080;
  proxy.enabled = true;
  GetSocks5ProxyConfigHolder()->SetConfig(proxy);

  Send("second", false, true);
  EXPECT_EQ(http_.Configs().size(), 1u);
  Answer(1, 200);
  Advance(60000);
  Send("third", false, true);

  ASSERT_EQ(http_.Configs().size(), 2u);
  EXPECT_TRUE(http_.Configs()[1].use_socks5);
}

// --- The callback's strong reference ---

TEST_F(ChannelSendTest, OutstandingCallbackHoldsTheChannel) {
  Start();

  Send("one", false, true);

  EXPECT_EQ(channel_.use_count(), 2);
  Answer(0, 200);
  EXPECT_EQ(channel_.use_count(), 1);
}

TEST_F(ChannelSendTest, CallbackThatTheClientDiscardsReleasesTheChannel) {
  Start();
  Send("one", false, true);

  ASSERT_TRUE(http_.Drop(0));
  time_.RunUntilIdle();

  EXPECT_EQ(channel_.use_count(), 1);
  EXPECT_EQ(peer().sending().size(), 1u);
}

TEST_F(ChannelSendTest, ChannelDroppedByItsOwnerLivesUntilTheCancelledCallbackHasRun) {
  Start();
  Send("one", false, true);
  const std::weak_ptr<Channel> watch = channel_;
  channel_->Terminate();

  channel_.reset();
  EXPECT_FALSE(watch.expired());
  time_.RunUntilIdle();

  EXPECT_TRUE(watch.expired());
}

}  // namespace
}  // namespace quenor::test
