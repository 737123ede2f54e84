#include "quenor_base/platform/base/json_reader.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/conformance/captured_log.h"

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

}  // namespace
}  // namespace base
QUENOR_NAMESPACE_END
