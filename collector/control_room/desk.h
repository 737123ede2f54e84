// Desk: what the reply to an acknowledged report says. No clock, chance or network of its own.
// Threads: one at a time. Life: one per collector.
#ifndef COLLECTOR_CONTROL_ROOM_DESK_H_
#define COLLECTOR_CONTROL_ROOM_DESK_H_

#include <cstdint>
#include <string>

#include "collector/control_room/settings.h"
#include "control/policy.h"

namespace quenor::collector {

class Desk {
 public:
  // `settings` are without a problem, here and below.
  explicit Desk(const ControlSettings& settings);

  void Apply(const ControlSettings& settings, uint64_t revision);

  // Of the seconds since the last tick: what arrived, what of it the store took, and the largest
  // part of what may be held that was. Where the store took nothing, nothing is learnt: what came
  // then and was refused says nothing about a calm.
  void Tick(uint64_t arrived, uint64_t stored, double held, double seconds);

  // The JSON object; `random` is drawn anew for each, evenly from [0, 1).
  std::string Reply(double random) const;

  uint64_t revision() const { return revision_; }
  // The interval before its jitter; 0: none.
  uint32_t interval_ms() const;

 private:
  ControlSettings settings_;
  control::Policy policy_;
  uint64_t revision_ = 0;  // 0: what the command line said.
};

}  // namespace quenor::collector

#endif  // COLLECTOR_CONTROL_ROOM_DESK_H_
