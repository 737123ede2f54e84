// Books as the text that monitoring systems scrape (Prometheus text format 0.0.4): every sample has
// the label "reporter", empty for the process's books. Threads: any.
#ifndef QUENOR_BASE_REPORTER_EXPOSITION_H_
#define QUENOR_BASE_REPORTER_EXPOSITION_H_

#include <string>
#include <utility>
#include <vector>

#include "quenor_base/reporter/books.h"

QUENOR_NAMESPACE_BEGIN

// Names and books; every metric once, with a sample for each of them.
std::string Exposition(const std::vector<std::pair<std::string, BooksEntry>>& books);

// What the text calls a cause: "resend_limit".
const char* NameOf(ReportEventCause cause);

QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_REPORTER_EXPOSITION_H_
