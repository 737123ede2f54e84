// The books close in every life that a channel and its messages may have, at every instant at which
// its queue rests, and say what happened.
#include "quenor_base/reporter/books.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/memory_faults.h"
#include "tests/unit/channel_cache/channel_cache_fixture.h"

namespace quenor::test {
namespace {

class BooksTest : public ChannelCacheTest, public ReportEventListener {
 protected:
  BooksTest() { ReportEvents::AddListener(this); }
  ~BooksTest() override { ReportEvents::RemoveListener(this); }
  void OnReportEvent(const ReportEvent& event) override {
    books_.Note(event, event.message.handed_over_ns + latency_us_ * 1000, false);
  }
  // Asked wherever the queue rests.
  BooksEntry Read() {
    const BooksEntry entry = books_.Read();
    EXPECT_TRUE(entry.Closes());
    return entry;
  }
  static uint64_t Of(const std::array<uint64_t, BooksEntry::kCauses>& counts, Cause cause) {
    return counts[static_cast<size_t>(cause)];
  }

  Books books_;
  int64_t latency_us_ = 0;
};

TEST_F(BooksTest, FollowAMessageFromHandOverToItsEnd) {
  Start();
  Post("one");
  EXPECT_EQ(1u, Read().pending);
  time_.RunUntilIdle();
  EXPECT_EQ(1u, Read().pending);

  Advance(100);
  EXPECT_EQ(1u, Read().in_flight);
  Answer(0, 500);
  EXPECT_EQ(1u, Read().pending);
  Advance(1000);
  latency_us_ = 70000;
  Answer(1, 200);

  const BooksEntry entry = Read();
  EXPECT_EQ(0u, entry.Outstanding());
  EXPECT_EQ(1u, entry.handed_over);
  EXPECT_EQ(1u, entry.acknowledged);
  EXPECT_EQ(2u, entry.attempts);
  EXPECT_EQ(1u, entry.failed_by_status[5]);
  EXPECT_EQ(3u, entry.bytes_handed_over);
  EXPECT_EQ(3u, entry.bytes_acknowledged);
  EXPECT_EQ(1u, entry.latency[2]) << "50 to 100 ms";
  EXPECT_EQ(70u, entry.latency_sum_ms);
  EXPECT_EQ(1u, entry.failed_by_reason[static_cast<size_t>(HttpReason::kHttpStatus)]);
  EXPECT_EQ(1u, entry.FailedAttempts());
  EXPECT_EQ(HttpReason::kHttpStatus, entry.last_failure_reason);
  EXPECT_EQ(500, entry.last_failure_status);
  EXPECT_GT(entry.last_failure_time, 0);
}

TEST_F(BooksTest, CloseWhereMessagesAreDelayed) {
  Start();
  for (const int64_t delay_ms : {500, 1000000}) {
    channel_->SendPacketWithDelay(nullptr, 0, false, TimeDelta::FromMilliseconds(delay_ms));
    channel_->SendPacketWithDelay(reinterpret_cast<const uint8_t*>("b"), 1, false,
                                  TimeDelta::FromMilliseconds(delay_ms));
  }
  EXPECT_EQ(4u, Read().delayed);

  Advance(500);
  EXPECT_EQ(2u, Read().delayed);
  EXPECT_EQ(2u, Read().Outstanding() - Read().delayed);
  Stop();

  EXPECT_EQ(0u, Read().Outstanding());
  EXPECT_EQ(2u, Of(Read().dropped, Cause::kNeverRun));
  EXPECT_EQ(2u, Of(Read().dropped, Cause::kTerminated));
}

TEST_F(BooksTest, CloseWhereMessagesAreRefused) {
  Make();
  Post("before it runs");
  EXPECT_EQ(1u, Of(Read().refused, Cause::kNotInitialized));
  channel_->Initialize();
  channel_->SetServerDomain("");
  Send("without a server");
  EXPECT_EQ(1u, Of(Read().refused, Cause::kNoServer));
  channel_->Terminate();
  Post("after its end");

  EXPECT_EQ(2u, Of(Read().refused, Cause::kNotInitialized));
  EXPECT_EQ(3u, Read().Refused());
}

TEST_F(BooksTest, CloseWhereMessagesAreDropped) {
  Start(/*compress=*/true);
  Send("ab");  // Which deflate makes longer.
  EXPECT_EQ(1u, Of(Read().dropped, Cause::kNotCompressed));
  channel_->SetMaxResendCount(1);
  Send(std::string(100, 'a'), false, true);
  Fail(0);
  EXPECT_EQ(1u, Of(Read().dropped, Cause::kResendLimit));
  EXPECT_EQ(1u, Read().failed_by_reason[static_cast<size_t>(HttpReason::kOther)]);
  EXPECT_EQ(HttpReason::kOther, Read().last_failure_reason);
  EXPECT_EQ(0, Read().last_failure_status);
  http_.RefuseAll(0);
  for (int i = 0; i < 201; ++i) Post(std::string(100, 'b'));
  time_.RunUntilIdle();
  EXPECT_EQ(50u, Of(Read().dropped, Cause::kTrimmed));
  http_.Accept();
  http_.ReturnNextIds({77, 77});
  Tick();
  Tick();

  EXPECT_EQ(1u, Of(Read().dropped, Cause::kReplaced));
  EXPECT_EQ(1u, Read().in_flight);
  EXPECT_EQ(149u, Read().pending);
}

TEST_F(BooksTest, CountSavesAndWhatIsKeptAndLoaded) {
  Start();
  Send("kept in flight", true, true);
  Send("kept", true);
  Send("in memory");
  EXPECT_EQ(3u, Read().saves);
  Stop();
  EXPECT_EQ(2u, Read().kept);
  EXPECT_EQ(1u, Of(Read().dropped, Cause::kTerminated));
  EXPECT_EQ(0u, Read().Outstanding());

  channel_->Initialize();
  time_.RunUntilIdle();
  EXPECT_EQ(2u, Read().loaded);
  EXPECT_EQ(2u, Read().pending);

  Tick();  // Nobody knows how long it had waited.
  Answer(http_.RequestCount() - 1, 200);
  EXPECT_EQ(1u, Read().acknowledged);
  EXPECT_EQ(0u, Read().latency_sum_ms);
  for (const uint64_t count : Read().latency) EXPECT_EQ(0u, count);
}

// Every way in which a message can end, in the one run, and the books looked at behind each.
TEST_F(BooksTest, CloseAfterARunWithEveryRefusalAndEveryDrop) {
  Start(/*compress=*/true);
  const std::string body(100, 'b');
  const auto refused = [this](Cause cause) { return Of(Read().refused, cause); };
  const auto dropped = [this](Cause cause) { return Of(Read().dropped, cause); };

  MemoryFaults::FailMalloc(1);
  Post("");  // An empty one needs a place for its id.
  MemoryFaults::FailMalloc(0);
  EXPECT_EQ(1u, refused(Cause::kOutOfMemory));
  channel_->SetServerDomain("");
  Send(body);
  EXPECT_EQ(1u, refused(Cause::kNoServer));
  channel_->SetServerDomain(kUrl);
  Send("ab");
  EXPECT_EQ(1u, dropped(Cause::kNotCompressed));
  channel_->SetMaxResendCount(1);
  Send(body, false, true);
  Fail(0);
  EXPECT_EQ(1u, dropped(Cause::kResendLimit));
  http_.RefuseAll(0);
  for (int i = 0; i < 201; ++i) Send(body, true);
  EXPECT_EQ(50u, dropped(Cause::kTrimmed));
  http_.Accept();
  http_.ReturnNextIds({77, 77});
  Tick();
  Tick();
  EXPECT_EQ(1u, dropped(Cause::kReplaced));
  channel_->SendPacketWithDelay(reinterpret_cast<const uint8_t*>("late"), 4, false,
                                TimeDelta::FromMilliseconds(1000000));
  Send(body);
  OnQueue([](Peer peer) { peer.DoTerminate(); });
  EXPECT_GE(dropped(Cause::kTerminated), 1u);
  EXPECT_GT(Read().kept, 0u);
  Send(body);
  EXPECT_EQ(1u, refused(Cause::kNotRunning));
  Stop();
  EXPECT_EQ(1u, dropped(Cause::kNeverRun));
  Post(body);
  EXPECT_EQ(1u, refused(Cause::kNotInitialized));
  peer().SetState(2);
  Post(body);
  EXPECT_EQ(1u, refused(Cause::kQueueGone));
  peer().SetState(0);

  EXPECT_EQ(0u, Read().Outstanding());
}

// A listener that comes late, as the process's books do.
TEST_F(BooksTest, LeaveOutWhatWasHandedOverBeforeThem) {
  Start();
  ReportEvents::RemoveListener(this);
  Post("before");
  ReportEvents::AddListener(this, books_.newest_before());
  Send("behind");
  Advance(200);
  Answer(0, 200);
  Answer(1, 500);

  EXPECT_EQ(1u, Read().handed_over);
  EXPECT_EQ(0u, Read().acknowledged);
  EXPECT_EQ(1u, Read().pending);
}

TEST_F(BooksTest, PutALatencyUnderTheBoundThatItDoesNotExceed) {
  Start();
  for (const int64_t us : {10000, 10001}) {
    latency_us_ = us;
    Send("m", false, true);
    Answer(http_.RequestCount() - 1, 200);
  }

  EXPECT_EQ(1u, Read().latency[0]);
  EXPECT_EQ(1u, Read().latency[1]);
  EXPECT_EQ(20u, Read().latency_sum_ms);
}

TEST_F(BooksTest, CountRetunings) {
  Start();
  Send("one", false, true);
  Answer(0, 200, "{\"bytes_errinfo\":\"success\",\"uint32_send_interval\":5000}");

  EXPECT_EQ(1u, Read().retunings);
  EXPECT_EQ(1u, Read().acknowledged);
}

}  // namespace
}  // namespace quenor::test
