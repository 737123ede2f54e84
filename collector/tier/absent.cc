// In place of the tier, in a build without the store's libraries.
#include "collector/fatal.h"
#include "collector/tier/tier.h"

namespace quenor::collector {

void RunTier(const TierOptions&, int, const std::function<void(const std::string& line)>&) {
  throw Fatal(kExitUsage,
              "cannot use --store: this quenor-collector was built without libnats and "
              "libmicrohttpd; install libnats-dev and libmicrohttpd-dev and build it again");
}

}  // namespace quenor::collector
