// Compression of bodies as the channel sees it. Written without sight of the implementation, from
// the promises alone.
#include <zlib.h>

#include <random>

#include "tests/support/deflate_faults.h"
#include "tests/support/memory_faults.h"
#include "tests/unit/second/channel/promise_fixture.h"

namespace quenor::test {
namespace {

std::string RawInflate(const std::string& packed, size_t most) {
  z_stream stream = {};
  if (inflateInit2(&stream, -15) != Z_OK) return "inflateInit2 failed";
  std::string plain(most, '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(packed.data()));
  stream.avail_in = static_cast<uInt>(packed.size());
  stream.next_out = reinterpret_cast<Bytef*>(plain.data());
  stream.avail_out = static_cast<uInt>(plain.size());
  const int result = inflate(&stream, Z_FINISH);
  plain.resize(stream.total_out);
  const bool whole = result == Z_STREAM_END && stream.avail_in == 0;
  inflateEnd(&stream);
  return whole ? plain : "not one whole raw deflate stream";
}

// The same bytes each time: the generator's sequence is fixed by the standard.
std::string Noise(size_t size) {
  std::mt19937 random(20240);
  std::string noise(size, '\0');
  for (char& c : noise) c = static_cast<char>(random() & 0xff);
  return noise;
}

class PromisedCompressionTest : public PromiseTest {
 protected:
  PromisedCompressionTest() {
    Make(true);
    DeflateFaults::Clear();
  }
  ~PromisedCompressionTest() override { DeflateFaults::Clear(); }

  int Compress(const std::string& plain, std::string* packed, size_t room) {
    packed->assign(room, '\0');
    uint64_t size = room;
    const int result =
        Inside().Compress(reinterpret_cast<const uint8_t*>(plain.data()), plain.size(),
                          reinterpret_cast<uint8_t*>(packed->data()), &size);
    packed->resize(size);
    return result;
  }
  const std::string plain_ = std::string(300, 'a') + std::string(300, 'b');
};

TEST_F(PromisedCompressionTest, StoredBodyIsShorterAndInflatesRaw) {
  Start();
  Send(plain_);

  const std::string packed = PendingBodies().at(0);
  EXPECT_LT(packed.size(), plain_.size());
  EXPECT_EQ(RawInflate(packed, 2000), plain_);
  Advance(Ms(100));
  EXPECT_EQ(SentBodies(), Strings{packed});
}

TEST_F(PromisedCompressionTest, BodyIsCompressedOnceHoweverOftenItIsSent) {
  Start();
  Send(plain_, true, true);
  const std::string packed = SentBodies().at(0);
  for (size_t i = 0; i < 3; ++i) {
    Answer(i, 500);
    Advance(Seconds(10));
    EXPECT_EQ(SentBodies().at(i + 1), packed);
  }
  EXPECT_EQ(DeflateFaults::Get().resets, 1);
}

TEST_F(PromisedCompressionTest, OffMeansUntouched) {
  Make(false);
  Start();
  Send(plain_);
  EXPECT_EQ(PendingBodies(), Strings{plain_});
  EXPECT_EQ(DeflateFaults::Get().inits, 0);
  EXPECT_EQ(Inside().stream(), nullptr);
}

TEST_F(PromisedCompressionTest, BodiesThatDoNotShrinkAreDroppedWithoutATrace) {
  Start();
  RecordingLog::Clear();
  uint32_t needed = 0;
  for (const std::string& body : {std::string(), std::string("x"), Noise(5000)}) {
    Send(body, true, true);
    EXPECT_EQ(Counters(), (Numbers{++needed, 0, 0, 0, 0}));
    EXPECT_TRUE(Inside().pending().empty());
    EXPECT_FALSE(Inside().send_timer().IsRunning());
  }
  EXPECT_EQ(http_.RequestCount(), 0u);
  EXPECT_TRUE(RecordingLog::Lines().empty());
}

TEST_F(PromisedCompressionTest, EmptyBodyMakesNoStream) {
  Start();
  Send("");
  EXPECT_EQ(Inside().stream(), nullptr);
  EXPECT_EQ(DeflateFaults::Get().inits, 0);
}

TEST_F(PromisedCompressionTest, ListIsTrimmedBeforeTheBodyIsLost) {
  Start();
  for (int i = 0; i < 200; ++i) Inside().pending().emplace_back(false);

  Send("x");

  EXPECT_EQ(Inside().pending().size(), 150u);
  EXPECT_EQ(Counters(), (Numbers{1, 0, 0, 0, 50}));
  EXPECT_FALSE(Inside().send_timer().IsRunning());
}

TEST_F(PromisedCompressionTest, CompressorIsSetUpOnceAndResetForEachBody) {
  Start();
  for (int i = 0; i < 4; ++i) Send(plain_);

  const DeflateFaults& record = DeflateFaults::Get();
  EXPECT_EQ(record.inits, 1);
  EXPECT_EQ(record.resets, 4);
  EXPECT_EQ(record.ends, 0);
  EXPECT_EQ(record.level, 9);
  EXPECT_EQ(record.method, 8);
  EXPECT_EQ(record.window_bits, -15);
  EXPECT_EQ(record.memory_level, 9);
  EXPECT_EQ(record.strategy, 0);
  EXPECT_EQ(record.version, "1.3.1");
  EXPECT_EQ(record.stream_size, static_cast<int>(sizeof(z_stream)));
  EXPECT_TRUE(record.stream_was_zero);
  const auto bodies = PendingBodies();
  EXPECT_EQ(bodies[0], bodies[3]);
}

TEST_F(PromisedCompressionTest, StreamLivesAsLongAsTheChannel) {
  Start();
  Send(plain_);
  Restart();
  Send(plain_);
  EXPECT_EQ(DeflateFaults::Get().inits, 1);
  EXPECT_EQ(DeflateFaults::Get().ends, 0);
  Stop();

  channel_.reset();

  EXPECT_EQ(DeflateFaults::Get().ends, 1);
}

TEST_F(PromisedCompressionTest, TwoChannelsShareNoStream) {
  const auto other = std::make_shared<Channel>("other", kUrl, 0, false, true);
  std::string packed(600, '\0');
  uint64_t size = 600;
  EXPECT_EQ(Peer(other.get())
                .Compress(reinterpret_cast<const uint8_t*>(plain_.data()), 600,
                          reinterpret_cast<uint8_t*>(packed.data()), &size),
            0);
  EXPECT_EQ(Compress(plain_, &packed, 600), 0);
  EXPECT_EQ(DeflateFaults::Get().inits, 2);
  EXPECT_NE(Peer(other.get()).stream().get(), Inside().stream().get());
}

TEST_F(PromisedCompressionTest, BadArgumentsAnswerMinusFiveAndTouchNoStream) {
  uint8_t byte = 1;
  uint64_t size = 1;
  uint8_t out[1];
  EXPECT_EQ(Inside().Compress(nullptr, 1, out, &size), -5);
  EXPECT_EQ(Inside().Compress(&byte, 0, out, &size), -5);
  EXPECT_EQ(Inside().Compress(&byte, 1, nullptr, &size), -5);
  EXPECT_EQ(Inside().Compress(&byte, 1, out, nullptr), -5);
  EXPECT_EQ(size, 1u);
  EXPECT_EQ(Inside().stream(), nullptr);
  EXPECT_EQ(DeflateFaults::Get().inits, 0);
}

TEST_F(PromisedCompressionTest, OneByteInOneByteOfRoomAnswersMinusFive) {
  std::string packed;
  EXPECT_EQ(Compress("x", &packed, 1), -5);
  EXPECT_EQ(Compress(plain_, &packed, 600), 0);
  EXPECT_EQ(RawInflate(packed, 2000), plain_);
}

TEST_F(PromisedCompressionTest, MissingMemoryAnswersMinusFourAndLaterCallsRecover) {
  std::string packed;
  packed.reserve(600);
  MemoryFaults::FailMalloc(1);
  EXPECT_EQ(Compress(plain_, &packed, 600), -4);
  EXPECT_TRUE(MemoryFaults::HasFailed());
  MemoryFaults::FailMalloc(0);
  EXPECT_EQ(Inside().stream(), nullptr);
  EXPECT_EQ(DeflateFaults::Get().inits, 0);

  EXPECT_EQ(Compress(plain_, &packed, 600), 0);
}

TEST_F(PromisedCompressionTest, FailedInitAnswersMinusOneAndDiscardsTheStream) {
  std::string packed;
  DeflateFaults::Get().fail_next_init = Z_VERSION_ERROR;
  EXPECT_EQ(Compress(plain_, &packed, 600), -1);
  EXPECT_EQ(Inside().stream(), nullptr);
  EXPECT_EQ(DeflateFaults::Get().resets, 0);
  EXPECT_EQ(DeflateFaults::Get().ends, 1);

  EXPECT_EQ(Compress(plain_, &packed, 600), 0);
  EXPECT_EQ(RawInflate(packed, 2000), plain_);
}

TEST_F(PromisedCompressionTest, FailedResetAnswersMinusOneAndIsNoPoison) {
  std::string packed;
  ASSERT_EQ(Compress(plain_, &packed, 600), 0);
  DeflateFaults::Get().fail_next_reset = Z_STREAM_ERROR;

  EXPECT_EQ(Compress(plain_, &packed, 600), -1);

  EXPECT_EQ(Inside().stream(), nullptr);
  EXPECT_EQ(DeflateFaults::Get().ends, 1);
  EXPECT_EQ(Compress(plain_, &packed, 600), 0);
  EXPECT_EQ(DeflateFaults::Get().inits, 2);
  EXPECT_EQ(RawInflate(packed, 2000), plain_);
}

TEST_F(PromisedCompressionTest, FailedSetUpLosesOnlyItsOwnMessage) {
  Start();
  DeflateFaults::Get().fail_next_init = Z_MEM_ERROR;
  Send(plain_);
  DeflateFaults::Get().fail_next_reset = Z_STREAM_ERROR;
  Send(plain_);
  DeflateFaults::Get().fail_next_deflate = Z_STREAM_ERROR;
  Send(plain_);
  Send(plain_);
  EXPECT_EQ(Inside().pending().size(), 1u);
  EXPECT_EQ(Counters(), (Numbers{4, 0, 0, 0, 0}));
}

TEST_F(PromisedCompressionTest, DeflatesOwnErrorsPassThrough) {
  std::string packed;
  DeflateFaults::Get().fail_next_deflate = Z_STREAM_ERROR;
  EXPECT_EQ(Compress(plain_, &packed, 600), -2);
  DeflateFaults::Get().fail_next_deflate = Z_DATA_ERROR;
  EXPECT_EQ(Compress(plain_, &packed, 600), -3);
  EXPECT_NE(Inside().stream(), nullptr);
}

TEST_F(PromisedCompressionTest, FullOutputWhileInputRemainsIsASuccessOfTheWholeOutput) {
  std::string packed;
  EXPECT_EQ(Compress(Noise(1000000), &packed, 10), 0);
  EXPECT_EQ(packed.size(), 10u);
}

TEST_F(PromisedCompressionTest, BodiesDoNotInfluenceEachOther) {
  std::string first, second, again;
  ASSERT_EQ(Compress(plain_, &first, 600), 0);
  Compress(Noise(1000000), &second, 10);  // Left unfinished.
  ASSERT_EQ(Compress(plain_, &again, 600), 0);
  EXPECT_EQ(first, again);
}

TEST_F(PromisedCompressionTest, LengthsReachTheCompressorByTheirLow32Bits) {
  std::string packed(600, '\0');
  uint64_t size = (uint64_t{1} << 32) + 600;
  EXPECT_EQ(
      Inside().Compress(reinterpret_cast<const uint8_t*>(plain_.data()), (uint64_t{3} << 32) + 600,
                        reinterpret_cast<uint8_t*>(packed.data()), &size),
      0);
  EXPECT_GT(size, uint64_t{1} << 32);  // Lowered by what is left, in 64 bits.
  EXPECT_LT(size, (uint64_t{1} << 32) + 600);
  packed.resize(static_cast<uint32_t>(size));
  EXPECT_EQ(RawInflate(packed, 2000), plain_);
}

}  // namespace
}  // namespace quenor::test
