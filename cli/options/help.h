// Help that fits where it is shown. Pure; any thread.
#ifndef CLI_OPTIONS_HELP_H_
#define CLI_OPTIONS_HELP_H_

#include <cstddef>
#include <string>

namespace quenor::cli {

// `help` with no line longer than `width` (at least 40), unless a single word is. A description
// stays in its column, or goes below what it describes where that leaves it too narrow. Behind a
// line "Examples:" what is indented by two is a command, which goes on behind a backslash, so that
// it can still be copied.
std::string FitHelp(const std::string& help, size_t width);

}  // namespace quenor::cli

#endif  // CLI_OPTIONS_HELP_H_
