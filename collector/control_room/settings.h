// What an operator sets for all collectors of a stream: the reply's fields, or the policy that
// decides them. One JSON object in the store's bucket, under the stream's name. Any thread.
// Page: docs/guide/collectors.md.
#ifndef COLLECTOR_CONTROL_ROOM_SETTINGS_H_
#define COLLECTOR_CONTROL_ROOM_SETTINGS_H_

#include <cstdint>
#include <optional>
#include <string>

#include "control/policy.h"

namespace quenor::collector {

// A channel that was once told an interval waits for it before each of its messages, sent at once
// or not: with less than this it would be the senders' pace and no longer a brake.
constexpr uint32_t kLeastIntervalMs = 15'000;

struct ControlSettings {
  // Kind kNone: the three fields below are what a reply says.
  control::Settings policy;
  // Reports a second that a collector can take; the policy's measure.
  uint32_t capacity = 5'000;
  // 0: left out. The interval is drawn for each reply, up to a half longer.
  uint32_t send_interval_ms = 0;
  uint32_t max_resend_count = control::kMostResendCount;
  uint32_t report_duration_s = 0;

  ControlSettings() { policy.kind = control::Kind::kNone; }
};

// Empty, or one line that names the value that cannot be meant and says what to give instead.
std::string ProblemOf(const ControlSettings& settings);

std::string ToJson(const ControlSettings& settings);

// Empty, with *problem, if it is not what ToJson writes, or has a problem.
std::optional<ControlSettings> SettingsFromJson(const std::string& json, std::string* problem);

}  // namespace quenor::collector

#endif  // COLLECTOR_CONTROL_ROOM_SETTINGS_H_
