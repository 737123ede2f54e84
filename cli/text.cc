#include "cli/text.h"

#include <cstdio>
#include <system_error>

namespace quenor::cli {

std::string Printable(const std::string& text) {
  std::string printable;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte != 0x7f) {
      printable += c;
      continue;
    }
    char escaped[5];
    std::snprintf(escaped, sizeof(escaped), "\\x%02x", byte);
    printable += escaped;
  }
  return printable;
}

std::string CountOf(uint64_t count, const std::string& noun) {
  return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

std::string ErrnoText(int error) { return std::generic_category().message(error); }

}  // namespace quenor::cli
