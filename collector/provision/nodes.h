// What each node of the store itself holds, by its monitoring address: that the cluster calls a
// node current does not say so.
#ifndef COLLECTOR_PROVISION_NODES_H_
#define COLLECTOR_PROVISION_NODES_H_

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace quenor::collector {

struct NodeState {
  std::string url;
  std::string problem;  // Empty: the node has answered, and holds a replica.
  std::string id;       // Another one for each server, whatever address it was asked at.
  uint64_t first_sequence = 0;
  uint64_t last_sequence = 0;
  std::string last_time;  // Of that message, as the leader set it; the later one compares greater.
  uint64_t messages = 0;
  uint64_t bytes = 0;
  uint64_t max_storage_bytes = 0;  // Of the node.
  uint64_t storage_bytes = 0;      // Of those, in use, by whatever stream.
  std::string leader;              // Who it thinks leads.
  uint64_t replicas = 0;           // That the stream is to have.

  // Sequences between first and last that it does not have.
  uint64_t holes() const {
    return messages == 0 ? 0 : last_sequence + 1 - first_sequence - messages;
  }
};

// Who is wrong where nodes are at odds: who has most of them against it. Of three it is the one
// that differs; of two it may be either. `at_odds` is of two nodes, in any order.
template <typename Node>
struct Outvoted {
  const Node* by = nullptr;  // One that it is at odds with. Null: it is not outvoted.
  bool is_tie = false;       // As many are against that one.
};

template <typename Node, typename AtOdds>
Outvoted<Node> OutvotedBy(const Node& node, const std::vector<const Node*>& nodes,
                          const AtOdds& at_odds) {
  const auto against = [&](const Node& one) {
    return std::count_if(nodes.begin(), nodes.end(),
                         [&](const Node* other) { return other != &one && at_odds(one, *other); });
  };
  Outvoted<Node> outvoted;
  auto least = against(node);
  for (const Node* const other : nodes) {
    if (other == &node || !at_odds(node, *other) || against(*other) > least) continue;
    least = against(*other);
    outvoted = {other, least == against(node)};
  }
  return outvoted;
}

// Asks the node at `url`, "http://host:port", about the stream. Does not throw for what the node
// does: that is its problem.
NodeState AskNode(const std::string& url, const std::string& stream);

// What a node's answer says about the stream; for AskNode and tests.
NodeState ReadNode(const std::string& answer, const std::string& stream);

// Empty if all nodes hold the same, at least from `first_sequence` (each drops what is too old by
// its own timer) up to `last_sequence`; otherwise one line that says which does not.
std::string MismatchOf(const std::vector<NodeState>& nodes, uint64_t first_sequence,
                       uint64_t last_sequence);

// Of each node, in their order: empty, or why it is no copy of the others. It has taken a message
// of the same or a later time under a lower sequence, so it lacks some before, which traffic does
// not hide, as it hides a node that is merely behind; or it has come as far, and holds another
// number of bytes.
std::vector<std::string> DivergencesOf(const std::vector<NodeState>& nodes);

// The first of them as one line; empty: there is none.
std::string DivergenceOf(const std::vector<NodeState>& nodes);

}  // namespace quenor::collector

#endif  // COLLECTOR_PROVISION_NODES_H_
