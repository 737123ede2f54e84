// What each node of the store itself holds, by its monitoring address: that the cluster calls a
// node current does not say so.
#ifndef COLLECTOR_PROVISION_NODES_H_
#define COLLECTOR_PROVISION_NODES_H_

#include <cstdint>
#include <string>
#include <vector>

namespace quenor::collector {

struct NodeState {
  std::string url;
  std::string problem;  // Empty: the node has answered, and holds a replica.
  uint64_t first_sequence = 0;
  uint64_t last_sequence = 0;
  std::string last_time;  // Of that message, as the leader set it; the later one compares greater.
  uint64_t messages = 0;
  uint64_t bytes = 0;
  uint64_t max_storage_bytes = 0;  // Of the node.
  uint64_t storage_bytes = 0;      // Of those, in use, by whatever stream.
  std::string leader;              // Who it thinks leads.

  // Sequences between first and last that it does not have.
  uint64_t holes() const {
    return messages == 0 ? 0 : last_sequence + 1 - first_sequence - messages;
  }
};

// Asks the node at `url`, "http://host:port", about the stream. Does not throw for what the node
// does: that is its problem.
NodeState AskNode(const std::string& url, const std::string& stream);

// What a node's answer says about the stream; for AskNode and tests.
NodeState ReadNode(const std::string& answer, const std::string& stream);

// Empty if all nodes hold the same, at least up to `last_sequence`; otherwise one line that says
// which does not.
std::string MismatchOf(const std::vector<NodeState>& nodes, uint64_t last_sequence);

// Empty, or one line about a node that is no copy of another: it has taken a message of the same or
// a later time under a lower sequence, so it lacks some before, which traffic does not hide, as it
// hides a node that is merely behind; or it has come as far, and holds another number of bytes.
std::string DivergenceOf(const std::vector<NodeState>& nodes);

}  // namespace quenor::collector

#endif  // COLLECTOR_PROVISION_NODES_H_
