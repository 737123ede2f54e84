// The page, and what its form leads to, as whole documents.
#ifndef COLLECTOR_PAGE_HTML_PAGES_H_
#define COLLECTOR_PAGE_HTML_PAGES_H_

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "collector/control_room/change.h"

namespace quenor::collector {

// What stands in a form.
struct FormValues {
  uint64_t revision = 0;                                    // That the values were read at.
  std::vector<std::pair<std::string, std::string>> fields;  // As FieldsOf names them.
  std::string token;
  std::string problem;  // Why there can be no form; empty: there is one.
};

// `tables` is HTML, as it was at `time`.
std::string MainPage(const std::string& stream, const std::string& time, const std::string& tables,
                     const FormValues& values);

// The form once more, under a message.
std::string FormPage(const std::string& title, const std::string& message,
                     const FormValues& values);

// Asks whether the changes are meant; `values` are those after them. `brings_interval`: channels
// that were told none may be told one.
std::string ConfirmPage(const FormValues& values, const Changes& changes, bool brings_interval);

// `changes` may be empty: it was set before.
std::string DonePage(uint64_t revision, const Changes& changes);

std::string MessagePage(const std::string& title, const std::string& message);

}  // namespace quenor::collector

#endif  // COLLECTOR_PAGE_HTML_PAGES_H_
