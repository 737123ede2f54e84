#include "collector/reports/reply.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace quenor::collector {
namespace {

TEST(ReplyTest, DefaultSaysSuccessAndNothingElse) {
  EXPECT_EQ(BuildReply({}), R"({"bytes_errinfo":"success"})");
}

TEST(ReplyTest, ControlFieldsAppearOnlyWhenSet) {
  ReplyOptions options;
  options.max_resend_count = 3;

  EXPECT_EQ(BuildReply(options), R"({"bytes_errinfo":"success","uint32_max_resend_count":3})");
}

TEST(ReplyTest, AllControlFieldsAndAnErrinfoThatNeedsEscaping) {
  ReplyOptions options;
  options.errinfo = "no \"room\"";
  options.send_interval_ms = 0;
  options.max_resend_count = 1;
  options.report_duration_s = 4294967295;

  EXPECT_EQ(BuildReply(options),
            R"({"bytes_errinfo":"no \"room\"","uint32_send_interval":0,)"
            R"("uint32_max_resend_count":1,"uint32_report_duration":4294967295})");
}

TEST(ReplyTest, ARefusalSaysWhy) {
  const std::pair<int, std::string> cases[] = {
      {400, "bad request"},    {405, "bad request"},     {408, "request not complete in time"},
      {413, "body too large"}, {414, "target too long"}, {431, "head too large"}};
  for (const auto& [status, reason] : cases) {
    EXPECT_EQ(BuildRefusal(status), "{\"bytes_errinfo\":\"" + reason + "\"}") << status;
  }
}

TEST(ReplyTest, OnlyTwoHundredIsAccepted) {
  EXPECT_TRUE(IsAccepted(200));
  for (const int status : {0, 199, 201, 204, 206, 301, 404, 500, 503}) {
    EXPECT_FALSE(IsAccepted(status)) << status;
  }
}

}  // namespace
}  // namespace quenor::collector
