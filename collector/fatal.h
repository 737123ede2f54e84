// The one exception of the collector: something the person who started it must put right.
// what() is one line that says what happened, to which object, and what to do; main() prints it and
// ends with exit_code(). Page: docs/guide/collector.md.
#ifndef COLLECTOR_FATAL_H_
#define COLLECTOR_FATAL_H_

#include <stdexcept>
#include <string>

namespace quenor::collector {

// Exit codes, as sysexits.h numbers them.
enum ExitCode : int {
  kExitOk = 0,
  kExitUsage = 64,
  kExitMismatch = 65,
  kExitNoInput = 66,
  kExitUnavailable = 69,
  kExitInternal = 70,
  kExitCannotCreate = 73,
};

class Fatal : public std::runtime_error {
 public:
  Fatal(ExitCode exit_code, const std::string& line)
      : std::runtime_error(line), exit_code_(exit_code) {}

  ExitCode exit_code() const { return exit_code_; }

 private:
  ExitCode exit_code_;
};

}  // namespace quenor::collector

#endif  // COLLECTOR_FATAL_H_
