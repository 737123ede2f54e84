#include "collector/control_room/change.h"

#include <cmath>
#include <cstdlib>
#include <limits>
#include <map>

#include "collector/fatal.h"
#include "collector/option_types.h"

namespace quenor::collector {
namespace {

constexpr double kPercent = 100;

template <typename Value>
void Change(const std::optional<Value>& given, Value* value) {
  if (given) *value = *given;
}

}  // namespace

ControlSettings Changed(ControlSettings settings, const ControlChange& change) {
  if (change.policy) {
    const std::optional<control::Kind> kind = control::KindOf(*change.policy);
    if (!kind) {
      throw Fatal(kExitUsage,
                  "no policy: \"" + *change.policy + "\"; give none, fixed, brake, pace or steer");
    }
    settings.policy.kind = *kind;
  }
  if (change.target_percent) settings.policy.target = *change.target_percent / kPercent;
  Change(change.low_ms, &settings.policy.low_ms);
  Change(change.high_ms, &settings.policy.high_ms);
  Change(change.low_duration_s, &settings.policy.low_duration_s);
  Change(change.high_duration_s, &settings.policy.high_duration_s);
  Change(change.capacity, &settings.capacity);
  Change(change.send_interval_ms, &settings.send_interval_ms);
  Change(change.max_resend_count, &settings.max_resend_count);
  Change(change.report_duration_s, &settings.report_duration_s);
  const std::string problem = ProblemOf(settings);
  if (!problem.empty()) throw Fatal(kExitUsage, "cannot set " + problem);
  return settings;
}

std::vector<std::pair<std::string, std::string>> FieldsOf(const ControlSettings& settings) {
  return {{"policy", control::NameOf(settings.policy.kind)},
          {"send_interval_ms", std::to_string(settings.send_interval_ms)},
          {"max_resend_count", std::to_string(settings.max_resend_count)},
          {"report_duration_s", std::to_string(settings.report_duration_s)},
          {"low_ms", std::to_string(settings.policy.low_ms)},
          {"high_ms", std::to_string(settings.policy.high_ms)},
          {"low_duration_s", std::to_string(settings.policy.low_duration_s)},
          {"high_duration_s", std::to_string(settings.policy.high_duration_s)},
          {"target_percent", std::to_string(std::lround(settings.policy.target * kPercent))},
          {"capacity", std::to_string(settings.capacity)}};
}

Changes ChangesOf(const ControlSettings& before, const ControlSettings& after) {
  Changes changes;
  const auto fields = FieldsOf(after);
  auto field = fields.begin();
  for (const auto& [name, value] : FieldsOf(before)) {
    if (field->second != value) changes.push_back({name, value, field->second});
    ++field;
  }
  return changes;
}

void Give(const std::string& name, const std::string& text, ControlChange* change) {
  if (name == "policy") {
    change->policy = text;
    return;
  }
  const std::map<std::string, std::optional<uint32_t>*> numbers = {
      {"send_interval_ms", &change->send_interval_ms},
      {"max_resend_count", &change->max_resend_count},
      {"report_duration_s", &change->report_duration_s},
      {"low_ms", &change->low_ms},
      {"high_ms", &change->high_ms},
      {"low_duration_s", &change->low_duration_s},
      {"high_duration_s", &change->high_duration_s},
      {"target_percent", &change->target_percent},
      {"capacity", &change->capacity}};
  const auto number = numbers.find(name);
  if (number == numbers.end()) throw Fatal(kExitUsage, "there is no setting \"" + name + "\"");
  std::string copy = text;
  const std::string problem = WholeNumber(0, std::numeric_limits<uint32_t>::max())(copy);
  if (!problem.empty()) throw Fatal(kExitUsage, name + ": " + problem);
  *number->second = static_cast<uint32_t>(std::strtoul(text.c_str(), nullptr, 10));
}

}  // namespace quenor::collector
