// What the replies of a tier say, and what cannot be set.
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <string>

#include "collector/control_room/desk.h"
#include "collector/control_room/settings.h"

namespace quenor::collector {
namespace {

ControlSettings Fixed() {
  ControlSettings settings;
  settings.send_interval_ms = 20'000;
  settings.max_resend_count = 7;
  settings.report_duration_s = 300;
  return settings;
}

ControlSettings Steering() {
  ControlSettings settings;
  settings.policy.kind = control::Kind::kSteer;
  settings.capacity = 100;
  return settings;
}

uint32_t IntervalOf(const std::string& reply) {
  rapidjson::Document document;
  document.Parse(reply.c_str());
  return document.HasMember("uint32_send_interval") ? document["uint32_send_interval"].GetUint()
                                                    : 0;
}

TEST(ControlSettingsTest, AreReadAsTheyWereWritten) {
  ControlSettings settings = Fixed();
  settings.policy.kind = control::Kind::kPace;
  settings.policy.target = 0.29;
  settings.policy.low_duration_s = 5;
  settings.policy.high_duration_s = 6;
  std::string problem;

  const auto read = SettingsFromJson(ToJson(settings), &problem);
  ASSERT_TRUE(read) << problem;
  EXPECT_EQ(ToJson(*read), ToJson(settings));
  EXPECT_EQ(read->policy.target, 0.29);
}

TEST(ControlSettingsTest, WhatCannotBeMeantIsNamed) {
  const auto problem = [](auto change) {
    ControlSettings settings;
    change(settings);
    return ProblemOf(settings);
  };

  EXPECT_EQ(problem([](ControlSettings&) {}), "");
  EXPECT_EQ(problem([](auto& s) { s.send_interval_ms = 15'000; }), "");
  EXPECT_NE(problem([](auto& s) { s.send_interval_ms = 14'999; }).find("at least 15000"),
            std::string::npos);
  EXPECT_NE(problem([](auto& s) { s.send_interval_ms = 2'147'483'648; }).find("2147483647"),
            std::string::npos);
  EXPECT_NE(problem([](auto& s) { s.max_resend_count = 2'147'483'648; }).find("2147483647"),
            std::string::npos);
  EXPECT_NE(problem([](auto& s) { s.report_duration_s = 4'294'968; }).find("4294967"),
            std::string::npos);
  EXPECT_NE(problem([](auto& s) { s.capacity = 0; }).find("capacity"), std::string::npos);
  EXPECT_NE(problem([](auto& s) { s.policy.target = 0; }).find("target"), std::string::npos);
  EXPECT_NE(problem([](auto& s) {
              s.policy.kind = control::Kind::kPace;
              s.policy.low_ms = 14'999;
            }).find("at least 15000"),
            std::string::npos);
}

TEST(ControlSettingsTest, WhatOthersWroteIsRefused) {
  const std::string good = ToJson(Fixed());
  for (const auto& [what, with] : {std::pair{"\"none\"", "\"flood\""},
                                   {"\"none\"", "7"},
                                   {"20000", "-1"},
                                   {"20000", "1"},
                                   {"20000", "4294967296"},
                                   {"20000", "\"20000\""},
                                   {"20000", "2e4"},
                                   {"20000", "[[[[]]]]"},
                                   {"}", "} {}"},
                                   {"low_ms", "LOW"},
                                   {"{", "["}}) {
    std::string text = good;
    const size_t at = text.find(what);
    ASSERT_NE(at, std::string::npos) << what;
    text.replace(at, std::string(what).size(), with);
    std::string problem;
    EXPECT_FALSE(SettingsFromJson(text, &problem)) << text;
    EXPECT_NE(problem, "") << text;
  }
}

TEST(ControlSettingsTest, NestingWithoutEndIsNoStackWithoutEnd) {
  for (const size_t deep : {4'000, 4'000'000}) {
    std::string problem;
    EXPECT_FALSE(SettingsFromJson(std::string(deep, '['), &problem));
    EXPECT_NE(problem, "");
  }
}

TEST(DeskTest, ArmsSendersWithAResendLimitThatIsNeverReached) {
  EXPECT_EQ(Desk(ControlSettings()).Reply(0.5),
            R"({"bytes_errinfo":"success","uint32_max_resend_count":2147483647})");
}

TEST(DeskTest, FieldsOfZeroAreLeftOut) {
  ControlSettings settings;
  settings.max_resend_count = 0;

  EXPECT_EQ(Desk(settings).Reply(0), R"({"bytes_errinfo":"success"})");
}

TEST(DeskTest, IntervalIsDrawnUpToAHalfLonger) {
  const Desk desk(Fixed());

  EXPECT_EQ(desk.Reply(0),
            "{\"bytes_errinfo\":\"success\",\"uint32_send_interval\":20000,"
            "\"uint32_max_resend_count\":7,\"uint32_report_duration\":300}");
  EXPECT_EQ(IntervalOf(desk.Reply(0.5)), 25'000u);
  ControlSettings longest;
  longest.send_interval_ms = control::kMostIntervalMs;
  EXPECT_EQ(IntervalOf(Desk(longest).Reply(0.9)), control::kMostIntervalMs);
}

TEST(DeskTest, PolicyLengthensTheIntervalUnderLoad) {
  Desk desk(Steering());
  EXPECT_EQ(desk.interval_ms(), 30'000u);

  desk.Tick(2'000, 1'000, 0, 10);  // Twice what it can take.
  EXPECT_EQ(desk.interval_ms(), 34'500u);
  desk.Tick(10, 10, 1.0, 10);  // Few came, and as many are held as may be.
  EXPECT_EQ(desk.interval_ms(), 38'333u);
  desk.Tick(0, 0, 0, 10);
  EXPECT_EQ(desk.interval_ms(), 38'333u) << "an outage is no calm";
  desk.Tick(10, 0, 0, 10);
  EXPECT_EQ(desk.interval_ms(), 38'333u) << "nor is one in which all is refused";
  desk.Tick(10, 10, 0, 10);
  EXPECT_EQ(desk.interval_ms(), 37'183u);
}

TEST(DeskTest, NoReplyBringsLessThanTheLeastInterval) {
  ControlSettings settings = Steering();
  settings.policy.low_ms = kLeastIntervalMs;
  ASSERT_EQ(ProblemOf(settings), "");

  EXPECT_EQ(IntervalOf(Desk(settings).Reply(0)), kLeastIntervalMs);
  EXPECT_EQ(IntervalOf(Desk(settings).Reply(0.4)), 18'000u) << "and a fleet at it is spread";
}

TEST(DeskTest, PaceGoesNoLowerThanItIsTold) {
  ControlSettings settings = Steering();
  settings.policy.kind = control::Kind::kPace;
  Desk desk(settings);

  for (int i = 0; i < 10; ++i) desk.Tick(1, 1, 0, 10);
  EXPECT_EQ(desk.interval_ms(), 30'000u);
  EXPECT_EQ(IntervalOf(desk.Reply(0)), 30'000u);
  EXPECT_EQ(IntervalOf(desk.Reply(0.5)), 37'500u);
}

TEST(DeskTest, PolicyKeepsWhatItLearntThroughARevisionOfTheFields) {
  Desk desk(Steering());
  desk.Tick(2'000, 1'000, 0, 10);
  ControlSettings next = Steering();
  next.report_duration_s = 9;
  next.capacity = 50;
  desk.Apply(next, 5);
  EXPECT_EQ(desk.revision(), 5u);
  EXPECT_EQ(desk.interval_ms(), 34'500u);
  next.policy.low_ms = 40'000;
  desk.Apply(next, 6);
  EXPECT_EQ(desk.interval_ms(), 40'000u);
}

}  // namespace
}  // namespace quenor::collector
