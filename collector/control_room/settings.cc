#include "collector/control_room/settings.h"

#include <rapidjson/document.h>

#include <array>
#include <cmath>
#include <utility>

#include "collector/reports/json.h"

namespace quenor::collector {
namespace {

constexpr uint32_t kMostCapacity = 10'000'000;
constexpr double kPercent = 100;
constexpr size_t kMostJsonBytes = 4096;

// The numbers of the object, by their names there; the target is in per cent.
auto Members(ControlSettings* settings) {
  return std::array<std::pair<const char*, uint32_t*>, 8>{
      {{"low_ms", &settings->policy.low_ms},
       {"high_ms", &settings->policy.high_ms},
       {"low_duration_s", &settings->policy.low_duration_s},
       {"high_duration_s", &settings->policy.high_duration_s},
       {"capacity", &settings->capacity},
       {"send_interval_ms", &settings->send_interval_ms},
       {"max_resend_count", &settings->max_resend_count},
       {"report_duration_s", &settings->report_duration_s}}};
}

std::string TooLarge(const char* what, uint32_t value, uint32_t most) {
  return std::string("the ") + what + " " + std::to_string(value) + ": give at most " +
         std::to_string(most);
}

}  // namespace

std::string ProblemOf(const ControlSettings& settings) {
  const std::string policys = control::ProblemOf(settings.policy);
  if (!policys.empty()) return policys;
  if (settings.policy.kind != control::Kind::kNone && settings.policy.low_ms < kLeastIntervalMs) {
    return "the interval " + std::to_string(settings.policy.low_ms) + " ms: give at least " +
           std::to_string(kLeastIntervalMs);
  }
  if (settings.capacity < 1 || settings.capacity > kMostCapacity) {
    return "the capacity " + std::to_string(settings.capacity) + ": give 1 to " +
           std::to_string(kMostCapacity) + " reports a second";
  }
  if (settings.send_interval_ms != 0 && settings.send_interval_ms < kLeastIntervalMs) {
    return "the interval " + std::to_string(settings.send_interval_ms) + " ms: give at least " +
           std::to_string(kLeastIntervalMs) + ", or 0 for none";
  }
  if (settings.send_interval_ms > control::kMostIntervalMs) {
    return TooLarge("interval", settings.send_interval_ms, control::kMostIntervalMs);
  }
  if (settings.max_resend_count > control::kMostResendCount) {
    return TooLarge("resend limit", settings.max_resend_count, control::kMostResendCount);
  }
  if (settings.report_duration_s > control::kMostDurationS) {
    return TooLarge("duration", settings.report_duration_s, control::kMostDurationS);
  }
  return std::string();
}

std::string ToJson(const ControlSettings& settings) {
  JsonObject object;
  object.Add("policy", control::NameOf(settings.policy.kind));
  object.AddNumber("target_percent",
                   static_cast<uint64_t>(std::lround(settings.policy.target * kPercent)));
  ControlSettings copy = settings;
  for (const auto& [name, value] : Members(&copy)) object.AddNumber(name, *value);
  return object.Finish();
}

std::optional<ControlSettings> SettingsFromJson(const std::string& json, std::string* problem) {
  if (json.size() > kMostJsonBytes) {
    *problem = "it is larger than " + std::to_string(kMostJsonBytes) + " bytes";
    return std::nullopt;
  }
  rapidjson::Document document;
  document.Parse<rapidjson::kParseIterativeFlag>(json.data(), json.size());
  if (document.HasParseError() || !document.IsObject()) {
    *problem = "it is no JSON object";
    return std::nullopt;
  }
  ControlSettings settings;
  const auto kind = document.FindMember("policy");
  const auto target = document.FindMember("target_percent");
  const bool has_kind = kind != document.MemberEnd() && kind->value.IsString();
  const std::optional<control::Kind> known =
      has_kind ? control::KindOf(kind->value.GetString()) : std::nullopt;
  if (!known || target == document.MemberEnd() || !target->value.IsUint()) {
    *problem = "it names no policy that is known here, or no target";
    return std::nullopt;
  }
  settings.policy.kind = *known;
  settings.policy.target = target->value.GetUint() / kPercent;
  for (const auto& [name, value] : Members(&settings)) {
    const auto found = document.FindMember(name);
    if (found == document.MemberEnd() || !found->value.IsUint()) {
      *problem = std::string("its \"") + name + "\" is no whole number of 32 bits";
      return std::nullopt;
    }
    *value = found->value.GetUint();
  }
  *problem = ProblemOf(settings);
  if (!problem->empty()) return std::nullopt;
  return settings;
}

}  // namespace quenor::collector
