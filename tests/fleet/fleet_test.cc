// What the model's server, owners and measures come to, in fleets so small that each second of them
// can be worked out by hand. A report is sent 100 ms after it is handed over; the latency is 0.
#include "fleet/model/fleet.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "fleet/output/result.h"
#include "fleet/scenario/parse.h"

namespace quenor::fleet {
namespace {

void RunFleet(const std::string& text,
              const std::function<void(const Fleet&, const Scenario&)>& look) {
  const Scenario scenario = ParseScenario("test", "server latency 0s\n" + text, {});
  Fleet fleet(scenario, 1);
  fleet.Run(nullptr);
  EXPECT_TRUE(fleet.End());
  look(fleet, scenario);
}

std::vector<Row> RowsOf(const std::string& text) {
  std::vector<Row> rows;
  RunFleet(text, [&](const Fleet& fleet, const Scenario&) { rows = fleet.books().rows(); });
  return rows;
}

// The seconds in which requests arrived.
std::vector<size_t> BusySeconds(const std::vector<Row>& rows) {
  std::vector<size_t> busy;
  for (size_t i = 0; i < rows.size(); ++i) {
    if (rows[i].requests > 0) busy.push_back(i);
  }
  return busy;
}

TEST(FleetTest, ServerTakesWhatItsQueueHoldsAndRefusesTheRest) {
  const std::vector<Row> rows = RowsOf(R"(channels 30
report every 60s phase same
server capacity 10 queue 1s
length 2s)");

  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0].requests, 30u);
  EXPECT_EQ(rows[0].accepted, 10u);
  EXPECT_EQ(rows[0].refused, 20u);
  EXPECT_EQ(rows[1].requests, 20u);  // After a back-off of a second.
  EXPECT_EQ(rows[1].accepted, 10u);
}

TEST(FleetTest, RefusalsCostCapacity) {
  // 20 refusals at 100 ms are 0.6 s of work. At 400 ms 0.3 s of it are left, and the queue has room
  // for seven.
  const std::vector<Row> rows = RowsOf(R"(channels 20
channels 20 at 300ms
report every 60s phase same
server capacity 10 queue 1s refusal 0.3
from 0s for 350ms: status 503
length 1s)");

  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].accepted, 7u);
  EXPECT_EQ(rows[0].refused, 33u);
}

TEST(FleetTest, NewConnectionsCostCapacity) {
  // A report with its connection is 0.4 s of work.
  const std::vector<Row> rows = RowsOf(R"(channels 30
report every 60s phase same
server capacity 10 queue 1s connect 1 tls 2
length 1s)");

  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].accepted, 2u);
}

TEST(FleetTest, RequestsThatVanishEndAtTheClientsLimits) {
  // Sent at 0.1 s, given up at 3.1 s without a connection, again at 4.1 s, and after the back-off
  // of 2 s at 9.1 s.
  const std::vector<Row> rows = RowsOf(R"(channels 1
report every 60s phase same
client timeout 8s connect 3s
from 0s for 5s: blackhole
length 20s)");

  EXPECT_EQ(BusySeconds(rows), (std::vector<size_t>{0, 4, 9}));
  ASSERT_EQ(rows.size(), 20u);
  EXPECT_EQ(rows[9].accepted, 1u);
  EXPECT_EQ(rows[9].age_p50_ms, 9100u);
}

TEST(FleetTest, RepliesBringWhatThePolicySays) {
  const std::vector<Row> rows = RowsOf(R"(channels 1
report every 10s phase same
policy fixed 25s..25s
length 100s)");

  EXPECT_EQ(BusySeconds(rows), (std::vector<size_t>{0, 25, 50, 75}));
}

TEST(FleetTest, OwnersThatObeyReportNoMoreOftenThanTheyAreAsked) {
  // At 0 s, at 10 s as no reply had come yet when that was decided, then every 30 s.
  RunFleet(R"(channels 1
report every 10s phase same
owner obeys
policy steer 1s..1s duration 30s..30s
length 110s)",
           [](const Fleet& fleet, const Scenario&) {
             EXPECT_EQ(fleet.books().totals().handed_over, 5u);
           });
}

TEST(FleetTest, MeasuresOfAnOutageWithTheDefaultLimit) {
  // The reports of 60 s are sent at 60.1, 61.1, 63.1, 67.1 and 75.1 s and then lost.
  RunFleet(R"(channels 3
report every 60s phase same
server capacity 10 queue 1s
from 50s for 50s: refuse
length 200s)",
           [](const Fleet& fleet, const Scenario& scenario) {
             const Result result(fleet, scenario);
             EXPECT_DOUBLE_EQ(result.Of("lost", "%"), 25);
             EXPECT_DOUBLE_EQ(result.Of("outage-lost", "%"), 100);
             EXPECT_DOUBLE_EQ(result.Of("trimmed", "%"), 0);
             EXPECT_DOUBLE_EQ(result.Of("peak", "/s"), 1.2);
             EXPECT_DOUBLE_EQ(result.Of("peak", "x"), 0.12);
             EXPECT_DOUBLE_EQ(result.Of("waiting", ""), 0);
           });
}

TEST(FleetTest, WhatWasHandedOverBeforeAnOutageIsNotOfIt) {
  // The first report fails from 0.1 s on and is lost. The second one waits out the back-off of 8 s
  // twice.
  RunFleet(R"(channels 1
report every 20s phase same
from 50ms for 30s: refuse
length 60s)",
           [](const Fleet& fleet, const Scenario& scenario) {
             EXPECT_EQ(fleet.books().totals().gave_up, 1u);
             EXPECT_EQ(fleet.books().handed_over_in_outage(), 1u);
             EXPECT_DOUBLE_EQ(Result(fleet, scenario).Of("outage-lost", "%"), 0);
           });
}

TEST(FleetTest, MeasuresOfAnOutageWithoutALimit) {
  // As above, and after 75.1 s every 8 s: what is sent at 107.1 s arrives.
  RunFleet(R"(channels 3
report every 60s phase same
owner limit none
server capacity 10 queue 1s
from 50s for 50s: refuse
length 200s)",
           [](const Fleet& fleet, const Scenario& scenario) {
             const Result result(fleet, scenario);
             EXPECT_DOUBLE_EQ(result.Of("lost", "%"), 0);
             EXPECT_DOUBLE_EQ(result.Of("gone", "s"), 8);
             EXPECT_DOUBLE_EQ(result.Of("after", "/s"), 0.09);  // At 107, 120 and 180 s.
             EXPECT_DOUBLE_EQ(result.Of("age", "s"), 47.1);
           });
}

TEST(FleetTest, WhatTheStoreTrimsIsCounted) {
  // The 201st report finds 200 waiting: the oldest 50 are dropped.
  RunFleet(R"(channels 1
report every 1s phase same
owner limit none
from 0s for 205s: refuse
length 205s)",
           [](const Fleet& fleet, const Scenario& scenario) {
             EXPECT_EQ(fleet.books().totals().trimmed, 50u);
             EXPECT_EQ(fleet.waiting_at_end(), fleet.books().totals().handed_over - 50);
             EXPECT_EQ(Result(fleet, scenario).Text("gone", "s"), "never");
           });
}

}  // namespace
}  // namespace quenor::fleet
