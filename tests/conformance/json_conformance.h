// What every JSON reader must do. An embedder runs it on his own by linking that and writing
//   INSTANTIATE_TYPED_TEST_SUITE_P(Mine, JsonConformance, quenor::base::JSONReader);
// in namespace quenor::conformance. The parameter has the static Read() of base::JSONReader.
#ifndef QUENOR_TESTS_CONFORMANCE_JSON_CONFORMANCE_H_
#define QUENOR_TESTS_CONFORMANCE_JSON_CONFORMANCE_H_

#include <gtest/gtest.h>

#include <climits>
#include <iterator>
#include <random>
#include <string>
#include <utility>

#include "quenor_base/platform/base/json_reader.h"
#include "quenor_base/platform/base/values.h"
#include "tests/conformance/captured_log.h"
#include "tests/conformance/json_cases.h"

namespace quenor::conformance {

constexpr int kJsonDepth = 200;

inline std::string Repeat(const std::string& piece, size_t times) {
  std::string text;
  text.reserve(piece.size() * times);
  for (size_t i = 0; i < times; ++i) text += piece;
  return text;
}

inline std::string NestedArrays(size_t levels) { return Repeat("[", levels) + Repeat("]", levels); }

inline std::string NestedObjects(size_t levels) {
  return Repeat("{\"a\":", levels - 1) + "{}" + Repeat("}", levels - 1);
}

template <typename Reader>
class JsonConformance : public testing::Test {
 protected:
  static base::Optional<base::Value> Read(const std::string& text, int max_depth = kJsonDepth) {
    return Reader::Read(text, 0, max_depth);
  }
  // The integer of member "k" in {"k":NUMBER}; the text must be valid.
  static base::Optional<int> ReadNumber(const std::string& number) {
    const base::Optional<base::Value> value = Read("{\"k\":" + number + "}");
    EXPECT_TRUE(value.has_value()) << number;
    return value ? value->FindIntKey("k") : base::nullopt;
  }
};
TYPED_TEST_SUITE_P(JsonConformance);

// By itself, and as the value of a member.
TYPED_TEST_P(JsonConformance, AcceptsEveryValidTextAndNoOther) {
  const auto judge = [this](const JsonCase& c, bool is_valid) {
    const std::string text(c.text);
    EXPECT_EQ(is_valid, this->Read(text).has_value()) << c.name << ": " << text;
    EXPECT_EQ(is_valid, this->Read("{\"k\":" + text + "}").has_value()) << c.name;
  };
  for (const JsonCase& c : kJsonToAccept) judge(c, true);
  for (const JsonCase& c : kJsonToRefuse) judge(c, false);
}

TYPED_TEST_P(JsonConformance, RefusesEveryPrefixOfAnObject) {
  const std::string text =
      R"({"bytes_errinfo":"success","a":[1,-2.5e3,"\ud834\udd1e",{"b":null}],"c":true})";
  ASSERT_TRUE(this->Read(text).has_value());

  for (size_t size = 0; size < text.size(); ++size) {
    EXPECT_FALSE(this->Read(text.substr(0, size)).has_value()) << text.substr(0, size);
  }
}

TYPED_TEST_P(JsonConformance, RefusesEveryByteButWhiteSpaceAfterAValue) {
  for (int byte = 0; byte < 256; ++byte) {
    const std::string text = std::string("{}") + static_cast<char>(byte);
    const bool white = byte == ' ' || byte == '\t' || byte == '\r' || byte == '\n';
    EXPECT_EQ(white, this->Read(text).has_value()) << byte;
  }
}

TYPED_TEST_P(JsonConformance, ParsesExactlyAsManyLevelsAsAllowed) {
  for (const int depth : {1, 2, 199, 200, 201}) {
    const size_t levels = static_cast<size_t>(depth);
    EXPECT_TRUE(this->Read(NestedArrays(levels), depth).has_value()) << depth;
    EXPECT_FALSE(this->Read(NestedArrays(levels + 1), depth).has_value()) << depth;
    EXPECT_TRUE(this->Read(NestedObjects(levels), depth).has_value()) << depth;
    EXPECT_FALSE(this->Read(NestedObjects(levels + 1), depth).has_value()) << depth;
  }
}

TYPED_TEST_P(JsonConformance, CountsAnEmptyContainerAsALevel) {
  const std::string before = Repeat("[", 199);
  const std::string after = Repeat("]", 199);

  EXPECT_TRUE(this->Read(before + "[]" + after).has_value());
  EXPECT_TRUE(this->Read(before + "{}" + after).has_value());
  EXPECT_TRUE(this->Read(before + "[1]" + after).has_value());
  EXPECT_FALSE(this->Read(before + "[[]]" + after).has_value());
  EXPECT_FALSE(this->Read(before + "[{}]" + after).has_value());
  EXPECT_FALSE(this->Read(before + "{\"a\":[]}" + after).has_value());
}

TYPED_TEST_P(JsonConformance, CountsOpenLevelsNotAllContainers) {
  EXPECT_TRUE(this->Read("[" + Repeat("[],{},", 1000) + "[]]", 2).has_value());
  EXPECT_TRUE(this->Read("[" + NestedArrays(199) + "," + NestedArrays(199) + "]").has_value());
}

TYPED_TEST_P(JsonConformance, ReadsOnlyScalarsUnderDepthZeroAndNothingBelow) {
  EXPECT_TRUE(this->Read("1", 0).has_value());
  EXPECT_TRUE(this->Read("\"a\"", 0).has_value());
  EXPECT_FALSE(this->Read("[]", 0).has_value());
  EXPECT_FALSE(this->Read("{}", 0).has_value());
  EXPECT_FALSE(this->Read("1", -1).has_value());
}

TYPED_TEST_P(JsonConformance, RefusesTextsOfOpenBracketsOnly) {
  EXPECT_FALSE(this->Read(Repeat("[", 100000)).has_value());
  EXPECT_FALSE(this->Read(Repeat("{\"\":", 100000)).has_value());
  EXPECT_FALSE(this->Read(Repeat("[{\"\":", 50000)).has_value());
  EXPECT_FALSE(this->Read(Repeat("[", 100000), INT_MAX).has_value());
}

TYPED_TEST_P(JsonConformance, ReadsAndDestroysAnyDepthWithoutRecursion) {
  constexpr size_t kLevels = 500000;  // A call frame each would overflow any usual stack.

  EXPECT_TRUE(this->Read(NestedArrays(kLevels), INT_MAX).has_value());
  EXPECT_TRUE(this->Read(NestedObjects(kLevels), INT_MAX).has_value());
  EXPECT_TRUE(this->Read("{\"k\":" + NestedArrays(kLevels) + "}", INT_MAX).has_value());
}

TYPED_TEST_P(JsonConformance, TellsTheTypeOfTheOutermostValue) {
  using Type = base::Value::Type;
  const std::pair<const char*, Type> kCases[] = {
      {"null", Type::kNull},      {"true", Type::kBoolean},
      {"false", Type::kBoolean},  {"0", Type::kInteger},
      {"-0", Type::kInteger},     {"2147483647", Type::kInteger},
      {"0.0", Type::kDouble},     {"2147483648", Type::kDouble},
      {"1e400", Type::kDouble},   {"\"3\"", Type::kString},
      {"[]", Type::kList},        {"[{}]", Type::kList},
      {"{}", Type::kDictionary},  {"{\"a\":[1]}", Type::kDictionary},
      {"[1,\"a\"]", Type::kList}, {"{\"a\":null}", Type::kDictionary},
  };
  for (const auto& c : kCases) {
    const base::Optional<base::Value> value = this->Read(c.first);
    ASSERT_TRUE(value.has_value()) << c.first;
    EXPECT_EQ(c.second, value->type()) << c.first;
    EXPECT_EQ(c.second == Type::kDictionary, value->is_dict()) << c.first;
  }
}

TYPED_TEST_P(JsonConformance, FindsIntegersOf32Bits) {
  EXPECT_EQ(0, this->ReadNumber("0"));
  EXPECT_EQ(0, this->ReadNumber("-0"));
  EXPECT_EQ(3000, this->ReadNumber("3000"));
  EXPECT_EQ(-3, this->ReadNumber("-3"));
  EXPECT_EQ(INT_MAX, this->ReadNumber("2147483647"));
  EXPECT_EQ(INT_MIN, this->ReadNumber("-2147483648"));
}

TYPED_TEST_P(JsonConformance, FindsNoIntegerInOtherNumbers) {
  for (const char* number : {"3000.0",
                             "1.5",
                             "1e3",
                             "1E3",
                             "3e0",
                             "30e-1",
                             "-0.0",
                             "-0e0",
                             "0.0",
                             "2147483648",
                             "-2147483649",
                             "4294967295",
                             "4294967296",
                             "4294967297",
                             "9223372036854775807",
                             "9223372036854775808",
                             "18446744073709551615",
                             "18446744073709551616",
                             "-9223372036854775809",
                             "100000000000000000000000000000",
                             "1e308",
                             "1e309",
                             "-1e309",
                             "1e99999999999999999999",
                             "1e-99999999999999999999",
                             "0.1e-2147483647",
                             "0.00000000000000000001e-2147483648",
                             "0e2147483648"}) {
    EXPECT_EQ(base::nullopt, this->ReadNumber(number)) << number;
  }
  EXPECT_EQ(base::nullopt, this->ReadNumber(Repeat("9", 5000)));
  EXPECT_EQ(base::nullopt, this->ReadNumber("0." + Repeat("0", 5000) + "1"));
  EXPECT_EQ(base::nullopt, this->ReadNumber("1e" + Repeat("0", 5000) + "1"));
}

TYPED_TEST_P(JsonConformance, KeepsTheMembersAroundANumberTooLarge) {
  const auto value = this->Read(
      R"({"a":1,"s":"1e400","b":1e400,"c":2,"t":"x\"9999999999","d":99999999999,"e":[1e999],"f":3})");

  ASSERT_TRUE(value.has_value());
  EXPECT_EQ(1, value->FindIntKey("a"));
  EXPECT_EQ(2, value->FindIntKey("c"));
  EXPECT_EQ(3, value->FindIntKey("f"));
  EXPECT_EQ(base::nullopt, value->FindIntKey("b"));
  EXPECT_EQ(base::nullopt, value->FindIntKey("d"));
  ASSERT_NE(nullptr, value->FindStringKey("s"));
  EXPECT_EQ("1e400", *value->FindStringKey("s"));
  ASSERT_NE(nullptr, value->FindStringKey("t"));
  EXPECT_EQ("x\"9999999999", *value->FindStringKey("t"));
}

TYPED_TEST_P(JsonConformance, FindsEachMemberByItsOwnTypeOnly) {
  const auto value = this->Read(
      R"({"string":"3000","int":3000,"true":true,"null":null,"list":[7],"dict":{"inner":9}})");

  ASSERT_TRUE(value.has_value());
  ASSERT_NE(nullptr, value->FindStringKey("string"));
  EXPECT_EQ("3000", *value->FindStringKey("string"));
  EXPECT_EQ(base::nullopt, value->FindIntKey("string"));
  EXPECT_EQ(3000, value->FindIntKey("int"));
  EXPECT_EQ(nullptr, value->FindStringKey("int"));
  for (const char* key : {"true", "null", "list", "dict", "inner", "missing", ""}) {
    EXPECT_EQ(nullptr, value->FindStringKey(key)) << key;
    EXPECT_EQ(base::nullopt, value->FindIntKey(key)) << key;
  }
}

TYPED_TEST_P(JsonConformance, FindsNothingInAValueThatIsNoDictionary) {
  for (const char* text : {"[{\"k\":1}]", "[\"k\",\"v\"]", "\"k\"", "1", "null", "true"}) {
    const auto value = this->Read(text);
    ASSERT_TRUE(value.has_value()) << text;
    EXPECT_EQ(nullptr, value->FindStringKey("k")) << text;
    EXPECT_EQ(base::nullopt, value->FindIntKey("k")) << text;
  }
}

TYPED_TEST_P(JsonConformance, LetsTheLastOfEqualKeysWinWhateverItsType) {
  const auto find_int = [this](const char* text) { return this->Read(text)->FindIntKey("k"); };
  const auto has_string = [this](const char* text) {
    return this->Read(text)->FindStringKey("k") != nullptr;
  };

  EXPECT_EQ(2, find_int(R"({"k":1,"k":2})"));
  EXPECT_EQ(2, find_int(R"({"k":"a","x":0,"k":2})"));
  EXPECT_EQ(base::nullopt, find_int(R"({"k":1,"k":"2"})"));
  EXPECT_EQ(base::nullopt, find_int(R"({"k":1,"k":null})"));
  EXPECT_EQ(base::nullopt, find_int(R"({"k":1,"k":[1]})"));
  EXPECT_EQ(base::nullopt, find_int(R"({"k":1,"k":{"k":1}})"));
  EXPECT_EQ(base::nullopt, find_int(R"({"k":1,"k":1.5})"));
  EXPECT_EQ(base::nullopt, find_int(R"({"k":1,"k":1e400})"));
  EXPECT_EQ(1, find_int(R"({"k":{"k":5},"\u006b":1})"));
  EXPECT_FALSE(has_string(R"({"k":"a","k":1})"));
  EXPECT_FALSE(has_string(R"({"k":"a","k":false})"));
  EXPECT_FALSE(has_string(R"({"k":"a","k":{}})"));
  EXPECT_EQ("b", *this->Read(R"({"k":"a","k":[],"k":"b"})")->FindStringKey("k"));
}

TYPED_TEST_P(JsonConformance, FindsEmptyKeysAndKeysWithNulBytes) {
  const std::string key("a\0b", 3);
  const auto value = this->Read(R"({"":1,"a\u0000b":"x\u0000y","a":2})");

  ASSERT_TRUE(value.has_value());
  EXPECT_EQ(1, value->FindIntKey(""));
  EXPECT_EQ(2, value->FindIntKey("a"));
  ASSERT_NE(nullptr, value->FindStringKey(key));
  EXPECT_EQ(std::string("x\0y", 3), *value->FindStringKey(key));
}

TYPED_TEST_P(JsonConformance, DecodesStringsToUtf8) {
  const auto decode = [this](const std::string& inside) {
    return *this->Read("{\"k\":\"" + inside + "\"}")->FindStringKey("k");
  };

  EXPECT_EQ("", decode(""));
  EXPECT_EQ("\"\\/\b\f\n\r\t", decode(R"(\"\\\/\b\f\n\r\t)"));
  EXPECT_EQ("A\xC2\xA2\xE2\x82\xAC\xF0\x9D\x84\x9E", decode(R"(\u0041\u00a2\u20AC\uD834\udd1e)"));
  EXPECT_EQ("\xE2\x82\xAC\x7F", decode("\xE2\x82\xAC\x7F"));
  EXPECT_EQ("\xED\x9F\xBF\xEE\x80\x80", decode(R"(\uD7FF\uE000)"));
  EXPECT_EQ(Repeat("x", 100000), decode(Repeat("x", 100000)));
}

TYPED_TEST_P(JsonConformance, MovesAValueWithItsMembers) {
  auto first = this->Read(R"({"i":5,"s":"a string that is too long to be kept in place"})");
  auto second = this->Read("[]");
  ASSERT_TRUE(first.has_value() && second.has_value());

  base::Value moved = std::move(*first);
  *second = std::move(moved);

  EXPECT_TRUE(second->is_dict());
  EXPECT_EQ(5, second->FindIntKey("i"));
  ASSERT_NE(nullptr, second->FindStringKey("s"));
  EXPECT_EQ("a string that is too long to be kept in place", *second->FindStringKey("s"));
}

TYPED_TEST_P(JsonConformance, ReadsNothingUnderUnknownOptionsAndLogsIt) {
  CapturedLog log;

  for (const int options : {1, 2, 1 << 30, -1}) {
    EXPECT_FALSE(TypeParam::Read("{}", options, kJsonDepth).has_value()) << options;
  }

  ASSERT_EQ(4u, log.lines().size());
  EXPECT_EQ(2, log.lines()[0].level);
}

TYPED_TEST_P(JsonConformance, LogsNothingAboutATextThatIsInvalid) {
  CapturedLog log;

  EXPECT_FALSE(this->Read("{").has_value());
  EXPECT_FALSE(this->Read(NestedArrays(201)).has_value());

  EXPECT_TRUE(log.lines().empty());
}

TYPED_TEST_P(JsonConformance, SurvivesDamagedTexts) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  this->RecordProperty("seed", std::to_string(seed));
  std::mt19937 random(seed);
  const std::string pieces[] = {"{",   "}",    "[",      "]",   ",",    ":",     "\"",     "\\",
                                "\\u", "d800", "\\udc0", "1e9", "e+99", "0.000", "999999", "-",
                                "tru", "null", " ",      "\n",  "\xED", "\xA0",  "\xF0",   "k"};

  for (int round = 0; round < 20000; ++round) {
    std::string text = R"({"k":"s","l":[1,2.5,{"m":null}]})";
    const int changes = 1 + static_cast<int>(random() % 6);
    for (int i = 0; i < changes; ++i) {
      const size_t at = random() % (text.size() + 1);
      const std::string& piece = pieces[random() % std::size(pieces)];
      text.replace(at, random() % 3, random() % 8 == 0 ? std::string(1, '\0') : piece);
    }
    const auto value = this->Read(text);
    if (!value) continue;
    EXPECT_EQ(std::string::npos, text.find('\0')) << text;
    if (const std::string* found = value->FindStringKey("k")) {
      EXPECT_LE(found->size(), text.size());
    }
  }
}

REGISTER_TYPED_TEST_SUITE_P(
    JsonConformance, AcceptsEveryValidTextAndNoOther, RefusesEveryPrefixOfAnObject,
    RefusesEveryByteButWhiteSpaceAfterAValue, ParsesExactlyAsManyLevelsAsAllowed,
    CountsAnEmptyContainerAsALevel, CountsOpenLevelsNotAllContainers,
    ReadsOnlyScalarsUnderDepthZeroAndNothingBelow, RefusesTextsOfOpenBracketsOnly,
    ReadsAndDestroysAnyDepthWithoutRecursion, TellsTheTypeOfTheOutermostValue,
    FindsIntegersOf32Bits, FindsNoIntegerInOtherNumbers, KeepsTheMembersAroundANumberTooLarge,
    FindsEachMemberByItsOwnTypeOnly, FindsNothingInAValueThatIsNoDictionary,
    LetsTheLastOfEqualKeysWinWhateverItsType, FindsEmptyKeysAndKeysWithNulBytes,
    DecodesStringsToUtf8, MovesAValueWithItsMembers, ReadsNothingUnderUnknownOptionsAndLogsIt,
    LogsNothingAboutATextThatIsInvalid, SurvivesDamagedTexts);

}  // namespace quenor::conformance

#endif  // QUENOR_TESTS_CONFORMANCE_JSON_CONFORMANCE_H_
