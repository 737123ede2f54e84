// What a listener is told, and that the books close in every scenario. (Each test of the channel
// checks at its end that no message is left open.)
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "tests/support/channel_test_fixture.h"

namespace quenor::test {
namespace {

class ChannelEventsTest : public ChannelTest {
 protected:
  std::vector<Kind> Kinds() {
    std::vector<Kind> kinds;
    for (const RecordedEvent& event : events_.Events()) kinds.push_back(event.kind);
    return kinds;
  }
  using Kinds_ = std::vector<Kind>;
};

TEST_F(ChannelEventsTest, DeliveredMessageIsToldFromHandOverToAcknowledgement) {
  Start();

  Send("one", true, true);
  Answer(0, 200);

  EXPECT_EQ(Kinds(),
            (Kinds_{Kind::kHandedOver, Kind::kAdmitted, Kind::kSent, Kind::kAcknowledged}));
  const int64_t id = http_.Requests()[0].id;
  for (const RecordedEvent& event : events_.Events()) {
    EXPECT_EQ(event.channel_name, kName);
    EXPECT_EQ(event.data, "one");
    EXPECT_TRUE(event.need_cache);
    EXPECT_FALSE(event.has_original_data);
  }
  EXPECT_EQ(events_.Events()[2].request_id, id);
  EXPECT_EQ(events_.Events()[2].send_count, 1u);
  EXPECT_EQ(events_.Events()[3].request_id, id);
  EXPECT_EQ(events_.Events()[3].send_count, 1u);
  EXPECT_EQ(events_.OpenMessages(), 0);
}

TEST_F(ChannelEventsTest, HandOverIsToldBeforeTheCallReturnsAndBeforeAnythingElse) {
  Start();

  Post("one");

  EXPECT_EQ(Kinds(), Kinds_{Kind::kHandedOver});
}

// Of equal messages too, through compression, failures and saves; after a restart by another one.
TEST_F(ChannelEventsTest, MessageIsKnownByOneIdFromHandOverToItsEnd) {
  for (const bool compress : {false, true}) {
    events_.Clear();
    Start(compress);
    const size_t first = http_.RequestCount();
    for (int i = 0; i < 3; ++i) Send(std::string(200, 'a'), true, true);
    Answer(first + 1, 500);
    Answer(first, 200);
    Stop();

    std::map<uint64_t, Kinds_> told;
    for (const RecordedEvent& event : events_.Events()) {
      if (event.kind != Kind::kSaved) told[event.message_id].push_back(event.kind);
    }
    const Kinds_ begin = {Kind::kHandedOver, Kind::kAdmitted, Kind::kSent};
    ASSERT_EQ(3u, told.size()) << compress;
    size_t ended = 0;
    for (const auto& [id, kinds] : told) {
      EXPECT_NE(0u, id);
      EXPECT_EQ(begin, Kinds_(kinds.begin(), kinds.begin() + 3)) << compress << ", message " << id;
      ended += kinds.back() == Kind::kAcknowledged || kinds.back() == Kind::kKept ||
               kinds.back() == Kind::kDropped;
    }
    EXPECT_EQ(3u, ended) << compress;
  }
}

TEST_F(ChannelEventsTest, RefusalIsToldAfterTheHandOver) {
  Make();

  Post("one", /*need_cache=*/true);

  EXPECT_EQ(Kinds(), (Kinds_{Kind::kHandedOver, Kind::kRefused}));
  EXPECT_EQ(events_.Events()[1].cause, Cause::kNotInitialized);
  EXPECT_EQ(events_.Events()[1].data, "one");
  EXPECT_TRUE(events_.Events()[1].need_cache);
  EXPECT_EQ(events_.Events()[1].message_id, events_.Events()[0].message_id);
}

TEST_F(ChannelEventsTest, EmptyMessageIsToldWithNullData) {
  Start();

  Send("", false, true);
  Answer(0, 200);

  ASSERT_EQ(Kinds(),
            (Kinds_{Kind::kHandedOver, Kind::kAdmitted, Kind::kSent, Kind::kAcknowledged}));
  for (const RecordedEvent& event : events_.Events()) {
    EXPECT_FALSE(event.has_data) << event;
    EXPECT_EQ(event.data, "");
  }
}

TEST_F(ChannelEventsTest, CompressedMessageIsToldWithItsOriginalOnAdmission) {
  Start(true);
  const std::string body(200, 'a');

  Send(body, false, true);

  const auto admitted = events_.OfKind(Kind::kAdmitted);
  ASSERT_EQ(admitted.size(), 1u);
  EXPECT_EQ(admitted[0].original_data, body);
  EXPECT_EQ(admitted[0].data, http_.Requests()[0].body);
  EXPECT_EQ(events_.OfKind(Kind::kHandedOver)[0].data, body);
  EXPECT_EQ(events_.OfKind(Kind::kSent)[0].data, http_.Requests()[0].body);
}

TEST_F(ChannelEventsTest, MessageThatDoesNotCompressIsToldAsDroppedWithTheCallersBytes) {
  Start(true);

  Send("x", true);

  EXPECT_EQ(Kinds(), (Kinds_{Kind::kHandedOver, Kind::kDropped}));
  EXPECT_EQ(events_.Events()[1].cause, Cause::kNotCompressed);
  EXPECT_EQ(events_.Events()[1].data, "x");
  EXPECT_EQ(events_.Events()[1].request_id, 0);
}

TEST_F(ChannelEventsTest, FailureByStatusIsToldWithTheStatus) {
  Start();
  Send("one", false, true);

  Answer(0, 503);

  const auto failed = events_.OfKind(Kind::kFailed);
  ASSERT_EQ(failed.size(), 1u);
  EXPECT_EQ(failed[0].cause, Cause::kStatus);
  EXPECT_EQ(failed[0].status_code, 503);
  EXPECT_EQ(failed[0].http_state, 2);
  EXPECT_EQ(failed[0].http_reason, HttpReason::kHttpStatus);
  EXPECT_EQ(failed[0].request_id, http_.Requests()[0].id);
  EXPECT_EQ(failed[0].send_count, 1u);
}

TEST_F(ChannelEventsTest, FailureByTransportIsToldWithTheState) {
  Start();
  Send("one", false, true);

  Fail(0, State::kTimedOut);

  const auto failed = events_.OfKind(Kind::kFailed);
  ASSERT_EQ(failed.size(), 1u);
  EXPECT_EQ(failed[0].cause, Cause::kTransport);
  EXPECT_EQ(failed[0].status_code, 0);
  EXPECT_EQ(failed[0].http_state, 3);
  EXPECT_EQ(failed[0].http_reason, HttpReason::kTotalTimeout);
}

TEST_F(ChannelEventsTest, DropAtTheLimitFollowsItsFailure) {
  Start();
  channel_->SetMaxResendCount(1);
  Send("one", false, true);

  Fail(0);

  EXPECT_EQ(Kinds(), (Kinds_{Kind::kHandedOver, Kind::kAdmitted, Kind::kSent, Kind::kFailed,
                             Kind::kDropped}));
  const RecordedEvent dropped = events_.Events().back();
  EXPECT_EQ(dropped.cause, Cause::kResendLimit);
  EXPECT_EQ(dropped.data, "one");
  EXPECT_EQ(dropped.send_count, 1u);
  EXPECT_EQ(dropped.request_id, http_.Requests()[0].id);
}

TEST_F(ChannelEventsTest, TrimmedMessagesAreToldOldestFirst) {
  Start();
  Configure(3600 * 1000);
  SendMany(200);

  Send("last");

  const auto dropped = events_.OfKind(Kind::kDropped);
  ASSERT_EQ(dropped.size(), 50u);
  for (size_t i = 0; i < dropped.size(); ++i) {
    EXPECT_EQ(dropped[i].cause, Cause::kTrimmed);
    EXPECT_EQ(dropped[i].data, "m" + std::to_string(i));
  }
}

TEST_F(ChannelEventsTest, TerminationTellsEveryMessageThatTheStoreHeld) {
  Start();
  Send("in flight", true, true);
  Send("pending", false);

  Stop();

  const auto dropped = events_.OfKind(Kind::kDropped);
  ASSERT_EQ(dropped.size(), 2u);
  for (const RecordedEvent& event : dropped) EXPECT_EQ(event.cause, Cause::kTerminated);
  EXPECT_EQ(events_.Count(Kind::kKept), 0u);  // There is no cache that could keep them.
  EXPECT_EQ(events_.OpenMessages(), 0);
}

TEST_F(ChannelEventsTest, DelayedMessageThatNeverRanIsToldWhenItsTaskIsDestroyed) {
  Start();
  const uint8_t byte = 'd';
  channel_->SendPacketWithDelay(&byte, 1, true, TimeDelta::FromSeconds(60));

  Stop();

  EXPECT_EQ(Kinds(), (Kinds_{Kind::kHandedOver, Kind::kDropped}));
  EXPECT_EQ(events_.Events()[1].cause, Cause::kNeverRun);
  EXPECT_EQ(events_.Events()[1].data, "d");
  EXPECT_TRUE(events_.Events()[1].need_cache);
}

TEST_F(ChannelEventsTest, MessageBehindATerminationIsToldAsRefused) {
  Start();
  OnQueue([](Peer peer) { peer.DoTerminate(); });

  Send("late");

  const auto refused = events_.OfKind(Kind::kRefused);
  ASSERT_EQ(refused.size(), 1u);
  EXPECT_EQ(refused[0].cause, Cause::kNotRunning);
  EXPECT_EQ(refused[0].data, "late");
}

TEST_F(ChannelEventsTest, AnswerAfterTerminationTellsNothingMore) {
  Start();
  Send("one", false, true);
  ASSERT_TRUE(http_.Answer(0, 200));
  Stop();

  EXPECT_EQ(events_.Count(Kind::kAcknowledged), 0u);
  EXPECT_EQ(events_.Count(Kind::kDropped, Cause::kTerminated), 1u);
}

TEST_F(ChannelEventsTest, RefusedRequestIsNotToldAsSent) {
  Start();
  http_.RefuseAll(0);

  Send("one", false, true);
  Advance(500);

  EXPECT_EQ(events_.Count(Kind::kSent), 0u);
  EXPECT_EQ(events_.Count(Kind::kFailed), 0u);
}

TEST_F(ChannelEventsTest, EachAttemptIsToldWithItsNumber) {
  Start();
  Send("one");
  Advance(100);
  Fail(0);
  Advance(1000);
  Answer(1, 200);

  const auto sent = events_.OfKind(Kind::kSent);
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0].send_count, 1u);
  EXPECT_EQ(sent[1].send_count, 2u);
  EXPECT_EQ(events_.OfKind(Kind::kAcknowledged)[0].send_count, 2u);
}

TEST_F(ChannelEventsTest, ListenerMayHandOverAnotherMessage) {
  Start();
  bool done = false;
  events_.SetOnEvent([&](const ReportEvent& event) {
    if (event.kind != Kind::kAcknowledged || done) return;
    done = true;
    Post("from the listener");
  });
  Send("one", false, true);
  Answer(0, 200);

  EXPECT_EQ(PendingBodies(), Texts{"from the listener"});
  events_.SetOnEvent(nullptr);
}

// --- Without a listener the channel does exactly the same ---

TEST_F(ChannelEventsTest, ScenarioRunsAlikeWithAndWithoutAListener) {
  const auto scenario = [this](bool listen) {
    ReportEvents::SetListener(listen ? &events_ : nullptr);
    RecordingLog::Clear();
    const size_t first = http_.RequestCount();
    Start();
    SendMany(205);
    for (int i = 0; i < 400; ++i) {
      Advance(100);
      for (const size_t index : http_.Outstanding()) {
        if (index % 3 == 0) {
          Fail(index);
        } else {
          Answer(index, 200);
        }
      }
    }
    Texts seen = RecordingLog::Texts();
    for (const uint32_t counter : Counters()) seen.push_back(std::to_string(counter));
    const auto requests = http_.Requests();
    for (size_t i = first; i < requests.size(); ++i) seen.push_back(requests[i].body);
    Stop();
    for (const std::string& text : RecordingLog::Texts(0)) seen.push_back(text);
    // A multiple of three: the second run fails the same requests.
    while (http_.RequestCount() % 3 != 0) {
      Start();
      Send("filler", false, true);
      Stop();
    }
    return seen;
  };

  const Texts without = scenario(false);
  const Texts with = scenario(true);

  EXPECT_EQ(without, with);
  EXPECT_GT(with.size(), 100u);
}

}  // namespace
}  // namespace quenor::test
