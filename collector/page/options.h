// What the operators' page is told on its command line.
#ifndef COLLECTOR_PAGE_OPTIONS_H_
#define COLLECTOR_PAGE_OPTIONS_H_

#include <string>
#include <vector>

#include "collector/store/options.h"

namespace quenor::collector {

struct PageOptions {
  StoreOptions store;
  std::string reader = "export";
  std::vector<std::string> monitors;    // URLs of the nodes' monitoring addresses.
  std::vector<std::string> collectors;  // URLs.
  std::string host = "127.0.0.1";
  int port = 8390;
  std::string port_file;           // Empty: none.
  std::vector<std::string> names;  // Under which browsers may reach it, beside its addresses.
};

}  // namespace quenor::collector

#endif  // COLLECTOR_PAGE_OPTIONS_H_
