#include "collector/reports/json.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

#include "collector/reports/digest.h"
#include "tests/collector/support/raw_http.h"
#include "tests/collector/support/record.h"

namespace quenor::collector {
namespace {

TEST(JsonTest, QuotesAndBackslashesAreEscaped) { EXPECT_EQ(JsonQuote(R"(a"b\c)"), R"("a\"b\\c")"); }

TEST(JsonTest, ControlCharactersAreEscapedAndStayOnOneLine) {
  EXPECT_EQ(JsonQuote(std::string("\0\n\x1F\x7F", 4)), R"("\u0000\u000a\u001f\u007f")");
}

TEST(JsonTest, ValidUtf8PassesThrough) {
  const std::string text =
      "\xC2\x80\xDF\xBF \xE0\xA0\x80\xEF\xBF\xBF \xED\x9F\xBF \xF0\x90\x80\x80\xF4\x8F\xBF\xBF";

  EXPECT_EQ(JsonQuote(text), "\"" + text + "\"");
}

TEST(JsonTest, InvalidUtf8BecomesReplacementCharacters) {
  const std::string mark = "\xEF\xBF\xBD";

  EXPECT_EQ(JsonQuote("a\xFFz"), "\"a" + mark + "z\"");
  EXPECT_EQ(JsonQuote("\xC3"), "\"" + mark + "\"");             // Cut short.
  EXPECT_EQ(JsonQuote("\xC1\xBF"), "\"" + mark + mark + "\"");  // Over-long.
  EXPECT_EQ(JsonQuote("\xF0\x8F\xBF\xBF"),                      // Over-long.
            "\"" + mark + mark + mark + mark + "\"");
  EXPECT_EQ(JsonQuote("\xE0\x80\xAF"), "\"" + mark + mark + mark + "\"");  // Over-long.
  EXPECT_EQ(JsonQuote("\xED\xA0\x80"), "\"" + mark + mark + mark + "\"");  // Surrogate.
  EXPECT_EQ(JsonQuote("\xF4\x90\x80\x80"),                                 // Beyond U+10FFFF.
            "\"" + mark + mark + mark + mark + "\"");
}

TEST(JsonTest, AnyBytesParseAsOneStringWithoutLineEnd) {
  for (unsigned seed = 1; seed <= 200; ++seed) {
    const std::string line = JsonObject().Add("bytes", test::Noise(64, seed)).Finish();

    ASSERT_EQ(line.find('\n'), std::string::npos) << "seed " << seed;
    ASSERT_TRUE(test::ParseObject(line)["bytes"].IsString()) << "seed " << seed;
  }
}

TEST(JsonTest, ObjectKeepsTheOrderOfItsMembers) {
  EXPECT_EQ(JsonObject().Add("b", "x").AddNumber("a", 7).Finish(), R"({"b":"x","a":7})");
  EXPECT_EQ(JsonObject().Finish(), "{}");
}

TEST(JsonTest, LargestNumberKeepsAllItsDigits) {
  EXPECT_EQ(JsonObject().AddNumber("n", std::numeric_limits<uint64_t>::max()).Finish(),
            R"({"n":18446744073709551615})");
}

TEST(DigestTest, MatchesThePublishedVectors) {
  EXPECT_EQ(Sha256Hex(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(Sha256Hex("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

}  // namespace
}  // namespace quenor::collector
