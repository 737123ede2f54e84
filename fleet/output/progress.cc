#include "fleet/output/progress.h"

#include <unistd.h>

#include <cstdio>

#include "quenor_base/platform/base/monotonic_time.h"

namespace quenor::fleet {
namespace {

constexpr int64_t kBetweenMs = 200;

}  // namespace

Progress::Progress(int fd, const Scenario& scenario)
    : fd_(fd),
      is_terminal_(::isatty(fd) == 1),
      scenario_(scenario),
      begun_ms_(base::MonotonicMs()) {}

void Progress::Tell(int64_t now_us) {
  if (!is_terminal_) return;
  const int64_t now_ms = base::MonotonicMs();
  if (now_ms - told_ms_ < kBetweenMs) return;
  told_ms_ = now_ms;
  char line[160];
  std::snprintf(line, sizeof line, "\r%s: %lld of %lld s, in %.1f s\033[K", scenario_.name.c_str(),
                static_cast<long long>(now_us / kSecondUs),
                static_cast<long long>(scenario_.length_us / kSecondUs),
                static_cast<double>(now_ms - begun_ms_) / 1000);
  Write(line);
}

void Progress::End() {
  if (is_terminal_) Write("\r\033[K");
}

void Progress::Write(const std::string& text) const {
  // A terminal that takes no progress needs none.
  if (::write(fd_, text.data(), text.size()) < 0) return;
}

}  // namespace quenor::fleet
