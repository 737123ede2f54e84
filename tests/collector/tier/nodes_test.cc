// What provision --check makes of the nodes' own pages.
#include "collector/provision/nodes.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace quenor::collector {
namespace {

NodeState Node(const std::string& url, uint64_t last, const std::string& time) {
  const std::string page =
      R"({"server_id":"N7","config":{"max_storage":1000},"account_details":[{"stream_detail":[{"name":"OTHER"},)"
      R"({"name":"S","config":{"num_replicas":3},"cluster":{"leader":"a"},"state":{"first_seq":1,"last_seq":)" +
      std::to_string(last) + R"(,"messages":)" + std::to_string(last) +
      R"(,"bytes":5,"last_ts":"2024-05-01T12:34:)" + time + R"("}}]}]})";
  NodeState node = ReadNode(page, "S");
  node.url = url;
  return node;
}

TEST(NodesTest, PageIsRead) {
  const NodeState node = Node("a", 40, "56.7Z");

  EXPECT_EQ(node.problem, "");
  EXPECT_EQ(node.id, "N7");
  EXPECT_EQ(node.first_sequence, 1u);
  EXPECT_EQ(node.last_sequence, 40u);
  EXPECT_EQ(node.messages, 40u);
  EXPECT_EQ(node.bytes, 5u);
  EXPECT_EQ(node.max_storage_bytes, 1000u);
  EXPECT_EQ(node.leader, "a");
  EXPECT_EQ(node.replicas, 3u);
  EXPECT_EQ(node.holes(), 0u);
  EXPECT_EQ(node.last_time, "2024-05-01T12:34:56.700000000");
  EXPECT_EQ(Node("a", 40, "56Z").last_time, "2024-05-01T12:34:56.000000000");
}

TEST(NodesTest, PageThatIsNoneIsAProblem) {
  for (const char* page : {"", "[]", "{}", R"({"account_details":{}})",
                           R"({"account_details":[{"stream_detail":[{"name":7}]}]})",
                           R"({"account_details":[{"stream_detail":[{"name":"S"}]}]})"}) {
    EXPECT_NE(ReadNode(page, "S").problem, "") << page;
  }
}

TEST(NodesTest, NodeThatIsBehindIsNoCopyYet) {
  const std::vector<NodeState> nodes = {Node("a", 40, "56.7Z"), Node("b", 38, "56.65Z")};

  EXPECT_EQ(DivergenceOf(nodes), "") << "it may come";
  EXPECT_NE(MismatchOf(nodes, 1, 40).find("b ends at 38"), std::string::npos);
  EXPECT_EQ(MismatchOf(nodes, 1, 38), "");
}

TEST(NodesTest, NodeThatLacksSomeIsNoCopyAlsoUnderTraffic) {
  const std::vector<NodeState> calm = {Node("a", 40, "56.7Z"), Node("b", 38, "56.7Z"),
                                       Node("c", 40, "56.7Z")};
  EXPECT_EQ(DivergenceOf(calm).find("b is no copy"), 0u);
  EXPECT_EQ(DivergencesOf(calm)[0], "");
  EXPECT_EQ(DivergencesOf(calm)[2], "");
  const std::vector<NodeState> busy = {Node("a", 40, "56.7Z"), Node("b", 39, "56.71Z"),
                                       Node("c", 41, "56.72Z")};
  EXPECT_EQ(MismatchOf(busy, 1, 30), "") << "it has long passed what was there first";
  EXPECT_NE(DivergencesOf(busy)[1].find("so it lacks 1 or more, or a is none"), std::string::npos)
      << "c has come further, and is no judge";
  EXPECT_NE(DivergenceOf(calm).find("so it lacks 2 or more"), std::string::npos);
}

TEST(NodesTest, NodeThatHasTooManyIsTheOne) {
  const std::vector<NodeState> nodes = {Node("a", 40, "56.7Z"), Node("b", 40, "56.7Z"),
                                        Node("c", 42, "56.7Z")};
  const std::vector<std::string> found = DivergencesOf(nodes);

  EXPECT_EQ(found[0], "");
  EXPECT_EQ(found[1], "");
  EXPECT_EQ(found[2].find("is no copy: its message 42 is no newer than message 40 of "), 0u);
  EXPECT_NE(found[2].find("so it has 2 or more too many"), std::string::npos) << found[2];
  EXPECT_EQ(MismatchOf(nodes, 1, 42), "c ends at 42, b only at 40");
}

TEST(NodesTest, OddOneIsNamedWhereverItStands) {
  const auto begins = [](const std::string& url, uint64_t first) {
    NodeState node = Node(url, 40, "56.7Z");
    node.first_sequence = first;
    node.messages = 41 - first;
    return node;
  };
  EXPECT_EQ(MismatchOf({begins("a", 2), begins("b", 1), begins("c", 1)}, 2, 40),
            "a begins at 2, c at 1");
  EXPECT_EQ(MismatchOf({begins("a", 2), begins("b", 1)}, 2, 40), "a begins at 2, b at 1");
  EXPECT_NE(MismatchOf({begins("a", 1), begins("b", 1), begins("c", 2), begins("d", 2)}, 2, 40),
            "");
}

TEST(NodesTest, EachDropsWhatIsTooOldByItsOwnTimer) {
  std::vector<NodeState> nodes = {Node("a", 40, "56.7Z"), Node("b", 40, "56.7Z"),
                                  Node("c", 40, "56.7Z")};
  for (uint64_t i = 0; i < 3; ++i) {
    nodes[i].first_sequence = 5 + i;
    nodes[i].messages = 36 - i;
  }
  EXPECT_EQ(MismatchOf(nodes, 5, 40), "");
  EXPECT_NE(MismatchOf(nodes, 6, 40), "") << "what one has dropped another still has";
}

TEST(NodesTest, NodeWithOtherMessagesInTheirPlacesHasOtherBytes) {
  const auto holding = [](const std::string& url, uint64_t last, uint64_t bytes) {
    NodeState node = Node(url, last, "56.7Z");
    node.bytes = bytes;
    return node;
  };
  const std::string found =
      DivergenceOf({holding("a", 40, 9), holding("b", 40, 8), holding("c", 40, 9)});
  EXPECT_EQ(found.find("b is no copy: up to message 40 it holds 8 bytes and c 9, so it has other"),
            0u)
      << found;
  const std::string first =
      DivergenceOf({holding("a", 40, 7), holding("b", 40, 8), holding("c", 40, 8)});
  EXPECT_EQ(first.find("a is no copy"), 0u) << first;
  NodeState further = holding("b", 41, 8);
  further.last_time += "1";
  EXPECT_EQ(DivergenceOf({holding("a", 40, 9), further}), "") << "that one has come further";
}

TEST(NodesTest, OfTwoEitherMayBeTheOne) {
  NodeState odd = Node("b", 40, "56.7Z");
  odd.bytes = 8;
  const std::vector<std::string> found = DivergencesOf({Node("a", 40, "56.7Z"), odd});

  EXPECT_EQ(
      found[0],
      "may be no copy: up to message 40 it holds 5 bytes and b 8, so it has other messages in "
      "the place of some, or b is none; a third node tells which");
  EXPECT_EQ(found[1].find("may be no copy: up to message 40 it holds 8 bytes and a 5"), 0u);

  const std::vector<std::string> lower =
      DivergencesOf({Node("a", 40, "56.7Z"), Node("b", 38, "56.7Z")});
  EXPECT_EQ(lower[0].find("may be no copy: its message 40 is no newer"), 0u) << lower[0];
  EXPECT_EQ(lower[1].find("may be no copy: its message 38 is no older"), 0u) << lower[1];
}

TEST(NodesTest, AddressThatIsNoneIsAProblem) {
  for (const char* url : {"http://127.0.0.1:99999999999", "http://127.0.0.1:x"}) {
    EXPECT_NE(AskNode(url, "S").problem, "") << url;
  }
}

TEST(NodesTest, TimesOfTwoLeadersAreNotCompared) {
  NodeState other = Node("b", 39, "56.71Z");
  other.leader = "b";

  EXPECT_EQ(DivergenceOf({Node("a", 40, "56.7Z"), other}), "");
}

TEST(NodesTest, SilentNodeIsAMismatch) {
  NodeState silent;
  silent.url = "c";
  silent.problem = "does not answer";

  EXPECT_EQ(DivergenceOf({Node("a", 40, "56.7Z"), silent}), "");
  EXPECT_EQ(MismatchOf({Node("a", 40, "56.7Z"), silent}, 1, 40), "c does not answer");
}

}  // namespace
}  // namespace quenor::collector
