// Lets one through per period: keeps a burst of equal log lines from flooding the log.
#ifndef QUENOR_BASE_PLATFORM_THROTTER_H_
#define QUENOR_BASE_PLATFORM_THROTTER_H_

#include <cstdint>

#include "quenor_base/platform/base/abi.h"

QUENOR_NAMESPACE_BEGIN

class Throtter {
 public:
  explicit Throtter(uint32_t period_ms);
  ~Throtter();
  Throtter(const Throtter&) = delete;
  Throtter& operator=(const Throtter&) = delete;

  // Any thread. True for the first call ever and for the first one a whole period or more after the
  // last that was true, by a monotonic clock; false for every other. Of concurrent calls in a
  // period exactly one is true. A period of 0 lets every call through.
  bool ShouldGo();

  // Any thread. Names the implementation that is linked.
  static const char* ImplementationName();

 private:
  struct State;
  State* state_;  // Owned.
};

QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_PLATFORM_THROTTER_H_
