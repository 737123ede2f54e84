// The clock that no one sets: the time that services measure with. What decides by time waits on a
// dispatch queue instead, so that a virtual queue is a virtual clock. Any thread.
#ifndef QUENOR_BASE_PLATFORM_BASE_MONOTONIC_TIME_H_
#define QUENOR_BASE_PLATFORM_BASE_MONOTONIC_TIME_H_

#include <pthread.h>
#include <time.h>

#include <chrono>
#include <cstdint>

#include "quenor_base/platform/base/abi.h"

QUENOR_NAMESPACE_BEGIN
namespace base {

using MonotonicTime = std::chrono::steady_clock::time_point;

inline MonotonicTime MonotonicNow() { return std::chrono::steady_clock::now(); }

// Since some moment before the process began. Never goes back; stands while the machine sleeps.
inline int64_t MonotonicNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(MonotonicNow().time_since_epoch())
      .count();
}

inline int64_t MonotonicMs() { return MonotonicNs() / 1000000; }

// Makes a condition variable whose time limits are on this clock.
inline void InitMonotonicCondition(pthread_cond_t* condition) {
  pthread_condattr_t attributes;
  pthread_condattr_init(&attributes);
  pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
  pthread_cond_init(condition, &attributes);
  pthread_condattr_destroy(&attributes);
}

// The time limit of a pthread_cond_timedwait() on such a one.
inline timespec MonotonicTimeIn(int64_t ms) {
  const int64_t ns = MonotonicNs() + ms * 1000000;
  return {static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
}

}  // namespace base
QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_PLATFORM_BASE_MONOTONIC_TIME_H_
