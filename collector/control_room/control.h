// `quenor-collector control show|set|policy`: looks at what the collectors of a stream say in their
// replies, and changes it. Page: docs/guide/collectors.md.
#ifndef COLLECTOR_CONTROL_ROOM_CONTROL_H_
#define COLLECTOR_CONTROL_ROOM_CONTROL_H_

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "collector/store/options.h"

namespace quenor::collector {

// What is not given stays as it is.
struct ControlOptions {
  StoreOptions store;
  std::optional<std::string> policy;  // A kind's name.
  std::optional<uint32_t> low_ms;
  std::optional<uint32_t> high_ms;
  std::optional<uint32_t> target_percent;
  std::optional<uint32_t> low_duration_s;
  std::optional<uint32_t> high_duration_s;
  std::optional<uint32_t> capacity;
  std::optional<uint32_t> send_interval_ms;
  std::optional<uint32_t> max_resend_count;
  std::optional<uint32_t> report_duration_s;
  bool change = false;
};

// Throws Fatal.
void RunControl(const ControlOptions& options,
                const std::function<void(const std::string& line)>& print);

}  // namespace quenor::collector

#endif  // COLLECTOR_CONTROL_ROOM_CONTROL_H_
