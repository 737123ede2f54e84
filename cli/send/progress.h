// The progress line of a terminal: what it says, and when it is due. Pure of any clock or terminal.
// Threads: one.
#ifndef CLI_SEND_PROGRESS_H_
#define CLI_SEND_PROGRESS_H_

#include <chrono>
#include <deque>
#include <optional>
#include <string>

#include "cli/send/ledger.h"
#include "quenor_base/platform/base/monotonic_time.h"

namespace quenor::cli {

class Progress {
 public:
  using Time = base::MonotonicTime;

  // Between two lines: five a second at most.
  static constexpr std::chrono::milliseconds kPeriod{200};

  // The rate is taken over this long.
  static constexpr std::chrono::seconds kRateWindow{5};

  // When the next line may be drawn.
  Time due() const { return due_; }

  // The line to draw; empty when it is not due or says what the last one said.
  std::optional<std::string> Update(Time now, const Counts& counts);

  // The line, due or not.
  std::string Line(Time now, const Counts& counts);

 private:
  struct Sample {
    Time at;
    uint64_t delivered;
  };

  double Rate(Time now, uint64_t delivered);

  Time due_{};
  std::deque<Sample> samples_;  // Oldest first.
  std::string shown_;           // The last line, without its rate.
};

}  // namespace quenor::cli

#endif  // CLI_SEND_PROGRESS_H_
