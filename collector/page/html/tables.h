// The part of the page that is shown anew whenever it differs: what is wrong, then the tables.
#ifndef COLLECTOR_PAGE_HTML_TABLES_H_
#define COLLECTOR_PAGE_HTML_TABLES_H_

#include <string>

#include "collector/page/look/overview.h"

namespace quenor::collector {

std::string TablesOf(const Overview& overview);

}  // namespace quenor::collector

#endif  // COLLECTOR_PAGE_HTML_TABLES_H_
