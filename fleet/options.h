// What quenor-fleet was asked to do. Page: docs/guide/fleet.md.
#ifndef FLEET_OPTIONS_H_
#define FLEET_OPTIONS_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace quenor::fleet {

// As sysexits.h numbers them.
enum ExitCode : int {
  kExitOk = 0,
  kExitNotHeld = 1,  // An expectation.
  kExitUsage = 64,
  kExitScenario = 65,  // One that cannot be read, or cannot be meant.
  kExitInternal = 70,  // No memory, or books that do not close.
  kExitCannotCreate = 73,
};

struct Options {
  enum class Command { kRun, kCompare, kCheck };
  Command command = Command::kRun;
  std::vector<std::string> scenarios;
  std::vector<std::string> settings;  // KEY=VALUE, each.
  std::string out;                    // A folder; empty: no files.
  uint64_t seed = 1;
};

// Nothing when all is said already (--help). Throws std::invalid_argument with a line that says
// what is wrong.
std::optional<Options> ParseCommandLine(int argc, const char* const* argv);

}  // namespace quenor::fleet

#endif  // FLEET_OPTIONS_H_
