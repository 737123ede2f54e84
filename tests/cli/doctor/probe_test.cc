#include "cli/doctor/probe.h"

#include <gtest/gtest.h>

#include <string>

namespace quenor::cli {
namespace {

Step Judged(int status, const std::string& body, bool is_tls = true) {
  Step step("probe");
  JudgeAnswer(status, {{"location", "https://elsewhere/"}}, body, is_tls, &step);
  return step;
}

bool Mentions(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

TEST(DoctorProbeTest, NamesEachControlFieldThatTheChannelObeys) {
  const std::string text = AsText(Judged(
      200, R"({"bytes_errinfo":"success","uint32_send_interval":500,"uint32_max_resend_count":7,)"
           R"("uint32_report_duration":60})"));

  EXPECT_TRUE(Mentions(text,
                       "    reply: a JSON object that the channel obeys\n"
                       "    uint32_send_interval: 500 (obeyed: milliseconds between messages)\n"
                       "    uint32_max_resend_count: 7 (obeyed: sends of a message before it is "
                       "dropped)\n"
                       "    uint32_report_duration: 60 (obeyed: seconds between lines of "
                       "statistics)\n"))
      << text;
  EXPECT_TRUE(Mentions(text, "answered 200")) << text;
}

TEST(DoctorProbeTest, NamesNoFieldThatTheChannelIgnores) {
  for (const char* const body : {R"({"bytes_errinfo":"success","uint32_send_interval":0})",
                                 R"({"bytes_errinfo":"success","uint32_send_interval":-1})",
                                 R"({"bytes_errinfo":"success","uint32_send_interval":"500"})",
                                 R"({"bytes_errinfo":"success","uint32_send_interval":4294967296})",
                                 R"({"bytes_errinfo":"full","uint32_send_interval":500})",
                                 R"({"uint32_send_interval":500})"}) {
    const Step step = Judged(200, body);

    EXPECT_EQ(Step::Result::kOk, step.result) << body;
    EXPECT_FALSE(Mentions(AsText(step), "obeyed:")) << body;
  }
}

TEST(DoctorProbeTest, AReplyThatIsNoJsonObjectIsDeliveredAllTheSame) {
  for (const char* const body : {"", "ok", "[1]", "{\"a\":1", "<html>"}) {
    const Step step = Judged(200, body);

    EXPECT_EQ(Step::Result::kOk, step.result) << body;
    EXPECT_TRUE(Mentions(AsText(step), "not a JSON object")) << body;
  }
}

TEST(DoctorProbeTest, EveryOtherStatusFailsWithItsOwnAdvice) {
  const struct {
    int status;
    bool is_tls;
    const char* advice;
  } cases[] = {
      {201, true, "only the status 200"},
      {204, true, "only the status 200"},
      {301, true, "redirects"},
      {400, true, "client certificate"},
      {400, false, "begins with https"},
      {401, true, "proof of identity"},
      {403, true, "proof of identity"},
      {404, true, "path of --url"},
      {405, true, "path of --url"},
      {413, true, "larger bodies"},
      {418, true, "only the status 200"},
      {429, true, "--interval"},
      {500, true, "fails"},
      {503, true, "fails"},
  };
  for (const auto& test : cases) {
    const Step step = Judged(test.status, R"({"bytes_errinfo":"success"})", test.is_tls);

    EXPECT_EQ(Step::Result::kFailed, step.result) << test.status;
    EXPECT_EQ("http_status", step.cause);
    EXPECT_TRUE(Mentions(step.advice, test.advice)) << test.status << " " << step.advice;
    EXPECT_TRUE(Mentions(step.summary, std::to_string(test.status)));
  }
}

TEST(DoctorProbeTest, ShowsWhereARedirectLeadsAndTheBeginningOfTheBody) {
  const std::string text = AsText(Judged(302, std::string(1000, 'b')));

  EXPECT_TRUE(Mentions(text, "location: https://elsewhere/")) << text;
  EXPECT_TRUE(Mentions(text, "body: " + std::string(200, 'b') + "\n")) << text;
  EXPECT_TRUE(Mentions(text, "response: 1000 bytes")) << text;
}

}  // namespace
}  // namespace quenor::cli
