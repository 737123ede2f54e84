#include "cli/send/ledger.h"

#include <gtest/gtest.h>

#include <deque>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "quenor_base/platform/http_client.h"

namespace quenor::cli {
namespace {

constexpr uint32_t kNoLimit = std::numeric_limits<uint32_t>::max();

// Plays the channel: tells the ledger what becomes of messages.
class LedgerTest : public ::testing::Test {
 protected:
  explicit LedgerTest(Ledger::Options options = {}) : ledger_(WithCounters(std::move(options))) {}

  Ledger::Options WithCounters(Ledger::Options options) {
    options.wake = [this] { ++wakes_; };
    options.lift_resend_limit = [this] { ++lifts_; };
    return options;
  }

  void Tell(ReportEventKind kind, const std::string& bytes,
            ReportEventCause cause = ReportEventCause::kNone, int64_t request_id = 0,
            uint32_t send_count = 0) {
    ReportEvent event{kind, cause, channel_name_, TagOf(kind, bytes)};
    event.data = bytes.empty() ? nullptr : reinterpret_cast<const uint8_t*>(bytes.data());
    event.size = static_cast<uint32_t>(bytes.size());
    event.request_id = request_id;
    event.send_count = send_count;
    event.need_cache = need_cache_;
    ledger_.OnReportEvent(event);
  }

  // Of messages with equal bytes the last one is admitted, and to the first one happens all else.
  MessageTag TagOf(ReportEventKind kind, const std::string& bytes) {
    std::deque<uint64_t>& ids = ids_[bytes];
    const bool begins = kind == ReportEventKind::kHandedOver || kind == ReportEventKind::kLoaded;
    if (begins) ids.push_back(++last_id_);
    if (ids.empty()) return {};
    MessageTag tag;
    tag.id = begins || kind == ReportEventKind::kAdmitted ? ids.back() : ids.front();
    const bool ends = kind == ReportEventKind::kAcknowledged || kind == ReportEventKind::kRefused ||
                      kind == ReportEventKind::kDropped || kind == ReportEventKind::kKept;
    if (ends) ids.pop_front();
    return tag;
  }

  // The bytes; "(none)" when there is none.
  std::string TakeAgain() {
    const std::optional<Ledger::Again> again = ledger_.TakeToHandOverAgain();
    return again ? again->bytes : "(none)";
  }

  // What the cache holds from now on.
  void Save() { Tell(ReportEventKind::kSaved, ""); }

  // Hands over the message that tells that the load is over.
  void RefuseProbe(ReportEventCause cause) {
    Tell(ReportEventKind::kHandedOver, "");
    Tell(ReportEventKind::kRefused, "", cause);
  }

  void HandOver(const std::string& name, const std::string& bytes) {
    ledger_.Expect({name, bytes, name});
    Tell(ReportEventKind::kHandedOver, bytes);
    Tell(ReportEventKind::kAdmitted, bytes);
  }

  void Send(const std::string& bytes) {
    Tell(ReportEventKind::kSent, bytes, ReportEventCause::kNone, 7, 1);
  }

  void Acknowledge(const std::string& bytes) {
    Tell(ReportEventKind::kAcknowledged, bytes, ReportEventCause::kNone, 7, 1);
  }

  void Fail(const std::string& bytes, int status_code) {
    ReportEvent event{ReportEventKind::kFailed, ReportEventCause::kStatus, channel_name_,
                      TagOf(ReportEventKind::kFailed, bytes)};
    event.data = reinterpret_cast<const uint8_t*>(bytes.data());
    event.size = static_cast<uint32_t>(bytes.size());
    event.status_code = status_code;
    event.http_state = static_cast<int32_t>(HttpClient::State::kCompleted);
    ledger_.OnReportEvent(event);
  }

  void Retune(uint32_t interval_ms, uint32_t limit) {
    ReportEvent event{ReportEventKind::kRetuned, ReportEventCause::kNone, channel_name_};
    event.send_interval_ms = interval_ms;
    event.max_resend_count = limit;
    ledger_.OnReportEvent(event);
  }

  void ExpectBooksClosed() {
    const Counts counts = ledger_.GetCounts();
    EXPECT_EQ(counts.loaded + counts.handed_over, counts.delivered + counts.dropped + counts.left);
    EXPECT_LE(counts.kept, counts.left);
    EXPECT_TRUE(ledger_.ReadBooks().Closes());
  }

  const std::string channel_name_ = "test";
  int wakes_ = 0;
  int lifts_ = 0;
  bool need_cache_ = true;  // Of the messages that events are about.
  std::map<std::string, std::deque<uint64_t>> ids_;
  uint64_t last_id_ = 0;
  Ledger ledger_;
};

// With a list of what is saved. A message's id is its name.
class ListingLedgerTest : public LedgerTest {
 protected:
  ListingLedgerTest() : LedgerTest(Listing()) {}
  static Ledger::Options Listing() {
    Ledger::Options options;
    options.list_saved = true;
    return options;
  }
  using Ids = std::vector<std::string>;
};

class LimitedLedgerTest : public LedgerTest {
 protected:
  LimitedLedgerTest() : LedgerTest(Limited()) {}
  static Ledger::Options Limited() {
    Ledger::Options options;
    options.max_resend = 2;
    return options;
  }
};

// Plays a channel that compresses: from admission on its events carry other bytes.
class CompressedLedgerTest : public LedgerTest {
 protected:
  CompressedLedgerTest() : LedgerTest(Compressed()) {}
  static Ledger::Options Compressed() {
    Ledger::Options options;
    options.compress = true;
    return options;
  }

  void TellAdmitted(const std::string& original, const std::string& stored) {
    ids_[stored].push_back(ids_[original].back());
    ids_[original].pop_back();
    ReportEvent event{ReportEventKind::kAdmitted, ReportEventCause::kNone, channel_name_,
                      TagOf(ReportEventKind::kAdmitted, stored)};
    event.data = reinterpret_cast<const uint8_t*>(stored.data());
    event.size = static_cast<uint32_t>(stored.size());
    event.original_data = reinterpret_cast<const uint8_t*>(original.data());
    event.original_size = static_cast<uint32_t>(original.size());
    event.need_cache = need_cache_;
    ledger_.OnReportEvent(event);
  }
  void HandOverCompressed(const std::string& name, const std::string& original,
                          const std::string& stored) {
    ledger_.Expect({name, original, name});
    Tell(ReportEventKind::kHandedOver, original);
    TellAdmitted(original, stored);
  }

  // A stored block of the four bytes "text", which is not the last one.
  const std::string unfinished_ = std::string("\0\x4\0\xfb\xff", 5) + "text";
  const std::string nine_bytes_ = "nine byte";
};

class TunedLedgerTest : public LedgerTest {
 protected:
  TunedLedgerTest() : LedgerTest(Tuned()) {}
  static Ledger::Options Tuned() {
    Ledger::Options options;
    options.send_now = true;
    options.interval_ms = 500;
    return options;
  }
};

TEST_F(LedgerTest, CountsAMessageFromHandOverToDelivery) {
  HandOver("line 1", "a");
  EXPECT_EQ(1u, ledger_.GetCounts().left);
  Send("a");
  EXPECT_EQ(1u, ledger_.GetCounts().in_flight);
  Acknowledge("a");

  const Counts counts = ledger_.GetCounts();
  EXPECT_EQ(1u, counts.handed_over);
  EXPECT_EQ(1u, counts.delivered);
  EXPECT_EQ(0u, counts.left);
  EXPECT_EQ(0u, counts.in_flight);
}

TEST_F(CompressedLedgerTest, CountsAMessageUnderTheBytesThatTheChannelStored) {
  HandOverCompressed("line 1", "aaaaaaaaaa", "z");
  Send("z");
  EXPECT_EQ(1u, ledger_.GetCounts().in_flight);
  Acknowledge("z");

  const Counts counts = ledger_.GetCounts();
  EXPECT_EQ(1u, counts.delivered);
  EXPECT_EQ(0u, counts.left);
  EXPECT_EQ(0u, counts.in_flight);
}

TEST_F(CompressedLedgerTest, NamesWhatDeflateDoesNotMakeShorterAsDropped) {
  ledger_.Expect({"line 7", "short", "7"});
  Tell(ReportEventKind::kHandedOver, "short");
  Tell(ReportEventKind::kDropped, "short", ReportEventCause::kNotCompressed);

  EXPECT_EQ(1u, ledger_.GetCounts().dropped);
  EXPECT_EQ(0u, ledger_.GetCounts().left);
  EXPECT_EQ(
      std::vector<std::string>{"line 7 was dropped: deflate does not make it shorter; send it "
                               "without --compress"},
      ledger_.TakeNotices());
}

TEST_F(CompressedLedgerTest, NamesAnEmptyMessageAsDropped) {
  ledger_.Expect({"line 8", "", "8"});
  Tell(ReportEventKind::kHandedOver, "");
  Tell(ReportEventKind::kDropped, "", ReportEventCause::kNotCompressed);

  EXPECT_EQ(std::vector<std::string>{"line 8 was dropped: an empty message cannot be compressed; "
                                     "send it without --compress"},
            ledger_.TakeNotices());
}

TEST_F(CompressedLedgerTest, AStreamThatIsCutShortIsDroppedAndNeverDelivered) {
  HandOverCompressed("core.dmp", nine_bytes_, unfinished_);

  EXPECT_EQ(1u, ledger_.GetCounts().dropped);
  EXPECT_EQ(
      std::vector<std::string>{"core.dmp was dropped: deflate does not make it shorter and was "
                               "cut short; send it without --compress"},
      ledger_.TakeNotices());
  Send(unfinished_);
  Acknowledge(unfinished_);
  EXPECT_EQ(0u, ledger_.GetCounts().delivered);
  EXPECT_EQ(0u, ledger_.GetCounts().in_flight);
  ExpectBooksClosed();
}

TEST_F(CompressedLedgerTest, AWholeStreamAsLongAsTheMessageIsDelivered) {
  const std::string whole = std::string("\1\x4\0\xfb\xff", 5) + "text";
  HandOverCompressed("line 1", nine_bytes_, whole);
  Send(whole);
  Acknowledge(whole);

  EXPECT_EQ(0u, ledger_.GetCounts().dropped);
  EXPECT_EQ(1u, ledger_.GetCounts().delivered);
}

TEST_F(CompressedLedgerTest, AStreamThatIsCutShortTakesItsRoomUntilTheChannelHasDoneWithIt) {
  for (uint64_t i = 0; i < Ledger::kMaxOutstanding; ++i) {
    HandOverCompressed("core.dmp", nine_bytes_, unfinished_);
  }
  EXPECT_FALSE(ledger_.HasRoom());
  Send(unfinished_);
  const int wakes = wakes_;
  Acknowledge(unfinished_);

  EXPECT_TRUE(ledger_.HasRoom());
  EXPECT_EQ(wakes + 1, wakes_);
}

TEST_F(CompressedLedgerTest, HandsTheOriginalOverAgainWhenALimitOfTheServersDroppedIt) {
  HandOverCompressed("line 1", "aaaaaaaaaa", "z");
  Send("z");
  Fail("z", 500);
  Tell(ReportEventKind::kDropped, "z", ReportEventCause::kResendLimit, 7, 1);

  EXPECT_EQ("aaaaaaaaaa", TakeAgain());
  Tell(ReportEventKind::kHandedOver, "aaaaaaaaaa");
  TellAdmitted("aaaaaaaaaa", "z");
  Send("z");
  Acknowledge("z");
  EXPECT_EQ(1u, ledger_.GetCounts().handed_over);
  EXPECT_EQ(1u, ledger_.GetCounts().delivered);
}

TEST_F(CompressedLedgerTest, DoesNotCompressAMessageOfAnEarlierRunASecondTime) {
  Tell(ReportEventKind::kLoaded, "z");
  Send("z");
  Fail("z", 500);
  Tell(ReportEventKind::kDropped, "z", ReportEventCause::kResendLimit, 7, 1);

  EXPECT_FALSE(ledger_.TakeToHandOverAgain());
  EXPECT_EQ(1u, ledger_.GetCounts().dropped);
}

TEST_F(LedgerTest, CountsEmptyMessagesLikeOthers) {
  HandOver("line 1", "");
  Send("");
  Acknowledge("");

  EXPECT_EQ(1u, ledger_.GetCounts().delivered);
  EXPECT_EQ(0u, ledger_.GetCounts().left);
}

TEST_F(LedgerTest, TellsMessagesOfEqualBytesApart) {
  HandOver("line 1", "y");
  HandOver("line 2", "y");
  ids_["y"].pop_front();
  Send("y");
  Acknowledge("y");

  EXPECT_EQ(std::vector<std::string>{"line 1"}, ledger_.LeftNames(false, 10));
}

TEST_F(LedgerTest, OfEqualMessagesThoseAreKeptThatTheCacheHolds) {
  HandOver("line 1", "y");
  need_cache_ = false;
  HandOver("line 2", "y");
  need_cache_ = true;
  HandOver("line 3", "y");
  Save();
  HandOver("line 4", "y");
  ledger_.Close();
  for (int i = 0; i < 4; ++i) Tell(ReportEventKind::kKept, "y");

  EXPECT_EQ((std::vector<std::string>{"line 1", "line 3"}), ledger_.LeftNames(true, 10));
  EXPECT_EQ((std::vector<std::string>{"line 2", "line 4"}), ledger_.LeftNames(false, 10));
}

TEST_F(LedgerTest, NamesWhatIsLeftInOrderUpToALimit) {
  HandOver("line 1", "z");
  HandOver("line 2", "a");
  HandOver("line 3", "m");

  EXPECT_EQ((std::vector<std::string>{"line 1", "line 2"}), ledger_.LeftNames(false, 2));
}

TEST_F(LedgerTest, HasRoomForLessThanOneHundredAndFifty) {
  for (int i = 0; i < 149; ++i) {
    ASSERT_TRUE(ledger_.HasRoom()) << i;
    HandOver("line", std::to_string(i));
  }

  EXPECT_FALSE(ledger_.HasRoom());
}

TEST_F(LedgerTest, WakesWhenThereIsRoomAgain) {
  for (int i = 0; i < 149; ++i) HandOver("line", std::to_string(i));
  Send("0");
  ASSERT_EQ(0, wakes_);

  Acknowledge("0");

  EXPECT_EQ(1, wakes_);
  EXPECT_TRUE(ledger_.HasRoom());
}

TEST_F(LedgerTest, HasRoomForOneMessageHoweverLarge) {
  const std::string large(Ledger::kMaxOutstandingBytes, 'x');
  EXPECT_TRUE(ledger_.HasRoom());
  HandOver("large", large);
  EXPECT_FALSE(ledger_.HasRoom());
  Send(large);
  Acknowledge(large);

  EXPECT_TRUE(ledger_.HasRoom());
  EXPECT_EQ(1, wakes_);
}

TEST_F(LedgerTest, WakesWhenNothingIsLeft) {
  HandOver("line 1", "a");
  HandOver("line 2", "b");
  Send("a");
  Send("b");
  Acknowledge("a");
  EXPECT_EQ(0, wakes_);

  Acknowledge("b");

  EXPECT_EQ(1, wakes_);
}

TEST_F(LedgerTest, WakesOnceOnTheNextEventWhenAskedTo) {
  ledger_.WakeOnNextEvent();
  HandOver("line 1", "a");

  EXPECT_EQ(1, wakes_);
}

TEST_F(LedgerTest, CountsFailedAttemptsAndKeepsTheMessage) {
  HandOver("line 1", "a");
  Send("a");
  Fail("a", 503);

  EXPECT_TRUE(ledger_.IsFailing());
  const Counts counts = ledger_.GetCounts();
  EXPECT_EQ(1u, counts.failed_attempts);
  EXPECT_EQ(1u, counts.retries);
  EXPECT_EQ(1u, counts.left);
  EXPECT_EQ(0u, counts.in_flight);
  EXPECT_EQ("the server answered with HTTP status 503", ledger_.LastFailure());
}

TEST_F(LedgerTest, WakesWhenTheServerBeginsToFailAndWhenItRecovers) {
  HandOver("line 1", "a");
  HandOver("line 2", "b");
  Send("a");
  Fail("a", 500);
  EXPECT_EQ(1, wakes_);
  Send("a");
  Fail("a", 500);
  EXPECT_EQ(1, wakes_);
  Send("a");
  Acknowledge("a");

  EXPECT_EQ(2, wakes_);
  EXPECT_FALSE(ledger_.IsFailing());
}

TEST_F(LedgerTest, NamesHowATransportFailedAndWhetherItWasAlwaysSo) {
  HandOver("line", "a");
  const auto fail = [this](HttpReason reason) {
    ReportEvent event{ReportEventKind::kFailed, ReportEventCause::kTransport, channel_name_,
                      TagOf(ReportEventKind::kFailed, "a")};
    event.http_reason = reason;
    ledger_.OnReportEvent(event);
  };
  EXPECT_EQ(HttpReason::kNone, ledger_.GetCounts().only_reason);

  for (int32_t i = 1; i < kHttpReasons; ++i) {
    const auto reason = static_cast<HttpReason>(i);
    fail(reason);
    fail(reason);

    const std::string name = std::string(" (") + HttpReasonName(reason) + ")";
    const std::string text = ledger_.LastFailure();
    EXPECT_GT(text.size(), name.size());
    EXPECT_NE(text.npos, text.find(name)) << text;
    EXPECT_EQ(i == 1 ? reason : HttpReason::kNone, ledger_.GetCounts().only_reason) << text;
  }
}

TEST_F(LimitedLedgerTest, NamesADroppedMessageAndWhy) {
  HandOver("line 17", "a");
  Send("a");
  Fail("a", 503);
  Send("a");
  Fail("a", 500);
  Tell(ReportEventKind::kDropped, "a", ReportEventCause::kResendLimit, 7, 2);

  EXPECT_EQ(std::vector<std::string>{"line 17 was dropped: 2 failed sends; the last time the "
                                     "server answered with HTTP status 500"},
            ledger_.TakeNotices());
  EXPECT_TRUE(ledger_.TakeNotices().empty());
  const Counts counts = ledger_.GetCounts();
  EXPECT_EQ(1u, counts.dropped);
  EXPECT_EQ(2u, counts.failed_attempts);
  EXPECT_EQ(1u, counts.retries);
  EXPECT_EQ(0u, counts.left);
  EXPECT_FALSE(ledger_.TakeToHandOverAgain());
  ExpectBooksClosed();
}

TEST_F(LimitedLedgerTest, ShowsALimitOfTheServersAndLetsItStand) {
  Retune(0, 1);
  Retune(0, 1);

  EXPECT_EQ(
      std::vector<std::string>{
          "the server has set the resend limit to 1 in place of --max-resend 2"},
      ledger_.TakeNotices());
  EXPECT_EQ(0, lifts_);
}

TEST_F(LedgerTest, EveryOtherDropIsFinalAndNamed) {
  for (const ReportEventCause cause : {ReportEventCause::kTrimmed, ReportEventCause::kNotCompressed,
                                       ReportEventCause::kReplaced}) {
    HandOver("a.txt", "a");
    Tell(ReportEventKind::kDropped, "a", cause);

    const std::vector<std::string> notices = ledger_.TakeNotices();
    ASSERT_EQ(1u, notices.size());
    EXPECT_EQ(0u, notices[0].find("a.txt was dropped: ")) << notices[0];
  }
  EXPECT_EQ(3u, ledger_.GetCounts().dropped);
}

TEST_F(LedgerTest, AMessageRefusedForLackOfMemoryIsDropped) {
  HandOver("a.txt", "a");
  Tell(ReportEventKind::kRefused, "a", ReportEventCause::kOutOfMemory);

  EXPECT_EQ(std::vector<std::string>{"a.txt was dropped: there was no memory to copy it"},
            ledger_.TakeNotices());
  EXPECT_FALSE(ledger_.IsBroken());
}

TEST_F(LedgerTest, HandsOverAgainWhatAServersLimitDropped) {
  HandOver("line 1", "a");
  Send("a");
  Fail("a", 503);
  Tell(ReportEventKind::kDropped, "a", ReportEventCause::kResendLimit, 7, 1);

  EXPECT_EQ("a", TakeAgain());
  EXPECT_FALSE(ledger_.TakeToHandOverAgain());
  Tell(ReportEventKind::kHandedOver, "a");  // Not announced: it is on the books already.
  Send("a");
  Acknowledge("a");

  const Counts counts = ledger_.GetCounts();
  EXPECT_EQ(1u, counts.handed_over);
  EXPECT_EQ(1u, counts.delivered);
  EXPECT_EQ(0u, counts.dropped);
  EXPECT_EQ(1u, counts.retries);
  EXPECT_TRUE(ledger_.TakeNotices().empty());
  ExpectBooksClosed();
}

TEST_F(LedgerTest, HandsOverAgainAnEmptyMessage) {
  HandOver("line 1", "");
  Tell(ReportEventKind::kDropped, "", ReportEventCause::kResendLimit, 7, 1);

  EXPECT_EQ("", TakeAgain());
}

TEST_F(LedgerTest, HandsNothingOverAgainWhileTheChannelIsFull) {
  HandOver("line 1", "a");
  Tell(ReportEventKind::kDropped, "a", ReportEventCause::kResendLimit, 7, 1);
  for (int i = 0; i < 149; ++i) Tell(ReportEventKind::kLoaded, std::to_string(i));
  EXPECT_FALSE(ledger_.TakeToHandOverAgain());
  Send("0");
  Acknowledge("0");

  EXPECT_EQ("a", TakeAgain());
}

TEST_F(LedgerTest, ADropAtTheEndIsLeftNotHandedOverAgain) {
  HandOver("line 1", "a");
  Send("a");
  ledger_.Close();
  Fail("a", 503);
  Tell(ReportEventKind::kDropped, "a", ReportEventCause::kResendLimit, 7, 1);

  EXPECT_FALSE(ledger_.TakeToHandOverAgain());
  EXPECT_EQ(1u, ledger_.GetCounts().left);
  EXPECT_EQ(0u, ledger_.GetCounts().dropped);
}

TEST_F(LedgerTest, LiftsALimitOfTheServersEachTimeAndShowsItOnce) {
  Retune(0, 1);
  Retune(0, 1);

  EXPECT_EQ(2, lifts_);
  EXPECT_EQ(std::vector<std::string>{"the server has set the resend limit to 1; it is lifted "
                                     "again, as no --max-resend is given"},
            ledger_.TakeNotices());
}

TEST_F(LedgerTest, LiftsNothingWhenTheServerSetsNoLimit) {
  Retune(0, kNoLimit);

  EXPECT_EQ(0, lifts_);
  EXPECT_TRUE(ledger_.TakeNotices().empty());
}

TEST_F(LedgerTest, LiftsNothingOnceTheChannelEnds) {
  ledger_.Close();
  Retune(0, 1);

  EXPECT_EQ(0, lifts_);
}

TEST_F(LedgerTest, ShowsEachIntervalThatTheServerSets) {
  Retune(3000, kNoLimit);
  Retune(3000, kNoLimit);
  Retune(200, kNoLimit);

  EXPECT_EQ((std::vector<std::string>{"the send interval is now 3000 ms: the server has set it",
                                      "the send interval is now 200 ms: the server has set it"}),
            ledger_.TakeNotices());
  EXPECT_EQ(2, wakes_);
}

TEST_F(TunedLedgerTest, SaysThatAnIntervalOfTheServersSwitchesSendNowOff) {
  Retune(500, kNoLimit);
  EXPECT_TRUE(ledger_.TakeNotices().empty());
  Retune(3000, kNoLimit);

  EXPECT_EQ(std::vector<std::string>{"the send interval is now 3000 ms: the server has set it; "
                                     "--send-now is off while an interval is set"},
            ledger_.TakeNotices());
}

TEST_F(LedgerTest, WhatATerminationEndsIsLeft) {
  HandOver("line 1", "kept");
  HandOver("line 2", "in memory");
  HandOver("line 3", "not run");
  HandOver("line 4", "too late");
  Send("in memory");
  ledger_.Close();
  Tell(ReportEventKind::kKept, "kept");
  Tell(ReportEventKind::kDropped, "in memory", ReportEventCause::kTerminated, 7, 1);
  Tell(ReportEventKind::kDropped, "not run", ReportEventCause::kNeverRun);
  Tell(ReportEventKind::kRefused, "too late", ReportEventCause::kQueueGone);

  const Counts counts = ledger_.GetCounts();
  EXPECT_EQ(4u, counts.left);
  EXPECT_EQ(0u, counts.dropped);
  EXPECT_EQ(0u, counts.in_flight);
  EXPECT_FALSE(ledger_.IsBroken());
  ExpectBooksClosed();
}

TEST_F(LedgerTest, IsBrokenWhenTheChannelWasNeverInitialized) {
  HandOver("line 1", "a");
  Tell(ReportEventKind::kRefused, "a", ReportEventCause::kNotInitialized);

  EXPECT_TRUE(ledger_.IsBroken());
  EXPECT_EQ(1, wakes_);
  EXPECT_EQ(1u, ledger_.GetCounts().left);
}

TEST_F(LedgerTest, CountsWhatTheChannelLoadedApart) {
  Tell(ReportEventKind::kLoaded, "old");
  EXPECT_EQ(std::vector<std::string>{"a message of an earlier run (3 bytes)"},
            ledger_.LeftNames(false, 1));
  HandOver("line 1", "new");
  Send("old");
  Acknowledge("old");

  const Counts counts = ledger_.GetCounts();
  EXPECT_EQ(1u, counts.loaded);
  EXPECT_EQ(1u, counts.handed_over);
  EXPECT_EQ(1u, counts.delivered);
  EXPECT_EQ(1u, counts.left);
  ExpectBooksClosed();
}

TEST_F(LedgerTest, TheRefusalOfTheFirstMessageForWantOfAUrlEndsTheLoad) {
  Tell(ReportEventKind::kLoaded, "old");
  EXPECT_FALSE(ledger_.IsLoadOver());
  ASSERT_EQ(0, wakes_);
  RefuseProbe(ReportEventCause::kNoServer);

  EXPECT_TRUE(ledger_.IsLoadOver());
  EXPECT_EQ(1, wakes_);
  EXPECT_EQ(0u, ledger_.GetCounts().handed_over);
  EXPECT_EQ(1u, ledger_.GetCounts().left);
  EXPECT_TRUE(ledger_.TakeNotices().empty());
}

TEST_F(LedgerTest, IsBrokenWhenTheChannelHasNoQueueToLoadOn) {
  RefuseProbe(ReportEventCause::kNotInitialized);

  EXPECT_TRUE(ledger_.IsBroken());
  EXPECT_FALSE(ledger_.IsLoadOver());
  EXPECT_EQ(1, wakes_);
}

TEST_F(LedgerTest, IsNotBrokenWhenItEndsBeforeTheLoadIsOver) {
  ledger_.Close();
  RefuseProbe(ReportEventCause::kNotRunning);

  EXPECT_FALSE(ledger_.IsBroken());
}

TEST_F(LedgerTest, AnEmptyMessageThatIsRefusedAfterTheLoadIsOnTheBooks) {
  RefuseProbe(ReportEventCause::kNoServer);
  HandOver("line 1", "");
  Tell(ReportEventKind::kRefused, "", ReportEventCause::kNoServer);

  EXPECT_EQ(1u, ledger_.GetCounts().dropped);
  ExpectBooksClosed();
}

TEST_F(LedgerTest, HasNoRoomUntilFewEnoughOfTheLoadedAreLeft) {
  for (int i = 0; i < 250; ++i) Tell(ReportEventKind::kLoaded, std::to_string(i));
  RefuseProbe(ReportEventCause::kNoServer);
  for (int i = 0; i < 102; ++i) {
    EXPECT_FALSE(ledger_.HasRoom()) << i;
    Send(std::to_string(i));
    Acknowledge(std::to_string(i));
  }

  EXPECT_TRUE(ledger_.HasRoom()) << "148 are left";
}

TEST_F(LedgerTest, OnlyWhatACompletedSaveHoldsIsKept) {
  HandOver("line 1", "saved");
  Save();
  HandOver("line 2", "not saved");
  ledger_.Close();
  Tell(ReportEventKind::kKept, "saved");
  Tell(ReportEventKind::kKept, "not saved");

  EXPECT_EQ(1u, ledger_.GetCounts().kept);
  EXPECT_EQ(2u, ledger_.GetCounts().left);
  EXPECT_EQ(std::vector<std::string>{"line 1"}, ledger_.LeftNames(true, 10));
  EXPECT_EQ(std::vector<std::string>{"line 2"}, ledger_.LeftNames(false, 10));
  ExpectBooksClosed();
}

TEST_F(LedgerTest, WhatWasLoadedIsKeptWithoutAnotherSave) {
  Tell(ReportEventKind::kLoaded, "old");
  Send("old");
  ledger_.Close();
  Tell(ReportEventKind::kKept, "old", ReportEventCause::kNone, 7, 1);

  EXPECT_EQ(1u, ledger_.GetCounts().kept);
  EXPECT_EQ(0u, ledger_.GetCounts().in_flight);
}

TEST_F(LedgerTest, WhatAFailedSendPutBackIsKept) {
  HandOver("line 1", "a");
  Save();
  Send("a");
  Fail("a", 503);
  ledger_.Close();
  Tell(ReportEventKind::kKept, "a");

  EXPECT_EQ(1u, ledger_.GetCounts().kept);
}

TEST_F(LedgerTest, WhatTheChannelDoesNotTellAsKeptIsNotKept) {
  HandOver("line 1", "a");
  Save();
  ledger_.Close();
  Tell(ReportEventKind::kDropped, "a", ReportEventCause::kTerminated);

  EXPECT_EQ(0u, ledger_.GetCounts().kept);
  EXPECT_EQ(1u, ledger_.GetCounts().left);
}

TEST_F(LedgerTest, WhatIsHandedOverAgainIsNotKeptBeforeItIsSavedAgain) {
  HandOver("line 1", "a");
  Save();
  Tell(ReportEventKind::kDropped, "a", ReportEventCause::kResendLimit, 7, 1);
  Save();
  EXPECT_TRUE(ledger_.TakeToHandOverAgain()->need_cache);
  Tell(ReportEventKind::kHandedOver, "a");
  Tell(ReportEventKind::kAdmitted, "a");
  ledger_.Close();
  Tell(ReportEventKind::kKept, "a");

  EXPECT_EQ(0u, ledger_.GetCounts().kept);
}

TEST_F(LedgerTest, HandsOverAgainWithoutTheCacheWhatCameWithoutIt) {
  need_cache_ = false;
  HandOver("line 1", "a");
  Tell(ReportEventKind::kDropped, "a", ReportEventCause::kResendLimit, 7, 1);

  EXPECT_FALSE(ledger_.TakeToHandOverAgain()->need_cache);
}

TEST_F(ListingLedgerTest, ListsAMessageOnceASaveHoldsItAndOnce) {
  HandOver("1", "a");
  EXPECT_EQ(Ids{}, ledger_.TakeSaved());
  const int wakes = wakes_;
  Save();
  EXPECT_EQ(wakes + 1, wakes_);
  EXPECT_EQ(Ids{"1"}, ledger_.TakeSaved());
  HandOver("2", "b");
  Send("a");
  Fail("a", 503);
  Save();
  EXPECT_EQ(Ids{"2"}, ledger_.TakeSaved());
  Send("a");
  Acknowledge("a");
  Save();

  EXPECT_EQ(Ids{}, ledger_.TakeSaved());
}

TEST_F(ListingLedgerTest, DoesNotListWhatIsHandedOverButNotAdmitted) {
  HandOver("1", "y");
  ledger_.Expect({"2", "y", "2"});
  Tell(ReportEventKind::kHandedOver, "y");
  Save();

  EXPECT_EQ(Ids{"1"}, ledger_.TakeSaved());
}

TEST_F(ListingLedgerTest, WithoutTheCacheListsWhatIsDelivered) {
  need_cache_ = false;
  HandOver("1", "a");
  Save();
  EXPECT_EQ(Ids{}, ledger_.TakeSaved());
  Send("a");
  const int wakes = wakes_;
  Acknowledge("a");

  EXPECT_EQ(Ids{"1"}, ledger_.TakeSaved());
  EXPECT_EQ(wakes + 1, wakes_);
}

TEST_F(ListingLedgerTest, ListsNothingOfEarlierRuns) {
  Tell(ReportEventKind::kLoaded, "old");
  HandOver("1", "a");
  Save();
  Send("old");
  Acknowledge("old");

  EXPECT_EQ(Ids{"1"}, ledger_.TakeSaved());
}

TEST_F(ListingLedgerTest, DoesNotListWhatIsDropped) {
  HandOver("1", "a");
  Tell(ReportEventKind::kDropped, "a", ReportEventCause::kTrimmed);
  Save();

  EXPECT_EQ(Ids{}, ledger_.TakeSaved());
}

TEST_F(LedgerTest, ListsNothingUnlessAskedTo) {
  HandOver("1", "a");
  Save();

  EXPECT_TRUE(ledger_.TakeSaved().empty());
  EXPECT_EQ(0, wakes_);
}

TEST_F(CompressedLedgerTest, KeepsAMessageUnderTheBytesThatTheChannelStored) {
  HandOverCompressed("line 1", "aaaaaaaaaa", "z");
  Save();
  Send("z");
  ledger_.Close();
  Tell(ReportEventKind::kKept, "z", ReportEventCause::kNone, 7, 1);

  EXPECT_EQ(std::vector<std::string>{"line 1"}, ledger_.LeftNames(true, 10));
}

TEST_F(CompressedLedgerTest, AStreamThatIsCutShortIsNotKeptForAnybody) {
  HandOverCompressed("core.dmp", nine_bytes_, unfinished_);
  Save();
  ledger_.Close();
  Tell(ReportEventKind::kKept, unfinished_);

  EXPECT_EQ(0u, ledger_.GetCounts().kept);
  ExpectBooksClosed();
}

}  // namespace
}  // namespace quenor::cli
