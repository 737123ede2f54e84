#include "collector/reply.h"

#include <gtest/gtest.h>

#include <vector>

namespace quenor::collector {
namespace {

std::vector<Action> FirstActions(const MisbehaviourOptions& options, uint64_t count) {
  std::vector<Action> actions;
  for (uint64_t seq = 1; seq <= count; ++seq) actions.push_back(ActionFor(options, seq));
  return actions;
}

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

TEST(ScheduleTest, WithoutMisbehaviourEveryRequestIsAnswered) {
  EXPECT_EQ(FirstActions({}, 4), std::vector<Action>(4, Action::kAnswer));
}

TEST(ScheduleTest, EveryThirdStrikesThreeAndSixOnly) {
  MisbehaviourOptions options;
  options.fail_every = 3;

  EXPECT_EQ(FirstActions(options, 7),
            (std::vector<Action>{Action::kAnswer, Action::kAnswer, Action::kFail, Action::kAnswer,
                                 Action::kAnswer, Action::kFail, Action::kAnswer}));
}

TEST(ScheduleTest, EveryFirstStrikesAll) {
  MisbehaviourOptions options;
  options.close_every = 1;

  EXPECT_EQ(FirstActions(options, 3), std::vector<Action>(3, Action::kClose));
}

TEST(ScheduleTest, WhereSeveralStrikeTheGravestDecides) {
  MisbehaviourOptions options;
  options.garbage_every = 1;
  options.fail_every = 2;
  options.close_every = 4;
  options.never_answer_every = 8;

  EXPECT_EQ(FirstActions(options, 8),
            (std::vector<Action>{Action::kGarbage, Action::kFail, Action::kGarbage, Action::kClose,
                                 Action::kGarbage, Action::kFail, Action::kGarbage,
                                 Action::kNeverAnswer}));
}

TEST(ScheduleTest, StatusesAreThoseOfTheActions) {
  MisbehaviourOptions options;
  options.fail_status = 429;
  options.status = 201;

  EXPECT_EQ(StatusFor(options, Action::kAnswer), 201);
  EXPECT_EQ(StatusFor(options, Action::kFail), 429);
  EXPECT_EQ(StatusFor(options, Action::kGarbage), 200);
  EXPECT_EQ(StatusFor(options, Action::kClose), 0);
  EXPECT_EQ(StatusFor(options, Action::kNeverAnswer), 0);
}

TEST(ScheduleTest, OnlyTwoHundredIsAccepted) {
  EXPECT_TRUE(IsAccepted(200));
  for (const int status : {0, 199, 201, 204, 206, 301, 404, 500, 503}) {
    EXPECT_FALSE(IsAccepted(status)) << status;
  }
}

}  // namespace
}  // namespace quenor::collector
