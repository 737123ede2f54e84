#include "control/policy.h"

#include <algorithm>
#include <cmath>

namespace quenor::control {
namespace {

constexpr const char* kNames[] = {"none", "fixed", "brake", "pace", "steer"};

// The jitter of a reply: half to one and a half of the interval, so that a fleet that was answered
// in one second is spread over a whole interval when its next requests fail.
constexpr double kLeastJitter = 0.5;

constexpr double kSteerLeast = 0.97, kSteerMost = 1.15;
constexpr double kPaceLeast = 0.5, kPaceMost = 2;
// Of the interval, the least time between an owner's reports.
constexpr double kDurationPerInterval = 1.25;
// Below this part of the target a fleet may report more often again.
constexpr double kCalm = 0.8;

uint32_t Bounded(double value, uint32_t most) {
  return static_cast<uint32_t>(std::clamp(std::round(value), 1.0, static_cast<double>(most)));
}

uint32_t Drawn(double low_ms, double high_ms, double random) {
  return Bounded(low_ms + random * (high_ms - low_ms), kMostIntervalMs);
}

}  // namespace

std::string ProblemOf(const Settings& settings) {
  if (settings.low_ms < 1 || settings.low_ms > settings.high_ms) {
    return "the interval's bounds " + std::to_string(settings.low_ms) + " and " +
           std::to_string(settings.high_ms) + " ms: give at least 1 ms, the smaller one first";
  }
  if (settings.high_ms > kMostIntervalMs) {
    return "the interval " + std::to_string(settings.high_ms) + " ms: give at most " +
           std::to_string(kMostIntervalMs);
  }
  if (!(settings.target > 0 && settings.target <= 1)) {
    return "the target " + std::to_string(settings.target) + ": give one above 0, at most 1";
  }
  if (settings.low_duration_s > settings.high_duration_s ||
      (settings.low_duration_s == 0 && settings.high_duration_s > 0)) {
    return "the durations " + std::to_string(settings.low_duration_s) + " and " +
           std::to_string(settings.high_duration_s) +
           " s: give at least 1 s, the smaller one first, or none";
  }
  if (settings.high_duration_s > kMostDurationS) {
    return "the duration " + std::to_string(settings.high_duration_s) + " s: give at most " +
           std::to_string(kMostDurationS);
  }
  return std::string();
}

std::optional<Kind> KindOf(const std::string& name) {
  const auto found = std::find(std::begin(kNames), std::end(kNames), name);
  if (found == std::end(kNames)) return std::nullopt;
  return static_cast<Kind>(found - std::begin(kNames));
}

const char* NameOf(Kind kind) { return kNames[static_cast<int>(kind)]; }

Policy::Policy(const Settings& settings) : settings_(settings) {
  if (settings_.kind == Kind::kPace || settings_.kind == Kind::kSteer) {
    interval_ms_ = settings_.low_ms;
  }
  if (settings_.kind == Kind::kFixed) {
    interval_ms_ = (double{1} * settings_.low_ms + settings_.high_ms) / 2;
  }
  if (settings_.kind != Kind::kNone) duration_s_ = settings_.low_duration_s;
}

bool Policy::IsOverrun(const Load& load) const {
  const bool can_be_longer = settings_.kind != Kind::kFixed && interval_ms_ < settings_.high_ms;
  return load.use > settings_.target && !can_be_longer;
}

void Policy::Tick(const Load& load) {
  if (load.arrived == 0 || settings_.kind == Kind::kNone) return;
  const double ratio = load.use / settings_.target;
  if (settings_.high_duration_s > 0) {
    double factor = ratio < kCalm ? kSteerLeast : 1;
    if (IsOverrun(load)) factor = kSteerMost;
    duration_s_ = std::clamp<double>(duration_s_ * factor, settings_.low_duration_s,
                                     settings_.high_duration_s);
  }
  const double high_ms = settings_.high_ms;
  switch (settings_.kind) {
    case Kind::kNone:
    case Kind::kFixed:
      break;
    case Kind::kBrake:
      if (ratio > 1) {
        interval_ms_ = high_ms;
      } else if (interval_ms_ > 0) {
        interval_ms_ = settings_.low_ms;
      }
      break;
    case Kind::kPace:
      interval_ms_ = std::clamp(
          interval_ms_ * std::clamp(ratio, kPaceLeast, kPaceMost),
          std::min<double>(std::max(kPaceFloorMs, settings_.least_ms), high_ms), high_ms);
      break;
    case Kind::kSteer:
      interval_ms_ = std::clamp(interval_ms_ * std::clamp(ratio, kSteerLeast, kSteerMost),
                                double{1} * settings_.low_ms, high_ms);
      break;
  }
}

Fields Policy::Reply(double random) const {
  Fields fields;
  if (settings_.kind == Kind::kNone) return fields;
  fields.max_resend_count = kMostResendCount;
  fields.report_duration_s = duration_s();
  if (settings_.kind == Kind::kFixed) {
    fields.send_interval_ms = Drawn(settings_.low_ms, settings_.high_ms, random);
  } else if (interval_ms_ > 0) {
    const double least_ms = std::max<double>(kLeastJitter * interval_ms_, settings_.least_ms);
    fields.send_interval_ms = Drawn(least_ms, (1 + kLeastJitter) * interval_ms_, random);
  }
  return fields;
}

uint32_t Policy::duration_s() const {
  const bool steers = settings_.kind == Kind::kPace || settings_.kind == Kind::kSteer;
  const double least_s = steers ? kDurationPerInterval * interval_ms_ / 1000 : 0;
  return static_cast<uint32_t>(
      std::min<double>(std::max(duration_s_, least_s), settings_.high_duration_s));
}

uint32_t Policy::interval_ms() const {
  return interval_ms_ > 0 ? Bounded(interval_ms_, kMostIntervalMs) : 0;
}

}  // namespace quenor::control
