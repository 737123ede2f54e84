// How far a run is, on one line of a terminal that it writes over and over; nothing elsewhere.
#ifndef FLEET_OUTPUT_PROGRESS_H_
#define FLEET_OUTPUT_PROGRESS_H_

#include <cstdint>
#include <string>

#include "fleet/scenario/scenario.h"

namespace quenor::fleet {

class Progress {
 public:
  // Of a run on `fd`, if that is a terminal. Borrows the scenario.
  Progress(int fd, const Scenario& scenario);

  // Writes at most some times a second.
  void Tell(int64_t now_us);
  // Takes the line away.
  void End();

 private:
  void Write(const std::string& text) const;

  const int fd_;
  const bool is_terminal_;
  const Scenario& scenario_;
  const int64_t begun_ms_;
  int64_t told_ms_ = 0;
};

}  // namespace quenor::fleet

#endif  // FLEET_OUTPUT_PROGRESS_H_
