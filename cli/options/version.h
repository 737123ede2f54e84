// What --version prints.
#ifndef CLI_OPTIONS_VERSION_H_
#define CLI_OPTIONS_VERSION_H_

#include <string>

namespace quenor::cli {

// Any thread. The version, then one line for each platform service with the implementation that is
// linked. No line end behind the last.
std::string VersionText();

}  // namespace quenor::cli

#endif  // CLI_OPTIONS_VERSION_H_
