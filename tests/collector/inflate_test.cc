#include "collector/reports/inflate.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/collector/support/raw_http.h"

namespace quenor::collector {
namespace {

using test::Deflate;
using test::Noise;

constexpr size_t kNoLimit = size_t{1} << 30;

TEST(InflateTest, WholeStreamIsOkAndGivesThePlainBytes) {
  const std::string plain = Noise(300'000, 1) + std::string(300'000, 'a');
  const std::string packed = Deflate(plain);

  const Inflated inflated = InflateRaw(packed, kNoLimit);

  EXPECT_EQ(inflated.verdict, InflateVerdict::kOk);
  EXPECT_EQ(inflated.output, plain);
  EXPECT_EQ(inflated.consumed_bytes, packed.size());
}

TEST(InflateTest, StreamOfNothingIsOkAndEmpty) {
  const Inflated inflated = InflateRaw(Deflate(""), kNoLimit);

  EXPECT_EQ(inflated.verdict, InflateVerdict::kOk);
  EXPECT_EQ(inflated.output, "");
}

TEST(InflateTest, NoBytesAtAllAreTruncated) {
  EXPECT_EQ(InflateRaw("", kNoLimit).verdict, InflateVerdict::kTruncated);
}

TEST(InflateTest, EveryProperPrefixIsTruncatedAndGivesAPrefix) {
  const std::string plain = "report report report report 0123456789 " + Noise(200, 2);
  const std::string packed = Deflate(plain);

  for (size_t size = 0; size < packed.size(); ++size) {
    const Inflated inflated = InflateRaw(packed.substr(0, size), kNoLimit);
    ASSERT_EQ(inflated.verdict, InflateVerdict::kTruncated) << "prefix of " << size;
    ASSERT_EQ(plain.rfind(inflated.output, 0), 0u) << "prefix of " << size;
  }
}

TEST(InflateTest, BytesAfterTheStreamAreTrailing) {
  const std::string packed = Deflate("plain");

  const Inflated inflated = InflateRaw(packed + "x", kNoLimit);

  EXPECT_EQ(inflated.verdict, InflateVerdict::kTrailing);
  EXPECT_EQ(inflated.output, "plain");
  EXPECT_EQ(inflated.consumed_bytes, packed.size());
}

TEST(InflateTest, ReservedBlockTypeIsCorrupt) {
  EXPECT_EQ(InflateRaw("\x07", kNoLimit).verdict, InflateVerdict::kCorrupt);
}

TEST(InflateTest, ZlibHeaderIsCorrupt) {
  // 0x78 0x9C would be a stored block whose length check fails.
  EXPECT_EQ(InflateRaw("\x78\x9C" + Deflate("plain"), kNoLimit).verdict, InflateVerdict::kCorrupt);
}

TEST(InflateTest, CorruptStreamKeepsWhatCameBefore) {
  // A stored block, not the last, of "abc"; then a block of the reserved type.
  const std::string packed(
      "\x00\x03\x00\xFC\xFF"
      "abc"
      "\x07",
      9);

  const Inflated inflated = InflateRaw(packed, kNoLimit);

  EXPECT_EQ(inflated.verdict, InflateVerdict::kCorrupt);
  EXPECT_EQ(inflated.output, "abc");
}

TEST(InflateTest, OutputOfExactlyTheLimitIsOk) {
  const std::string plain(100'000, 'a');

  const Inflated inflated = InflateRaw(Deflate(plain), plain.size());

  EXPECT_EQ(inflated.verdict, InflateVerdict::kOk);
  EXPECT_EQ(inflated.output, plain);
}

TEST(InflateTest, OneByteOverTheLimitIsTooLargeAndKeepsTheLimit) {
  const std::string plain(100'000, 'a');

  const Inflated inflated = InflateRaw(Deflate(plain), plain.size() - 1);

  EXPECT_EQ(inflated.verdict, InflateVerdict::kTooLarge);
  EXPECT_EQ(inflated.output, std::string(plain.size() - 1, 'a'));
}

TEST(InflateTest, LimitOfZeroStillTellsEmptyFromNotEmpty) {
  EXPECT_EQ(InflateRaw(Deflate(""), 0).verdict, InflateVerdict::kOk);
  EXPECT_EQ(InflateRaw(Deflate("a"), 0).verdict, InflateVerdict::kTooLarge);
}

TEST(InflateTest, NamesAreThoseOfTheLog) {
  EXPECT_STREQ(InflateVerdictName(InflateVerdict::kOk), "ok");
  EXPECT_STREQ(InflateVerdictName(InflateVerdict::kTruncated), "truncated");
  EXPECT_STREQ(InflateVerdictName(InflateVerdict::kCorrupt), "corrupt");
  EXPECT_STREQ(InflateVerdictName(InflateVerdict::kTrailing), "trailing");
  EXPECT_STREQ(InflateVerdictName(InflateVerdict::kTooLarge), "too-large");
}

}  // namespace
}  // namespace quenor::collector
