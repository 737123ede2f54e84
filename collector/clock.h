// The collector's one clock, which no one sets. Any thread.
#ifndef COLLECTOR_CLOCK_H_
#define COLLECTOR_CLOCK_H_

#include <chrono>

namespace quenor::collector {

using Time = std::chrono::steady_clock::time_point;

inline Time Now() { return std::chrono::steady_clock::now(); }

}  // namespace quenor::collector

#endif  // COLLECTOR_CLOCK_H_
