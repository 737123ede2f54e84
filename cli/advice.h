// What the library says to a host that is a program, said to a person with a command line.
// Pure; any thread.
#ifndef CLI_ADVICE_H_
#define CLI_ADVICE_H_

#include <string>

namespace quenor::cli {

// `line` with the options of quenor-report in place of the fields that they set, and without advice
// that no option could follow. What stands in single quotes, as file names do, is left alone.
std::string InOptions(const std::string& line);

}  // namespace quenor::cli

#endif  // CLI_ADVICE_H_
