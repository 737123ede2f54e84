// The command line of quenor-collector. Page: docs/guide/collector.md.
#ifndef COLLECTOR_OPTIONS_H_
#define COLLECTOR_OPTIONS_H_

#include <optional>
#include <string>

#include "collector/commands.h"
#include "collector/http/server.h"
#include "collector/reports/recorder.h"
#include "collector/tier/options.h"

namespace quenor::collector {

struct Options {
  Command command;  // If it is one, nothing below counts.
  ServerOptions server;
  RecorderOptions recorder;
  std::string cert_path;  // Empty: plain HTTP.
  std::string key_path;
  std::string port_file;  // Empty: none.
  TierOptions tier;       // If it names a store, what the others say is in it, too.
};

// Parses the command line. Empty if it asked for --help or --version, which has then been printed.
// Throws Fatal with kExitUsage.
std::optional<Options> ParseCommandLine(int argc, const char* const* argv);

}  // namespace quenor::collector

#endif  // COLLECTOR_OPTIONS_H_
