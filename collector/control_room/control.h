// `quenor-collector control show|set|policy`: looks at what the collectors of a stream say in their
// replies, and changes it. Page: docs/guide/collectors.md.
#ifndef COLLECTOR_CONTROL_ROOM_CONTROL_H_
#define COLLECTOR_CONTROL_ROOM_CONTROL_H_

#include <functional>
#include <string>

#include "collector/control_room/change.h"
#include "collector/store/options.h"

namespace quenor::collector {

struct ControlOptions : ControlChange {
  StoreOptions store;
  bool change = false;
  bool anew = false;  // The change is of what holds before anything is set.
};

// Throws Fatal.
void RunControl(const ControlOptions& options,
                const std::function<void(const std::string& line)>& print);

}  // namespace quenor::collector

#endif  // COLLECTOR_CONTROL_ROOM_CONTROL_H_
