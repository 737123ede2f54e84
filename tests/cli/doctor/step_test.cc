#include "cli/doctor/step.h"

#include <gtest/gtest.h>

#include "quenor_base/platform/base/json_reader.h"

namespace quenor::cli {
namespace {

TEST(DoctorStepTest, TextHasTheStepItsDetailsAndTheAdvice) {
  Step step("tls");
  step.duration_ms = 12.34;
  step.Add("version", "TLSv1.3");
  step.Fail("expired", "it has expired", "renew it");

  EXPECT_EQ(
      "tls            FAILED       12.3 ms  it has expired\n"
      "    version: TLSv1.3\n"
      "    what to do: renew it\n",
      AsText(step));
}

TEST(DoctorStepTest, TextHasNoAdviceForWhatWentWell) {
  EXPECT_EQ("url            ok            0.0 ms  https://host/\n",
            AsText(Step("url", "https://host/")));
}

TEST(DoctorStepTest, TextCannotSteerATerminal) {
  Step step("probe", "a\x1b[2J");
  step.Add("body", "b\nc");

  const std::string text = AsText(step);

  EXPECT_NE(std::string::npos, text.find("a\\x1b[2J")) << text;
  EXPECT_NE(std::string::npos, text.find("b\\x0ac")) << text;
}

TEST(DoctorStepTest, JsonIsOneLineWithEveryField) {
  Step step("connect");
  step.duration_ms = 0.26;
  step.Add("a", "1");
  step.Add("b", "2");
  step.Fail("refused", "cannot", "start it");

  EXPECT_EQ(
      "{\"step\":\"connect\",\"result\":\"failed\",\"ms\":0.3,\"summary\":\"cannot\","
      "\"details\":[{\"name\":\"a\",\"value\":\"1\"},{\"name\":\"b\",\"value\":\"2\"}],"
      "\"cause\":\"refused\",\"advice\":\"start it\",\"reason\":\"refused\"}\n",
      AsJson(step));
}

TEST(DoctorStepTest, JsonOfAnyBytesCanBeRead) {
  std::string all_bytes;
  for (int byte = 0; byte < 256; ++byte) all_bytes += static_cast<char>(byte);
  Step step("probe", all_bytes);
  step.Add(all_bytes, all_bytes);
  step.Warn(all_bytes, all_bytes);

  const auto read = base::JSONReader::Read(AsJson(step), 0, 10);

  ASSERT_TRUE(read.has_value()) << AsJson(step);
  EXPECT_NE(nullptr, read->FindStringKey("cause"));
}

TEST(DoctorStepTest, JsonKeepsWhatIsUtf8) {
  Step step("settings", "/home/m\xc3\xbcller/\"ca\\.pem");

  const auto read = base::JSONReader::Read(AsJson(step), 0, 10);

  ASSERT_TRUE(read.has_value());
  EXPECT_EQ("/home/m\xc3\xbcller/\"ca\\.pem", *read->FindStringKey("summary"));
}

TEST(DoctorStepTest, JsonEscapesWhatIsNotUtf8) {
  const auto read = base::JSONReader::Read(AsJson(Step("settings", "m\xfcller")), 0, 10);

  ASSERT_TRUE(read.has_value());
  EXPECT_EQ("m\\xfcller", *read->FindStringKey("summary"));
}

TEST(DoctorStepTest, EveryResultHasItsWord) {
  Step step("tls");
  EXPECT_NE(std::string::npos, AsJson(step).find("\"result\":\"ok\""));
  step.result = Step::Result::kSkipped;
  EXPECT_NE(std::string::npos, AsJson(step).find("\"result\":\"skipped\""));
  step.result = Step::Result::kWarning;
  EXPECT_NE(std::string::npos, AsJson(step).find("\"result\":\"warning\""));
}

TEST(DoctorStepTest, AWarningNeverHidesAFailureOrAnEarlierWarning) {
  Step failed("tls");
  failed.Fail("expired", "s", "a");
  failed.Warn("expires_soon", "b");
  Step warned("tls");
  warned.Warn("first", "a");
  warned.Warn("second", "b");

  EXPECT_EQ(Step::Result::kFailed, failed.result);
  EXPECT_EQ("expired", failed.cause);
  EXPECT_EQ("a", failed.advice);
  EXPECT_EQ(Step::Result::kWarning, warned.result);
  EXPECT_EQ("first", warned.cause);
}

}  // namespace
}  // namespace quenor::cli
