// What the page makes of what was gathered at two instants.
#include "collector/page/look/overview.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "collector/page/look/ask.h"
#include "collector/page/look/gatherer.h"
#include "collector/page/look/history.h"

namespace quenor::collector {
namespace {

using std::chrono::seconds;

constexpr int64_t kNoonUnixS = 1'714'564'800;
const Time kThen = Time{} + seconds(100);
const Time kNow = kThen + seconds(10);

template <typename Look>
Looks<Look> At(const std::string& url, Look before, Look now) {
  Looks<Look> looks;
  looks.url = url;
  looks.before = std::move(before);
  looks.now = std::move(now);
  looks.before_at = kThen;
  looks.now_at = kNow;
  looks.since_unix_s = kNoonUnixS;
  looks.now_unix_s = kNoonUnixS + 60;
  return looks;
}

// ---- Collectors --------------------------------------------------------------------------------

CollectorLook Collector(int ok, int busy, int quick, const std::string& state = "ready",
                        int revision = 0) {
  const std::string p = "quenor_collector_";
  const std::string all = std::to_string(ok + busy);
  CollectorLook look;
  look.problem.clear();
  look.samples =
      Samples(p + "requests_total{status=\"200\"} " + std::to_string(ok) + "\n" + p +
              "requests_total{status=\"503\"} " + std::to_string(busy) + "\n" + p +
              "refused_total{status=\"413\"} 4\n" + p + "answer_seconds_bucket{le=\"0.010\"} " +
              std::to_string(quick) + "\n" + p + "answer_seconds_bucket{le=\"0.100\"} " + all +
              "\n" + p + "answer_seconds_bucket{le=\"+Inf\"} " + all + "\n" + p +
              "reports_held 3\n" + p + "held_bytes 300\n" + p + "connections_open 8\n" + p +
              "control_revision " + std::to_string(revision) + "\n" + p +
              "state{state=\"connecting\"} 0\n" + p + "state{state=\"" + state + "\"} 1\n");
  return look;
}

CollectorLook SilentCollector() {
  CollectorLook look;
  look.problem = "does not answer (Connection)";
  return look;
}

// A tier in which all is well.
StoreLook Store() {
  StoreLook store;
  store.problem.clear();
  store.bytes = 500;
  store.max_bytes = 1'000;
  store.messages = 50;
  store.unread = 7;
  store.unacknowledged = 2;
  return store;
}

Gathered Calm() {
  Gathered gathered;
  gathered.store = At("one", Store(), Store());
  gathered.collectors = {At("a", Collector(0, 0, 0), Collector(0, 0, 0))};
  return gathered;
}

Overview OverviewOf(std::vector<Looks<CollectorLook>> collectors) {
  Gathered gathered = Calm();
  gathered.collectors = std::move(collectors);
  return MakeOverview(gathered, kNow);
}

TEST(OverviewTest, TrafficIsTheRiseBetweenTheTwoLooks) {
  const Overview overview =
      OverviewOf({At("a", Collector(1000, 0, 1000), Collector(1090, 10, 1050)),
                  At("b", Collector(50, 0, 50), Collector(150, 0, 150))});

  EXPECT_EQ(overview.problems, std::vector<std::string>());
  EXPECT_DOUBLE_EQ(overview.traffic.per_second, 20);
  EXPECT_DOUBLE_EQ(overview.collectors.at(0).traffic.per_second, 10);
  EXPECT_EQ(overview.traffic.in_flight, 6u);
  EXPECT_EQ(overview.traffic.in_flight_bytes, 600u);
  EXPECT_EQ(overview.answers.at(200).total, 1240u);
  EXPECT_DOUBLE_EQ(overview.answers.at(503).per_second, 1);
  EXPECT_EQ(overview.answers.at(413).total, 8u);
  EXPECT_DOUBLE_EQ(overview.answers.at(413).per_second, 0);
  // 50 of a's 100 and all of b's took 10 ms at most: 150 of 200.
  EXPECT_DOUBLE_EQ(overview.traffic.p50->seconds, 0.01 * 100 / 150);
  EXPECT_DOUBLE_EQ(overview.traffic.p99->seconds, 0.01 + 0.09 * 48 / 50);
  EXPECT_DOUBLE_EQ(overview.collectors.at(0).traffic.p99->seconds, 0.01 + 0.09 * 49 / 50);
}

TEST(OverviewTest, CollectorThatBeganAnewCountsFromZero) {
  const Overview overview = OverviewOf({At("a", Collector(1000, 9, 9), Collector(30, 0, 30))});

  EXPECT_DOUBLE_EQ(overview.traffic.per_second, 3);
  EXPECT_NEAR(overview.traffic.p99->seconds, 0.0099, 1e-9);
}

TEST(OverviewTest, FirstLookHasNoRateYet) {
  Looks<CollectorLook> looks = At("a", Collector(1000, 0, 9), Collector(1000, 0, 9));
  looks.before_at = looks.now_at;

  const Overview overview = OverviewOf({looks});

  EXPECT_EQ(overview.traffic.per_second, 0);
  EXPECT_FALSE(overview.traffic.p50);
}

TEST(OverviewTest, CollectorThatIsNotAsItShouldBeIsNamed) {
  const Overview overview =
      OverviewOf({At("a", SilentCollector(), SilentCollector()),
                  At("b", Collector(0, 0, 0), Collector(0, 0, 0, "stalled"))});

  EXPECT_EQ(overview.problems,
            (std::vector<std::string>{
                "collector a does not answer (Connection) since 2024-05-01 12:00:00 UTC",
                "collector b is stalled"}));
  EXPECT_EQ(overview.collectors.at(0).problem,
            "does not answer (Connection) since 2024-05-01 12:00:00 UTC");
  EXPECT_EQ(overview.traffic.in_flight, 3u) << "b's alone";
}

TEST(OverviewTest, CollectorAheadOfTheStoreIsOfABucketOfBefore) {
  Gathered gathered = Calm();
  gathered.store.before.control.revision = gathered.store.now.control.revision = 2;
  gathered.collectors = {At("a", Collector(0, 0, 0), Collector(0, 0, 0, "ready", 3)),
                         At("b", Collector(0, 0, 0, "ready", 7), Collector(0, 0, 0, "ready", 7)),
                         At("c", Collector(0, 0, 0, "ready", 7), Collector(0, 0, 0, "ready", 7))};
  gathered.collectors.at(2).before_at = kNow;

  const std::vector<std::string> b = {"collector b has control revision 7 instead of 2"};
  EXPECT_EQ(MakeOverview(gathered, kNow).problems, b)
      << "a has what is set just now, as c may have, and the store was asked before";
  gathered.store.now.control = ControlFound();
  EXPECT_EQ(MakeOverview(gathered, kNow).problems,
            std::vector<std::string>{"collector b has control revision 7 instead of 0"});
  gathered.store.now.control_problem = "cannot read it";
  EXPECT_EQ(MakeOverview(gathered, kNow).problems, std::vector<std::string>{"cannot read it"});
}

TEST(OverviewTest, OldLooksAreNotShownAsNow) {
  Gathered gathered = Calm();
  gathered.nodes = {At("n", NodeState(), NodeState())};
  EXPECT_EQ(MakeOverview(gathered, kNow + seconds(6)).problems, std::vector<std::string>());

  const std::string old = " has not answered since 2024-05-01 12:01:00 UTC";
  const Overview overview = MakeOverview(gathered, kNow + seconds(7));
  EXPECT_EQ(overview.problems,
            (std::vector<std::string>{"the store" + old, "node n" + old, "collector a" + old}));
  EXPECT_FALSE(overview.nodes.at(0).answers);
  EXPECT_FALSE(overview.store.problem.empty());

  gathered.collectors.at(0).now = SilentCollector();
  EXPECT_EQ(MakeOverview(gathered, kNow + seconds(7)).problems.at(2),
            "collector a does not answer (Connection) since 2024-05-01 12:00:00 UTC");
}

TEST(OverviewTest, CollectorIsGivenTimeToHearOfAChange) {
  Gathered gathered = Calm();
  gathered.store.before.control.revision = 4;
  gathered.store.now.control.revision = 5;
  gathered.collectors = {At("a", Collector(0, 0, 0), Collector(0, 0, 0, "ready", 5)),
                         At("b", Collector(0, 0, 0), Collector(0, 0, 0, "ready", 4)),
                         At("c", Collector(0, 0, 0), Collector(0, 0, 0, "ready", 3))};

  const Overview overview = MakeOverview(gathered, kNow);

  EXPECT_EQ(overview.problems,
            std::vector<std::string>{"collector c has control revision 3 instead of 4"});
  EXPECT_FALSE(overview.collectors.at(1).has_other_control);
  EXPECT_TRUE(overview.collectors.at(2).has_other_control);
}

// ---- Nodes -------------------------------------------------------------------------------------

struct Held {
  uint64_t first, last, messages;
};

NodeState Node(const Held& held) {
  NodeState node;
  node.first_sequence = held.first;
  node.last_sequence = held.last;
  node.messages = held.messages;
  node.leader = "n1";
  node.last_time = "2024-05-01T12:00:" + std::to_string(10'000'000'000 + held.last).substr(1);
  return node;
}

NodeState SilentNode() {
  NodeState node;
  node.problem = "does not answer (Connection)";
  return node;
}

Overview OfNodes(const std::vector<std::pair<NodeState, NodeState>>& nodes) {
  Gathered gathered = Calm();
  for (const auto& [before, now] : nodes) {
    gathered.nodes.push_back(At("n" + std::to_string(gathered.nodes.size() + 1), before, now));
  }
  return MakeOverview(gathered, kNow);
}

TEST(OverviewTest, NodesThatAreNotAskedInTheSameMomentAreCopies) {
  struct Case {
    const char* what;
    std::vector<std::pair<Held, Held>> nodes;
  };
  const Case cases[] = {
      {"calm", {{{1, 9, 9}, {1, 9, 9}}, {{1, 9, 9}, {1, 9, 9}}, {{1, 9, 9}, {1, 9, 9}}}},
      {"busy", {{{1, 9, 9}, {1, 50, 50}}, {{1, 8, 8}, {1, 48, 48}}, {{1, 9, 9}, {1, 9, 9}}}},
      {"with an age",
       {{{3, 9, 7}, {7, 50, 44}}, {{2, 9, 8}, {6, 49, 44}}, {{3, 9, 7}, {7, 50, 44}}}},
      {"a gap that was filled", {{{1, 9, 8}, {1, 50, 50}}, {{1, 9, 9}, {1, 50, 50}}}},
      {"a gap at one look", {{{1, 9, 9}, {1, 50, 49}}, {{1, 9, 9}, {1, 50, 50}}}},
      {"all miss the same", {{{1, 9, 5}, {1, 9, 5}}, {{1, 9, 5}, {1, 9, 5}}}},
      {"one", {{{1, 9, 5}, {1, 9, 5}}}},
  };
  for (const Case& each : cases) {
    std::vector<std::pair<NodeState, NodeState>> nodes;
    for (const auto& [before, now] : each.nodes) nodes.push_back({Node(before), Node(now)});
    EXPECT_EQ(OfNodes(nodes).problems, std::vector<std::string>()) << each.what;
  }
}

TEST(OverviewTest, NodeThatIsNoCopyIsNamed) {
  const std::pair<NodeState, NodeState> good = {Node({1, 90, 90}), Node({1, 100, 100})};
  struct Case {
    std::pair<NodeState, NodeState> third;
    const char* problem;
  };
  const Case cases[] = {
      {{Node({5, 90, 86}), Node({5, 100, 96})}, "node n3 begins at 5, others at 1"},
      {{Node({1, 90, 88}), Node({1, 100, 98})},
       "node n3 misses 2 between first and last, others 0"},
      {{Node({1, 20, 20}), Node({1, 89, 89})}, "node n3 ends at 89, others at 100, for seconds"},
      {{Node({1, 109, 109}), Node({1, 110, 110})},
       "node n3 ends at 110, others at 100, for seconds"},
      {{SilentNode(), SilentNode()},
       "node n3 does not answer (Connection) since 2024-05-01 12:00:00 UTC"},
      {{Node({1, 90, 90}), SilentNode()},
       "node n3 does not answer (Connection) since 2024-05-01 12:00:00 UTC"},
  };
  for (const Case& each : cases) {
    EXPECT_EQ(OfNodes({good, good, each.third}).problems, std::vector<std::string>{each.problem});
  }
}

TEST(OverviewTest, NodeOfLowerNumbersIsNoCopyEvenUnderTraffic) {
  NodeState before = Node({1, 88, 88});
  NodeState now = Node({1, 98, 98});
  before.last_time = Node({1, 90, 90}).last_time;
  now.last_time = Node({1, 100, 100}).last_time;
  const std::pair<NodeState, NodeState> good = {Node({1, 90, 90}), Node({1, 100, 100})};

  const Overview overview = OfNodes({good, good, {before, now}});
  EXPECT_EQ(overview.nodes.at(0).problem, "");
  EXPECT_EQ(overview.nodes.at(2).problem.rfind("is no copy", 0), 0u);
  EXPECT_EQ(OfNodes({good, good, {Node({1, 88, 88}), now}}).problems, std::vector<std::string>())
      << "one look may fall into a change of leaders";
}

TEST(OverviewTest, EachNodeThatMayBeNoCopyIsNamed) {
  NodeState odd = Node({1, 9, 9});
  odd.bytes = 7;
  const std::pair<NodeState, NodeState> good = {Node({1, 9, 9}), Node({1, 9, 9})};
  const Overview two = OfNodes({good, {odd, odd}});
  EXPECT_EQ(two.nodes.at(0).problem.rfind("may be no copy: ", 0), 0u);
  EXPECT_EQ(two.nodes.at(1).problem.rfind("may be no copy: ", 0), 0u);
  EXPECT_EQ(two.problems.size(), 2u);

  NodeState other = odd;
  other.bytes = 8;
  const Overview five = OfNodes({good, {odd, odd}, good, {other, other}, good});
  EXPECT_EQ(five.problems.size(), 2u) << "the second one, too";
  EXPECT_EQ(five.nodes.at(1).problem.rfind("is no copy: ", 0), 0u);
  EXPECT_EQ(five.nodes.at(3).problem.rfind("is no copy: ", 0), 0u);
}

TEST(OverviewTest, ReplicaThatNobodyLooksAtIsAProblem) {
  const auto problems_of = [](const std::vector<std::string>& ids, uint64_t replicas) {
    Gathered gathered = Calm();
    gathered.store.now.replicas = replicas;
    for (const std::string& id : ids) {
      NodeState node = id.empty() ? SilentNode() : Node({1, 9, 9});
      node.id = id;
      gathered.nodes.push_back(At("u" + std::to_string(gathered.nodes.size()), node, node));
    }
    return MakeOverview(gathered, kNow).problems;
  };
  EXPECT_EQ(problems_of({"A", "B", "C"}, 3).size(), 0u);
  EXPECT_EQ(problems_of({"A"}, 1).size(), 0u);
  EXPECT_EQ(problems_of({"A", "B", ""}, 3).size(), 1u) << "the silent one has a line already";
  EXPECT_EQ(problems_of({"A", "B", "A"}, 3),
            std::vector<std::string>{"--monitor leads to 2 of the stream's 3 replicas; give it "
                                     "once for each node"});
  EXPECT_EQ(problems_of({"A", "B"}, 3).size(), 1u);
  EXPECT_EQ(problems_of({}, 3).size(), 1u);
}

TEST(OverviewTest, TwoNodesThatDifferAreBothBad) {
  const Overview overview =
      OfNodes({{Node({1, 9, 9}), Node({1, 9, 9})}, {Node({2, 9, 8}), Node({2, 9, 8})}});

  EXPECT_EQ(overview.problems, (std::vector<std::string>{"node n1 begins at 1, others at 2",
                                                         "node n2 begins at 2, others at 1"}));
}

TEST(OverviewTest, NodeThatHasOnlyJustAnsweredHasTimeToComeAfter) {
  Gathered gathered = Calm();
  gathered.nodes = {At("n1", Node({1, 90, 90}), Node({1, 100, 100})),
                    At("n2", Node({1, 50, 50}), Node({1, 50, 50}))};
  gathered.nodes.at(1).before_at = kNow - seconds(1);
  EXPECT_EQ(MakeOverview(gathered, kNow).problems, std::vector<std::string>());

  gathered.nodes.at(1).before_at = kNow - seconds(2);
  EXPECT_EQ(MakeOverview(gathered, kNow).problems.size(), 2u) << "of two it may be either";
}

TEST(OverviewTest, LagIsWhatAnotherHasNow) {
  const Overview overview = OfNodes({{Node({1, 90, 90}), Node({1, 100, 100})},
                                     {Node({1, 90, 90}), Node({1, 97, 97})},
                                     {SilentNode(), SilentNode()}});

  EXPECT_EQ(overview.nodes.at(0).lag, 0u);
  EXPECT_EQ(overview.nodes.at(1).lag, 3u);
  EXPECT_FALSE(overview.nodes.at(2).answers);
}

// ---- The store ---------------------------------------------------------------------------------

TEST(OverviewTest, FillAndReadersLag) {
  Gathered gathered = Calm();
  EXPECT_DOUBLE_EQ(MakeOverview(gathered, kNow).fill, 0.5);
  EXPECT_EQ(MakeOverview(gathered, kNow).reader_lag, 9u);
  EXPECT_FALSE(MakeOverview(gathered, kNow).is_nearly_full);

  gathered.store.now.bytes = 800;
  EXPECT_TRUE(MakeOverview(gathered, kNow).is_nearly_full);
  EXPECT_EQ(MakeOverview(gathered, kNow).problems.size(), 1u);

  gathered.store.now.max_bytes = 0;
  EXPECT_EQ(MakeOverview(gathered, kNow).fill, 0);
}

TEST(OverviewTest, WhatTheStoreLacksIsNamed) {
  Gathered gathered = Calm();
  gathered.store.now.reader_problem = "no reader";
  gathered.store.now.control_problem = "not understood";
  EXPECT_EQ(MakeOverview(gathered, kNow).problems,
            (std::vector<std::string>{"no reader", "not understood"}));

  gathered.store.now.problem = "does not answer";
  EXPECT_EQ(MakeOverview(gathered, kNow).problems,
            std::vector<std::string>{"the store does not answer since 2024-05-01 12:00:00 UTC"});
  EXPECT_EQ(MakeOverview(Gathered(), kNow).problems,
            (std::vector<std::string>{"the store has not been asked yet",
                                      "nothing is watched; give --collector for each collector "
                                      "and --monitor for each node"}));
}

// ---- What is kept ------------------------------------------------------------------------------

TEST(HistoryTest, LooksBackAsFarAsTheWindow) {
  History<CollectorLook> history("a");
  EXPECT_EQ(history.Get().now.problem, "has not been asked yet");
  for (int second = 0; second <= 25; ++second) {
    history.Add(Collector(second, 0, 0), kThen + seconds(second), kNoonUnixS + second);
  }

  EXPECT_EQ(history.Get().seconds(), 10);
  EXPECT_EQ(history.Get().now_at, kThen + seconds(25));
  EXPECT_EQ(history.Get().since_unix_s, kNoonUnixS);
}

TEST(HistoryTest, SilenceBeginsAnewAndSoDoesItsEnd) {
  History<CollectorLook> history("a");
  history.Add(Collector(1, 0, 0), kThen, kNoonUnixS);
  history.Add(SilentCollector(), kThen + seconds(1), kNoonUnixS + 1);
  history.Add(SilentCollector(), kThen + seconds(2), kNoonUnixS + 2);
  EXPECT_EQ(history.Get().since_unix_s, kNoonUnixS + 1);
  EXPECT_EQ(history.Get().before.problem, "does not answer (Connection)");

  history.Add(Collector(9, 0, 0), kThen + seconds(3), kNoonUnixS + 3);
  EXPECT_EQ(history.Get().since_unix_s, kNoonUnixS + 3);
  EXPECT_EQ(history.Get().seconds(), 0) << "nothing is counted over the gap";
}

TEST(HistoryTest, AnotherProblemBeginsAnewButNotItsParticulars) {
  History<NodeState> history("a");
  auto since_of = [&, second = 0](const std::string& problem) mutable {
    NodeState node;
    node.problem = problem;
    history.Add(node, kThen + seconds(second), kNoonUnixS + second);
    ++second;
    return history.Get().since_unix_s - kNoonUnixS;
  };
  EXPECT_EQ(since_of("does not answer (Connection)"), 0);
  EXPECT_EQ(since_of("does not answer (Read)"), 0);
  EXPECT_EQ(since_of("answers with status 500"), 2);
  EXPECT_EQ(since_of("answers with status 500"), 2);
}

TEST(AskTest, AddressThatIsNoneIsAProblem) {
  EXPECT_EQ(AskCollector("http://127.0.0.1:99999999999").problem.rfind("cannot be asked (", 0), 0u);
}

// One that never answers, until the test is over, holds up none of the others.
TEST(GathererTest, OneThatHangsHoldsUpNoOther) {
  std::mutex mutex;
  std::condition_variable cv;
  bool others_are_there = false;
  int others = 0;
  const auto other_was_asked = [&] {
    const std::lock_guard<std::mutex> lock(mutex);
    others_are_there = ++others >= 3;
    cv.notify_all();
  };
  Asking asking;
  asking.collector = [&](const std::string& url) {
    if (url == "b") {
      other_was_asked();
    } else {
      std::unique_lock<std::mutex> lock(mutex);
      cv.wait(lock, [&] { return others_are_there; });
    }
    return Collector(1, 0, 0);
  };
  asking.node = [&](const std::string&) {
    other_was_asked();
    return Node({1, 2, 2});
  };
  asking.store = [&] {
    other_was_asked();
    return Store();
  };
  asking.now = [] { return kThen; };
  asking.unix_s = [] { return kNoonUnixS; };

  const Gatherer gatherer({"hangs", "b"}, {"n"}, "s", asking);

  std::unique_lock<std::mutex> lock(mutex);
  cv.wait(lock, [&] { return others_are_there; });
  EXPECT_EQ(gatherer.Get().collectors.at(0).url, "hangs");
}

}  // namespace
}  // namespace quenor::collector
