// `quenor-collector provision`: makes what a tier needs in its store, where it is not there yet,
// and compares the nodes. It changes nothing that is there, and deletes nothing. Page:
// docs/guide/collectors.md.
#ifndef COLLECTOR_PROVISION_PROVISION_H_
#define COLLECTOR_PROVISION_PROVISION_H_

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "collector/store/options.h"

namespace quenor::collector {

struct ProvisionOptions {
  StoreOptions store;
  int replicas = 3;
  uint64_t max_bytes = 0;   // Of the stream; 0: it is not to be made.
  uint64_t max_age_ms = 0;  // 0: messages stay.
  std::string reader = "export";
  bool check = false;
  std::vector<std::string> monitors;  // URLs of the nodes' monitoring addresses.
  uint64_t settle_ms = 10'000;        // How long a node may lag behind the others.
};

using PrintLine = std::function<void(const std::string& line)>;

// Returns the exit code: kExitMismatch if what is there is not what was asked for, or a node does
// not hold what others hold. Throws Fatal.
int RunProvision(const ProvisionOptions& options, const PrintLine& print);

}  // namespace quenor::collector

#endif  // COLLECTOR_PROVISION_PROVISION_H_
