// A collector that keeps nothing itself: a report is answered 200 once the store has it. One
// thread does all; what it waits for are senders, the store's answers and the signal to end.
// Page: docs/guide/collectors.md.
#ifndef COLLECTOR_TIER_TIER_H_
#define COLLECTOR_TIER_TIER_H_

#include <functional>
#include <string>

#include "collector/tier/options.h"

namespace quenor::collector {

// Serves until `stop_fd` is readable and what was taken then is answered. Calls `announce` with the
// line that tells its address, and with one that has its counts. Throws Fatal, as a build without
// the store's libraries always does.
void RunTier(const TierOptions& options, int stop_fd,
             const std::function<void(const std::string& line)>& announce);

}  // namespace quenor::collector

#endif  // COLLECTOR_TIER_TIER_H_
