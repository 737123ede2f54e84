// What the operators' page has gathered: of each collector, each node and the store, what it said
// at two instants, one just now and one some seconds before.
#ifndef COLLECTOR_PAGE_LOOK_GATHERED_H_
#define COLLECTOR_PAGE_LOOK_GATHERED_H_

#include <cstdint>
#include <string>
#include <vector>

#include "collector/clock.h"
#include "collector/control_room/change.h"
#include "collector/page/look/exposition.h"
#include "collector/provision/nodes.h"

namespace quenor::collector {

struct CollectorLook {
  std::string problem = "has not been asked yet";  // Empty: it has answered.
  Samples samples;
};

struct StoreLook {
  std::string problem = "has not been asked yet";  // Empty: it has answered.
  uint64_t bytes = 0;
  uint64_t max_bytes = 0;  // 0: as many as the nodes can keep.
  uint64_t messages = 0;
  uint64_t replicas = 0;
  std::string reader_problem;  // Empty: there is a reader.
  uint64_t unread = 0;
  uint64_t unacknowledged = 0;
  std::string control_problem;  // Empty: what is set is understood.
  ControlFound control;
};

// Of one that is asked again and again.
template <typename Look>
struct Looks {
  std::string url;
  Look before;
  Look now;
  Time before_at{};
  Time now_at{};
  // Seconds since 1970 when the present problem, or the lack of one, was first seen.
  int64_t since_unix_s = 0;
  int64_t now_unix_s = 0;  // Of the latest look.

  double seconds() const { return std::chrono::duration<double>(now_at - before_at).count(); }
};

struct Gathered {
  std::vector<Looks<CollectorLook>> collectors;
  std::vector<Looks<NodeState>> nodes;
  Looks<StoreLook> store;
};

}  // namespace quenor::collector

#endif  // COLLECTOR_PAGE_LOOK_GATHERED_H_
