// The part of the page that is made anew every second: what is wrong, then the tables.
#ifndef COLLECTOR_PAGE_HTML_TABLES_H_
#define COLLECTOR_PAGE_HTML_TABLES_H_

#include <string>

#include "collector/page/look/overview.h"

namespace quenor::collector {

// `time`: when that was, as the page is to say it.
std::string TablesOf(const Overview& overview, const std::string& time);

}  // namespace quenor::collector

#endif  // COLLECTOR_PAGE_HTML_TABLES_H_
