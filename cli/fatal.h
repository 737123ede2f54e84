// The one exception of quenor-report: something the person who started it must put right.
// what() is one line that says what happened, to which object, and what to do; main() prints it and
// ends with exit_code(). Page: docs/guide/quenor-report.md.
#ifndef CLI_FATAL_H_
#define CLI_FATAL_H_

#include <stdexcept>
#include <string>

namespace quenor::cli {

// Exit codes, as sysexits.h numbers them.
enum ExitCode : int {
  kExitOk = 0,            // Every message was delivered; the cache file is fine.
  kExitDamaged = 1,       // The cache file is damaged.
  kExitUsage = 64,        // Wrong usage: an option, or what one of them names.
  kExitUnreadable = 65,   // An input could not be read; no cache file of this version.
  kExitNoInput = 66,      // No cache file there.
  kExitUnavailable = 69,  // At least one message was dropped.
  kExitInternal = 70,     // No memory or no thread.
  kExitIo = 74,           // The system refused to read or write; no standard output.
  kExitTempFail = 75,     // At least one message is left undelivered; the cache file is in use.
  kExitNotTrusted = 77,   // All are left, because of a certificate or of proxy credentials.
};

class Fatal : public std::runtime_error {
 public:
  Fatal(ExitCode exit_code, const std::string& line)
      : std::runtime_error(line), exit_code_(exit_code) {}

  ExitCode exit_code() const { return exit_code_; }

 private:
  ExitCode exit_code_;
};

}  // namespace quenor::cli

#endif  // CLI_FATAL_H_
