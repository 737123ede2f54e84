// How a run ends: the line for scripts, the line about what is left, the exit code. Pure functions.
#ifndef CLI_SEND_SUMMARY_H_
#define CLI_SEND_SUMMARY_H_

#include <cstdint>
#include <string>
#include <vector>

#include "cli/fatal.h"
#include "cli/send/ledger.h"

namespace quenor::cli {

// "handed_over=3 delivered=2 failed_attempts=1 dropped=0 left=1 loaded=0 kept=1", without a line
// end.
std::string ClosingLine(const Counts& counts);

// What was dropped outweighs an unreadable input, which outweighs what is left. Where nothing was
// delivered for one reason that only a person can mend, that is told apart.
ExitCode ExitCodeFor(const Counts& counts, bool input_failed);

// One line about `count` messages that are left, the oldest of which are named. They are kept in
// `cache_file`, or nowhere if that is empty. `last_failure` may be empty.
std::string LeftLine(uint64_t count, const std::vector<std::string>& names,
                     const std::string& cache_file, const std::string& last_failure);

// Names that LeftLine() takes at most; it says how many more there are.
constexpr size_t kMaxLeftNames = 10;

}  // namespace quenor::cli

#endif  // CLI_SEND_SUMMARY_H_
