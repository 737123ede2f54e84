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
