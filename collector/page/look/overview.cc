#include "collector/page/look/overview.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <set>
#include <utility>

namespace quenor::collector {
namespace {

constexpr char kPrefix[] = "quenor_collector_";
// From here on a stream is about to answer 507, and an operator has some time left.
constexpr double kNearlyFull = 0.8;
// Everyone is asked every second and given some seconds to answer: an older look is not of now.
constexpr std::chrono::seconds kFresh{6};
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

template <typename Look>
void Age(Time now, Looks<Look>* looks) {
  if (!looks->now.problem.empty() || now - looks->now_at <= kFresh) return;
  looks->now.problem = "has not answered";
  looks->since_unix_s = looks->now_unix_s;
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

// A change takes its moment: only who has still not heard of what was set before is wrong, and who
// had something before the store was asked that the store does not have: it was made anew.
std::string ControlProblem(const Looks<CollectorLook>& looks, const Looks<StoreLook>& store) {
  const bool is_known = store.now.problem.empty() && store.now.control_problem.empty() &&
                        store.before.problem.empty();
  if (!is_known) return std::string();
  const uint64_t revision = Whole(looks.now.samples, "control_revision");
  const uint64_t had = Whole(looks.before.samples, "control_revision");
  const uint64_t set = store.now.control.revision;
  const uint64_t due = std::min(set, store.before.control.revision);
  const auto asked_later = std::chrono::duration<double>(store.now_at - looks.before_at).count();
  const bool is_unknown = std::min(revision, had) > set && asked_later >= kSettleSeconds;
  if (revision >= due && !is_unknown) return std::string();
  return "has control revision " + std::to_string(revision) + " instead of " +
         std::to_string(is_unknown ? set : due);
}

CollectorRow RowOf(const Looks<CollectorLook>& looks, Buckets* took) {
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
  return row;
}

void AddCollectors(const Gathered& gathered, Overview* overview) {
  Buckets together;
  for (const Looks<CollectorLook>& looks : gathered.collectors) {
    Buckets took;
    CollectorRow row = RowOf(looks, &took);
    if (!row.problem.empty()) {
      overview->problems.push_back("collector " + row.url + " " + row.problem);
    } else {
      if (!row.is_ready) {
        overview->problems.push_back("collector " + row.url + " is " + row.state);
      }
      const std::string control = ControlProblem(looks, gathered.store);
      row.has_other_control = !control.empty();
      if (row.has_other_control) {
        overview->problems.push_back("collector " + row.url + " " + control);
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

using Voters = std::vector<const Looks<NodeState>*>;

// Who has only just answered has time to come after, and is no measure for the others.
Voters VotersOf(const NodeLooks& nodes) {
  Voters voters;
  for (const Looks<NodeState>& looks : nodes) {
    if (looks.now.problem.empty() && looks.seconds() >= kSettleSeconds) voters.push_back(&looks);
  }
  return voters;
}

// The nodes are not asked in the same moment, and a stream's end and, with an age, its beginning
// move on: what one node has now, another must have reached in the time between the two looks.
std::string MismatchOf(const Looks<NodeState>& looks, const Voters& voters) {
  using Node = Looks<NodeState>;
  const NodeState& now = looks.now;
  const auto outvoter = [&](auto at_odds) {
    const Node* const by = OutvotedBy(looks, voters, at_odds).by;
    return by == nullptr ? nullptr : &by->now;
  };
  const auto first = outvoter([](const Node& one, const Node& other) {
    return one.now.first_sequence < other.before.first_sequence ||
           one.before.first_sequence > other.now.first_sequence;
  });
  if (first != nullptr) {
    return "begins at " + std::to_string(now.first_sequence) + ", others at " +
           std::to_string(first->first_sequence);
  }
  const auto holes = outvoter([](const Node& one, const Node& other) {
    return one.now.holes() != other.now.holes() && one.before.holes() != other.before.holes();
  });
  if (holes != nullptr) {
    return "misses " + std::to_string(now.holes()) + " between first and last, others " +
           std::to_string(holes->holes());
  }
  const auto last = outvoter([](const Node& one, const Node& other) {
    return one.now.last_sequence < other.before.last_sequence ||
           one.before.last_sequence > other.now.last_sequence;
  });
  if (last == nullptr) return std::string();
  return "ends at " + std::to_string(now.last_sequence) + ", others at " +
         std::to_string(last->last_sequence) + ", for seconds";
}

// Of each node, at both looks: one may fall into a change of leaders.
std::vector<std::string> Divergences(const NodeLooks& nodes) {
  std::vector<NodeState> before;
  std::vector<NodeState> now;
  for (const Looks<NodeState>& each : nodes) {
    before.push_back(each.before);
    now.push_back(each.now);
    before.back().url = now.back().url = each.url;
  }
  const std::vector<std::string> then = DivergencesOf(before);
  std::vector<std::string> divergences = DivergencesOf(now);
  for (size_t i = 0; i < nodes.size(); ++i) {
    if (then[i].empty()) divergences[i].clear();
  }
  return divergences;
}

// A replica that no --monitor leads to is one that nobody looks at.
std::string UnwatchedReplicas(const NodeLooks& nodes, const Looks<StoreLook>& store) {
  std::set<std::string> known;
  for (const Looks<NodeState>& looks : nodes) {
    // What a silent one would be is not known: it has a line of its own.
    known.insert(looks.now.problem.empty() ? looks.now.id : looks.url);
  }
  if (!store.now.problem.empty() || known.size() >= store.now.replicas) return std::string();
  return "--monitor leads to " + std::to_string(known.size()) + " of the stream's " +
         std::to_string(store.now.replicas) + " replicas; give it once for each node";
}

void AddNodes(const Gathered& gathered, Overview* overview) {
  const NodeLooks& nodes = gathered.nodes;
  uint64_t last = 0;
  for (const Looks<NodeState>& looks : nodes) {
    if (looks.now.problem.empty()) last = std::max(last, looks.now.last_sequence);
  }
  const Voters voters = VotersOf(nodes);
  const std::vector<std::string> divergences = Divergences(nodes);
  for (size_t i = 0; i < nodes.size(); ++i) {
    const Looks<NodeState>& looks = nodes[i];
    NodeRow row;
    row.node = looks.now;
    row.node.url = looks.url;
    row.answers = looks.now.problem.empty();
    if (!row.answers) {
      row.problem = Since(looks.now.problem, looks.since_unix_s);
    } else {
      row.lag = last - looks.now.last_sequence;
      row.problem = divergences[i];
      const bool is_voter = std::count(voters.begin(), voters.end(), &looks) > 0;
      if (row.problem.empty() && is_voter) row.problem = MismatchOf(looks, voters);
    }
    if (!row.problem.empty()) {
      overview->problems.push_back("node " + looks.url + " " + row.problem);
    }
    overview->nodes.push_back(std::move(row));
  }
  const std::string unwatched = UnwatchedReplicas(nodes, gathered.store);
  if (!unwatched.empty()) overview->problems.push_back(unwatched);
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
  const std::time_t time = unix_s;
  std::tm parts{};
  ::gmtime_r(&time, &parts);
  char text[64];
  std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S UTC", &parts);
  return text;
}

Overview MakeOverview(Gathered gathered, Time now) {
  for (auto& looks : gathered.collectors) Age(now, &looks);
  for (auto& looks : gathered.nodes) Age(now, &looks);
  Age(now, &gathered.store);
  Overview overview;
  AddStore(gathered.store, &overview);
  AddNodes(gathered, &overview);
  AddCollectors(gathered, &overview);
  if (gathered.collectors.empty() && gathered.nodes.empty()) {
    overview.problems.emplace_back(
        "nothing is watched; give --collector for each collector and --monitor for each node");
  }
  return overview;
}

}  // namespace quenor::collector
