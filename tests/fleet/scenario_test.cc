#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fleet/scenario/parse.h"

namespace quenor::fleet {
namespace {

std::string ErrorOf(const std::string& text, const std::vector<std::string>& settings = {}) {
  try {
    ParseScenario("x.fleet", text, settings);
  } catch (const ScenarioError& error) {
    return error.what();
  }
  return "";
}

TEST(ScenarioTest, EveryWordOfAScenarioIsUnderstood) {
  const Scenario scenario = ParseScenario("x.fleet", R"(
# What follows is a comment.
title An outage: of ten minutes
channels 1000   # and more later
channels 20 at 10min over 1h
report every 90s phase same
size 200..2000
owner limit 7 interval 500ms..1500ms obeys
restart 1% per hour with cache
server capacity 5000 queue 2s refusal 0.3 latency 60ms sigma 0.5 connect 2 tls 5
client timeout 40s connect 5s
from 600s for 60s: refuse
from 1h: capacity 0.5
from 1s for 2s: status 500
policy steer 20s..60s target 0.8 duration 60s..10min
length 2h
scale 0.1
expect lost < 0.1%
expect peak > 1.7x
)",
                                          {});

  EXPECT_EQ(scenario.title, "An outage: of ten minutes");
  ASSERT_EQ(scenario.cohorts.size(), 2u);
  EXPECT_EQ(scenario.cohorts[0].channels, 100u);
  EXPECT_EQ(scenario.cohorts[1].channels, 2u);
  EXPECT_EQ(scenario.cohorts[1].at_us, 600 * kSecondUs);
  EXPECT_EQ(scenario.cohorts[1].over_us, 3600 * kSecondUs);
  EXPECT_EQ(scenario.owner.report_every_us, 90 * kSecondUs);
  EXPECT_TRUE(scenario.owner.same_phase);
  EXPECT_EQ(scenario.owner.least_bytes, 200u);
  EXPECT_EQ(scenario.owner.most_bytes, 2000u);
  EXPECT_EQ(scenario.owner.resend_limit, 7u);
  EXPECT_EQ(scenario.owner.interval_ms, std::make_pair(500u, 1500u));
  EXPECT_TRUE(scenario.owner.obeys);
  EXPECT_DOUBLE_EQ(scenario.owner.restarts_per_hour, 0.01);
  EXPECT_TRUE(scenario.owner.with_cache);
  EXPECT_DOUBLE_EQ(scenario.server.capacity, 500);
  EXPECT_EQ(scenario.server.queue_us, 2 * kSecondUs);
  EXPECT_DOUBLE_EQ(scenario.server.refusal_cost, 0.3);
  EXPECT_EQ(scenario.server.latency_us, 60000);
  EXPECT_DOUBLE_EQ(scenario.server.sigma, 0.5);
  EXPECT_DOUBLE_EQ(scenario.server.connect_cost, 2);
  EXPECT_DOUBLE_EQ(scenario.server.tls_cost, 5);
  EXPECT_EQ(scenario.client.timeout_us, 40 * kSecondUs);
  EXPECT_EQ(scenario.client.connect_timeout_us, 5 * kSecondUs);
  ASSERT_EQ(scenario.incidents.size(), 3u);
  EXPECT_EQ(scenario.incidents[0].kind, Incident::Kind::kRefuse);
  EXPECT_EQ(scenario.incidents[0].until_us, 660 * kSecondUs);
  EXPECT_EQ(scenario.incidents[1].until_us, kForEver);
  EXPECT_DOUBLE_EQ(scenario.incidents[1].value, 0.5);
  EXPECT_DOUBLE_EQ(scenario.incidents[2].value, 500);
  EXPECT_EQ(scenario.policy.kind, control::Kind::kSteer);
  EXPECT_EQ(scenario.policy.low_ms, 20000u);
  EXPECT_EQ(scenario.policy.high_ms, 60000u);
  EXPECT_DOUBLE_EQ(scenario.policy.target, 0.8);
  EXPECT_EQ(scenario.policy.high_duration_s, 600u);
  EXPECT_EQ(scenario.length_us, 7200 * kSecondUs);
  ASSERT_EQ(scenario.expectations.size(), 2u);
  EXPECT_TRUE(scenario.expectations[0].below);
  EXPECT_FALSE(scenario.expectations[1].below);
  EXPECT_EQ(scenario.expectations[1].unit, "x");
}

TEST(ScenarioTest, AMistakeNamesLineWordAndWhatWasExpected) {
  const struct {
    const char* line;
    const char* error;
  } cases[] = {
      {"chanels 5", "\"chanels\": expected one of title, length, scale, channels"},
      {"channels many", "\"many\": expected a number of channels"},
      {"channels 0", "\"0\": expected a number of channels"},
      {"channels 1.5", "\"1.5\": expected a number of channels"},
      {"channels 5 in 3s", "\"in\": expected \"at TIME\" or \"over TIME\""},
      {"report 60s", "\"60s\": expected \"every\""},
      {"report every", "the line ends; expected a time"},
      {"report every 60", "\"60\": expected a time, as 100ms"},
      {"report every 0s", "\"0s\": expected at least 1ms"},
      {"report every 60s phase both", "\"both\": expected \"spread\" or \"same\""},
      {"size 15", "\"15\": expected bytes from 16"},
      {"size 300..200", "\"300..200\": expected bytes"},
      {"owner limt 5", "\"limt\": expected \"limit N\""},
      {"owner limit some", "\"some\": expected a number of sends, or none"},
      {"restart 1 per hour", "\"1\": expected a part of the channels, as 1%"},
      {"restart 1% per day", "\"day\": expected \"hour\""},
      {"restart 1% per hour with cash", "\"cash\": expected \"cache\""},
      {"server capacity -5", "\"-5\": expected reports a second"},
      {"server capacity 5 qeue 1s", "\"qeue\": expected \"capacity N\""},
      {"server sigma 9", "\"9\": expected a number from 0 to 3"},
      {"client timeout soon", "\"soon\": expected a time"},
      {"from 1s for 2s refuse", "\"refuse\": expected \":\""},
      {"from 1s: refuze", "\"refuze\": expected refuse, blackhole"},
      {"from 1s: status 200", "\"200\": expected a status that is no success"},
      {"policy stear", "\"stear\": expected none, fixed, brake, pace or steer"},
      {"policy steer 50s..30s", "\"50s..30s\": expected a range of times"},
      {"policy steer 0s..30s", "the interval's bounds 0"},
      {"policy steer 30s..50s target 2", "\"2\": expected a number above 0, at most 1"},
      {"expect lots < 5%", "\"lots\": expected one of lost"},
      {"expect lost = 5%", "\"=\": expected \"<\" or \">\""},
      {"expect lost < 5x", "\"5x\": expected a number with its unit: %"},
      {"expect peak < 5", "\"5\": expected a number with its unit: x /s"},
      {"length 1h more", "\"more\": expected the end of the line"},
      {"length 999999h", "\"999999h\": expected a time"},
  };
  for (const auto& each : cases) {
    const std::string error = ErrorOf(std::string("channels 5\n") + each.line + "\n");

    EXPECT_EQ(error.rfind("x.fleet:2: ", 0), 0u) << each.line << ": " << error;
    EXPECT_NE(error.find(each.error), std::string::npos) << each.line << ": " << error;
  }
}

TEST(ScenarioTest, AFleetWithoutChannelsIsRefused) {
  EXPECT_EQ(ErrorOf("length 1h\n"), "x.fleet: no channels; expected a line as \"channels 1000\"");
}

TEST(ScenarioTest, SettingsComeBehindTheLinesAndReplaceTheChannels) {
  const Scenario scenario =
      ParseScenario("x", "channels 10\nchannels 20 at 1s\nserver capacity 5 queue 3s\n",
                    {"channels=7", "server capacity=9", "scale=2"});

  ASSERT_EQ(scenario.cohorts.size(), 1u);
  EXPECT_EQ(scenario.cohorts[0].channels, 14u);
  EXPECT_DOUBLE_EQ(scenario.server.capacity, 18);
  EXPECT_EQ(scenario.server.queue_us, 3 * kSecondUs);
  EXPECT_EQ(ErrorOf("channels 1", {"channels"}), "--set channels: expected KEY=VALUE");
  EXPECT_EQ(ErrorOf("channels 1", {"length=soon"}).rfind("--set length=soon: \"soon\"", 0), 0u);
}

}  // namespace
}  // namespace quenor::fleet
