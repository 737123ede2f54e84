// Compression as a channel's owner and its server see it. Written without sight of the
// implementation, from the promises alone.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "quenor_base/object_pool/alloc_buffer_from_pool.h"
#include "tests/support/channel_test_fixture.h"
#include "tests/support/deflate_faults.h"
#include "tests/support/memory_faults.h"
#include "tests/support/recording_log.h"
#include "tests/unit/second/pools/payloads.h"

namespace quenor::test {
namespace {

class SecondChannelCompressionTest : public ChannelTest {
 protected:
  static DeflateFaults& Zlib() { return DeflateFaults::Get(); }

  // The message is gone: needed counts it, nothing else does, and nobody is told by the log.
  void ExpectDroppedSilently(const std::string& body, bool send_now) {
    const Counts before = Counters();
    const Texts texts = RecordingLog::Texts();
    const size_t saved = events_.Count(Kind::kSaved);

    Send(body, true, send_now);

    Counts after = before;
    ++after[0];
    EXPECT_EQ(Counters(), after);
    EXPECT_TRUE(PendingBodies().empty());
    EXPECT_EQ(http_.RequestCount(), 0u);
    EXPECT_EQ(SendPeriod(), -1) << "the send timer is not started";
    EXPECT_EQ(RecordingLog::Texts(), texts);
    EXPECT_EQ(events_.Count(Kind::kSaved), saved) << "the cache is not rewritten";
  }
};

TEST_F(SecondChannelCompressionTest, TheRequestsBodyIsTheRawDeflateOfTheMessage) {
  Start(true);
  const std::string body = Report(3000);

  Send(body, false, true);

  ASSERT_EQ(http_.RequestCount(), 1u);
  const std::string sent = http_.Requests()[0].body;
  EXPECT_LT(sent.size(), body.size());
  const Inflated inflated = InflateRaw(sent);
  EXPECT_TRUE(inflated.ended);
  EXPECT_EQ(inflated.left_over, 0u);
  EXPECT_EQ(inflated.bytes, body);
}

TEST_F(SecondChannelCompressionTest, AMessageWaitsInItsCompressedForm) {
  Start(true);

  Send(Report(1000, 1));
  Send(Report(1000, 2));

  const Texts bodies = PendingBodies();
  ASSERT_EQ(bodies.size(), 2u);
  EXPECT_EQ(InflateRaw(bodies[0]).bytes, Report(1000, 1));
  EXPECT_EQ(InflateRaw(bodies[1]).bytes, Report(1000, 2));
}

TEST_F(SecondChannelCompressionTest, AMessageIsCompressedOnceHoweverOftenItIsSent) {
  Start(true);
  Send(Report(1000), false, true);
  const int deflates = Zlib().deflates;

  Fail(0);
  Tick();

  ASSERT_EQ(http_.RequestCount(), 2u);
  EXPECT_EQ(http_.Requests()[1].body, http_.Requests()[0].body);
  EXPECT_EQ(Zlib().deflates, deflates);
  EXPECT_EQ(Zlib().resets, 1);
}

TEST_F(SecondChannelCompressionTest, WithoutCompressionNoCompressorIsTouched) {
  Start(false);

  Send(Report(1000), false, true);
  Send("");

  EXPECT_EQ(http_.Requests()[0].body, Report(1000));
  EXPECT_EQ(PendingBodies(), Texts{""});
  EXPECT_EQ(Zlib().inits + Zlib().resets + Zlib().deflates, 0);
  EXPECT_EQ(peer().stream(), nullptr);
}

TEST_F(SecondChannelCompressionTest, AMessageThatWouldGrowIsDroppedSilently) {
  Start(true);

  ExpectDroppedSilently(Noise(100), false);
  ExpectDroppedSilently(Noise(5000), true);
  ExpectDroppedSilently("x", false);
}

TEST_F(SecondChannelCompressionTest, AnEmptyMessageIsDroppedWithoutMakingTheStream) {
  Start(true);

  ExpectDroppedSilently("", false);
  ExpectDroppedSilently("", true);

  EXPECT_EQ(Zlib().inits, 0);
  EXPECT_EQ(peer().stream(), nullptr);
}

TEST_F(SecondChannelCompressionTest, EachFailureOfTheCompressorDropsOneMessageOnly) {
  Start(true);

  Zlib().fail_next_init = -6;
  ExpectDroppedSilently(Report(500), false);
  Zlib().fail_next_reset = -2;
  ExpectDroppedSilently(Report(500), false);
  Zlib().fail_next_deflate = -2;
  ExpectDroppedSilently(Report(500), true);
  Zlib().fail_next_deflate = 1;
  ExpectDroppedSilently(Report(500), false);
  Send(Report(500), false, true);

  ASSERT_EQ(http_.RequestCount(), 1u);
  EXPECT_EQ(InflateRaw(http_.Requests()[0].body).bytes, Report(500));
}

TEST_F(SecondChannelCompressionTest, AMessageIsDroppedWhenTheStreamCannotBeAllocated) {
  Start(true);
  Post(Report(500));
  MemoryFaults::FailMalloc(1);

  time_.RunUntilIdle();

  EXPECT_TRUE(MemoryFaults::HasFailed());
  MemoryFaults::FailMalloc(0);
  EXPECT_TRUE(PendingBodies().empty());
  EXPECT_EQ(Counters(), (Counts{1, 0, 0, 0, 0}));
  EXPECT_EQ(Zlib().inits, 0);
  Send(Report(500));
  EXPECT_EQ(PendingBodies().size(), 1u);
}

TEST_F(SecondChannelCompressionTest, AllMessagesShareOneStreamWhichIsResetForEach) {
  Start(true);

  for (uint32_t i = 1; i <= 50; ++i) Send(Report(300, i));

  EXPECT_EQ(Zlib().inits, 1);
  EXPECT_EQ(Zlib().resets, 50);
  EXPECT_EQ(Zlib().ends, 0);
  EXPECT_EQ(InflateRaw(PendingBodies().back()).bytes, Report(300, 50));
}

TEST_F(SecondChannelCompressionTest, TheScratchArrayComesFromThePoolOfTheBodysClassAndGoesBack) {
  Start(true);
  auto& pool = *internal::GetBufferObjPool(2048);
  uint8_t* const scratch = pool.AllocRaw();
  std::fill_n(scratch, 2048, uint8_t{0});
  pool.Reuse(scratch);

  Send(Report(1500));

  uint8_t* const again = pool.AllocRaw();
  EXPECT_EQ(again, scratch) << "dropped when the bytes were copied";
  const std::string body = PendingBodies().at(0);
  EXPECT_EQ(std::string(again, again + body.size()), body);
  EXPECT_NE(static_cast<const void*>(peer().pending().front().data.cdata<uint8_t>()),
            static_cast<const void*>(again))
      << "the message holds its own copy";
  pool.Reuse(again);
}

TEST_F(SecondChannelCompressionTest, TheScratchArrayOfADroppedMessageGoesBackToo) {
  Start(true);
  auto& pool = *internal::GetBufferObjPool(2048);
  uint8_t* const scratch = pool.AllocRaw();
  std::fill_n(scratch, 2048, uint8_t{0});
  pool.Reuse(scratch);

  Send(Noise(1500));

  uint8_t* const again = pool.AllocRaw();
  EXPECT_EQ(again, scratch);
  EXPECT_FALSE(std::all_of(again, again + 1500, [](uint8_t byte) { return byte == 0; }));
  pool.Reuse(again);
}

}  // namespace
}  // namespace quenor::test
