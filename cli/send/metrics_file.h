// The file of --metrics-file: always a whole text, the old one or the new one, however this process
// ends. Threads: one. Page: docs/guide/quenor-report.md.
#ifndef CLI_SEND_METRICS_FILE_H_
#define CLI_SEND_METRICS_FILE_H_

#include <chrono>
#include <string>
#include <utility>

#include "quenor_base/platform/base/monotonic_time.h"

namespace quenor::cli {

class MetricsFile {
 public:
  using Time = base::MonotonicTime;
  static constexpr std::chrono::seconds kPeriod{10};

  // Opens nothing.
  explicit MetricsFile(std::string path) : path_(std::move(path)) {}

  // When the next text is to be written.
  Time due() const { return due_; }

  // Writes `text` to a new file beside it and renames that. Empty, or one line that says what
  // failed: then the file is as it was.
  std::string Write(Time now, const std::string& text);

 private:
  // 0, or an errno.
  int Replace(const std::string& text) const;

  const std::string path_;
  Time due_{};
};

}  // namespace quenor::cli

#endif  // CLI_SEND_METRICS_FILE_H_
