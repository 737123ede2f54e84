// What provision --check makes of the nodes' own pages.
#include "collector/provision/nodes.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace quenor::collector {
namespace {

NodeState Node(const std::string& url, uint64_t last, const std::string& time) {
  const std::string page =
      R"({"config":{"max_storage":1000},"account_details":[{"stream_detail":[{"name":"OTHER"},)"
      R"({"name":"S","cluster":{"leader":"a"},"state":{"first_seq":1,"last_seq":)" +
      std::to_string(last) + R"(,"messages":)" + std::to_string(last) +
      R"(,"bytes":5,"last_ts":"2024-05-01T12:34:)" + time + R"("}}]}]})";
  NodeState node = ReadNode(page, "S");
  node.url = url;
  return node;
}

TEST(NodesTest, PageIsRead) {
  const NodeState node = Node("a", 40, "56.7Z");

  EXPECT_EQ(node.problem, "");
  EXPECT_EQ(node.first_sequence, 1u);
  EXPECT_EQ(node.last_sequence, 40u);
  EXPECT_EQ(node.messages, 40u);
  EXPECT_EQ(node.bytes, 5u);
  EXPECT_EQ(node.max_storage_bytes, 1000u);
  EXPECT_EQ(node.leader, "a");
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
  EXPECT_NE(MismatchOf(nodes, 40).find("b ends at 38"), std::string::npos);
  EXPECT_EQ(MismatchOf(nodes, 38), "");
}

TEST(NodesTest, NodeThatLacksSomeIsNoCopyAlsoUnderTraffic) {
  const std::vector<NodeState> calm = {Node("a", 40, "56.7Z"), Node("b", 38, "56.7Z")};
  EXPECT_NE(DivergenceOf(calm).find("b is no copy"), std::string::npos);
  const std::vector<NodeState> busy = {Node("a", 40, "56.7Z"), Node("b", 39, "56.71Z")};
  EXPECT_EQ(MismatchOf(busy, 30), "") << "it has long passed what was there first";
  EXPECT_NE(DivergenceOf(busy).find("so it lacks 1 or more"), std::string::npos);
}

TEST(NodesTest, NodeWithOtherMessagesInTheirPlacesHasOtherBytes) {
  const auto holding = [](const std::string& url, uint64_t last, uint64_t bytes) {
    NodeState node = Node(url, last, "56.7Z");
    node.bytes = bytes;
    return node;
  };
  const std::string found =
      DivergenceOf({holding("a", 40, 9), holding("b", 40, 8), holding("c", 40, 9)});
  EXPECT_EQ(found.find("b is no copy: up to message 40 b holds 8 bytes and a 9"), 0u) << found;
  const std::string first =
      DivergenceOf({holding("a", 40, 7), holding("b", 40, 8), holding("c", 40, 8)});
  EXPECT_EQ(first.find("a is no copy"), 0u) << first;
  const std::string either = DivergenceOf({holding("a", 40, 9), holding("b", 40, 8)});
  EXPECT_EQ(either.find("a or b is no copy"), 0u) << either;
  NodeState further = holding("b", 41, 8);
  further.last_time += "1";
  EXPECT_EQ(DivergenceOf({holding("a", 40, 9), further}), "") << "that one has come further";
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
  EXPECT_EQ(MismatchOf({Node("a", 40, "56.7Z"), silent}, 40), "c does not answer");
}

}  // namespace
}  // namespace quenor::collector
