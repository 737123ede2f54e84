// How often the log hears of the same failure: once a minute. Knows no clock: times are arguments.
// Internal to the HTTP client. Threads: one at a time; the engine's lock guards it.
#ifndef SERVICES_HTTP_CLIENT_CURL_RULES_LOG_PAUSES_H_
#define SERVICES_HTTP_CLIENT_CURL_RULES_LOG_PAUSES_H_

#include <cstdint>
#include <string>
#include <vector>

#include "quenor_base/platform/base/abi.h"

QUENOR_NAMESPACE_BEGIN

// Remembers what was logged when.
class LogPauses {
 public:
  // True when the cause was not logged within the last minute; it then counts as logged now.
  bool MayLog(const std::string& cause, int64_t now_ms) {
    auto oldest = logged_.begin();
    for (auto it = logged_.begin(); it != logged_.end(); ++it) {
      if (it->cause == cause) {
        if (now_ms - it->at_ms < kLogPauseMs) return false;
        it->at_ms = now_ms;
        return true;
      }
      if (it->at_ms < oldest->at_ms) oldest = it;
    }
    if (logged_.size() >= kLogCauses) logged_.erase(oldest);
    logged_.push_back({cause, now_ms});
    return true;
  }

 private:
  static constexpr int64_t kLogPauseMs = 60 * 1000;
  static constexpr size_t kLogCauses = 64;  // Remembered; beyond, the oldest is forgotten.

  struct Logged {
    std::string cause;
    int64_t at_ms;
  };
  std::vector<Logged> logged_;
};

QUENOR_NAMESPACE_END

#endif  // SERVICES_HTTP_CLIENT_CURL_RULES_LOG_PAUSES_H_
