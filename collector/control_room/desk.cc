#include "collector/control_room/desk.h"

#include <algorithm>

#include "collector/reports/reply.h"

namespace quenor::collector {
namespace {

// So that a fleet whose replies came in one second does not come back in one.
constexpr double kMostJitter = 0.5;

uint32_t Jittered(uint32_t interval_ms, double random) {
  const double drawn_ms = interval_ms * (1 + kMostJitter * random);
  return static_cast<uint32_t>(std::min<double>(drawn_ms, control::kMostIntervalMs));
}

std::optional<uint64_t> Given(uint32_t value) {
  return value == 0 ? std::nullopt : std::optional<uint64_t>(value);
}

control::Policy MakePolicy(const ControlSettings& settings) {
  control::Settings policy = settings.policy;
  policy.least_ms = policy.kind == control::Kind::kPace ? policy.low_ms : kLeastIntervalMs;
  return control::Policy(policy);
}

}  // namespace

Desk::Desk(const ControlSettings& settings) : settings_(settings), policy_(MakePolicy(settings)) {}

void Desk::Apply(const ControlSettings& settings, uint64_t revision) {
  // A policy has learnt something: the same one goes on from there.
  ControlSettings before = settings;
  before.policy = settings_.policy;
  if (ToJson(before) != ToJson(settings)) policy_ = MakePolicy(settings);
  settings_ = settings;
  revision_ = revision;
}

void Desk::Tick(uint64_t arrived, uint64_t stored, double held, double seconds) {
  if (stored == 0) return;
  const double asked = static_cast<double>(arrived) / (settings_.capacity * seconds);
  policy_.Tick({arrived, std::max(asked, held)});
}

std::string Desk::Reply(double random) const {
  control::Fields fields = policy_.Reply(random);
  if (settings_.policy.kind == control::Kind::kNone) {
    fields.max_resend_count = settings_.max_resend_count;
    fields.report_duration_s = settings_.report_duration_s;
    if (settings_.send_interval_ms != 0) {
      fields.send_interval_ms = Jittered(settings_.send_interval_ms, random);
    }
  }
  ReplyOptions reply;
  reply.send_interval_ms = Given(fields.send_interval_ms);
  reply.max_resend_count = Given(fields.max_resend_count);
  reply.report_duration_s = Given(fields.report_duration_s);
  return BuildReply(reply);
}

uint32_t Desk::interval_ms() const {
  return settings_.policy.kind == control::Kind::kNone ? settings_.send_interval_ms
                                                       : policy_.interval_ms();
}

}  // namespace quenor::collector
