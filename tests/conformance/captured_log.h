// Keeps the log lines of a test, and brings the default sink back at its end.
#ifndef QUENOR_TESTS_CONFORMANCE_CAPTURED_LOG_H_
#define QUENOR_TESTS_CONFORMANCE_CAPTURED_LOG_H_

#include <mutex>
#include <string>
#include <vector>

#include "quenor_base/platform/local_log.h"

namespace quenor::conformance {

class CapturedLog {
 public:
  struct Line {
    int level;
    std::string text;
  };

  CapturedLog() { SetLogSink(&CapturedLog::Keep, this); }
  ~CapturedLog() { SetLogSink(nullptr, nullptr); }
  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;

  // Any thread. The lines so far.
  std::vector<Line> lines() const {
    std::lock_guard<std::mutex> hold(mutex_);
    return lines_;
  }

 private:
  static void Keep(void* context, int level, const char*, int, const char* text, size_t size) {
    auto* const self = static_cast<CapturedLog*>(context);
    std::lock_guard<std::mutex> hold(self->mutex_);
    self->lines_.push_back({level, std::string(text, size)});
  }

  mutable std::mutex mutex_;
  std::vector<Line> lines_;  // Guarded by `mutex_`.
};

}  // namespace quenor::conformance

#endif  // QUENOR_TESTS_CONFORMANCE_CAPTURED_LOG_H_
