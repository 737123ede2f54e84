// Spans of time, in microseconds. There is deliberately no "now" here: what waits, waits on a
// dispatch queue, so that a virtual queue is a virtual clock.
#ifndef QUENOR_BASE_PLATFORM_BASE_TIME_H_
#define QUENOR_BASE_PLATFORM_BASE_TIME_H_

#include <cstdint>

#include "quenor_base/platform/base/abi.h"

QUENOR_NAMESPACE_BEGIN
namespace base {

class TimeDelta {
 public:
  constexpr TimeDelta() = default;

  // Spans beyond the range (some 292,000 years) become the longest there is.
  static constexpr TimeDelta FromMicroseconds(int64_t us) { return TimeDelta(us); }
  static constexpr TimeDelta FromMilliseconds(int64_t ms) { return TimeDelta(Scaled(ms, 1000)); }
  static constexpr TimeDelta FromSeconds(int64_t s) { return TimeDelta(Scaled(s, 1000000)); }

  constexpr int64_t InMicroseconds() const { return us_; }
  // Whole milliseconds, rounded towards zero.
  constexpr int64_t InMilliseconds() const { return us_ / 1000; }

  constexpr bool operator==(TimeDelta o) const { return us_ == o.us_; }
  constexpr bool operator!=(TimeDelta o) const { return us_ != o.us_; }
  constexpr bool operator<(TimeDelta o) const { return us_ < o.us_; }
  constexpr bool operator<=(TimeDelta o) const { return us_ <= o.us_; }
  constexpr bool operator>(TimeDelta o) const { return us_ > o.us_; }
  constexpr bool operator>=(TimeDelta o) const { return us_ >= o.us_; }

 private:
  explicit constexpr TimeDelta(int64_t us) : us_(us) {}

  static constexpr int64_t Scaled(int64_t count, int64_t unit_us) {
    if (count > INT64_MAX / unit_us) return INT64_MAX;
    if (count < INT64_MIN / unit_us) return INT64_MIN;
    return count * unit_us;
  }

  int64_t us_ = 0;
};

}  // namespace base
QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_PLATFORM_BASE_TIME_H_
