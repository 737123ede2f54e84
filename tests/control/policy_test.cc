#include "control/policy.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>

namespace quenor::control {
namespace {

Settings Of(Kind kind) {
  Settings settings;
  settings.kind = kind;
  return settings;
}

void TickWithUse(Policy* policy, int count, double use) {
  for (int i = 0; i < count; ++i) policy->Tick({100, use});
}

TEST(PolicyTest, NoneSaysNothingWhateverComes) {
  Settings settings = Of(Kind::kNone);
  settings.low_duration_s = 60;
  settings.high_duration_s = 600;
  Policy policy(settings);

  TickWithUse(&policy, 5, 3);

  EXPECT_EQ(policy.Reply(0.5).send_interval_ms, 0u);
  EXPECT_EQ(policy.Reply(0.5).max_resend_count, 0u);
  EXPECT_EQ(policy.Reply(0.5).report_duration_s, 0u);
}

TEST(PolicyTest, FixedDrawsEvenlyBetweenItsBoundsWhateverComes) {
  Settings settings = Of(Kind::kFixed);
  settings.low_ms = 15000;
  settings.high_ms = 45000;
  Policy policy(settings);

  TickWithUse(&policy, 5, 3);

  EXPECT_EQ(policy.Reply(0).send_interval_ms, 15000u);
  EXPECT_EQ(policy.Reply(0.5).send_interval_ms, 30000u);
  EXPECT_EQ(policy.Reply(1 - 1e-9).send_interval_ms, 45000u);
  EXPECT_EQ(policy.interval_ms(), 30000u);
}

TEST(PolicyTest, EveryReplyButNonesLiftsTheResendLimit) {
  for (const Kind kind : {Kind::kFixed, Kind::kBrake, Kind::kPace, Kind::kSteer}) {
    EXPECT_EQ(Policy(Of(kind)).Reply(0).max_resend_count, kMostResendCount) << NameOf(kind);
  }
}

TEST(PolicyTest, BrakeBringsAnIntervalOnlyOnceItWasOverrunAndThenForEver) {
  Policy policy(Of(Kind::kBrake));
  TickWithUse(&policy, 3, 0.89);
  EXPECT_EQ(policy.Reply(0.5).send_interval_ms, 0u);

  TickWithUse(&policy, 1, 0.91);
  EXPECT_EQ(policy.Reply(0.5).send_interval_ms, 50000u);

  TickWithUse(&policy, 3, 0.1);
  EXPECT_EQ(policy.Reply(0.5).send_interval_ms, 30000u);
}

TEST(PolicyTest, PaceFollowsTheUseByAtMostTwoDownToItsFloor) {
  Policy policy(Of(Kind::kPace));
  TickWithUse(&policy, 1, 0.81);
  EXPECT_EQ(policy.interval_ms(), 27000u);

  TickWithUse(&policy, 1, 0.09);
  EXPECT_EQ(policy.interval_ms(), 13500u);
  TickWithUse(&policy, 10, 0.09);
  EXPECT_EQ(policy.interval_ms(), kPaceFloorMs);
  TickWithUse(&policy, 1, 9);
  EXPECT_EQ(policy.interval_ms(), 2 * kPaceFloorMs);
  TickWithUse(&policy, 10, 9);
  EXPECT_EQ(policy.interval_ms(), 50000u);
}

TEST(PolicyTest, SteerLengthensByFifteenHundredthsAndShortensByThreeWithinItsBounds) {
  Policy policy(Of(Kind::kSteer));
  EXPECT_EQ(policy.interval_ms(), 30000u);
  TickWithUse(&policy, 1, 0.1);
  EXPECT_EQ(policy.interval_ms(), 30000u);

  TickWithUse(&policy, 1, 5);
  EXPECT_EQ(policy.interval_ms(), 34500u);
  TickWithUse(&policy, 1, 0.9);
  EXPECT_EQ(policy.interval_ms(), 34500u);
  TickWithUse(&policy, 1, 0.99);
  EXPECT_EQ(policy.interval_ms(), 37950u);
  TickWithUse(&policy, 1, 0.1);
  EXPECT_NEAR(policy.interval_ms(), 36811.5, 1);
  TickWithUse(&policy, 10, 5);
  EXPECT_EQ(policy.interval_ms(), 50000u);
}

TEST(PolicyTest, TicksInWhichNothingArrivedChangeNothing) {
  for (const Kind kind : {Kind::kBrake, Kind::kPace, Kind::kSteer}) {
    Settings settings = Of(kind);
    settings.low_duration_s = 60;
    settings.high_duration_s = 600;
    Policy policy(settings);
    TickWithUse(&policy, 5, 2);
    const uint32_t interval_ms = policy.interval_ms();
    const uint32_t duration_s = policy.duration_s();

    for (int i = 0; i < 100; ++i) policy.Tick({0, 0});

    EXPECT_EQ(policy.interval_ms(), interval_ms) << NameOf(kind);
    EXPECT_EQ(policy.duration_s(), duration_s) << NameOf(kind);
  }
}

TEST(PolicyTest, JitterIsHalfToOneAndAHalfOfTheInterval) {
  const Policy policy(Of(Kind::kSteer));

  EXPECT_EQ(policy.Reply(0).send_interval_ms, 15000u);
  EXPECT_EQ(policy.Reply(0.5).send_interval_ms, 30000u);
  EXPECT_EQ(policy.Reply(1 - 1e-9).send_interval_ms, 45000u);
}

TEST(PolicyTest, OwnersAreAskedForLessOnceTheIntervalCannotGrow) {
  Settings settings;
  settings.low_duration_s = 100;
  settings.high_duration_s = 300;
  Policy policy(settings);

  TickWithUse(&policy, 4, 2);
  EXPECT_EQ(policy.interval_ms(), 50000u);
  EXPECT_EQ(policy.Reply(0).report_duration_s, 100u);
  TickWithUse(&policy, 1, 2);
  EXPECT_EQ(policy.Reply(0).report_duration_s, 114u);
  TickWithUse(&policy, 1, 0.8);  // Neither overrun nor calm.
  EXPECT_EQ(policy.Reply(0).report_duration_s, 114u);
  TickWithUse(&policy, 1, 0.7);
  EXPECT_EQ(policy.Reply(0).report_duration_s, 111u);
  TickWithUse(&policy, 30, 2);
  EXPECT_EQ(policy.Reply(0).report_duration_s, 300u);
}

TEST(PolicyTest, OwnersAreNeverAskedForMoreThanTheIntervalLetsThrough) {
  for (const Kind kind : {Kind::kPace, Kind::kSteer}) {
    Settings settings = Of(kind);
    settings.low_duration_s = 20;
    settings.high_duration_s = 55;
    Policy policy(settings);
    EXPECT_EQ(policy.Reply(0).report_duration_s, 37u) << NameOf(kind);

    TickWithUse(&policy, 4, 2);
    EXPECT_EQ(policy.interval_ms(), 50000u) << NameOf(kind);
    EXPECT_EQ(policy.Reply(0).report_duration_s, 55u) << NameOf(kind);
  }
}

TEST(PolicyTest, RepliesStayWithinWhatSendersRead) {
  Settings settings;
  settings.low_ms = settings.high_ms = kMostIntervalMs;
  settings.low_duration_s = settings.high_duration_s = kMostDurationS;
  const Policy policy(settings);
  EXPECT_EQ(policy.Reply(1 - 1e-9).send_interval_ms, kMostIntervalMs);
  EXPECT_EQ(policy.Reply(1 - 1e-9).report_duration_s, kMostDurationS);

  settings.low_ms = settings.high_ms = 1;
  EXPECT_EQ(Policy(settings).Reply(0).send_interval_ms, 1u);
}

TEST(PolicyTest, SettingsThatCannotBeMeantAreNamed) {
  const struct {
    Settings settings;
    const char* named;
  } cases[] = {
      {{Kind::kSteer, 0, 50000, 0.9, 0, 0}, "interval's bounds 0"},
      {{Kind::kSteer, 50001, 50000, 0.9, 0, 0}, "interval's bounds 50001"},
      {{Kind::kSteer, 1, kMostIntervalMs + 1, 0.9, 0, 0}, "interval 2147483648"},
      {{Kind::kSteer, 1, 2, 0, 0, 0}, "target 0"},
      {{Kind::kSteer, 1, 2, 1.01, 0, 0}, "target 1.01"},
      {{Kind::kSteer, 1, 2, 0.9, 2, 1}, "durations 2 and 1"},
      {{Kind::kSteer, 1, 2, 0.9, 0, 1}, "durations 0 and 1"},
      {{Kind::kSteer, 1, 2, 0.9, 1, kMostDurationS + 1}, "duration 4294968"},
  };
  for (const auto& each : cases) {
    EXPECT_NE(ProblemOf(each.settings).find(each.named), std::string::npos)
        << ProblemOf(each.settings);
  }
  EXPECT_EQ(ProblemOf(Settings()), "");
}

TEST(PolicyTest, KindsAreKnownByTheirNames) {
  for (const Kind kind : {Kind::kNone, Kind::kFixed, Kind::kBrake, Kind::kPace, Kind::kSteer}) {
    EXPECT_EQ(KindOf(NameOf(kind)), kind);
  }
  EXPECT_FALSE(KindOf("Steer").has_value());
}

}  // namespace
}  // namespace quenor::control
