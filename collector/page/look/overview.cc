#include "collector/page/look/overview.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace quenor::collector {
namespace {

constexpr char kPrefix[] = "quenor_collector_";
// From here on a stream is about to answer 507, and an operator has some time left.
constexpr double kNearlyFull = 0.8;
// One that has been asked for less has not shown yet whether it comes after the others.
constexpr double kSettleSeconds = 2;
constexpr double kMedian = 0.5;
constexpr double kLate = 0.99;

uint64_t Whole(const Samples& samples, const char* name) {
  return static_cast<uint64_t>(samples.Value(std::string(kPrefix) + name).value_or(0));
}

std::string Since(const std::string& problem, int64_t since_unix_s) {
  return since_unix_s == 0 ? problem : problem + " since " + ClockText(since_unix_s);
}

// ---- Collectors --------------------------------------------------------------------------------

void AddAnswers(const Looks<CollectorLook>& looks, const char* name,
                std::map<int, Answers>* answers) {
  const std::string full_name = std::string(kPrefix) + name;
  const auto before = looks.before.samples.By(full_name, "status");
  for (const auto& [status, total] : looks.now.samples.By(full_name, "status")) {
    Answers* const of = &(*answers)[std::atoi(status.c_str())];
    of->total += static_cast<uint64_t>(total);
    const auto then = before.find(status);
    if (then != before.end() && looks.seconds() > 0) {
      of->per_second += Rise(then->second, total) / looks.seconds();
    }
  }
}

Traffic TrafficOf(const Looks<CollectorLook>& looks, Buckets* took) {
  Traffic traffic;
  std::map<int, Answers> answers;
  AddAnswers(looks, "requests_total", &answers);
  for (const auto& [status, of] : answers) traffic.per_second += of.per_second;
  if (!looks.before.samples.is_empty()) {
    const std::string histogram = std::string(kPrefix) + "answer_seconds";
    *took =
        RiseOf(BucketsOf(looks.before.samples, histogram), BucketsOf(looks.now.samples, histogram));
  }
  traffic.p50 = QuantileOf(*took, kMedian);
  traffic.p99 = QuantileOf(*took, kLate);
  traffic.in_flight = Whole(looks.now.samples, "reports_held");
  traffic.in_flight_bytes = Whole(looks.now.samples, "held_bytes");
  return traffic;
}

CollectorRow RowOf(const Looks<CollectorLook>& looks, uint64_t control_revision, Buckets* took) {
  CollectorRow row;
  row.url = looks.url;
  row.problem = looks.now.problem;
  if (!row.problem.empty()) {
    row.problem = Since(row.problem, looks.since_unix_s);
    return row;
  }
  for (const auto& [state, is_it] : looks.now.samples.By(std::string(kPrefix) + "state", "state")) {
    if (is_it == 1) row.state = state;
  }
  row.is_ready = row.state == "ready";
  row.traffic = TrafficOf(looks, took);
  row.connections = Whole(looks.now.samples, "connections_open");
  row.control_revision = Whole(looks.now.samples, "control_revision");
  row.has_old_control = row.control_revision < control_revision;
  return row;
}

// A change takes its moment: only who has still not heard of what was set before is named.
uint64_t ControlDue(const Looks<StoreLook>& store) {
  return store.now.problem.empty() && store.before.problem.empty() ? store.before.control.revision
                                                                   : 0;
}

void AddCollectors(const Gathered& gathered, Overview* overview) {
  Buckets together;
  const uint64_t control_due = ControlDue(gathered.store);
  for (const Looks<CollectorLook>& looks : gathered.collectors) {
    Buckets took;
    CollectorRow row = RowOf(looks, control_due, &took);
    if (!row.problem.empty()) {
      overview->problems.push_back("collector " + row.url + " " + row.problem);
    } else {
      if (!row.is_ready) {
        overview->problems.push_back("collector " + row.url + " is " + row.state);
      }
      if (row.has_old_control) {
        overview->problems.push_back("collector " + row.url + " has control revision " +
                                     std::to_string(row.control_revision) + " instead of " +
                                     std::to_string(control_due));
      }
      overview->traffic.per_second += row.traffic.per_second;
      overview->traffic.in_flight += row.traffic.in_flight;
      overview->traffic.in_flight_bytes += row.traffic.in_flight_bytes;
      AddAnswers(looks, "requests_total", &overview->answers);
      AddAnswers(looks, "refused_total", &overview->answers);
      AddTo(took, &together);
    }
    overview->collectors.push_back(std::move(row));
  }
  overview->traffic.p50 = QuantileOf(together, kMedian);
  overview->traffic.p99 = QuantileOf(together, kLate);
}

// ---- Nodes -------------------------------------------------------------------------------------

using NodeLooks = std::vector<Looks<NodeState>>;

// One that it is at odds with, if it is so with more than half of the others that answer: of three
// the one that differs, of two both. May be null.
template <typename AtOdds>
const NodeState* Outvoter(const Looks<NodeState>& looks, const NodeLooks& nodes, AtOdds at_odds) {
  size_t others = 0;
  size_t votes = 0;
  const NodeState* outvoter = nullptr;
  for (const Looks<NodeState>& other : nodes) {
    if (&other == &looks || !other.now.problem.empty()) continue;
    ++others;
    if (!at_odds(looks, other)) continue;
    ++votes;
    outvoter = &other.now;
  }
  return 2 * votes > others ? outvoter : nullptr;
}

// The nodes are not asked in the same moment, and a stream's end and, with an age, its beginning
// move on: what one node has now, another must have reached in the time between the two looks.
std::string MismatchOf(const Looks<NodeState>& looks, const NodeLooks& nodes, uint64_t last_then) {
  if (looks.seconds() < kSettleSeconds) return std::string();
  const NodeState* const first =
      Outvoter(looks, nodes, [](const Looks<NodeState>& one, const Looks<NodeState>& other) {
        return one.now.first_sequence < other.before.first_sequence ||
               one.before.first_sequence > other.now.first_sequence;
      });
  if (first != nullptr) {
    return "begins at " + std::to_string(looks.now.first_sequence) + ", others at " +
           std::to_string(first->first_sequence);
  }
  const NodeState* const holes =
      Outvoter(looks, nodes, [](const Looks<NodeState>& one, const Looks<NodeState>& other) {
        return one.now.holes() != other.now.holes() && one.before.holes() != other.before.holes();
      });
  if (holes != nullptr) {
    return "misses " + std::to_string(looks.now.holes()) + " between first and last, others " +
           std::to_string(holes->holes());
  }
  if (looks.now.last_sequence < last_then) {
    return "ends at " + std::to_string(looks.now.last_sequence) + ", others were at " +
           std::to_string(last_then) + " before";
  }
  return std::string();
}

// One look may fall into a change of leaders.
std::string Divergence(const NodeLooks& looks) {
  std::vector<NodeState> before;
  std::vector<NodeState> now;
  for (const Looks<NodeState>& each : looks) {
    before.push_back(each.before);
    now.push_back(each.now);
    before.back().url = now.back().url = each.url;
  }
  return DivergenceOf(before).empty() ? std::string() : DivergenceOf(now);
}

void AddNodes(const NodeLooks& nodes, Overview* overview) {
  uint64_t last_then = 0;
  uint64_t last = 0;
  for (const Looks<NodeState>& looks : nodes) {
    if (looks.before.problem.empty()) {
      last_then = std::max(last_then, looks.before.last_sequence);
    }
    if (looks.now.problem.empty()) last = std::max(last, looks.now.last_sequence);
  }
  const std::string divergence = Divergence(nodes);
  for (const Looks<NodeState>& looks : nodes) {
    NodeRow row;
    row.node = looks.now;
    row.node.url = looks.url;
    row.answers = looks.now.problem.empty();
    if (!row.answers) {
      row.problem = Since(looks.now.problem, looks.since_unix_s);
    } else {
      row.lag = last - looks.now.last_sequence;
      row.problem = MismatchOf(looks, nodes, last_then);
      const bool is_no_copy = divergence.rfind(looks.url + " ", 0) == 0;
      if (is_no_copy) row.problem = divergence.substr(looks.url.size() + 1);
    }
    if (!row.problem.empty()) {
      overview->problems.push_back("node " + looks.url + " " + row.problem);
    }
    overview->nodes.push_back(std::move(row));
  }
}

// ---- The store as a whole ----------------------------------------------------------------------

void AddStore(const Looks<StoreLook>& store, Overview* overview) {
  overview->store = store.now;
  if (!store.now.problem.empty()) {
    overview->store.problem = Since(store.now.problem, store.since_unix_s);
    overview->problems.push_back("the store " + overview->store.problem);
    return;
  }
  if (store.now.max_bytes != 0) {
    overview->fill =
        static_cast<double>(store.now.bytes) / static_cast<double>(store.now.max_bytes);
  }
  overview->is_nearly_full = overview->fill >= kNearlyFull;
  if (overview->is_nearly_full) {
    overview->problems.push_back("the stream is filled to " +
                                 std::to_string(static_cast<int>(overview->fill * 100)) +
                                 " per cent; once it is full reports are answered 507");
  }
  overview->reader_lag = store.now.unread + store.now.unacknowledged;
  for (const std::string& problem : {store.now.reader_problem, store.now.control_problem}) {
    if (!problem.empty()) overview->problems.push_back(problem);
  }
}

}  // namespace

std::string ClockText(int64_t unix_s) {
  const int64_t second = unix_s % 86'400;
  char text[32];
  std::snprintf(text, sizeof(text), "%02d:%02d:%02d UTC", static_cast<int>(second / 3600),
                static_cast<int>(second / 60 % 60), static_cast<int>(second % 60));
  return text;
}

Overview MakeOverview(const Gathered& gathered) {
  Overview overview;
  AddStore(gathered.store, &overview);
  AddNodes(gathered.nodes, &overview);
  AddCollectors(gathered, &overview);
  return overview;
}

}  // namespace quenor::collector
