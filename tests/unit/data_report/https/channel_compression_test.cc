// Raw deflate of message bodies: results, the state that is kept, and what a failure leaves.
#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "tests/support/channel_test_fixture.h"
#include "tests/support/memory_faults.h"

namespace quenor::test {
namespace {

// The original of a raw deflate stream; "(broken)" when it is not a whole one.
std::string Inflate(const std::string& compressed) {
  z_stream stream{};
  if (inflateInit2(&stream, -15) != Z_OK) return "(broken)";
  std::string original(1 << 20, '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(compressed.data()));
  stream.avail_in = static_cast<uInt>(compressed.size());
  stream.next_out = reinterpret_cast<Bytef*>(original.data());
  stream.avail_out = static_cast<uInt>(original.size());
  const int result = inflate(&stream, Z_FINISH);
  original.resize(stream.total_out);
  const bool whole = result == Z_STREAM_END && stream.avail_in == 0;
  inflateEnd(&stream);
  return whole ? original : "(broken)";
}

std::string RandomBytes(size_t size, unsigned int seed) {
  std::minstd_rand random(seed);
  std::string bytes(size, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random() >> 8);
  return bytes;
}

class ChannelCompressionTest : public ChannelTest {
 protected:
  ChannelCompressionTest() { Make(true); }

  // Compresses into a buffer of `capacity` bytes; the length stays in length_.
  int Compress(const std::string& source, size_t capacity) {
    output_.assign(capacity, '\xee');
    length_ = capacity;
    return peer().Compress(reinterpret_cast<const uint8_t*>(source.data()), source.size(),
                           reinterpret_cast<uint8_t*>(output_.data()), &length_);
  }
  std::string Output() const { return output_.substr(0, length_); }
  DeflateFaults& faults() { return DeflateFaults::Get(); }

  const std::string text_ = std::string(50, 'a') + "report" + std::string(50, 'b');
  std::string output_;
  uint64_t length_ = 0;
};

TEST_F(ChannelCompressionTest, RepetitivePayloadShrinksAndInflatesToItself) {
  ASSERT_EQ(Compress(text_, text_.size()), 0);

  EXPECT_LT(length_, text_.size());
  EXPECT_EQ(Inflate(Output()), text_);
}

TEST_F(ChannelCompressionTest, StreamIsSetUpOnceAtTheHighestLevelAsRawDeflate) {
  for (int i = 0; i < 3; ++i) ASSERT_EQ(Compress(text_, text_.size()), 0);

  EXPECT_EQ(faults().inits, 1);
  EXPECT_EQ(faults().resets, 3);
  EXPECT_EQ(faults().level, 9);
  EXPECT_EQ(faults().method, Z_DEFLATED);
  EXPECT_EQ(faults().window_bits, -15);
  EXPECT_EQ(faults().memory_level, 9);
  EXPECT_EQ(faults().strategy, Z_DEFAULT_STRATEGY);
  EXPECT_EQ(faults().version, "1.3.1");
  EXPECT_EQ(faults().stream_size, static_cast<int>(sizeof(z_stream)));
  EXPECT_TRUE(faults().stream_was_zero);
}

TEST_F(ChannelCompressionTest, SameInputGivesTheSameBytesWhateverCameBefore) {
  ASSERT_EQ(Compress(text_, text_.size()), 0);
  const std::string alone = Output();
  const std::string other(300, 'q');
  ASSERT_EQ(Compress(other, other.size()), 0);
  const std::string other_after = Output();

  ASSERT_EQ(Compress(text_, text_.size()), 0);

  EXPECT_EQ(Output(), alone);
  Make(true);
  ASSERT_EQ(Compress(other, other.size()), 0);
  EXPECT_EQ(Output(), other_after);
}

TEST_F(ChannelCompressionTest, OneByteDoesNotFitIntoOneByte) {
  EXPECT_EQ(Compress("x", 1), -5);
  EXPECT_EQ(length_, 1u);
}

TEST_F(ChannelCompressionTest, OutputThatDoesNotFitDuringTheFinishIsMinusFive) {
  const std::string noise = RandomBytes(100, 1);

  EXPECT_EQ(Compress(noise, noise.size()), -5);
}

TEST_F(ChannelCompressionTest, OneByteToSpareIsEnoughAndOneByteTooFewIsNot) {
  ASSERT_EQ(Compress(text_, text_.size()), 0);
  const size_t size = length_;

  EXPECT_EQ(Compress(text_, size + 1), 0);
  EXPECT_EQ(length_, size);
  EXPECT_EQ(Compress(text_, size - 1), -5);
}

TEST_F(ChannelCompressionTest, FailedFitDoesNotPoisonTheNextCall) {
  ASSERT_EQ(Compress("x", 1), -5);

  ASSERT_EQ(Compress(text_, text_.size()), 0);

  EXPECT_EQ(Inflate(Output()), text_);
  EXPECT_EQ(faults().inits, 1);
}

TEST_F(ChannelCompressionTest, MissingArgumentsAreMinusFiveWithoutMakingTheStream) {
  const uint8_t byte = 'x';
  uint8_t out[10];
  uint64_t length = sizeof(out);

  EXPECT_EQ(peer().Compress(nullptr, 1, out, &length), -5);
  EXPECT_EQ(peer().Compress(&byte, 0, out, &length), -5);
  EXPECT_EQ(peer().Compress(&byte, 1, nullptr, &length), -5);
  EXPECT_EQ(peer().Compress(&byte, 1, out, nullptr), -5);

  EXPECT_EQ(length, sizeof(out));
  EXPECT_EQ(peer().stream(), nullptr);
  EXPECT_EQ(faults().inits, 0);
}

TEST_F(ChannelCompressionTest, MissingArgumentsDoNotTouchAStreamThatExists) {
  ASSERT_EQ(Compress(text_, text_.size()), 0);

  EXPECT_EQ(Compress("", 10), -5);

  EXPECT_EQ(faults().resets, 1);
  EXPECT_NE(peer().stream(), nullptr);
}

TEST_F(ChannelCompressionTest, ZeroCapacityIsAnEarlySuccessWithTheLengthUnchanged) {
  uint8_t out = 0;
  uint64_t length = 0;

  EXPECT_EQ(
      peer().Compress(reinterpret_cast<const uint8_t*>(text_.data()), text_.size(), &out, &length),
      0);
  EXPECT_EQ(length, 0u);
  EXPECT_EQ(faults().deflates, 0);
}

TEST_F(ChannelCompressionTest, OutputFullWhileInputRemainsIsASuccessWithTheLengthUnchanged) {
  const std::string noise = RandomBytes(1 << 20, 2);

  ASSERT_EQ(Compress(noise, 1000), 0);

  EXPECT_EQ(length_, 1000u);
  EXPECT_EQ(Inflate(Output()), "(broken)");
  EXPECT_GE(output_.find_last_not_of('\xee'), 990u);  // The buffer was filled.
}

TEST_F(ChannelCompressionTest, EarlySuccessDoesNotPoisonTheNextCall) {
  ASSERT_EQ(Compress(RandomBytes(1 << 20, 3), 1000), 0);

  ASSERT_EQ(Compress(text_, text_.size()), 0);

  EXPECT_EQ(Inflate(Output()), text_);
}

TEST_F(ChannelCompressionTest, OnlyTheLowThirtyTwoBitsOfTheInputLengthCount) {
  const uint64_t high = uint64_t{1} << 32;
  std::string out(text_.size(), '\0');
  uint64_t length = out.size();

  ASSERT_EQ(peer().Compress(reinterpret_cast<const uint8_t*>(text_.data()), high + text_.size(),
                            reinterpret_cast<uint8_t*>(out.data()), &length),
            0);

  EXPECT_EQ(Inflate(out.substr(0, length)), text_);
}

TEST_F(ChannelCompressionTest, InputLengthWhoseLowBitsAreZeroIsNoArgumentError) {
  uint8_t out[16];
  uint64_t length = sizeof(out);
  const uint8_t byte = 'x';

  ASSERT_EQ(peer().Compress(&byte, uint64_t{1} << 32, out, &length), 0);

  EXPECT_EQ(Inflate(std::string(reinterpret_cast<char*>(out), length)), "");
}

TEST_F(ChannelCompressionTest, LengthIsLoweredInSixtyFourBits) {
  const uint64_t high = uint64_t{3} << 32;
  ASSERT_EQ(Compress(text_, text_.size()), 0);
  const uint64_t compressed = length_;
  std::string out(text_.size(), '\0');
  uint64_t length = high + out.size();

  ASSERT_EQ(peer().Compress(reinterpret_cast<const uint8_t*>(text_.data()), text_.size(),
                            reinterpret_cast<uint8_t*>(out.data()), &length),
            0);

  EXPECT_EQ(length, high + compressed);
}

// --- Failures ---

TEST_F(ChannelCompressionTest, StreamThatCannotBeAllocatedIsMinusFour) {
  output_.assign(text_.size(), '\0');
  uint64_t length = output_.size();
  MemoryFaults::FailMalloc(1);
  const int result = peer().Compress(reinterpret_cast<const uint8_t*>(text_.data()), text_.size(),
                                     reinterpret_cast<uint8_t*>(output_.data()), &length);
  MemoryFaults::FailMalloc(0);

  EXPECT_EQ(result, -4);
  EXPECT_EQ(peer().stream(), nullptr);
  EXPECT_EQ(faults().inits, 0);
  EXPECT_EQ(Compress(text_, text_.size()), 0);
}

TEST_F(ChannelCompressionTest, FailedInitIsMinusOneAndDiscardsTheStream) {
  faults().fail_next_init = Z_MEM_ERROR;

  EXPECT_EQ(Compress(text_, text_.size()), -1);

  EXPECT_EQ(peer().stream(), nullptr);
  EXPECT_EQ(faults().ends, 1);
  EXPECT_EQ(faults().resets, 0);
  EXPECT_EQ(Compress(text_, text_.size()), 0);
  EXPECT_EQ(faults().inits, 2);
}

TEST_F(ChannelCompressionTest, FailedResetIsMinusOneAndTheNextCallBuildsTheStreamAnew) {
  ASSERT_EQ(Compress(text_, text_.size()), 0);
  faults().fail_next_reset = Z_STREAM_ERROR;

  EXPECT_EQ(Compress(text_, text_.size()), -1);

  EXPECT_EQ(peer().stream(), nullptr);
  EXPECT_EQ(faults().ends, 1);
  EXPECT_EQ(Compress(text_, text_.size()), 0);
  EXPECT_EQ(faults().inits, 2);
  EXPECT_EQ(Inflate(Output()), text_);
}

TEST_F(ChannelCompressionTest, FailedResetRightAfterTheInitDiscardsTheStreamToo) {
  faults().fail_next_reset = Z_STREAM_ERROR;

  EXPECT_EQ(Compress(text_, text_.size()), -1);

  EXPECT_EQ(peer().stream(), nullptr);
  EXPECT_EQ(faults().ends, 1);
}

TEST_F(ChannelCompressionTest, ErrorOfTheFeedLoopIsReturnedAsItIs) {
  faults().fail_next_deflate = Z_STREAM_ERROR;

  EXPECT_EQ(Compress(text_, text_.size()), Z_STREAM_ERROR);

  EXPECT_FALSE(faults().last_flush_was_finish);
  EXPECT_NE(peer().stream(), nullptr);
  EXPECT_EQ(Compress(text_, text_.size()), 0);
}

TEST_F(ChannelCompressionTest, FeedIsWithoutFlushAndTheFinishFollows) {
  ASSERT_EQ(Compress(text_, text_.size()), 0);

  EXPECT_TRUE(faults().last_flush_was_finish);
  EXPECT_GE(faults().deflates, 2);
}

TEST_F(ChannelCompressionTest, ErrorOfTheFinishLoopIsReturnedAsItIs) {
  uint8_t out[16];
  uint64_t length = sizeof(out);
  const uint8_t byte = 'x';
  faults().fail_next_deflate = Z_DATA_ERROR;

  // No input reaches the feed loop: the first call is the finish.
  EXPECT_EQ(peer().Compress(&byte, uint64_t{1} << 32, out, &length), Z_DATA_ERROR);

  EXPECT_TRUE(faults().last_flush_was_finish);
  EXPECT_EQ(length, sizeof(out));
}

// --- Life of the stream ---

TEST_F(ChannelCompressionTest, DeleterOfAnEmptyStreamDoesNothing) {
  ASSERT_EQ(Compress(text_, text_.size()), 0);
  peer().DestroyStream();
  EXPECT_EQ(faults().ends, 1);

  channel_.reset();

  EXPECT_EQ(faults().ends, 1);
}

TEST_F(ChannelCompressionTest, ChannelsDestructionEndsTheStream) {
  ASSERT_EQ(Compress(text_, text_.size()), 0);

  channel_.reset();

  EXPECT_EQ(faults().ends, 1);
}

TEST_F(ChannelCompressionTest, ChannelsNeverShareAStream) {
  const auto other = std::make_shared<Channel>("other", kUrl, 0u, false, true);
  ASSERT_EQ(Compress(text_, text_.size()), 0);
  const z_stream* const first = peer().stream();
  uint64_t length = output_.size();
  ASSERT_EQ(Peer(other.get())
                .Compress(reinterpret_cast<const uint8_t*>(text_.data()), text_.size(),
                          reinterpret_cast<uint8_t*>(output_.data()), &length),
            0);

  EXPECT_NE(Peer(other.get()).stream(), first);
  EXPECT_EQ(faults().inits, 2);
}

TEST_F(ChannelCompressionTest, NothingIsLoggedWhateverHappens) {
  Compress("x", 1);
  faults().fail_next_init = Z_MEM_ERROR;
  peer().DestroyStream();
  Compress(text_, text_.size());

  EXPECT_TRUE(RecordingLog::Lines().empty());
}

// --- Through the front door ---

TEST_F(ChannelCompressionTest, ServerReceivesRawDeflateOfTheBody) {
  Start(true);

  Send(text_, false, true);

  ASSERT_EQ(http_.RequestCount(), 1u);
  EXPECT_EQ(Inflate(http_.Requests()[0].body), text_);
  EXPECT_TRUE(http_.Requests()[0].request.headers.empty());
}

TEST_F(ChannelCompressionTest, OneStreamServesAllMessages) {
  Start(true);

  for (int i = 0; i < 20; ++i) Send(text_ + std::to_string(i), false, true);

  EXPECT_EQ(faults().inits, 1);
  EXPECT_EQ(faults().resets, 20);
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(Inflate(http_.Requests()[static_cast<size_t>(i)].body), text_ + std::to_string(i));
  }
}

TEST_F(ChannelCompressionTest, ChannelWithoutCompressionMakesNoStream) {
  Start(false);

  Send(text_, false, true);

  EXPECT_EQ(faults().inits, 0);
  EXPECT_EQ(http_.Requests()[0].body, text_);
}

TEST_F(ChannelCompressionTest, CompressedMessageIsNotCompressedAgainWhenItIsResent) {
  Start(true);
  Send(text_, false, true);
  Fail(0);

  Advance(1000);

  ASSERT_EQ(http_.RequestCount(), 2u);
  EXPECT_EQ(http_.Requests()[1].body, http_.Requests()[0].body);
  EXPECT_EQ(faults().resets, 1);
}

TEST_F(ChannelCompressionTest, PayloadWhoseDeflateFormWouldBeLongerIsDropped) {
  Start(true);

  Send(RandomBytes(300, 4), false, true);

  EXPECT_EQ(http_.RequestCount(), 0u);
  EXPECT_EQ(Counters(), (Counts{1, 0, 0, 0, 0}));
}

TEST_F(ChannelCompressionTest, FailedCompressorDropsOneMessageAndTakesTheNext) {
  Start(true);
  faults().fail_next_init = Z_MEM_ERROR;
  Send(text_, false, true);
  EXPECT_EQ(http_.RequestCount(), 0u);

  Send(text_, false, true);

  EXPECT_EQ(http_.RequestCount(), 1u);
  EXPECT_EQ(Counters(), (Counts{2, 1, 0, 0, 0}));
}

}  // namespace
}  // namespace quenor::test
