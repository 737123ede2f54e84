// In place of the tier and its commands, in a build without the store's libraries.
#include "collector/control_room/control.h"
#include "collector/export/export.h"
#include "collector/fatal.h"
#include "collector/page/page.h"
#include "collector/provision/provision.h"
#include "collector/tier/tier.h"

namespace quenor::collector {
namespace {

[[noreturn]] void Refuse() {
  throw Fatal(kExitUsage,
              "cannot use --store: this quenor-collector was built without libnats and "
              "libmicrohttpd; install libnats-dev and libmicrohttpd-dev and build it again");
}

}  // namespace

void RunTier(const TierOptions&, int, const std::function<void(const std::string& line)>&) {
  Refuse();
}

void RunExport(const ExportOptions&, int, const std::function<void(const std::string& line)>&) {
  Refuse();
}

void RunControl(const ControlOptions&, const std::function<void(const std::string& line)>&) {
  Refuse();
}

void RunPage(const PageOptions&, int, const std::function<void(const std::string& line)>&) {
  Refuse();
}

int RunProvision(const ProvisionOptions&, const PrintLine&) { Refuse(); }

}  // namespace quenor::collector
