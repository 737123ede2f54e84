// Where the store is. Page: docs/guide/collectors.md.
#ifndef COLLECTOR_STORE_OPTIONS_H_
#define COLLECTOR_STORE_OPTIONS_H_

#include <string>
#include <vector>

namespace quenor::collector {

// The nodes of one cluster, any of which leads to all, and the stream in it.
struct StoreOptions {
  std::vector<std::string> nodes;  // URLs. Empty: there is no store, the collector keeps files.
  std::string stream = "REPORTS";
  std::string bucket = "CONTROL";  // What collectors are to say in their replies.
};

}  // namespace quenor::collector

#endif  // COLLECTOR_STORE_OPTIONS_H_
