// The store and the one door into it. Written without sight of the implementation, from the
// promises alone.
#include <cstddef>

#include "tests/unit/second/channel/promise_fixture.h"

namespace quenor::test {
namespace {

class PromisedAdmissionTest : public PromiseTest {
 protected:
  using Message = Channel::CachedMessage;
  // Puts `count` messages straight into the pending list.
  void Fill(int count) {
    for (int i = 0; i < count; ++i) {
      const std::string body = "m" + std::to_string(i);
      Inside().pending().emplace_back(
          CopyOnWriteBuffer(body.data(), static_cast<uint32_t>(body.size())), false);
    }
  }
  static CopyOnWriteBuffer Buffer(const std::string& body) {
    return CopyOnWriteBuffer(body.data(), static_cast<uint32_t>(body.size()));
  }
};

TEST_F(PromisedAdmissionTest, MessagesStartUnsent) {
  EXPECT_EQ(Message(true).send_count, 0u);
  EXPECT_TRUE(Message(true).need_cache);
  EXPECT_EQ(Message(true).data.size(), 0u);
  EXPECT_EQ(Message(true).data.cdata<char>(), nullptr);

  const CopyOnWriteBuffer buffer = Buffer("shared");
  const Message shared(buffer, false);
  EXPECT_EQ(shared.send_count, 0u);
  EXPECT_FALSE(shared.need_cache);
  EXPECT_EQ(shared.data.cdata<char>(), buffer.cdata<char>());

  const uint8_t bytes[] = {1, 2, 3};
  const Message copied(bytes, 3, true);
  EXPECT_EQ(copied.send_count, 0u);
  EXPECT_TRUE(copied.need_cache);
  EXPECT_NE(copied.data.cdata<uint8_t>(), bytes);
  EXPECT_EQ(Bytes(copied.data), std::string("\1\2\3"));
}

TEST_F(PromisedAdmissionTest, CopiedMessageSharesItsBytesAndKeepsItsCount) {
  Message message(Buffer("shared"), true);
  message.send_count = 4;
  const Message copy(message);
  EXPECT_EQ(copy.send_count, 4u);
  EXPECT_TRUE(copy.need_cache);
  EXPECT_EQ(copy.data.cdata<char>(), message.data.cdata<char>());
}

TEST_F(PromisedAdmissionTest, MessageFieldsLieInTheirOrder) {
  const Message message(true);
  EXPECT_LT(static_cast<const void*>(&message.data), static_cast<const void*>(&message.send_count));
  EXPECT_LT(static_cast<const void*>(&message.send_count),
            static_cast<const void*>(&message.need_cache));
}

TEST_F(PromisedAdmissionTest, StoppedChannelRefusesBeforeItLooksAtTheUrl) {
  Make(false, false, "");
  Start();
  const auto queue = Inside().queue();
  Stop();

  queue->PostTask(base::Location(),
                  [this] { Inside().UpdateCacheAndSend(Buffer("lost"), true, true); });
  time_.RunUntilIdle();

  const auto lines = RecordingLog::Lines();
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.back().level, 1);
  EXPECT_EQ(lines.back().text, "UpdateCacheAndSend, channel is not running");
  EXPECT_EQ(lines.back().file, kChannelSource);
  EXPECT_EQ(Counters(), (Numbers{0, 0, 0, 0, 0}));
  EXPECT_TRUE(Inside().pending().empty());
}

TEST_F(PromisedAdmissionTest, EmptyUrlChangesNothingAtAll) {
  Make(false, false, "");
  Start();
  Fill(200);
  RecordingLog::Clear();

  Send("lost", true, true);

  EXPECT_EQ(Inside().pending().size(), 200u);
  EXPECT_EQ(Counters(), (Numbers{0, 0, 0, 0, 0}));
  EXPECT_FALSE(Inside().send_timer().IsRunning());
  EXPECT_TRUE(RecordingLog::Lines().empty());
}

TEST_F(PromisedAdmissionTest, HundredAndNinetyNineGrowToTwoHundred) {
  Start();
  Fill(199);

  Send("new");

  EXPECT_EQ(Inside().pending().size(), 200u);
  EXPECT_EQ(Counters(), (Numbers{1, 0, 0, 0, 0}));
  EXPECT_EQ(PendingBodies().front(), "m0");
}

TEST_F(PromisedAdmissionTest, TwoHundredLoseTheirFiftyOldestFirst) {
  Start();
  Fill(200);

  Send("new");

  EXPECT_EQ(Inside().pending().size(), 151u);
  EXPECT_EQ(Counters(), (Numbers{1, 0, 0, 0, 50}));
  EXPECT_EQ(PendingBodies().front(), "m50");
  EXPECT_EQ(PendingBodies().back(), "new");
}

TEST_F(PromisedAdmissionTest, LongerListsAreTrimmedToTheSameLength) {
  Start();
  Fill(333);

  Send("new");

  EXPECT_EQ(Inside().pending().size(), 151u);
  EXPECT_EQ(Counters()[4], 183u);
  EXPECT_EQ(PendingBodies().front(), "m183");
}

TEST_F(PromisedAdmissionTest, TrimmingComesInBursts) {
  Start();
  SendMany(200);
  EXPECT_EQ(Counters()[4], 0u);
  SendMany(50);  // 151 after the first, 200 after the last.
  EXPECT_EQ(Inside().pending().size(), 200u);
  EXPECT_EQ(Counters()[4], 50u);
  SendMany(1);
  EXPECT_EQ(Inside().pending().size(), 151u);
  EXPECT_EQ(Counters()[4], 100u);
}

TEST_F(PromisedAdmissionTest, MessageThatIsSentNowTrimsTheOldestToo) {
  Start();
  Fill(200);

  Send("now", false, true);

  EXPECT_EQ(SentBodies(), Strings{"now"});
  EXPECT_EQ(Inside().pending().size(), 150u);
  EXPECT_EQ(PendingBodies().front(), "m50");
  EXPECT_EQ(Counters(), (Numbers{1, 1, 0, 0, 50}));
}

TEST_F(PromisedAdmissionTest, RequeuedMessagesAreTheFirstToGo) {
  Start();
  Send("failed", false, true);
  Fill(199);
  Answer(0, 500);
  ASSERT_EQ(Inside().pending().size(), 200u);
  ASSERT_EQ(PendingBodies().front(), "failed");

  Send("new");

  EXPECT_EQ(PendingBodies().front(), "m49");
  EXPECT_EQ(Counters(), (Numbers{2, 1, 0, 1, 50}));
}

TEST_F(PromisedAdmissionTest, RequeuingIsNotBounded) {
  Start();
  Send("failed", false, true);
  Fill(200);

  Answer(0, 500);

  EXPECT_EQ(Inside().pending().size(), 201u);
  EXPECT_EQ(Counters()[4], 0u);
}

TEST_F(PromisedAdmissionTest, MessagesInFlightAreNeitherCountedNorTrimmed) {
  Start();
  for (int i = 0; i < 250; ++i) Send("f" + std::to_string(i), false, true);
  EXPECT_EQ(Inside().sending().size(), 250u);
  Fill(199);

  Send("new");

  EXPECT_EQ(Inside().sending().size(), 250u);
  EXPECT_EQ(Inside().pending().size(), 200u);
  EXPECT_EQ(Counters()[4], 0u);
}

TEST_F(PromisedAdmissionTest, UncompressedBodyIsSharedNotCopied) {
  Start();
  const CopyOnWriteBuffer buffer = Buffer("shared");

  OnQueue([&] { Inside().UpdateCacheAndSend(buffer, false, false); });

  EXPECT_EQ(Inside().pending().front().data.cdata<char>(), buffer.cdata<char>());
}

TEST_F(PromisedAdmissionTest, MessagesArePendingInTheirOrder) {
  Start();
  Send("a");
  Send("b", true);
  Send("c");
  EXPECT_EQ(PendingBodies(), (Strings{"a", "b", "c"}));
}

TEST_F(PromisedAdmissionTest, SendNowOvertakesAndGoesAtOnce) {
  Start();
  Send("old");

  Send("now", false, true);

  EXPECT_EQ(SentBodies(), Strings{"now"});
  EXPECT_EQ(PendingBodies(), Strings{"old"});
}

TEST_F(PromisedAdmissionTest, SendNowIsOrdinaryUnderAnInterval) {
  Start();
  channel_->SetResendInterval(1);
  Send("old");

  Send("now", false, true);

  EXPECT_EQ(http_.RequestCount(), 0u);
  EXPECT_EQ(PendingBodies(), (Strings{"old", "now"}));
  Advance(Ms(200));
  EXPECT_EQ(SentBodies(), (Strings{"old", "now"}));
}

TEST_F(PromisedAdmissionTest, SendNowIsHonouredDuringABackOff) {
  Start();
  Send("failing", false, true);
  Answer(0, 500);
  ASSERT_EQ(Inside().current_interval(), 1000u);

  Send("now", false, true);

  EXPECT_EQ(SentBodies(), (Strings{"failing", "now"}));
}

TEST_F(PromisedAdmissionTest, SendNowThatCannotStartStaysAtTheFront) {
  Start();
  Send("old");
  http_.RefuseAll(0);

  Send("now", false, true);

  EXPECT_EQ(PendingBodies(), (Strings{"now", "old"}));
  EXPECT_EQ(Counters(), (Numbers{2, 0, 0, 0, 0}));
  http_.Accept();
  Advance(Ms(100));
  EXPECT_EQ(SentBodies(), (Strings{"now", "now"}));
}

TEST_F(PromisedAdmissionTest, SendNowStartsTheTimerAllTheSame) {
  Start();

  Send("now", false, true);

  EXPECT_TRUE(Inside().send_timer().IsRunning());
  Advance(Ms(100));
  EXPECT_FALSE(Inside().send_timer().IsRunning());
}

TEST_F(PromisedAdmissionTest, EmptyMessageTravelsUncompressed) {
  Start();
  Send("", true);
  EXPECT_EQ(Inside().pending().size(), 1u);
  Advance(Ms(100));
  EXPECT_EQ(SentBodies(), Strings{""});
  EXPECT_EQ(Counters(), (Numbers{1, 1, 0, 0, 0}));
}

}  // namespace
}  // namespace quenor::test
