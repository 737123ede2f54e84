// `quenor-collector page`: shows operators how a tier is, and lets them change what its collectors
// say in their replies. A process of its own. Page: docs/guide/collectors.md.
#ifndef COLLECTOR_PAGE_PAGE_H_
#define COLLECTOR_PAGE_PAGE_H_

#include <functional>
#include <string>

#include "collector/page/options.h"

namespace quenor::collector {

// Serves until `stop_fd` is readable, which it borrows. Throws Fatal.
void RunPage(const PageOptions& options, int stop_fd,
             const std::function<void(const std::string& line)>& announce);

}  // namespace quenor::collector

#endif  // COLLECTOR_PAGE_PAGE_H_
