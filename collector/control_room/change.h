// A change of what collectors say in their replies: which of the settings it gives, and what comes
// of them. No network. Page: docs/guide/collectors.md.
#ifndef COLLECTOR_CONTROL_ROOM_CHANGE_H_
#define COLLECTOR_CONTROL_ROOM_CHANGE_H_

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "collector/control_room/settings.h"

namespace quenor::collector {

// What is set in the store.
struct ControlFound {
  uint64_t revision = 0;  // 0: nothing has been set yet.
  ControlSettings settings;
};

// What is not given stays as it is.
struct ControlChange {
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

  // Whether it gives what holds with no policy alone.
  bool GivesFields() const { return send_interval_ms || max_resend_count || report_duration_s; }
};

// Throws Fatal for what cannot be meant.
ControlSettings Changed(ControlSettings settings, const ControlChange& change);

// Each setting's name, as ToJson names it, and its value.
std::vector<std::pair<std::string, std::string>> FieldsOf(const ControlSettings& settings);

struct FieldChange {
  std::string name;
  std::string before;
  std::string after;
};
using Changes = std::vector<FieldChange>;

// Those that differ.
Changes ChangesOf(const ControlSettings& before, const ControlSettings& after);

// Gives the setting of that name; the text is what a command line would say. Throws Fatal for a
// text that is no value, or a name that there is not.
void Give(const std::string& name, const std::string& text, ControlChange* change);

}  // namespace quenor::collector

#endif  // COLLECTOR_CONTROL_ROOM_CHANGE_H_
