// Small pieces of text for messages to people.
#ifndef CLI_TEXT_H_
#define CLI_TEXT_H_

#include <cstdint>
#include <string>

namespace quenor::cli {

// Any thread. `text` with control bytes as \xNN, so that it stays on its line and cannot steer a
// terminal.
std::string Printable(const std::string& text);

// Any thread. "1 message", "2 messages".
std::string CountOf(uint64_t count, const std::string& noun);

// Any thread. The system's words for an errno value.
std::string ErrnoText(int error);

}  // namespace quenor::cli

#endif  // CLI_TEXT_H_
