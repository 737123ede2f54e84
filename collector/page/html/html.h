// Words, numbers and tables as HTML. Whatever goes in as text comes out as text.
#ifndef COLLECTOR_PAGE_HTML_HTML_H_
#define COLLECTOR_PAGE_HTML_HTML_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "collector/page/look/exposition.h"

namespace quenor::collector {

// For text and for quoted attributes.
std::string Escape(std::string_view text);

std::string CountText(uint64_t number);                     // "1,234,567"
std::string SizeText(uint64_t bytes);                       // "1.5 MiB"
std::string RateText(double per_second);                    // "1,234/s", "0.4/s"
std::string PercentText(double part);                       // "12.3 %"
std::string TookText(const std::optional<Quantile>& took);  // "3.1 ms", "> 20 s", "-"

struct Cell {
  std::string text;
  bool is_bad = false;
  bool is_wide = false;  // The rest of the row: what follows it is left out.
};

// A table with a caption and a head. On a narrow screen a row of many columns is a block of its
// own, and each cell says what it is.
class Table {
 public:
  Table(const std::string& caption, std::vector<std::string> heads);

  void AddRow(const std::vector<Cell>& cells);

  std::string Finish() const { return html_ + "</tbody></table>\n"; }

 private:
  const std::vector<std::string> heads_;
  std::string html_;
};

}  // namespace quenor::collector

#endif  // COLLECTOR_PAGE_HTML_HTML_H_
