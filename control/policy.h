// Policy: what a collector's replies should say, so that its fleet neither overruns it nor loses
// reports. No clock, thread, network or chance of its own: who links it calls Tick() every ten
// seconds and Reply() for each answer with status 200, and brings the random number.
// Threads: one at a time. Life cycle: one per collector, for as long as it answers. What each does
// to a fleet can be seen by quenor-fleet: docs/guide/fleet.md.
//
// A reply reaches only the sender that it answers, and acts with that sender's next request. So
// what is to hold in an outage must have been said before: every reply but kNone's and a calm
// kBrake's brings an interval with jitter, and all but kNone's a resend limit that is never
// reached.
#ifndef CONTROL_POLICY_H_
#define CONTROL_POLICY_H_

#include <cstdint>
#include <optional>
#include <string>

namespace quenor::control {

enum class Kind {
  // No control fields: senders keep their own defaults.
  kNone,
  // Each reply draws its interval between the two bounds, whatever the load is.
  kFixed,
  // Nothing about the interval while the use is below the target. Above it the upper bound, and
  // from then on for ever an interval, the lower bound when calm: no reply can take one back.
  kBrake,
  // One interval for the fleet, which each tick multiplies by use / target, at least by a half and
  // at most by two, between kPaceFloorMs (or least_ms) and the upper bound.
  kPace,
  // As kPace between both bounds, by at least 0.97 and at most 1.15: short of nothing when it is
  // calm, and soon longer when it is not. The default.
  kSteer,
};

// The bounds of the fields on the wire: signed 32-bit numbers, of which senders ignore those below
// 1, and seconds that they multiply by 1000 in 32 bits.
constexpr uint32_t kMostIntervalMs = 2147483647;
constexpr uint32_t kMostResendCount = 2147483647;
constexpr uint32_t kMostDurationS = 4294967;

constexpr double kTickSeconds = 10;
constexpr uint32_t kPaceFloorMs = 1000;

struct Settings {
  Kind kind = Kind::kSteer;
  // Bounds of the interval before its jitter, in milliseconds: 1 <= low <= high.
  uint32_t low_ms = 30000;
  uint32_t high_ms = 50000;
  // The use that the fleet is steered to: above 0, at most 1.
  double target = 0.9;
  // Bounds of the time between reports that owners are asked for, in seconds; 0 and 0: they are
  // asked for none. It starts low; while the interval alone does not bring the use down, each tick
  // multiplies it by 1.15, and once it is calm by 0.97. Never below one and a quarter of kPace's
  // and kSteer's interval: a sender sends one report in an interval, and what owners report beyond
  // that only waits.
  uint32_t low_duration_s = 0;
  uint32_t high_duration_s = 0;
  // No reply brings less than this, nor does kPace go below it. The jitter is drawn above it, so
  // that a fleet at the bound does not send in step.
  uint32_t least_ms = 0;
};

// Empty, or one line that names the value that cannot be meant and says what to give instead.
std::string ProblemOf(const Settings& settings);

// "none", "fixed", "brake", "pace", "steer".
std::optional<Kind> KindOf(const std::string& name);
const char* NameOf(Kind kind);

// What came in since the last tick.
struct Load {
  // Requests that reached the collector, refused ones included.
  uint64_t arrived = 0;
  // The work that they ask for, refusals at what a refusal costs, by the work that the collector
  // can do in that time: above 1 when more came than it can serve.
  double use = 0;
};

// The control fields of one reply. 0: the field is left out.
struct Fields {
  uint32_t send_interval_ms = 0;   // "uint32_send_interval", at most kMostIntervalMs.
  uint32_t max_resend_count = 0;   // "uint32_max_resend_count", at most kMostResendCount.
  uint32_t report_duration_s = 0;  // "uint32_report_duration", at most kMostDurationS.
};

class Policy {
 public:
  // `settings` are without a problem.
  explicit Policy(const Settings& settings);

  // Every kTickSeconds. A tick in which nothing arrived changes nothing: an outage is no calm.
  void Tick(const Load& load);

  // `random` is drawn anew for each reply, evenly from [0, 1).
  Fields Reply(double random) const;

  // The interval in force before its jitter; 0 while replies bring none.
  uint32_t interval_ms() const;
  // 0 while owners are asked for nothing.
  uint32_t duration_s() const;

 private:
  // Whether the interval has done what it can, and the use is still above the target.
  bool IsOverrun(const Load& load) const;

  Settings settings_;
  double interval_ms_ = 0;
  double duration_s_ = 0;
};

}  // namespace quenor::control

#endif  // CONTROL_POLICY_H_
