// The clock that no one sets: the time that services measure with. What decides by time waits on a
// dispatch queue instead, so that a virtual queue is a virtual clock. Any thread.
#ifndef QUENOR_BASE_PLATFORM_BASE_MONOTONIC_TIME_H_
#define QUENOR_BASE_PLATFORM_BASE_MONOTONIC_TIME_H_

#include <chrono>
#include <cstdint>

#include "quenor_base/platform/base/abi.h"

QUENOR_NAMESPACE_BEGIN
namespace base {

// Since some moment before the process began. Never goes back; stands while the machine sleeps.
inline int64_t MonotonicNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

inline int64_t MonotonicMs() { return MonotonicNs() / 1000000; }

}  // namespace base
QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_PLATFORM_BASE_MONOTONIC_TIME_H_
