#include "cli/options/suggest.h"

#include <algorithm>

namespace quenor::cli {
namespace {

size_t Slips(const std::string& from, const std::string& to) {
  // row[k][j]: slips from the first i - k letters of `from` to the first j of `to`.
  std::vector<size_t> row[3];
  row[0].resize(to.size() + 1);
  for (size_t j = 0; j <= to.size(); ++j) row[0][j] = j;
  for (size_t i = 1; i <= from.size(); ++i) {
    row[2] = std::move(row[1]);
    row[1] = std::move(row[0]);
    row[0].assign(to.size() + 1, i);
    for (size_t j = 1; j <= to.size(); ++j) {
      const size_t wrong = from[i - 1] == to[j - 1] ? 0 : 1;
      row[0][j] = std::min({row[1][j] + 1, row[0][j - 1] + 1, row[1][j - 1] + wrong});
      if (i > 1 && j > 1 && from[i - 1] == to[j - 2] && from[i - 2] == to[j - 1]) {
        row[0][j] = std::min(row[0][j], row[2][j - 2] + 1);
      }
    }
  }
  return row[0].back();
}

}  // namespace

std::string Nearest(const std::string& word, const std::vector<std::string>& known) {
  std::string nearest;
  size_t fewest = std::string::npos;
  for (const std::string& candidate : known) {
    const size_t slips = Slips(word, candidate);
    if (slips >= fewest || slips * 3 > candidate.size() + 1) continue;
    fewest = slips;
    nearest = candidate;
  }
  return nearest;
}

}  // namespace quenor::cli
