// How a message enters the store: refusal, counting, the bound of the pending list, filing.
#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <type_traits>
#include <vector>

#include "tests/support/channel_test_fixture.h"
#include "tests/support/memory_faults.h"

namespace quenor::test {
namespace {

using Message = ReliableReportChannelHttps::CachedMessage;

class ChannelAdmissionTest : public ChannelTest {
 protected:
  // A channel whose messages stay pending: the send timer's first tick is an hour away.
  void StartHolding(bool compress = false) {
    Start(compress);
    Configure(3600 * 1000);
  }
};

// --- CachedMessage ---

static_assert(std::is_same_v<decltype(Message::data), CopyOnWriteBuffer>);
static_assert(std::is_same_v<decltype(Message::send_count), uint32_t>);
static_assert(std::is_same_v<decltype(Message::need_cache), bool>);
static_assert(offsetof(Message, data) < offsetof(Message, send_count));
static_assert(offsetof(Message, send_count) < offsetof(Message, need_cache));

TEST(CachedMessageTest, EmptyOneHasNoBytesAndWasNeverSent) {
  const Message message(true);

  EXPECT_EQ(message.data.size(), 0u);
  EXPECT_EQ(message.data.cdata<uint8_t>(), nullptr);
  EXPECT_EQ(message.send_count, 0u);
  EXPECT_TRUE(message.need_cache);
}

TEST(CachedMessageTest, SharesTheBufferThatItIsMadeFrom) {
  const CopyOnWriteBuffer buffer("abc", 3);

  const Message message(buffer, false);

  EXPECT_EQ(message.data.cdata<char>(), buffer.cdata<char>());
  EXPECT_EQ(message.send_count, 0u);
  EXPECT_FALSE(message.need_cache);
}

TEST(CachedMessageTest, CopiesTheBytesThatItIsMadeFrom) {
  uint8_t bytes[] = {'a', 'b', 'c'};

  const Message message(bytes, 2, true);
  bytes[0] = 'x';

  EXPECT_EQ(std::string(message.data.cdata<char>(), message.data.size()), "ab");
  EXPECT_EQ(message.send_count, 0u);
  EXPECT_TRUE(message.need_cache);
}

TEST(CachedMessageTest, CopySharesTheBytesAndKeepsTheCount) {
  Message message(CopyOnWriteBuffer("abc", 3), true);
  message.send_count = 4;

  const Message copy(message);

  EXPECT_EQ(copy.data.cdata<char>(), message.data.cdata<char>());
  EXPECT_EQ(copy.send_count, 4u);
  EXPECT_TRUE(copy.need_cache);
}

// --- Refusals ---

TEST_F(ChannelAdmissionTest, StoppedChannelLeavesEverythingUnchanged) {
  Start();
  OnQueue([](Peer peer) { peer.DoTerminate(); });

  Send("one", true, true);

  EXPECT_EQ(RecordingLog::Texts(1), Texts{"UpdateCacheAndSend, channel is not running"});
  EXPECT_EQ(Counters(), (Counts{0, 0, 0, 0, 0}));
  EXPECT_TRUE(peer().pending().empty());
  EXPECT_EQ(http_.RequestCount(), 0u);
  EXPECT_EQ(SendPeriod(), -1);
}

TEST_F(ChannelAdmissionTest, EmptyUrlLeavesEverythingUnchangedSilently) {
  Make(false, false, "");
  channel_->Initialize();

  Send("one", true, true);

  EXPECT_TRUE(RecordingLog::Lines().empty());
  EXPECT_EQ(Counters(), (Counts{0, 0, 0, 0, 0}));
  EXPECT_TRUE(peer().pending().empty());
  EXPECT_EQ(SendPeriod(), -1);
  EXPECT_EQ(events_.Count(Kind::kSaved), 0u);
}

TEST_F(ChannelAdmissionTest, EmptyUrlTrimsNothing) {
  StartHolding();
  SendMany(200);
  channel_->SetServerDomain("");

  Send("lost");

  EXPECT_EQ(peer().pending().size(), 200u);
  EXPECT_EQ(peer().dropping(), 0u);
}

// --- Counting and filing ---

TEST_F(ChannelAdmissionTest, AdmittedMessageIsCountedAndStartsTheTimer) {
  Start();

  Send("one");

  EXPECT_EQ(Counters(), (Counts{1, 0, 0, 0, 0}));
  EXPECT_EQ(PendingBodies(), Texts{"one"});
  EXPECT_EQ(peer().pending().front().send_count, 0u);
  EXPECT_EQ(SendPeriod(), 100);
}

TEST_F(ChannelAdmissionTest, MessagesQueueInTheOrderHandedOver) {
  StartHolding();

  SendMany(3);

  EXPECT_EQ(PendingBodies(), (Texts{"m0", "m1", "m2"}));
}

TEST_F(ChannelAdmissionTest, SendNowGoesAheadOfAllOlderMessagesAndOutAtOnce) {
  Start();
  SendMany(3);

  Send("now", false, true);

  ASSERT_EQ(http_.RequestCount(), 1u);
  EXPECT_EQ(http_.Requests()[0].body, "now");
  EXPECT_EQ(PendingBodies(), (Texts{"m0", "m1", "m2"}));
  EXPECT_EQ(SendPeriod(), 100);
}

TEST_F(ChannelAdmissionTest, SendNowThatCannotGoOutStaysInFront) {
  Start();
  SendMany(2);
  http_.RefuseAll(0);

  Send("now", false, true);

  EXPECT_EQ(PendingBodies(), (Texts{"now", "m0", "m1"}));
  EXPECT_EQ(peer().pending().front().send_count, 0u);
}

TEST_F(ChannelAdmissionTest, SendNowWithAnIntervalConfiguredIsAnOrdinaryQueuedMessage) {
  Start();
  Configure(500);
  SendMany(2);

  Send("now", false, true);

  EXPECT_EQ(http_.RequestCount(), 0u);
  EXPECT_EQ(PendingBodies(), (Texts{"m0", "m1", "now"}));
  Advance(500);
  ASSERT_EQ(http_.RequestCount(), 1u);
  EXPECT_EQ(http_.Requests()[0].body, "m0");
}

TEST_F(ChannelAdmissionTest, SendNowDuringABackOffGoesOutAtOnce) {
  Start();
  Send("one", false, true);
  Fail(0);
  ASSERT_EQ(SendPeriod(), 1000);

  Send("now", false, true);

  ASSERT_EQ(http_.RequestCount(), 2u);
  EXPECT_EQ(http_.Requests()[1].body, "now");
  EXPECT_EQ(PendingBodies(), Texts{"one"});
  EXPECT_EQ(SendPeriod(), 1000);
}

TEST_F(ChannelAdmissionTest, NeedCacheIsKeptAndChangesNothingOfTheSending) {
  Start();

  Send("cached", true, true);
  Send("not cached", false, true);

  ASSERT_EQ(http_.RequestCount(), 2u);
  const auto requests = http_.Requests();
  EXPECT_TRUE(peer().sending().at(requests[0].id).need_cache);
  EXPECT_FALSE(peer().sending().at(requests[1].id).need_cache);
  EXPECT_EQ(requests[1].body, "not cached");
}

TEST_F(ChannelAdmissionTest, EmptyMessageIsQueuedAndSentAsAnEmptyBody) {
  Start();

  Send("");

  EXPECT_EQ(PendingBodies(), Texts{""});
  Advance(100);
  ASSERT_EQ(http_.RequestCount(), 1u);
  EXPECT_EQ(http_.Requests()[0].body, "");
  EXPECT_EQ(Counters(), (Counts{1, 1, 0, 0, 0}));
}

TEST_F(ChannelAdmissionTest, StoredMessageSharesTheBytesCopiedByTheCaller) {
  StartHolding();
  const std::string body(10000, 'x');

  Send(body);

  EXPECT_EQ(PendingBodies(), Texts{body});
  MemoryFaults::FailMalloc(1);  // A private copy would need one.
  EXPECT_NE(peer().pending().front().data.data<uint8_t>(), nullptr);
  EXPECT_FALSE(MemoryFaults::HasFailed());
  MemoryFaults::FailMalloc(0);
}

// --- The bound of the pending list ---

TEST_F(ChannelAdmissionTest, With199PendingTheNextIsSimplyAdded) {
  StartHolding();
  SendMany(199);

  Send("last");

  EXPECT_EQ(peer().pending().size(), 200u);
  EXPECT_EQ(peer().dropping(), 0u);
  EXPECT_EQ(peer().needed(), 200u);
}

TEST_F(ChannelAdmissionTest, With200PendingTheFiftyOldestGoFirst) {
  StartHolding();
  SendMany(200);

  Send("last");

  EXPECT_EQ(peer().pending().size(), 151u);
  EXPECT_EQ(peer().dropping(), 50u);
  EXPECT_EQ(peer().needed(), 201u);
  EXPECT_EQ(PendingBodies().front(), "m50");
  EXPECT_EQ(PendingBodies().back(), "last");
  EXPECT_EQ(events_.Count(Kind::kDropped, Cause::kTrimmed), 50u);
}

TEST_F(ChannelAdmissionTest, TrimmingComesInBursts) {
  StartHolding();
  SendMany(201);
  ASSERT_EQ(peer().pending().size(), 151u);

  SendMany(49);
  EXPECT_EQ(peer().pending().size(), 200u);
  EXPECT_EQ(peer().dropping(), 50u);
  Send("one more");

  EXPECT_EQ(peer().pending().size(), 151u);
  EXPECT_EQ(peer().dropping(), 100u);
}

TEST_F(ChannelAdmissionTest, LongerListThatRequeuingMadeIsTrimmedByTheNextAdmission) {
  StartHolding();
  Configure(0);
  for (int i = 0; i < 30; ++i) Send("flying" + std::to_string(i), false, true);
  Configure(3600 * 1000);
  SendMany(200);
  for (int i = 0; i < 30; ++i) Fail(static_cast<size_t>(i));
  ASSERT_EQ(peer().pending().size(), 230u);
  EXPECT_EQ(peer().dropping(), 0u);

  Send("last");

  EXPECT_EQ(peer().pending().size(), 151u);
  EXPECT_EQ(peer().dropping(), 80u);
  EXPECT_EQ(PendingBodies().front(), "m50");
}

TEST_F(ChannelAdmissionTest, MessagesInFlightAreNeitherCountedNorTrimmed) {
  Start();
  for (int i = 0; i < 250; ++i) Send("flying", false, true);
  ASSERT_EQ(peer().sending().size(), 250u);
  Configure(3600 * 1000);

  SendMany(199);
  Send("last");
  EXPECT_EQ(peer().dropping(), 0u);
  Send("over");

  EXPECT_EQ(peer().sending().size(), 250u);
  EXPECT_EQ(peer().pending().size(), 151u);
}

TEST_F(ChannelAdmissionTest, SendNowIsBoundedLikeAnyOther) {
  Start();
  http_.RefuseAll(0);
  SendMany(200);

  Send("now", false, true);

  EXPECT_EQ(peer().pending().size(), 151u);
  EXPECT_EQ(PendingBodies().front(), "now");
  EXPECT_EQ(PendingBodies()[1], "m50");
}

TEST_F(ChannelAdmissionTest, MessageIsCountedBeforeItIsLostToCompression) {
  StartHolding(true);

  Send("x");

  EXPECT_EQ(Counters(), (Counts{1, 0, 0, 0, 0}));
  EXPECT_TRUE(peer().pending().empty());
}

TEST_F(ChannelAdmissionTest, ListIsTrimmedEvenForAMessageThatCompressionLoses) {
  StartHolding(true);
  for (int i = 0; i < 200; ++i) Post(std::string(100, 'a'));
  time_.RunUntilIdle();
  ASSERT_EQ(peer().pending().size(), 200u);

  Send("x");

  EXPECT_EQ(peer().pending().size(), 150u);
  EXPECT_EQ(Counters(), (Counts{201, 0, 0, 0, 50}));
}

// --- Compression on admission ---

TEST_F(ChannelAdmissionTest, FailedCompressionDropsSilentlyWithoutTimerOrSave) {
  Start(true);

  Send("x", true, true);

  EXPECT_TRUE(RecordingLog::Lines().empty());
  EXPECT_EQ(SendPeriod(), -1);
  EXPECT_EQ(http_.RequestCount(), 0u);
  EXPECT_EQ(events_.Count(Kind::kSaved), 0u);
  EXPECT_EQ(events_.Count(Kind::kDropped, Cause::kNotCompressed), 1u);
}

TEST_F(ChannelAdmissionTest, EmptyMessageIsDroppedWhenCompressing) {
  Start(true);

  Send("", true, true);

  EXPECT_EQ(Counters(), (Counts{1, 0, 0, 0, 0}));
  EXPECT_TRUE(peer().pending().empty());
  EXPECT_EQ(SendPeriod(), -1);
  EXPECT_TRUE(RecordingLog::Lines().empty());
}

TEST_F(ChannelAdmissionTest, CompressedMessageHoldsItsOwnSmallerBytes) {
  StartHolding(true);
  const std::string body(1000, 'a');

  Send(body);

  ASSERT_EQ(peer().pending().size(), 1u);
  EXPECT_LT(peer().pending().front().data.size(), 100u);
  EXPECT_EQ(peer().pending().front().send_count, 0u);
}

TEST_F(ChannelAdmissionTest, CompressedMessageThatCannotBeStoredNeverBecomesAnEmptyOne) {
  StartHolding(true);
  Send(std::string(1000, 'a'));  // Makes the compressor's state.
  Post(std::string(1000, 'b'), true);

  // Whatever the admission takes from malloc, the n-th call fails: a message is whole or lost.
  for (size_t nth = 1; nth <= 8; ++nth) {
    MemoryFaults::FailMalloc(nth);
    time_.RunUntilIdle();
    const bool failed = MemoryFaults::HasFailed();
    MemoryFaults::FailMalloc(0);
    for (const auto& message : peer().pending()) EXPECT_GT(message.data.size(), 0u);
    if (!failed) break;
    Post(std::string(1000, 'b'), true);
    ASSERT_LT(nth, 8u);
  }
  time_.RunUntilIdle();
}

}  // namespace
}  // namespace quenor::test
