// The channel's compression against a decoder and a compressor that are not its own: what it calls
// a success must inflate to the message, and what it refuses must be too long by any reckoning. The
// seed is printed; QUENOR_TEST_SEED repeats a run, QUENOR_TEST_PAYLOADS sets its length.
#include <gtest/gtest.h>
#include <libdeflate.h>
#include <zlib.h>

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "collector/reports/inflate.h"
#include "tests/support/channel_test_fixture.h"

namespace quenor::test {
namespace {

uint64_t FromEnvironment(const char* name, uint64_t otherwise) {
  const char* const text = std::getenv(name);
  return text == nullptr ? otherwise : std::strtoull(text, nullptr, 10);
}

// Bytes that deflate cannot shorten, beginning with `start`.
void FillWithNoise(std::mt19937_64* random, size_t start, std::string* bytes) {
  for (size_t i = start; i < bytes->size(); i += sizeof(uint64_t)) {
    const uint64_t noise = (*random)();
    std::memcpy(bytes->data() + i, &noise, std::min(sizeof(noise), bytes->size() - i));
  }
}

// Noise with so many repetitions of three bytes that deflate's blocks drift against its window, and
// so few that they save nothing: of this many bytes the output is full while input remains.
std::string BodyThatIsCut(size_t size_bytes) {
  std::mt19937_64 random(1);
  std::string body(size_bytes, '\0');
  FillWithNoise(&random, 0, &body);
  for (size_t i = 8192; i + 3 < body.size(); i += 400) {
    std::memcpy(body.data() + i, body.data() + i - 4000, 3);
  }
  return body;
}
constexpr size_t kCutSizeBytes = 5701696;

// Makes up messages of every kind.
class Payloads {
 public:
  explicit Payloads(uint64_t seed) : random_(seed) {}

  std::string Next() {
    switch (Below(9)) {
      case 0:
        return std::string(Below(3), static_cast<char>(Below(256)));
      case 1:
        return Repetitive(Size());
      case 2:
        return FewSymbols(Size());
      case 3:
      case 4:
        return Noise(OneIn(3) ? Size() : Below(300));
      case 5:
        return HalfNoise(Size());
      default:
        return LogLines(OneIn(3) ? Size() : 1 + Below(300));
    }
  }
  std::string Noise(size_t size) {
    std::string bytes(size, '\0');
    FillWithNoise(&random_, 0, &bytes);
    return bytes;
  }
  std::string Repetitive(size_t size) {
    const std::string unit = Noise(1 + Below(40));
    std::string bytes;
    while (bytes.size() < size) bytes += unit;
    return bytes.substr(0, size);
  }
  std::string LogLines(size_t size) {
    static const char* const words[] = {
        "INFO", "WARN",        "connection", "closed", "user=",      "took", "ms", "retry",
        "GET",  "/index.html", "status",     "cache",  "\"event\":", "0x",   "\n"};
    std::string bytes;
    while (bytes.size() < size) {
      bytes += words[Below(15)];
      bytes += OneIn(3) ? " " + std::to_string(random_() >> Below(64)) : " ";
    }
    return bytes.substr(0, size);
  }

 private:
  uint64_t Below(uint64_t bound) { return random_() % bound; }
  bool OneIn(uint64_t n) { return Below(n) == 0; }
  // Most are small, a few have 64 KiB.
  size_t Size() { return OneIn(40) ? Below(65537) : Below(uint64_t{4} << Below(11)); }
  std::string FewSymbols(size_t size) {
    const uint64_t symbols = 2 + Below(30);
    std::string bytes(size, '\0');
    for (char& byte : bytes) byte = static_cast<char>('a' + Below(symbols));
    return bytes;
  }
  std::string HalfNoise(size_t size) {
    std::string bytes = LogLines(size);
    FillWithNoise(&random_, Below(size + 1), &bytes);
    return bytes;
  }

  std::mt19937_64 random_;
};

class CompressionTest : public ::testing::Test {
 protected:
  struct Verdicts {
    uint64_t whole = 0;
    uint64_t cut = 0;
    uint64_t empty = 0;
    uint64_t too_long = 0;
    uint64_t just_too_long = 0;  // Of those: as long as the message to the byte.
    uint64_t bytes_in = 0;
    uint64_t bytes_out = 0;
  };

  CompressionTest()
      : channel_(
            std::make_shared<ReliableReportChannelHttps>("compression", kUrl, 0u, false, true)),
        decoder_(libdeflate_alloc_decompressor(), &libdeflate_free_decompressor) {
    EXPECT_EQ(deflateInit2(&bare_, 9, Z_DEFLATED, -15, 9, Z_DEFAULT_STRATEGY), Z_OK);
  }
  ~CompressionTest() override { deflateEnd(&bare_); }

  // As admission compresses: into exactly as much room as the message takes.
  int Compress(const std::string& payload, std::string* output) {
    // Of its own length, so that a sanitizer sees a byte too many.
    const std::unique_ptr<uint8_t[]> room(new uint8_t[payload.size()]);
    uint64_t length = payload.size();
    const uint8_t* data = reinterpret_cast<const uint8_t*>(payload.data());
    const int result =
        ReliableReportChannelHttpsTestPeer(channel_.get())
            .Compress(payload.empty() ? nullptr : data, payload.size(), room.get(), &length);
    EXPECT_LE(length, payload.size());
    output->assign(reinterpret_cast<const char*>(room.get()), result == 0 ? length : 0);
    return result;
  }

  // What zlib alone needs with the same settings, in one call and with room to spare.
  size_t BareSize(const std::string& payload) {
    bare_room_.resize(deflateBound(&bare_, static_cast<uLong>(payload.size())));
    EXPECT_EQ(deflateReset(&bare_), Z_OK);
    bare_.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(payload.data()));
    bare_.avail_in = static_cast<uInt>(payload.size());
    bare_.next_out = bare_room_.data();
    bare_.avail_out = static_cast<uInt>(bare_room_.size());
    EXPECT_EQ(deflate(&bare_, Z_FINISH), Z_STREAM_END);
    return bare_.total_out;
  }

  bool InflatesTo(const std::string& compressed, const std::string& payload) {
    inflated_.resize(payload.size());
    size_t used = 0;
    size_t length = 0;
    return libdeflate_deflate_decompress_ex(decoder_.get(), compressed.data(), compressed.size(),
                                            inflated_.data(), inflated_.size(), &used,
                                            &length) == LIBDEFLATE_SUCCESS &&
           used == compressed.size() && length == payload.size() && inflated_ == payload;
  }

  // A valid stream that only lacks its end, and a beginning of the message. By two decoders.
  static bool IsCut(const std::string& stored, const std::string& payload) {
    const collector::Inflated own = collector::InflateRaw(stored, payload.size() + 1);
    if (own.verdict != collector::InflateVerdict::kTruncated) return false;
    std::string output(payload.size() + 1, '\0');
    z_stream stream{};
    if (inflateInit2(&stream, -15) != Z_OK) return false;
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(stored.data()));
    stream.avail_in = static_cast<uInt>(stored.size());
    stream.next_out = reinterpret_cast<Bytef*>(output.data());
    stream.avail_out = static_cast<uInt>(output.size());
    const int result = inflate(&stream, Z_SYNC_FLUSH);
    output.resize(stream.total_out);
    const bool unfinished = result == Z_OK && stream.avail_in == 0;
    inflateEnd(&stream);
    return unfinished && output == own.output && output.size() < payload.size() &&
           payload.compare(0, output.size(), output) == 0;
  }

  // Judges one payload; what it saw is counted.
  void Judge(const std::string& payload) {
    std::string output;
    const int result = Compress(payload, &output);
    if (payload.empty()) {
      ++verdicts_.empty;
      EXPECT_EQ(result, -5);
      return;
    }
    const size_t bare = BareSize(payload);
    ASSERT_TRUE(result == 0 || result == -5) << result;
    if (result == -5) {
      ++verdicts_.too_long;
      // zlib reports the end of a stream only with room to spare, so an exact fit is none.
      verdicts_.just_too_long += bare == payload.size() ? 1 : 0;
      ASSERT_GE(bare, payload.size());
    } else if (bare < payload.size()) {
      ++verdicts_.whole;
      verdicts_.bytes_in += payload.size();
      verdicts_.bytes_out += output.size();
      ASSERT_EQ(output.size(), bare);
      ASSERT_TRUE(InflatesTo(output, payload));
    } else {
      ++verdicts_.cut;
      ASSERT_EQ(output.size(), payload.size());
      ASSERT_FALSE(InflatesTo(output, payload));
      ASSERT_TRUE(IsCut(output, payload));
    }
  }

  void PrintVerdicts() const {
    std::cout << verdicts_.whole << " whole (" << verdicts_.bytes_in << " bytes to "
              << verdicts_.bytes_out << "), " << verdicts_.cut << " cut, " << verdicts_.too_long
              << " too long (" << verdicts_.just_too_long << " of them by nothing), "
              << verdicts_.empty << " empty" << std::endl;
  }

  Verdicts verdicts_;

 private:
  std::shared_ptr<ReliableReportChannelHttps> channel_;
  std::unique_ptr<libdeflate_decompressor, void (*)(libdeflate_decompressor*)> decoder_;
  z_stream bare_{};
  std::vector<uint8_t> bare_room_;
  std::string inflated_;
};

TEST_F(CompressionTest, RandomPayloadsInflateToThemselvesOrAreTooLong) {
  const uint64_t count = FromEnvironment("QUENOR_TEST_PAYLOADS", 10000);
  const uint64_t seed = FromEnvironment("QUENOR_TEST_SEED", std::random_device()());
  std::cout << "QUENOR_TEST_SEED=" << seed << " QUENOR_TEST_PAYLOADS=" << count << std::endl;
  Payloads payloads(seed);

  for (uint64_t i = 0; i < count && !HasFailure(); ++i) {
    SCOPED_TRACE(i);
    Judge(payloads.Next());
  }

  PrintVerdicts();
  EXPECT_TRUE(count < 1000 || (verdicts_.whole > 0 && verdicts_.too_long > 0));
}

TEST_F(CompressionTest, EveryLengthOfNoiseAndOfTextUpToAThousandIsJudgedRight) {
  Payloads payloads(7);
  const std::string noise = payloads.Noise(1000);
  const std::string text = payloads.LogLines(1000);

  for (size_t size = 0; size <= 1000 && !HasFailure(); ++size) {
    SCOPED_TRACE(size);
    Judge(noise.substr(0, size));
    Judge(text.substr(0, size));
    Judge(std::string(size, 'x'));
  }

  PrintVerdicts();
}

TEST_F(CompressionTest, SizesAroundTheWindowAndABlockAreJudgedRight) {
  Payloads payloads(8);
  const std::string noise = payloads.Noise(131100);
  const std::string text = payloads.LogLines(131100);

  for (const size_t middle : {32767u, 32768u, 65274u, 65536u, 98304u, 131072u}) {
    for (size_t size = middle - 2; size <= middle + 6 && !HasFailure(); ++size) {
      SCOPED_TRACE(size);
      Judge(noise.substr(0, size));
      Judge(text.substr(0, size));
    }
  }

  PrintVerdicts();
}

TEST_F(CompressionTest, StreamAsLongAsTheMessageIsTooLong) {
  std::string output;

  EXPECT_EQ(BareSize("abcabca"), 7u);
  EXPECT_EQ(Compress("abcabca", &output), -5);
  EXPECT_EQ(BareSize("abababa"), 6u);
  EXPECT_EQ(Compress("abababa", &output), 0);
}

TEST_F(CompressionTest, AMebibyteOfEachKindIsJudgedRight) {
  Payloads payloads(9);

  Judge(payloads.Noise(1 << 20));
  Judge(payloads.Repetitive(1 << 20));
  Judge(payloads.LogLines(1 << 20));

  EXPECT_EQ(verdicts_.whole, 2u);
  EXPECT_EQ(verdicts_.too_long, 1u);
}

TEST_F(CompressionTest, OutputThatIsFullTooEarlyIsABeginningOfTheMessage) {
  Judge(BodyThatIsCut(kCutSizeBytes));

  EXPECT_EQ(verdicts_.cut, 1u);
}

}  // namespace
}  // namespace quenor::test
