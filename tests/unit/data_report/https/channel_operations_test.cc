// The owner's six operations: what each does in every state, and what it copies.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "quenor_base/platform/base/json_reader.h"
#include "tests/support/channel_test_fixture.h"
#include "tests/support/memory_faults.h"

namespace quenor::test {
namespace {

using base::TimeDelta;
using Channel = ReliableReportChannelHttps;

const uint8_t kBytes[] = {'a', 'b', 'c'};

const std::string kNewUrl = "https://new.example/";

struct Operation {
  const char* name;
  void (*call)(Channel*);
  bool hands_over;
};

const Operation kOperations[] = {
    {"SendPacket", [](Channel* c) { c->SendPacket(kBytes, 3, true, true); }, true},
    {"SendPacketWithDelay",
     [](Channel* c) { c->SendPacketWithDelay(kBytes, 3, true, TimeDelta::FromMilliseconds(5)); },
     true},
    {"FlushPacket", [](Channel* c) { c->FlushPacket(); }, false},
    {"SetResendInterval", [](Channel* c) { c->SetResendInterval(4000); }, false},
    {"SetMaxResendCount", [](Channel* c) { c->SetMaxResendCount(2); }, false},
    {"SetServerDomain", [](Channel* c) { c->SetServerDomain(kNewUrl); }, false},
};

// Names the parameter in a failure.
void PrintTo(const Operation& operation, std::ostream* out) { *out << operation.name; }

std::string OperationName(const ::testing::TestParamInfo<Operation>& info) {
  return info.param.name;
}

class ChannelOperationTest : public ChannelTest, public ::testing::WithParamInterface<Operation> {
 protected:
  void Call() { GetParam().call(channel_.get()); }
  size_t Handed() const { return GetParam().hands_over ? 1 : 0; }
};

INSTANTIATE_TEST_SUITE_P(All, ChannelOperationTest, ::testing::ValuesIn(kOperations),
                         OperationName);

// --- By outer state ---

TEST_P(ChannelOperationTest, BeforeInitializeLogsOneThrottledLineAndPostsNothing) {
  Make();

  Call();
  Call();

  const auto lines = RecordingLog::Lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].level, 1);
  EXPECT_EQ(lines[0].file, kSourcePath);
  EXPECT_EQ(lines[0].text, std::string(GetParam().name) + ", channel is not initialized");
  EXPECT_GT(lines[0].line, 0);
  EXPECT_EQ(time_.DueTasks(), 0u);
  EXPECT_EQ(events_.Count(Kind::kRefused, Cause::kNotInitialized), 2 * Handed());
}

TEST_P(ChannelOperationTest, InEveryStateButInitializedIsRefused) {
  for (const int32_t state : {0, 1, 3}) {
    Make();
    peer().SetQueue(core::ThreadManager::CreateNewDispatchQueue(core::BusinessID::kReliableReport,
                                                                kName, base::Thread::Options()));
    peer().SetState(state);
    RecordingLog::Clear();

    Call();

    EXPECT_EQ(RecordingLog::Texts(),
              Texts{std::string(GetParam().name) + ", channel is not initialized"})
        << "state " << state;
    EXPECT_EQ(time_.DueTasks(), 0u) << "state " << state;
    peer().SetState(0);
    peer().SetQueue(nullptr);
    time_.RunUntilIdle();
  }
}

TEST_P(ChannelOperationTest, RefusalCopiesNothing) {
  Make();
  ReportEvents::SetListener(nullptr);
  Call();  // The line is out: what follows is refused without one.

  MemoryFaults::Counter allocations;
  Call();

  EXPECT_EQ(allocations.count(), 0u);
  ReportEvents::SetListener(&events_);
}

TEST_P(ChannelOperationTest, WithTheQueueGoneReturnsSilently) {
  Make();
  peer().SetState(2);

  Call();

  EXPECT_TRUE(RecordingLog::Lines().empty());
  EXPECT_EQ(time_.DueTasks(), 0u);
  EXPECT_EQ(time_.PendingDeadlines(), 0u);
  EXPECT_EQ(events_.Count(Kind::kRefused, Cause::kQueueGone), Handed());
  peer().SetState(0);
}

TEST_P(ChannelOperationTest, OnlyPostsAndLeavesTheWorkToTheQueue) {
  Start();
  const size_t tasks = time_.DueTasks() + time_.PendingDeadlines();

  Call();

  EXPECT_EQ(time_.DueTasks() + time_.PendingDeadlines(), tasks + 1);
  EXPECT_TRUE(peer().pending().empty());
  EXPECT_FALSE(peer().send_timer().IsRunning());
  EXPECT_EQ(peer().resend_interval_ms(), 0u);
  EXPECT_EQ(peer().max_resend_count(), 5u);
  EXPECT_EQ(peer().url(), kUrl);
}

TEST_P(ChannelOperationTest, TaskHoldsAStrongReference) {
  Start();
  ASSERT_EQ(channel_.use_count(), 1);

  Call();

  EXPECT_EQ(channel_.use_count(), 2);
  Advance(5);
  EXPECT_EQ(http_.Requests().size(), std::string("SendPacket") == GetParam().name ? 1u : 0u);
  OnQueue([](Peer peer) { peer.DoTerminate(); });
  time_.RunUntilIdle();
  EXPECT_EQ(channel_.use_count(), 1);
}

TEST_P(ChannelOperationTest, PostsFromTheChannelsSource) {
  Start();

  Call();

  EXPECT_STREQ(time_.LastPostedFrom().file(), kSourcePath);
  EXPECT_GT(time_.LastPostedFrom().line(), 0);
}

TEST_F(ChannelTest, OperationsPostFromALineOfTheirOwn) {
  Start();
  std::set<int> lines;

  for (const Operation& operation : kOperations) {
    operation.call(channel_.get());
    lines.insert(time_.LastPostedFrom().line());
  }

  EXPECT_EQ(lines.size(), std::size(kOperations));
}

// --- The throttle that all refusals share ---

class ChannelRefusalTest : public ChannelTest {};

TEST_F(ChannelRefusalTest, BurstOfAllOperationsLogsOneLineAPeriod) {
  Make();

  for (int round = 0; round < 3; ++round) {
    for (const Operation& operation : kOperations) operation.call(channel_.get());
  }

  EXPECT_EQ(RecordingLog::Texts(), Texts{"SendPacket, channel is not initialized"});
}

TEST_F(ChannelRefusalTest, NextPeriodLogsWhicheverRefusalComesFirst) {
  Make();
  Post("one");
  Advance(60000);

  channel_->FlushPacket();
  Post("two");

  EXPECT_EQ(RecordingLog::Texts(), (Texts{"SendPacket, channel is not initialized",
                                          "FlushPacket, channel is not initialized"}));
}

TEST_F(ChannelRefusalTest, QueueSideLinesShareTheThrottle) {
  Start();
  const auto queue = peer().queue();
  OnQueue([](Peer peer) { peer.DoTerminate(); });

  Send("one");
  OnQueue(queue, [](Peer peer) { peer.DoSend(); });
  channel_->Terminate();
  Post("two");
  Advance(60000);
  OnQueue(queue, [](Peer peer) { peer.DoSend(); });
  Post("three");

  EXPECT_EQ(RecordingLog::Texts(), (Texts{"UpdateCacheAndSend, channel is not running",
                                          "DoSend, channel is not running"}));
}

TEST_F(ChannelRefusalTest, EachChannelHasItsOwnThrottle) {
  Make();
  const auto other = std::make_shared<Channel>("other", kUrl, 0u, false, false);

  channel_->FlushPacket();
  other->FlushPacket();

  EXPECT_EQ(RecordingLog::Lines().size(), 2u);
}

// --- What a task does, by the inner flag ---

class ChannelOperationsTest : public ChannelTest {
 protected:
  // State 2, yet the queue has terminated: where a call that races with Terminate() ends up.
  void StartAndStopInside() {
    Start();
    OnQueue([](Peer peer) { peer.DoTerminate(); });
    RecordingLog::Clear();
  }
};

TEST_F(ChannelOperationsTest, SendPacketIsAdmittedWhileRunning) {
  Start();

  Send("one");

  EXPECT_EQ(PendingBodies(), Texts{"one"});
  EXPECT_EQ(peer().needed(), 1u);
}

TEST_F(ChannelOperationsTest, SendPacketPassesItsFlagsOn) {
  Start();
  Configure(1000);

  Send("cached", true, false);
  Send("not cached", false, true);

  EXPECT_TRUE(peer().pending().front().need_cache);
  EXPECT_FALSE(peer().pending().back().need_cache);
  EXPECT_EQ(http_.RequestCount(), 0u);
}

TEST_F(ChannelOperationsTest, SendPacketIsLostWithAThrottledLineWhenNotRunning) {
  StartAndStopInside();

  Send("one");
  Send("two");

  const auto lines = RecordingLog::Lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].level, 1);
  EXPECT_EQ(lines[0].file, kSourcePath);
  EXPECT_EQ(lines[0].text, "UpdateCacheAndSend, channel is not running");
  EXPECT_TRUE(peer().pending().empty());
  EXPECT_EQ(Counters(), (Counts{0, 0, 0, 0, 0}));
  EXPECT_EQ(events_.Count(Kind::kRefused, Cause::kNotRunning), 2u);
}

TEST_F(ChannelOperationsTest, SendPacketWithDelayIsLostWithAThrottledLineWhenNotRunning) {
  StartAndStopInside();

  channel_->SendPacketWithDelay(kBytes, 3, false, TimeDelta::FromMilliseconds(10));
  Advance(10);

  EXPECT_EQ(RecordingLog::Texts(1), Texts{"UpdateCacheAndSend, channel is not running"});
  EXPECT_EQ(events_.Count(Kind::kRefused, Cause::kNotRunning), 1u);
}

TEST_F(ChannelOperationsTest, FlushPacketStartsTheSendTimerWhileRunning) {
  Start();

  channel_->FlushPacket();
  time_.RunUntilIdle();

  EXPECT_EQ(SendPeriod(), 100);
  EXPECT_EQ(http_.RequestCount(), 0u);
}

TEST_F(ChannelOperationsTest, FlushPacketDoesNothingWhenNotRunning) {
  StartAndStopInside();

  channel_->FlushPacket();
  time_.RunUntilIdle();

  EXPECT_EQ(SendPeriod(), -1);
  EXPECT_TRUE(RecordingLog::Lines().empty());
}

TEST_F(ChannelOperationsTest, FlushPacketWithNothingPendingStopsAtItsFirstTick) {
  Start();
  channel_->FlushPacket();
  time_.RunUntilIdle();

  Advance(99);
  EXPECT_EQ(SendPeriod(), 100);
  Advance(1);

  EXPECT_EQ(SendPeriod(), -1);
  EXPECT_EQ(http_.RequestCount(), 0u);
  EXPECT_TRUE(http_.Configs().empty());
}

TEST_F(ChannelOperationsTest, SetResendIntervalStoresAndRetimesWhileRunning) {
  Start();

  Configure(4000);

  EXPECT_EQ(peer().resend_interval_ms(), 4000u);
  EXPECT_EQ(peer().current_interval_ms(), 4000u);
  EXPECT_EQ(SendPeriod(), 4000);
}

TEST_F(ChannelOperationsTest, SetResendIntervalOnlyStoresWhenNotRunning) {
  StartAndStopInside();

  Configure(4000);

  EXPECT_EQ(peer().resend_interval_ms(), 4000u);
  EXPECT_EQ(peer().current_interval_ms(), 4000u);
  EXPECT_EQ(SendPeriod(), -1);
}

TEST_F(ChannelOperationsTest, IntervalStoredWhenNotRunningTakesEffectAtTheNextTimerStart) {
  StartAndStopInside();
  Configure(4000);
  Stop();
  channel_->Initialize();

  Send("one");

  EXPECT_EQ(SendPeriod(), 4000);
}

TEST_F(ChannelOperationsTest, SetMaxResendCountIsStoredRunningOrNot) {
  Start();
  channel_->SetMaxResendCount(2);
  time_.RunUntilIdle();
  EXPECT_EQ(peer().max_resend_count(), 2u);
  OnQueue([](Peer peer) { peer.DoTerminate(); });

  channel_->SetMaxResendCount(3);
  time_.RunUntilIdle();

  EXPECT_EQ(peer().max_resend_count(), 3u);
}

TEST_F(ChannelOperationsTest, SetMaxResendCountAcceptsZero) {
  Start();

  channel_->SetMaxResendCount(0);
  time_.RunUntilIdle();

  EXPECT_EQ(peer().max_resend_count(), 0u);
}

TEST_F(ChannelOperationsTest, SetMaxResendCountBeforeInitializeIsIgnored) {
  Make();

  channel_->SetMaxResendCount(9);
  channel_->Initialize();
  time_.RunUntilIdle();

  EXPECT_EQ(peer().max_resend_count(), 5u);
  EXPECT_EQ(RecordingLog::Texts(), Texts{"SetMaxResendCount, channel is not initialized"});
}

TEST_F(ChannelOperationsTest, SetMaxResendCountLastsUntilTheNextInitialize) {
  Start();
  channel_->SetMaxResendCount(9);
  Stop();
  EXPECT_EQ(peer().max_resend_count(), 9u);

  channel_->Initialize();

  EXPECT_EQ(peer().max_resend_count(), 5u);
}

TEST_F(ChannelOperationsTest, SetMaxResendCountLastsUntilTheServerSendsALimit) {
  Start();
  channel_->SetMaxResendCount(9);
  Send("now", false, true);
  EXPECT_EQ(peer().max_resend_count(), 9u);

  Answer(0, 200, "{\"bytes_errinfo\":\"success\",\"uint32_max_resend_count\":3}");

  EXPECT_EQ(peer().max_resend_count(), 3u);
}

TEST_F(ChannelOperationsTest, SetServerDomainReplacesTheUrlRunningOrNot) {
  Start();
  channel_->SetServerDomain("https://b.example/");
  time_.RunUntilIdle();
  EXPECT_EQ(peer().url(), "https://b.example/");
  OnQueue([](Peer peer) { peer.DoTerminate(); });

  channel_->SetServerDomain("https://c.example/");
  time_.RunUntilIdle();

  EXPECT_EQ(peer().url(), "https://c.example/");
}

TEST_F(ChannelOperationsTest, EmptyServerDomainDiscardsSilentlyUntilAUrlIsSet) {
  Start();
  channel_->SetServerDomain("");
  Send("lost");
  EXPECT_EQ(Counters(), (Counts{0, 0, 0, 0, 0}));
  EXPECT_TRUE(RecordingLog::Lines().empty());
  channel_->SetServerDomain("https://d.example/");

  Send("kept", false, true);

  ASSERT_EQ(http_.RequestCount(), 1u);
  EXPECT_EQ(http_.Requests()[0].body, "kept");
  EXPECT_EQ(http_.Requests()[0].request.url, "https://d.example/");
  EXPECT_EQ(events_.Count(Kind::kRefused, Cause::kNoServer), 1u);
}

TEST_F(ChannelOperationsTest, UrlAndIntervalsSurviveTerminateAndInitialize) {
  Start();
  Configure(4000);
  channel_->SetServerDomain("https://e.example/");
  Stop();

  channel_->Initialize();
  time_.RunUntilIdle();

  EXPECT_EQ(peer().url(), "https://e.example/");
  EXPECT_EQ(peer().resend_interval_ms(), 4000u);
  EXPECT_EQ(peer().current_interval_ms(), 4000u);
}

// --- Copies ---

TEST_F(ChannelOperationsTest, CallerMayOverwriteItsBufferRightAfterSendPacket) {
  Start();
  uint8_t bytes[] = {'o', 'l', 'd'};

  channel_->SendPacket(bytes, 3, false, false);
  std::memcpy(bytes, "new", 3);
  time_.RunUntilIdle();

  EXPECT_EQ(PendingBodies(), Texts{"old"});
}

TEST_F(ChannelOperationsTest, CallerMayOverwriteItsBufferRightAfterSendPacketWithDelay) {
  Start();
  uint8_t bytes[] = {'o', 'l', 'd'};

  channel_->SendPacketWithDelay(bytes, 3, false, TimeDelta::FromMilliseconds(1));
  std::memcpy(bytes, "new", 3);
  Advance(1);

  EXPECT_EQ(PendingBodies(), Texts{"old"});
}

TEST_F(ChannelOperationsTest, CallerMayChangeItsStringRightAfterSetServerDomain) {
  Start();
  std::string url = "https://a.example/long-enough-not-to-be-stored-inside-the-string";

  channel_->SetServerDomain(url);
  const std::string before = url;
  url[0] = 'X';
  time_.RunUntilIdle();

  EXPECT_EQ(peer().url(), before);
}

TEST_F(ChannelOperationsTest, NullDataOfSizeZeroIsAnEmptyMessage) {
  Start();

  channel_->SendPacket(nullptr, 0, false, true);
  time_.RunUntilIdle();

  ASSERT_EQ(http_.RequestCount(), 1u);
  EXPECT_EQ(http_.Requests()[0].body, "");
}

TEST_F(ChannelOperationsTest, ZeroIntervalZeroLimitAndEmptyUrlArePassedOnUnchanged) {
  Start();
  Configure(4000);

  channel_->SetResendInterval(0);
  channel_->SetMaxResendCount(0);
  channel_->SetServerDomain("");
  time_.RunUntilIdle();

  EXPECT_EQ(peer().resend_interval_ms(), 0u);
  EXPECT_EQ(peer().max_resend_count(), 0u);
  EXPECT_EQ(peer().url(), "");
}

TEST_F(ChannelOperationsTest, TasksOfOneThreadRunInTheOrderPosted) {
  Start();

  Post("first");
  channel_->SetServerDomain("");
  Post("lost");
  channel_->SetServerDomain(kUrl);
  Post("second");
  time_.RunUntilIdle();

  EXPECT_EQ(PendingBodies(), (Texts{"first", "second"}));
}

// --- SendPacketWithDelay ---

TEST_F(ChannelOperationsTest, DelayedMessageIsAdmittedAfterItsDelay) {
  Start();
  channel_->SendPacketWithDelay(kBytes, 3, true, TimeDelta::FromSeconds(5));

  Advance(4999);
  EXPECT_TRUE(peer().pending().empty());
  EXPECT_EQ(peer().needed(), 0u);
  Advance(1);

  EXPECT_EQ(PendingBodies(), Texts{"abc"});
  EXPECT_TRUE(peer().pending().front().need_cache);
}

TEST_F(ChannelOperationsTest, DelayedMessageGoesToTheTailAndIsNeverSentAtOnce) {
  Start();
  http_.RefuseAll(0);
  Send("one");
  Send("two");

  channel_->SendPacketWithDelay(kBytes, 3, false, TimeDelta::FromMilliseconds(1));
  Advance(1);

  EXPECT_EQ(PendingBodies(), (Texts{"one", "two", "abc"}));
  EXPECT_EQ(http_.RequestCount(), 0u);
}

TEST_F(ChannelOperationsTest, DelayOfZeroOrLessAdmitsAtOnce) {
  Start();

  channel_->SendPacketWithDelay(kBytes, 3, false, TimeDelta());
  channel_->SendPacketWithDelay(kBytes, 2, false, TimeDelta::FromSeconds(-5));
  time_.RunUntilIdle();

  EXPECT_EQ(PendingBodies(), (Texts{"abc", "ab"}));
}

TEST_F(ChannelOperationsTest, DelayNotOverAtTerminationLosesTheMessage) {
  Start();
  channel_->SendPacketWithDelay(kBytes, 3, true, TimeDelta::FromSeconds(5));

  Stop();
  Advance(10000);

  EXPECT_EQ(events_.Count(Kind::kDropped, Cause::kNeverRun), 1u);
  EXPECT_EQ(events_.Count(Kind::kAdmitted), 0u);
}

// --- Exhausted memory ---

TEST_F(ChannelOperationsTest, MessageThatCannotBeCopiedIsRefusedAndNeverBecomesAnEmptyOne) {
  Start();

  MemoryFaults::FailMalloc(1);
  channel_->SendPacket(kBytes, 3, false, true);
  const bool failed = MemoryFaults::HasFailed();
  MemoryFaults::FailMalloc(0);
  time_.RunUntilIdle();

  EXPECT_TRUE(failed);
  EXPECT_EQ(http_.RequestCount(), 0u);
  EXPECT_TRUE(peer().pending().empty());
  EXPECT_EQ(peer().needed(), 0u);
  EXPECT_EQ(events_.Count(Kind::kRefused, Cause::kOutOfMemory), 1u);
  EXPECT_EQ(RecordingLog::Texts(2).size(), 1u);
}

TEST_F(ChannelOperationsTest, DelayedMessageThatCannotBeCopiedIsRefused) {
  Start();

  MemoryFaults::FailMalloc(1);
  channel_->SendPacketWithDelay(kBytes, 3, false, TimeDelta());
  MemoryFaults::FailMalloc(0);
  time_.RunUntilIdle();

  EXPECT_TRUE(peer().pending().empty());
  EXPECT_EQ(events_.Count(Kind::kRefused, Cause::kOutOfMemory), 1u);
}

TEST_F(ChannelOperationsTest, EmptyMessageWithoutAPlaceForItsTagIsRefused) {
  Start();

  MemoryFaults::FailMalloc(1);
  channel_->SendPacket(kBytes, 0, false, false);
  const bool failed = MemoryFaults::HasFailed();
  MemoryFaults::FailMalloc(0);
  time_.RunUntilIdle();

  EXPECT_TRUE(failed);
  EXPECT_TRUE(peer().pending().empty());
  EXPECT_EQ(events_.Count(Kind::kRefused, Cause::kOutOfMemory), 1u);
}

// --- Cost ---

TEST_F(ChannelOperationsTest, SendPacketAllocatesAtMostTwiceOnTheCallersThread) {
  Start();
  ReportEvents::SetListener(nullptr);

  for (int i = 0; i < 100; ++i) {
    MemoryFaults::Counter allocations;
    channel_->SendPacket(kBytes, 3, false, false);
    EXPECT_LE(allocations.count(), 2u) << "call " << i;
    if (i % 10 == 9) Advance(2000);
  }

  Stop();
  ReportEvents::SetListener(&events_);
}

TEST_F(ChannelOperationsTest, BodyMovesFromTheCallIntoTheStoreWithoutAnotherCopy) {
  Start();
  channel_->SendPacket(kBytes, 3, false, false);

  MemoryFaults::FailMalloc(1);  // Where a copy of the body would come from.
  time_.RunUntilIdle();
  const bool failed = MemoryFaults::HasFailed();
  MemoryFaults::FailMalloc(0);

  EXPECT_FALSE(failed);
  ASSERT_EQ(peer().pending().size(), 1u);
  EXPECT_EQ(peer().pending().front().data.size(), 3u);
}

TEST_F(ChannelOperationsTest, ListenerAddsNoAllocationOfTheChannelsOwn) {
  Start();
  struct Silent : ReportEventListener {
    void OnReportEvent(const ReportEvent&) override {}
  } silent;
  ReportEvents::SetListener(&silent);

  MemoryFaults::Counter allocations;
  channel_->SendPacket(kBytes, 3, false, false);

  EXPECT_LE(allocations.count(), 2u);
  Stop();
  ReportEvents::SetListener(&events_);
}

// --- Replies ---

TEST(ChannelReplyTest, UsualReplyIsReadWithTwoAllocations) {
  const MemoryFaults::Counter allocations;
  {
    const auto reply = base::JSONReader::Read("{\"bytes_errinfo\":\"success\"}", 0, 200);
    EXPECT_NE(reply->FindStringKey("bytes_errinfo"), nullptr);
    EXPECT_FALSE(reply->FindIntKey("uint32_max_resend_count").has_value());
  }

  EXPECT_LE(allocations.count(), 2u);
}

// --- GetReportInterval ---

TEST_F(ChannelOperationsTest, GetReportIntervalAnswersInEveryState) {
  Make();
  EXPECT_EQ(channel_->GetReportInterval(), 10000u);
  channel_->Initialize();
  EXPECT_EQ(channel_->GetReportInterval(), 10000u);
  Stop();

  EXPECT_EQ(channel_->GetReportInterval(), 10000u);
  EXPECT_TRUE(RecordingLog::Lines().empty());
}

}  // namespace
}  // namespace quenor::test
