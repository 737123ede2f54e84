// The server's reply and the settings that it may change. Written without sight of the
// implementation, from the promises alone.
#include "tests/support/recording_report_events.h"
#include "tests/unit/second/channel/promise_fixture.h"

namespace quenor::test {
namespace {

class PromisedControlTest : public PromiseTest {
 protected:
  static std::string Success(const std::string& members) {
    return R"({"bytes_errinfo":"success",)" + members + "}";
  }
  // Interval, current interval, limit, report interval.
  Numbers Settings() {
    Peer inside = Inside();
    return {inside.resend_interval(), inside.current_interval(), inside.max_resend(),
            inside.report_interval()};
  }
  void Begin() {
    Start();
    RecordingLog::Clear();
  }
  static std::string NotSuccess(const std::string& body) {
    return "response_errinfo is not success, response_msg:" + body;
  }
  int64_t DelayMs() { return Inside().send_timer().GetCurrentDelay().InMilliseconds(); }

  const Numbers untouched_ = {0, 0, 5, 10000};
  const std::string all_three_ =
      R"("uint32_send_interval":3000,"uint32_max_resend_count":7,"uint32_report_duration":30)";
  const Numbers three_applied_ = {3000, 3000, 7, 30000};
  // Values that are present and yet never applied.
  const Strings never_applied_ = {
      "0",          "-0",           "-1",         "-3",          "-2147483648",
      "2147483648", "4294967295",   "4294967296", "-4294967295", "99999999999999999999",
      "1.5",        "\"3000\"",     "true",       "false",       "null",
      "[3000]",     "{\"a\":3000}", "\"\"",       "-1.5"};
};

TEST_F(PromisedControlTest, EmptyBodyIsLoggedAtLevelTwo) {
  Begin();

  Reply("");

  const auto lines = RecordingLog::Lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].level, 2);
  EXPECT_EQ(lines[0].text, "body is empty");
  EXPECT_EQ(lines[0].file, kChannelSource);
  EXPECT_EQ(Settings(), untouched_);
}

TEST_F(PromisedControlTest, NullBodyAndNoBytesAreBothEmpty) {
  Begin();
  OnQueue([this] {
    Inside().HandleResponse(nullptr, 0, nullptr);
    Inside().HandleResponse(nullptr, 5, nullptr);
    Inside().HandleResponse("{\"a\":1}", 0, nullptr);
  });
  EXPECT_EQ(Warnings(), (Strings{"body is empty", "body is empty", "body is empty"}));
}

TEST_F(PromisedControlTest, ResponseWithoutBodyStorageIsEmpty) {
  Begin();
  Send("x", false, true);
  auto response = std::make_unique<HttpClient::Response>();
  response->status_code = 200;
  ASSERT_TRUE(http_.AnswerWith(0, State::kCompleted, std::move(response)));
  time_.RunUntilIdle();
  EXPECT_EQ(Warnings(), Strings{"body is empty"});
  EXPECT_EQ(Counters()[2], 1u);
}

TEST_F(PromisedControlTest, EmptyBodyLineIsNotThrottled) {
  Begin();
  for (int i = 0; i < 3; ++i) Reply("");
  EXPECT_EQ(Warnings().size(), 3u);
}

TEST_F(PromisedControlTest, WhatIsNoJsonIsIgnoredInSilence) {
  Begin();
  const std::string good = Success(all_three_);
  const Strings bodies = {
      "x",
      " ",
      "{",
      "{]",
      "success",
      good + "x",
      good + good,
      good + ",",
      "\xef\xbb\xbf" + good,
      good.substr(0, good.size() - 1),
      good.substr(1),
      good + std::string(1, '\0'),
      std::string(1, '\0') + good,
      "{'bytes_errinfo':'success','uint32_send_interval':3000}",
      "{bytes_errinfo:\"success\",\"uint32_send_interval\":3000}",
      R"({"bytes_errinfo":"success","uint32_send_interval":3000,})",
      "/* a */" + good,
      "// a\n" + good,
      good + "// a",
      R"({"bytes_errinfo":"success","uint32_send_interval":03000})",
      R"({"bytes_errinfo":"success","uint32_send_interval":+3000})",
      R"({"bytes_errinfo":"success","uint32_send_interval":0x10})",
      R"({"bytes_errinfo":"success","uint32_send_interval":NaN,"uint32_max_resend_count":7})",
      "{\"bytes_errinfo\":\"suc\ncess\",\"uint32_send_interval\":3000}",
      "{\"bytes_errinfo\":\"success\",\"a\":\"\xff\",\"uint32_send_interval\":3000}",
  };
  for (const std::string& body : bodies) {
    Reply(body);
    EXPECT_EQ(Settings(), untouched_) << body;
    EXPECT_TRUE(RecordingLog::Lines().empty()) << body;
    RecordingLog::Clear();
  }
}

TEST_F(PromisedControlTest, WhatIsNoObjectIsIgnoredInSilence) {
  Begin();
  for (const std::string& body :
       {std::string("[]"), "[" + Success(all_three_) + "]", std::string("\"success\""),
        std::string("1"), std::string("-1.5"), std::string("true"), std::string("null")}) {
    Reply(body);
    EXPECT_EQ(Settings(), untouched_) << body;
    EXPECT_TRUE(RecordingLog::Lines().empty()) << body;
  }
}

TEST_F(PromisedControlTest, NestingOfTwoHundredIsReadAndDeeperIsNot) {
  Begin();
  const auto nested = [&](size_t depth) {  // The object itself is the first level.
    return Success("\"a\":" + std::string(depth - 1, '[') + std::string(depth - 1, ']') + "," +
                   all_three_);
  };
  Reply(nested(201));
  EXPECT_EQ(Settings(), untouched_);
  Reply(nested(100000));
  EXPECT_EQ(Settings(), untouched_);
  EXPECT_TRUE(RecordingLog::Lines().empty());

  Reply(nested(200));
  EXPECT_EQ(Settings(), three_applied_);
}

TEST_F(PromisedControlTest, AnyOtherVerdictIsLoggedWithTheBodyAndAppliesNothing) {
  Begin();
  const Strings verdicts = {"\"Success\"",  "\"SUCCESS\"", "\"success \"",
                            "\" success\"", "\"\"",        "\"succes\"",
                            "\"successs\"", "\"failure\"", "1",
                            "true",         "null",        "[\"success\"]",
                            "{}",           "0",           "\"success\\u0000\""};
  for (const std::string& verdict : verdicts) {
    const std::string body = "{\"bytes_errinfo\":" + verdict + "," + all_three_ + "}";
    Reply(body);
    const auto lines = RecordingLog::Lines();
    ASSERT_EQ(lines.size(), 1u) << verdict;
    EXPECT_EQ(lines[0].level, 2);
    EXPECT_EQ(lines[0].text, NotSuccess(body));
    EXPECT_EQ(lines[0].file, kChannelSource);
    EXPECT_EQ(Settings(), untouched_) << verdict;
    RecordingLog::Clear();
  }
}

TEST_F(PromisedControlTest, MissingVerdictIsLoggedWithTheBody) {
  Begin();
  const Strings bodies = {"{}", "{" + all_three_ + "}", R"({"Bytes_errinfo":"success"})",
                          R"({"a":{"bytes_errinfo":"success"}})", " {\n} "};
  Strings expected;
  for (const std::string& body : bodies) {
    Reply(body);
    expected.push_back(NotSuccess(body));
  }
  EXPECT_EQ(Warnings(), expected);
  EXPECT_EQ(Settings(), untouched_);
}

TEST_F(PromisedControlTest, LoggedBodyIsNeitherCutNorTakenForAFormat) {
  Begin();
  const std::string long_body = "{\"a\":\"" + std::string(200000, 'z') + "\"}";
  const std::string percent = R"({"bytes_errinfo":"%s%n%d%100000s"})";
  Reply(long_body);
  Reply(percent);
  EXPECT_EQ(Warnings(), (Strings{NotSuccess(long_body), NotSuccess(percent)}));
}

TEST_F(PromisedControlTest, BareSuccessChangesAndLogsNothing) {
  Begin();
  Reply(R"({"bytes_errinfo":"success"})");
  EXPECT_EQ(Settings(), untouched_);
  EXPECT_TRUE(RecordingLog::Lines().empty());
}

TEST_F(PromisedControlTest, AllThreeAreAppliedInSilence) {
  Begin();
  Reply(Success(all_three_));
  EXPECT_EQ(Settings(), three_applied_);
  EXPECT_EQ(DelayMs(), 3000);
  EXPECT_TRUE(RecordingLog::Lines().empty());
}

TEST_F(PromisedControlTest, OrderSpacesAndOtherMembersDoNotMatter) {
  Begin();
  Reply(" \n{ " + all_three_ +
        R"( , "other": [1, {"uint32_send_interval": 9}], "bytes_errinfo" : "success" }
 )");
  EXPECT_EQ(Settings(), three_applied_);
}

TEST_F(PromisedControlTest, EscapedVerdictIsTheSameString) {
  Begin();
  Reply(R"({"bytes_errinfo":"succ\u0065ss","uint32_max_resend_count":7})");
  EXPECT_EQ(Inside().max_resend(), 7u);
}

TEST_F(PromisedControlTest, SendIntervalTakesPositiveIntegersOnly) {
  Begin();
  for (const std::string& value : never_applied_) {
    Reply(Success("\"uint32_send_interval\":" + value));
    EXPECT_EQ(Settings(), untouched_) << value;
  }
  for (uint32_t value : {1u, 50u, 100u, 3000u, 2147483647u}) {
    Reply(Success("\"uint32_send_interval\":" + std::to_string(value)));
    EXPECT_EQ(Settings(), (Numbers{value, value, 5, 10000}));
    EXPECT_EQ(DelayMs(), value < 100 ? 100 : value);
  }
  EXPECT_TRUE(RecordingLog::Lines().empty());
}

TEST_F(PromisedControlTest, ResendLimitTakesPositiveIntegersOnly) {
  Begin();
  for (const std::string& value : never_applied_) {
    Reply(Success("\"uint32_max_resend_count\":" + value));
    EXPECT_EQ(Settings(), untouched_) << value;
  }
  for (uint32_t value : {1u, 5u, 6u, 2147483647u}) {
    Reply(Success("\"uint32_max_resend_count\":" + std::to_string(value)));
    EXPECT_EQ(Settings(), (Numbers{0, 0, value, 10000}));
  }
}

TEST_F(PromisedControlTest, ReportDurationTakesPositiveIntegersOnly) {
  Begin();
  for (const std::string& value : never_applied_) {
    Reply(Success("\"uint32_report_duration\":" + value));
    EXPECT_EQ(Settings(), untouched_) << value;
  }
  Reply(Success("\"uint32_report_duration\":1"));
  EXPECT_EQ(Settings(), (Numbers{0, 0, 5, 1000}));
}

TEST_F(PromisedControlTest, ReportDurationWrapsIn32Bits) {
  Begin();
  const std::vector<std::pair<uint32_t, uint32_t>> cases = {
      {4294967u, 4294967000u}, {4294968u, 704u},           {536870912u, 0u},
      {536870913u, 1000u},     {2147483647u, 4294966296u},
  };
  for (const auto& [seconds, milliseconds] : cases) {
    Reply(Success("\"uint32_report_duration\":" + std::to_string(seconds)));
    EXPECT_EQ(channel_->GetReportInterval(), milliseconds) << seconds;
  }
}

TEST_F(PromisedControlTest, MembersAreAppliedEachOnItsOwn) {
  Begin();
  Reply(Success(R"("uint32_send_interval":"x","uint32_max_resend_count":7,)"
                R"("uint32_report_duration":0)"));
  EXPECT_EQ(Settings(), (Numbers{0, 0, 7, 10000}));
  Reply(Success(R"("uint32_send_interval":0,"uint32_max_resend_count":-1,)"
                R"("uint32_report_duration":2)"));
  EXPECT_EQ(Settings(), (Numbers{0, 0, 7, 2000}));
  Reply(Success(R"("uint32_send_interval":400,"uint32_max_resend_count":null)"));
  EXPECT_EQ(Settings(), (Numbers{400, 400, 7, 2000}));
}

TEST_F(PromisedControlTest, SecondIdenticalReplyDoesNotRestartTheTimer) {
  Begin();
  Send("a", false, true);
  Send("b", false, true);
  Answer(0, 200, Success("\"uint32_send_interval\":3000"));
  Send("c");
  Advance(Ms(2900));

  Answer(1, 200, Success("\"uint32_send_interval\":3000"));

  Advance(Ms(100));
  EXPECT_EQ(SentBodies(), (Strings{"a", "b", "c"}));
}

TEST_F(PromisedControlTest, IntervalOfTheServerEndsABackOff) {
  Begin();
  channel_->SetMaxResendCount(100);
  Send("a", false, true);
  Send("b", false, true);
  Send("c", false, true);
  Answer(0, 500);
  ASSERT_EQ(DelayMs(), 1000);

  Answer(1, 200, Success("\"uint32_send_interval\":3000"));
  EXPECT_EQ(Settings(), (Numbers{3000, 3000, 100, 10000}));
  EXPECT_EQ(DelayMs(), 3000);

  Answer(2, 500);
  EXPECT_EQ(DelayMs(), 3000);
  EXPECT_EQ(Inside().current_interval(), 3000u);
}

TEST_F(PromisedControlTest, IntervalBelowTheFloorRunsAtTheFloor) {
  Begin();
  Send("x", false, true);
  Send("y");
  Answer(0, 200, Success("\"uint32_send_interval\":50"));
  EXPECT_EQ(Settings(), (Numbers{50, 50, 5, 10000}));
  AdvanceToTheEdge(Ms(100), [this] { EXPECT_EQ(http_.RequestCount(), 1u); });
  EXPECT_EQ(http_.RequestCount(), 2u);
}

TEST_F(PromisedControlTest, IntervalOfTheServerTurnsSendNowOff) {
  Begin();
  Reply(Success("\"uint32_send_interval\":3000"));
  Send("now", false, true);
  EXPECT_EQ(http_.RequestCount(), 1u);
  channel_->SetResendInterval(0);
  Send("now too", false, true);
  EXPECT_EQ(http_.RequestCount(), 2u);
}

TEST_F(PromisedControlTest, LimitOfTheServerReachesMessagesInFlight) {
  Begin();
  Send("a", false, true);
  Send("b", false, true);
  Answer(0, 200, Success("\"uint32_max_resend_count\":1"));
  Answer(1, 500);
  EXPECT_EQ(Counters(), (Numbers{2, 2, 1, 1, 1}));
  EXPECT_TRUE(Inside().pending().empty());
}

TEST_F(PromisedControlTest, RestartForgetsOnlyTheLimit) {
  Begin();
  Reply(Success(all_three_));
  Restart();
  EXPECT_EQ(Settings(), (Numbers{3000, 3000, 5, 30000}));
}

TEST_F(PromisedControlTest, OnlySuccessfulExchangesAreRead) {
  Begin();
  Send("x", false, true);
  Answer(0, 201, Success(all_three_));
  EXPECT_EQ(Inside().resend_interval(), 0u);
  EXPECT_EQ(Inside().max_resend(), 5u);
  EXPECT_EQ(channel_->GetReportInterval(), 10000u);
  Advance(Seconds(1));
  ASSERT_TRUE(http_.AnswerWith(1, State::kTimedOut, MakeResponse(200, Success(all_three_))));
  time_.RunUntilIdle();
  EXPECT_EQ(Inside().resend_interval(), 0u);
  Advance(Seconds(2));
  Answer(2, 500, "");
  EXPECT_TRUE(Warnings().empty());
}

TEST_F(PromisedControlTest, BodyEndsWhereItsSizeSays) {
  Begin();
  const std::string good = Success("\"uint32_max_resend_count\":7");
  const std::string longer = good + "garbage";
  OnQueue(
      [&] { Inside().HandleResponse(longer.data(), static_cast<uint32_t>(good.size()), nullptr); });
  EXPECT_EQ(Inside().max_resend(), 7u);
}

TEST_F(PromisedControlTest, HeadersHaveNoSay) {
  Begin();
  const std::map<std::string, std::string> headers = {
      {"bytes_errinfo", "failure"}, {"uint32_send_interval", "9"}, {"content-length", "0"}};
  const std::string good = Success("\"uint32_max_resend_count\":7");
  OnQueue(
      [&] { Inside().HandleResponse(good.data(), static_cast<uint32_t>(good.size()), &headers); });
  EXPECT_EQ(Settings(), (Numbers{0, 0, 7, 10000}));

  Send("x", false, true);
  ASSERT_TRUE(http_.Answer(0, 200, Success("\"uint32_report_duration\":2"), headers));
  time_.RunUntilIdle();
  EXPECT_EQ(Settings(), (Numbers{0, 0, 7, 2000}));
}

TEST_F(PromisedControlTest, RetuningIsOverBeforeTheSuccessIsCounted) {
  RecordingReportEvents events;
  Begin();
  int retunings = 0;
  events.SetOnEvent([&](const ReportEvent& event) {
    if (event.kind != ReportEventKind::kRetuned) return;
    ++retunings;
    EXPECT_EQ(Counters()[2], 0u);
    EXPECT_EQ(Inside().fail_count(), 1u);
  });
  Send("a", false, true);
  Inside().fail_count() = 1;
  Answer(0, 200, Success(all_three_));
  EXPECT_EQ(retunings, 1);
  EXPECT_EQ(Counters()[2], 1u);
}

}  // namespace
}  // namespace quenor::test
