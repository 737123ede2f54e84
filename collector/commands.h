// The commands of quenor-collector that serve nobody, and their command lines.
// Page: docs/guide/collectors.md.
#ifndef COLLECTOR_COMMANDS_H_
#define COLLECTOR_COMMANDS_H_

#include <memory>
#include <variant>

#include "collector/control_room/control.h"
#include "collector/export/export.h"
#include "collector/page/options.h"
#include "collector/provision/provision.h"

namespace CLI {
class App;
}

namespace quenor::collector {

// Monostate: none, quenor-collector serves.
using Command =
    std::variant<std::monostate, ProvisionOptions, ExportOptions, ControlOptions, PageOptions>;

class Commands {
 public:
  // Adds them to the command line.
  explicit Commands(CLI::App* app);
  ~Commands();

  // After it was parsed: whether one was given. Throws Fatal.
  bool Finish(Command* command);

 private:
  struct Parsed;
  const std::unique_ptr<Parsed> parsed_;
};

}  // namespace quenor::collector

#endif  // COLLECTOR_COMMANDS_H_
