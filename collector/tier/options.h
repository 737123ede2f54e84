// What a collector of a fleet's tier is told on its command line. Page: docs/guide/collectors.md.
#ifndef COLLECTOR_TIER_OPTIONS_H_
#define COLLECTOR_TIER_OPTIONS_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "collector/control_room/settings.h"
#include "collector/store/options.h"

namespace quenor::collector {

// How long and how much a collector holds what the store has not answered yet.
struct HoldOptions {
  std::chrono::milliseconds hold{20'000};     // Then 503. Shorter than a sender's patience.
  std::chrono::milliseconds ack_wait{1'500};  // Then the report is published again.
  uint64_t max_reports = 50'000;
  uint64_t max_bytes = uint64_t{256} << 20;
};

struct TierOptions {
  StoreOptions store;
  HoldOptions hold;
  std::string host = "127.0.0.1";
  int port = 0;
  std::string port_file;  // Empty: none.
  size_t max_body_bytes = size_t{64} << 20;
  uint64_t idle_timeout_s = 300;
  std::vector<std::string> paths;  // Those that reports are wanted on. Empty: all.
  ControlSettings control;         // Until the bucket says something else.
};

}  // namespace quenor::collector

#endif  // COLLECTOR_TIER_OPTIONS_H_
