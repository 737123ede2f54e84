// The command line of quenor-report. Page: docs/guide/quenor-report.md.
#ifndef CLI_OPTIONS_OPTIONS_H_
#define CLI_OPTIONS_OPTIONS_H_

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "cli/connection.h"

namespace quenor::cli {

// What keeps the undelivered messages on disk. The numbers are the cache option's.
enum class CacheKind : int32_t { kNone = 0, kFile = 1, kMmap = 2 };

// "quenor-report send".
struct Options : Connection {
  std::string url;
  std::string channel = "quenor-report";
  bool send_now = false;
  bool compress = false;
  std::optional<uint32_t> interval_ms;
  std::optional<uint32_t> max_resend;  // Empty: keeps trying.
  double wait_s = 30;
  std::optional<CacheKind> cache;        // Empty: as the process is configured, else mmap.
  std::optional<std::string> cache_dir;  // Empty: the user's own folder.
  bool persist = true;
  std::string saved_list;          // Empty: none.
  std::string metrics_file;        // Empty: none.
  std::vector<std::string> files;  // Empty: each line of standard input is a message.
};

// "quenor-report cache VERB FILE".
struct CacheCommand {
  enum class Verb { kList, kDump, kVerify, kPurge };
  Verb verb = Verb::kList;
  std::string file;
  std::optional<std::string> raw;  // Dump: a folder for the packets as they are; "-": stdout.
  bool yes = false;                // Purge.
};

// "quenor-report doctor".
struct DoctorCommand : Connection {
  std::string url;
  double timeout_s = 10;  // Of each step.
  bool probe = false;
  bool json = false;
};

using Command = std::variant<Options, CacheCommand, DoctorCommand>;

// Parses and checks the command line. Empty if it asked for --help or --version, which has then
// been printed. Throws Fatal with kExitUsage.
std::optional<Command> ParseCommandLine(int argc, const char* const* argv);

}  // namespace quenor::cli

#endif  // CLI_OPTIONS_OPTIONS_H_
