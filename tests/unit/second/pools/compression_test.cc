// The channel's compressor, called directly. Written without sight of the implementation, from the
// promises alone.
#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "tests/support/channel_test_fixture.h"
#include "tests/support/deflate_faults.h"
#include "tests/support/memory_faults.h"
#include "tests/support/recording_log.h"
#include "tests/unit/second/pools/payloads.h"

namespace quenor::test {
namespace {

constexpr uint64_t kHighBit = uint64_t{1} << 32;

struct Outcome {
  int code;
  uint64_t length;     // What the call left in its length.
  std::string output;  // The whole room, as the call left it.

  std::string Compressed() const { return output.substr(0, static_cast<size_t>(length)); }
};

// The promise in other words, with a stream of its own.
Outcome Reference(const std::string& payload, size_t room) {
  Outcome outcome{0, room, std::string(room, '~')};
  z_stream stream{};
  EXPECT_EQ(deflateInit2_(&stream, 9, Z_DEFLATED, -15, 9, Z_DEFAULT_STRATEGY, ZLIB_VERSION,
                          static_cast<int>(sizeof(stream))),
            Z_OK);
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(payload.data()));
  stream.avail_in = static_cast<uInt>(payload.size());
  stream.next_out = reinterpret_cast<Bytef*>(&outcome.output[0]);
  stream.avail_out = static_cast<uInt>(room);
  bool full = false;
  while (stream.avail_in != 0 && !full && outcome.code == Z_OK) {
    full = stream.avail_out == 0;
    if (!full) outcome.code = deflate(&stream, Z_NO_FLUSH);
  }
  if (!full && outcome.code == Z_OK) {
    do {
      outcome.code = deflate(&stream, Z_FINISH);
    } while (outcome.code == Z_OK);
    if (outcome.code == Z_STREAM_END) {
      outcome.code = 0;
      outcome.length -= stream.avail_out;
    }
  }
  deflateEnd(&stream);
  return outcome;
}

class SecondCompressionTest : public ChannelTest {
 protected:
  SecondCompressionTest() { Make(true); }

  static DeflateFaults& Zlib() { return DeflateFaults::Get(); }

  Outcome Compress(const std::string& payload, size_t room) {
    return Compress(payload, payload.size(), room, room);
  }
  Outcome Compress(const std::string& payload, uint64_t src_len, size_t room, uint64_t dst_len) {
    Outcome outcome{0, dst_len, std::string(room + 1, '~')};
    outcome.code = peer().Compress(reinterpret_cast<const uint8_t*>(payload.data()), src_len,
                                   reinterpret_cast<uint8_t*>(&outcome.output[0]), &outcome.length);
    EXPECT_EQ(outcome.output.back(), '~') << "written beyond its room";
    outcome.output.pop_back();
    return outcome;
  }
};

// --- The stream -------------------------------------------------------------------------------

TEST_F(SecondCompressionTest, ANewChannelHasNoStreamAndNoDeleter) {
  EXPECT_EQ(peer().stream(), nullptr);
  EXPECT_FALSE(peer().has_stream_deleter());
}

TEST_F(SecondCompressionTest, TheFirstCallSetsTheStreamUpAsRawDeflateOfTheHighestLevel) {
  EXPECT_EQ(Compress("aaaaaaaaaaaaaaaaaaaa", 20).code, 0);

  EXPECT_EQ(Zlib().inits, 1);
  EXPECT_EQ(Zlib().level, 9);
  EXPECT_EQ(Zlib().method, 8);
  EXPECT_EQ(Zlib().window_bits, -15);
  EXPECT_EQ(Zlib().memory_level, 9);
  EXPECT_EQ(Zlib().strategy, 0);
  EXPECT_EQ(Zlib().version, "1.3.1");
  EXPECT_EQ(Zlib().stream_size, static_cast<int>(sizeof(z_stream)));
  EXPECT_TRUE(Zlib().stream_was_zero);
  EXPECT_NE(peer().stream(), nullptr);
  EXPECT_TRUE(peer().has_stream_deleter());
}

TEST_F(SecondCompressionTest, TheStreamIsResetForEachCallEvenTheFirstAndNeverEnded) {
  for (int call = 1; call <= 4; ++call) {
    Compress(Report(200), 200);

    EXPECT_EQ(Zlib().inits, 1);
    EXPECT_EQ(Zlib().resets, call);
    EXPECT_EQ(Zlib().ends, 0);
  }
}

TEST_F(SecondCompressionTest, OneStreamServesAllCalls) {
  Compress(Report(200), 200);
  const z_stream* const stream = peer().stream();
  const MemoryFaults::Counter counter;

  uint64_t length = 200;
  uint8_t room[200];
  const uint8_t payload[200] = {};
  for (int call = 0; call < 5; ++call) {
    length = 200;
    EXPECT_EQ(peer().Compress(payload, 200, room, &length), 0);
  }

  EXPECT_EQ(peer().stream(), stream);
  EXPECT_EQ(counter.count(), 0u) << "no compressor state is allocated";
}

TEST_F(SecondCompressionTest, TheChannelsDestructionEndsTheStreamOnce) {
  Compress(Report(200), 200);

  channel_.reset();

  EXPECT_EQ(Zlib().ends, 1);
}

TEST_F(SecondCompressionTest, DestroyingAChannelThatNeverCompressedEndsNothing) {
  channel_.reset();

  EXPECT_EQ(Zlib().inits, 0);
  EXPECT_EQ(Zlib().ends, 0);
}

TEST_F(SecondCompressionTest, TerminationKeepsTheStreamForTheNextRun) {
  channel_->Initialize();
  time_.RunUntilIdle();
  Compress(Report(200), 200);
  const z_stream* const stream = peer().stream();

  Stop();
  EXPECT_EQ(peer().stream(), stream);
  channel_->Initialize();
  time_.RunUntilIdle();
  Compress(Report(200), 200);

  EXPECT_EQ(peer().stream(), stream);
  EXPECT_EQ(Zlib().inits, 1);
  EXPECT_EQ(Zlib().ends, 0);
}

TEST_F(SecondCompressionTest, TwoChannelsHaveTwoStreams) {
  const auto other = std::make_shared<ReliableReportChannelHttps>("other", kUrl, 0u, false, true);
  uint64_t length = 200;
  uint8_t room[200];
  const std::string payload = Report(200);

  Compress(payload, 200);
  Peer(other.get()).Compress(reinterpret_cast<const uint8_t*>(payload.data()), 200, room, &length);

  EXPECT_EQ(Zlib().inits, 2);
  EXPECT_NE(Peer(other.get()).stream(), nullptr);
  EXPECT_NE(Peer(other.get()).stream(), peer().stream());
}

// --- Arguments --------------------------------------------------------------------------------

TEST_F(SecondCompressionTest, NullOrEmptyArgumentsAnswerMinusFiveWithoutTouchingTheStream) {
  const uint8_t src[] = {1, 2, 3};
  uint8_t dst[16];
  for (const bool has_stream : {false, true}) {
    if (has_stream) Compress(Report(100), 100);
    DeflateFaults::Clear();
    uint64_t length = sizeof(dst);

    EXPECT_EQ(peer().Compress(nullptr, 3, dst, &length), -5);
    EXPECT_EQ(peer().Compress(src, 0, dst, &length), -5);
    EXPECT_EQ(peer().Compress(src, 3, nullptr, &length), -5);
    EXPECT_EQ(peer().Compress(src, 3, dst, nullptr), -5);
    EXPECT_EQ(peer().Compress(nullptr, 0, nullptr, nullptr), -5);

    EXPECT_EQ(length, sizeof(dst));
    EXPECT_EQ(Zlib().inits + Zlib().resets + Zlib().deflates + Zlib().ends, 0);
    EXPECT_EQ(peer().stream() != nullptr, has_stream);
  }
}

TEST_F(SecondCompressionTest, OnlyTheLowHalfOfTheInputLengthCounts) {
  const std::string payload = Report(300);
  const Outcome plain = Compress(payload, 300);

  const Outcome high = Compress(payload, 5 * kHighBit + 300, 300, 300);

  EXPECT_EQ(high.code, 0);
  EXPECT_EQ(high.Compressed(), plain.Compressed());
}

TEST_F(SecondCompressionTest, AnInputLengthWhoseLowHalfIsZeroIsAnEmptyStream) {
  const Outcome outcome = Compress("x", kHighBit, 10, 10);

  EXPECT_EQ(outcome.code, 0);
  const Inflated inflated = InflateRaw(outcome.Compressed());
  EXPECT_TRUE(inflated.ended);
  EXPECT_EQ(inflated.bytes, "");
  EXPECT_EQ(Zlib().deflates, 1) << "no feeding without input";
  EXPECT_TRUE(Zlib().last_flush_was_finish);
}

TEST_F(SecondCompressionTest, OnlyTheLowHalfOfTheRoomCountsAndTheLengthIsLoweredInSixtyFourBits) {
  const std::string payload = Report(300);
  const Outcome plain = Compress(payload, 300);

  const Outcome high = Compress(payload, 300, 300, 3 * kHighBit + 300);

  EXPECT_EQ(high.code, 0);
  EXPECT_EQ(high.length, 3 * kHighBit + plain.length);
  EXPECT_EQ(high.output.substr(0, plain.length), plain.Compressed());
}

TEST_F(SecondCompressionTest, NoRoomWithInputLeftIsSuccessWithoutDeflating) {
  for (uint64_t dst_len : {uint64_t{0}, kHighBit, 7 * kHighBit}) {
    DeflateFaults::Clear();

    const Outcome outcome = Compress("payload", 7, 0, dst_len);

    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.length, dst_len);
    EXPECT_EQ(Zlib().deflates, 0);
    EXPECT_EQ(Zlib().resets, 1);
  }
}

// --- Results ----------------------------------------------------------------------------------

TEST_F(SecondCompressionTest, ARepetitivePayloadBecomesShorterAndInflatesToItself) {
  const std::string payload(500, 'r');

  const Outcome outcome = Compress(payload, payload.size());

  EXPECT_EQ(outcome.code, 0);
  EXPECT_LT(outcome.length, payload.size());
  const Inflated inflated = InflateRaw(outcome.Compressed());
  EXPECT_TRUE(inflated.ended);
  EXPECT_EQ(inflated.left_over, 0u) << "no checksum behind the stream";
  EXPECT_EQ(inflated.bytes, payload);
}

TEST_F(SecondCompressionTest, PayloadsOfManyLengthsInflateToThemselves) {
  for (size_t size : {30u, 1000u, 32768u, 65536u, 100000u, 1048576u, 3000000u}) {
    const std::string payload = Report(size);

    const Outcome outcome = Compress(payload, size);

    ASSERT_EQ(outcome.code, 0) << size;
    ASSERT_LT(outcome.length, size);
    const Inflated inflated = InflateRaw(outcome.Compressed());
    EXPECT_TRUE(inflated.ended);
    EXPECT_EQ(inflated.left_over, 0u);
    EXPECT_TRUE(inflated.bytes == payload) << size;
  }
}

TEST_F(SecondCompressionTest, OneByteDoesNotFitIntoOneByte) {
  const Outcome outcome = Compress("x", 1);

  EXPECT_EQ(outcome.code, -5);
  EXPECT_EQ(outcome.length, 1u);
}

TEST_F(SecondCompressionTest, RoomForOneByteMoreThanTheStreamIsEnoughAndLessThanTheStreamIsNot) {
  const std::string payload = Report(400);
  const auto needed = static_cast<size_t>(Compress(payload, 400).length);

  const Outcome enough = Compress(payload, needed + 1);
  EXPECT_EQ(enough.code, 0);
  EXPECT_EQ(enough.length, needed);
  EXPECT_EQ(InflateRaw(enough.Compressed()).bytes, payload);

  for (size_t room = 1; room < needed; ++room) {
    const Outcome short_of_room = Compress(payload, room);
    ASSERT_EQ(short_of_room.code, -5) << room;
    ASSERT_EQ(short_of_room.length, room) << "lowered on success only";
  }
}

TEST_F(SecondCompressionTest, RoomForExactlyTheStreamIsWhatZlibMakesOfIt) {
  const std::string payload = Report(400);
  const auto needed = static_cast<size_t>(Compress(payload, 400).length);

  const Outcome exact = Compress(payload, needed);

  // zlib tells the end of a stream only while a byte of room is left.
  EXPECT_EQ(exact.code, Reference(payload, needed).code);
  EXPECT_EQ(exact.length, needed);
}

TEST_F(SecondCompressionTest, NoiseIsLongerThanItselfAndAnswersMinusFive) {
  for (size_t size : {2u, 10u, 100u, 5000u, 40000u}) {
    const Outcome outcome = Compress(Noise(size), size);

    EXPECT_EQ(outcome.code, -5) << size;
    EXPECT_EQ(outcome.length, size);
  }
}

TEST_F(SecondCompressionTest, RoomThatRunsOutWhileInputRemainsIsSuccessWithTheUnfinishedStream) {
  const std::string payload = Noise(400000);

  const Outcome outcome = Compress(payload, 1000);

  EXPECT_EQ(outcome.code, 0);
  EXPECT_EQ(outcome.length, 1000u) << "unchanged";
  EXPECT_FALSE(Zlib().last_flush_was_finish);
  const Inflated inflated = InflateRaw(outcome.output);
  EXPECT_FALSE(inflated.ended);
  EXPECT_GT(inflated.bytes.size(), 500u);
  EXPECT_EQ(inflated.bytes, payload.substr(0, inflated.bytes.size()));
}

TEST_F(SecondCompressionTest, EachPayloadCompressesAsIfItWereAlone) {
  const std::string one = Report(700, 1);
  const std::string two = Report(700, 2);
  const std::string big = Noise(400000);
  const std::string alone_one = Reference(one, 700).Compressed();
  const std::string alone_two = Reference(two, 700).Compressed();

  EXPECT_EQ(Compress(one, 700).Compressed(), alone_one);
  EXPECT_EQ(Compress(two, 700).Compressed(), alone_two);
  EXPECT_EQ(Compress(one, 700).Compressed(), alone_one);
  ASSERT_EQ(Compress(one, 5).code, -5);
  EXPECT_EQ(Compress(two, 700).Compressed(), alone_two) << "after one that did not fit";
  ASSERT_EQ(Compress(big, 1000).length, 1000u);
  EXPECT_EQ(Compress(one, 700).Compressed(), alone_one) << "after an unfinished one";
}

TEST_F(SecondCompressionTest, RandomPayloadsAndRoomsAgreeWithTheReference) {
  constexpr uint32_t kSeed = 4711;
  std::mt19937 random(kSeed);
  int successes = 0;
  int failures = 0;
  int unfinished = 0;
  for (int round = 0; round < 150; ++round) {
    const size_t size = 1 + random() % (round % 10 == 0 ? 300000 : 3000);
    std::string payload = random() % 2 == 0 ? Noise(size, round) : Report(size, round);
    const size_t room = random() % 4 == 0 ? size : random() % (size + 20);

    const Outcome expected = Reference(payload, room);
    const Outcome outcome = Compress(payload, room);

    ASSERT_EQ(outcome.code, expected.code) << "seed " << kSeed << ", round " << round;
    ASSERT_EQ(outcome.length, expected.length);
    ASSERT_TRUE(outcome.output == expected.output) << "seed " << kSeed << ", round " << round;
    if (outcome.code != 0) {
      ++failures;
    } else if (outcome.length == room) {
      ++unfinished;
    } else {
      ++successes;
    }
  }
  EXPECT_GT(successes, 0);
  EXPECT_GT(failures, 0);
  EXPECT_GT(unfinished, 0);
}

// --- Failures ---------------------------------------------------------------------------------

TEST_F(SecondCompressionTest, AStreamThatCannotBeAllocatedIsMinusFourAndTheNextCallTriesAgain) {
  const std::string payload = Report(200);
  uint64_t length = 200;
  uint8_t room[200];
  MemoryFaults::FailMalloc(1);

  const int code =
      peer().Compress(reinterpret_cast<const uint8_t*>(payload.data()), 200, room, &length);

  EXPECT_TRUE(MemoryFaults::HasFailed());
  MemoryFaults::FailMalloc(0);
  EXPECT_EQ(code, -4);
  EXPECT_EQ(length, 200u);
  EXPECT_EQ(Zlib().inits + Zlib().resets + Zlib().deflates + Zlib().ends, 0);
  EXPECT_EQ(peer().stream(), nullptr);
  EXPECT_EQ(Compress(payload, 200).Compressed(), Reference(payload, 200).Compressed());
}

TEST_F(SecondCompressionTest, AFailedSetUpIsMinusOneWhateverItsCodeAndDiscardsTheStream) {
  const std::string payload = Report(200);
  for (int code : {-6, -4, -2, -1, 1}) {
    DeflateFaults::Clear();
    Zlib().fail_next_init = code;

    const Outcome outcome = Compress(payload, 200);

    EXPECT_EQ(outcome.code, -1) << code;
    EXPECT_EQ(outcome.length, 200u);
    EXPECT_EQ(peer().stream(), nullptr);
    EXPECT_EQ(Zlib().ends, 1);
    EXPECT_EQ(Zlib().resets, 0);
    EXPECT_EQ(Zlib().deflates, 0);
  }

  EXPECT_EQ(Compress(payload, 200).code, 0);
  EXPECT_EQ(Zlib().inits, 2);
  EXPECT_TRUE(Zlib().stream_was_zero);
}

TEST_F(SecondCompressionTest, AFailedResetIsMinusOneAndTheNextCallSetsUpAnew) {
  const std::string payload = Report(200);
  for (const bool fresh : {true, false}) {
    if (!fresh) {
      ASSERT_EQ(Compress(payload, 200).code, 0);
    }
    DeflateFaults::Clear();
    Zlib().fail_next_reset = -2;

    const Outcome outcome = Compress(payload, 200);

    EXPECT_EQ(outcome.code, -1);
    EXPECT_EQ(outcome.length, 200u);
    EXPECT_EQ(peer().stream(), nullptr);
    EXPECT_EQ(Zlib().inits, fresh ? 1 : 0);
    EXPECT_EQ(Zlib().ends, 1);
    EXPECT_EQ(Zlib().deflates, 0);
    const int inits = Zlib().inits;
    EXPECT_EQ(Compress(payload, 200).code, 0);
    EXPECT_EQ(Zlib().inits, inits + 1);
    EXPECT_NE(peer().stream(), nullptr);
  }
}

TEST_F(SecondCompressionTest, AnyResultButOkIsHandedOnFromFeedingAndKeepsTheStream) {
  const std::string payload = Report(200);
  Compress(payload, 200);
  const z_stream* const stream = peer().stream();
  for (int code : {-2, -3, -5, 1, 2}) {
    DeflateFaults::Clear();
    Zlib().fail_next_deflate = code;

    const Outcome outcome = Compress(payload, 200);

    EXPECT_EQ(outcome.code, code);
    EXPECT_EQ(outcome.length, 200u);
    EXPECT_EQ(Zlib().deflates, 1);
    EXPECT_FALSE(Zlib().last_flush_was_finish);
    EXPECT_EQ(peer().stream(), stream);
    EXPECT_EQ(Zlib().ends, 0);
    EXPECT_EQ(Compress(payload, 200).Compressed(), Reference(payload, 200).Compressed());
  }
}

TEST_F(SecondCompressionTest, AnyResultButOkAndEndIsHandedOnFromFinishing) {
  for (int code : {-2, -3, -5, 2}) {
    DeflateFaults::Clear();
    Zlib().fail_next_deflate = code;

    // Without input the first deflate is the finish.
    const Outcome outcome = Compress("x", kHighBit, 10, 10);

    EXPECT_EQ(outcome.code, code);
    EXPECT_EQ(outcome.length, 10u);
    EXPECT_TRUE(Zlib().last_flush_was_finish);
    EXPECT_EQ(Zlib().ends, 0);
  }
}

TEST_F(SecondCompressionTest, TheEndOfTheStreamLowersTheLengthByTheRoomLeft) {
  Zlib().fail_next_deflate = Z_STREAM_END;

  const Outcome outcome = Compress("x", kHighBit, 10, 2 * kHighBit + 10);

  EXPECT_EQ(outcome.code, 0);
  EXPECT_EQ(outcome.length, 2 * kHighBit) << "all ten bytes are left";
}

TEST_F(SecondCompressionTest, NoResultWritesALogLine) {
  const std::vector<std::string> before = RecordingLog::Texts();

  Compress(Report(200), 200);
  Compress(Noise(200), 200);
  Compress(Noise(400000), 1000);
  uint64_t length = 0;
  peer().Compress(nullptr, 0, nullptr, &length);
  Zlib().fail_next_reset = -2;
  Compress(Report(200), 200);
  Zlib().fail_next_init = -2;
  Compress(Report(200), 200);
  Zlib().fail_next_deflate = -2;
  Compress(Report(200), 200);

  EXPECT_EQ(RecordingLog::Texts(), before);
}

}  // namespace
}  // namespace quenor::test
