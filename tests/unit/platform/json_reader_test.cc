#include "quenor_base/platform/base/json_reader.h"

#include <gtest/gtest.h>

#include <iterator>
#include <string>

#include "tests/conformance/json_conformance.h"

namespace quenor::conformance {

INSTANTIATE_TYPED_TEST_SUITE_P(Default, JsonConformance, base::JSONReader);

// A table that shrank by accident would pass.
static_assert(std::size(kJsonToAccept) >= 95);
static_assert(std::size(kJsonToRefuse) >= 188);

}  // namespace quenor::conformance

QUENOR_NAMESPACE_BEGIN
namespace base {
namespace {

TEST(JsonReaderTest, SaysWhichOptionsAreUnknown) {
  const conformance::CapturedLog log;

  EXPECT_FALSE(JSONReader::Read("{}", 5, 200).has_value());

  ASSERT_EQ(1u, log.lines().size());
  EXPECT_EQ("json: a text of 2 bytes is not read: options 5 are unknown; pass 0",
            log.lines()[0].text);
}

TEST(JsonReaderTest, ReadsATextOfManyHugeNumbers) {
  std::string text = "{\"k\":7,\"l\":[0";
  for (int i = 0; i < 50000; ++i) text += ",1e999,-12345678901234567890";
  text += "]}";

  const Optional<Value> value = JSONReader::Read(text, 0, 200);

  ASSERT_TRUE(value.has_value());
  EXPECT_EQ(7, value->FindIntKey("k"));
}

TEST(JsonReaderTest, ReadsAReplyOfTheCollectionServer) {
  const Optional<Value> value = JSONReader::Read(
      R"({"bytes_errinfo":"success","uint32_send_interval":3000,"uint32_max_resend_count":-3,)"
      R"("uint32_report_duration":4294967296})",
      0, 200);

  ASSERT_TRUE(value.has_value());
  EXPECT_EQ("success", *value->FindStringKey("bytes_errinfo"));
  EXPECT_EQ(3000, value->FindIntKey("uint32_send_interval"));
  EXPECT_EQ(-3, value->FindIntKey("uint32_max_resend_count"));
  EXPECT_EQ(nullopt, value->FindIntKey("uint32_report_duration"));
}

TEST(JsonReaderTest, NamesItsImplementation) {
  EXPECT_EQ(0u, std::string(JSONReader::ImplementationName()).find("RapidJSON "));
}

}  // namespace
}  // namespace base
QUENOR_NAMESPACE_END
