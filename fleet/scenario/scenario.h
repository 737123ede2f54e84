// Scenario: what a fleet, its collector and fate do in one run. The words that say so, and what
// each of them means: docs/guide/fleet.md.
#ifndef FLEET_SCENARIO_SCENARIO_H_
#define FLEET_SCENARIO_SCENARIO_H_

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "control/policy.h"

namespace quenor::fleet {

constexpr int64_t kSecondUs = 1000000;
constexpr int64_t kForEver = std::numeric_limits<int64_t>::max();

// Channels that start together, or one after the other over a span.
struct Cohort {
  uint32_t channels = 0;
  int64_t at_us = 0;
  int64_t over_us = 0;
};

struct OwnerSettings {
  int64_t report_every_us = 60 * kSecondUs;
  bool same_phase = false;  // All report at the same moment; else each at one of its own.
  uint32_t least_bytes = 200;
  uint32_t most_bytes = 200;
  std::optional<uint32_t> resend_limit;
  std::optional<std::pair<uint32_t, uint32_t>> interval_ms;  // Each owner draws its own.
  bool obeys = false;  // Reports no more often than the collector asks for.
  double restarts_per_hour = 0;
  bool with_cache = false;
};

struct ServerSettings {
  double capacity = 1000;        // Reports a second.
  int64_t queue_us = kSecondUs;  // Work that may wait; what comes beyond it is refused with 503.
  double refusal_cost = 0;       // In reports, as all costs.
  double connect_cost = 0;       // Of a new connection.
  double tls_cost = 0;           // Of its handshake, beside that.
  int64_t latency_us = 50000;    // There and back, the median.
  double sigma = 0;              // Of the latency's logarithm.
};

struct ClientSettings {
  int64_t timeout_us = 50 * kSecondUs;          // Of a whole exchange.
  int64_t connect_timeout_us = 15 * kSecondUs;  // While there is no connection.
};

// Something that is so for a while.
struct Incident {
  enum class Kind {
    kRefuse,     // Nobody listens: requests fail at once and cost nothing.
    kBlackhole,  // Requests vanish.
    kStatus,     // Every request is answered with this status, at the cost of a refusal.
    kCapacity,   // This part of the capacity.
    kLatency,    // Microseconds, there and back.
    kReport,     // Owners report each so many microseconds.
  };
  Kind kind;
  double value = 0;
  int64_t from_us = 0;
  int64_t until_us = kForEver;

  bool Holds(int64_t now_us) const { return now_us >= from_us && now_us < until_us; }
  bool IsOutage() const {
    return kind == Kind::kRefuse || kind == Kind::kBlackhole || kind == Kind::kStatus;
  }
};

// What must come of a run; measures.h has what it may be about.
struct Expectation {
  std::string place;  // FILE:LINE
  std::string text;
  std::string measure;
  std::string unit;
  bool below = true;  // Else above.
  double bound = 0;
};

struct Scenario {
  std::string name;
  std::string title;
  int64_t length_us = 3600 * kSecondUs;
  double scale = 1;  // Already in the cohorts and the capacity.
  std::vector<Cohort> cohorts;
  OwnerSettings owner;
  ServerSettings server;
  ClientSettings client;
  control::Settings policy;
  std::vector<Incident> incidents;
  std::vector<Expectation> expectations;
};

}  // namespace quenor::fleet

#endif  // FLEET_SCENARIO_SCENARIO_H_
