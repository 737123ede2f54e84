#include "fleet/output/result.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "fleet/model/fleet.h"
#include "quenor_base/platform/base/check.h"

namespace quenor::fleet {
namespace {

// A peak shorter than this is chance.
constexpr size_t kPeakSeconds = 10;
// How long the requests are averaged that come after the last incident.
constexpr int64_t kAfterSeconds = 300;
// Before the first one, to know what is usual.
constexpr int64_t kBeforeSeconds = 120;
// A backlog is gone when so much more than usual waits.
constexpr double kGoneFactor = 1.1;

double Ratio(double part, double whole) { return whole > 0 ? part / whole : 0; }

int64_t RowOf(int64_t time_us, const std::vector<Row>& rows) {
  return std::clamp<int64_t>(time_us / kSecondUs, 0, static_cast<int64_t>(rows.size()));
}

// Seconds from the end of the last incident (the start of one that never ends) until no more
// reports wait than usual; infinite when that never comes. 0 without an incident.
double GoneAfter(const std::vector<Row>& rows, const Scenario& scenario) {
  if (scenario.incidents.empty()) return 0;
  int64_t first_us = kForEver, over_us = 0;
  for (const Incident& each : scenario.incidents) {
    first_us = std::min(first_us, each.from_us);
    over_us = std::max(over_us, each.until_us == kForEver ? each.from_us : each.until_us);
  }
  const int64_t first = RowOf(first_us, rows);
  uint64_t usual = 0;
  for (int64_t i = std::max<int64_t>(first - kBeforeSeconds, 0); i < first; ++i) {
    usual = std::max(usual, rows[static_cast<size_t>(i)].waiting);
  }
  const int64_t over = RowOf(over_us, rows);
  for (int64_t i = over; i < static_cast<int64_t>(rows.size()); ++i) {
    if (static_cast<double>(rows[static_cast<size_t>(i)].waiting) <=
        static_cast<double>(usual) * kGoneFactor + 1) {
      return static_cast<double>(i + 1 - over);
    }
  }
  return HUGE_VAL;
}

// The most requests a second that kPeakSeconds in a row have.
double Peak(const std::vector<Row>& rows) {
  uint64_t most = 0, sum = 0;
  for (size_t i = 0; i < rows.size(); ++i) {
    sum += rows[i].requests;
    if (i >= kPeakSeconds) sum -= rows[i - kPeakSeconds].requests;
    most = std::max(most, sum);
  }
  return static_cast<double>(most) /
         static_cast<double>(std::clamp<size_t>(rows.size(), 1, kPeakSeconds));
}

double RequestsAfter(const std::vector<Row>& rows, const Scenario& scenario) {
  int64_t over_us = 0;
  for (const Incident& each : scenario.incidents) {
    over_us = std::max(over_us, each.until_us == kForEver ? each.from_us : each.until_us);
  }
  const int64_t from = RowOf(over_us, rows);
  const int64_t until = std::min<int64_t>(from + kAfterSeconds, static_cast<int64_t>(rows.size()));
  uint64_t requests = 0;
  for (int64_t i = from; i < until; ++i) requests += rows[static_cast<size_t>(i)].requests;
  return Ratio(static_cast<double>(requests), static_cast<double>(until - from));
}

}  // namespace

Result::Result(const Fleet& fleet, const Scenario& scenario) {
  const std::vector<Row>& rows = fleet.books().rows();
  const Totals& totals = fleet.books().totals();
  const double handed_over = static_cast<double>(totals.handed_over);
  // Reports in memory when the run ends are not lost.
  const uint64_t lost = rows.empty() ? 0 : rows.back().lost + rows.back().trimmed;
  uint64_t requests = 0, age_ms = 0;
  for (const Row& row : rows) {
    requests += row.requests;
    age_ms = std::max(age_ms, row.age_p99_ms);
  }
  const double peak = Peak(rows);
  const double capacity = scenario.server.capacity;
  const double after = RequestsAfter(rows, scenario);
  const Books& books = fleet.books();
  values_ = {
      {"lost", "%", 100 * Ratio(static_cast<double>(lost), handed_over)},
      {"outage-lost", "%",
       100 * Ratio(static_cast<double>(books.lost_in_outage()),
                   static_cast<double>(books.handed_over_in_outage()))},
      {"trimmed", "%", 100 * Ratio(static_cast<double>(totals.trimmed), handed_over)},
      {"refused", "%",
       100 * Ratio(static_cast<double>(books.refused()), static_cast<double>(requests))},
      {"peak", "x", peak / capacity},
      {"peak", "/s", peak},
      {"after", "x", after / capacity},
      {"after", "/s", after},
      {"gone", "s", GoneAfter(rows, scenario)},
      {"waiting", "", static_cast<double>(fleet.waiting_at_end())},
      {"age", "s", static_cast<double>(age_ms) / 1000},
      {"interval", "s", rows.empty() ? 0 : static_cast<double>(rows.back().interval_ms) / 1000},
  };
}

double Result::Of(const std::string& measure, const std::string& unit) const {
  for (const Value& each : values_) {
    if (each.measure == measure && each.unit == unit) return each.value;
  }
  QUENOR_CHECK(false, "a measure that a result does not have");
}

std::string Result::Text(const std::string& measure, const std::string& unit) const {
  const double value = Of(measure, unit);
  if (std::isinf(value)) return "never";
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", value >= 1000 || unit.empty() ? 0 : 2, value);
  return text + unit;
}

std::string FailureOf(const Expectation& expectation, const Result& result) {
  const double value = result.Of(expectation.measure, expectation.unit);
  if (expectation.below ? value < expectation.bound : value > expectation.bound) return "";
  return expectation.place + ": expected " + expectation.text + ", but it is " +
         result.Text(expectation.measure, expectation.unit);
}

}  // namespace quenor::fleet
