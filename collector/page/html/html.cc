#include "collector/page/html/html.h"

#include <array>
#include <cstdio>
#include <utility>

namespace quenor::collector {
namespace {

constexpr size_t kMostNarrowColumns = 3;

std::string Decimal(double number, int digits, const char* unit) {
  char text[64];
  std::snprintf(text, sizeof(text), "%.*f%s", digits, number, unit);
  return text;
}

}  // namespace

std::string Escape(std::string_view text) {
  std::string escaped;
  for (const char c : text) {
    switch (c) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      case '"':
        escaped += "&quot;";
        break;
      case '\'':
        escaped += "&#39;";
        break;
      case '\r':
      case '\n':
        escaped += ' ';
        break;
      default:
        escaped += c;
    }
  }
  return escaped;
}

std::string CountText(uint64_t number) {
  std::string text = std::to_string(number);
  for (size_t end = text.size(); end > 3; end -= 3) text.insert(end - 3, ",");
  return text;
}

std::string SizeText(uint64_t bytes) {
  constexpr std::array<const char*, 5> kUnits = {" B", " KiB", " MiB", " GiB", " TiB"};
  double size = static_cast<double>(bytes);
  size_t unit = 0;
  while (size >= 1024 && unit + 1 < kUnits.size()) {
    size /= 1024;
    ++unit;
  }
  return Decimal(size, unit > 0 && size < 100 ? 1 : 0, kUnits.at(unit));
}

std::string RateText(double per_second) {
  if (per_second > 0 && per_second < 10) return Decimal(per_second, 1, "/s");
  return CountText(static_cast<uint64_t>(per_second + 0.5)) + "/s";
}

std::string PercentText(double part) { return Decimal(part * 100, 1, " %"); }

std::string TookText(const std::optional<Quantile>& took) {
  if (!took) return "-";
  const std::string text =
      took->seconds < 1 ? Decimal(took->seconds * 1000, 1, " ms") : Decimal(took->seconds, 1, " s");
  return (took->is_beyond ? "> " : "") + text;
}

Table::Table(const std::string& caption, std::vector<std::string> heads)
    : heads_(std::move(heads)) {
  const bool is_wide = heads_.size() > kMostNarrowColumns;
  html_ = std::string("<table") + (is_wide ? " class=\"wide\"" : "") + "><caption>" +
          Escape(caption) + "</caption><thead><tr>";
  for (const std::string& head : heads_) html_ += "<th scope=\"col\">" + Escape(head) + "</th>";
  html_ += "</tr></thead><tbody>\n";
}

void Table::AddRow(const std::vector<Cell>& cells) {
  html_ += "<tr>";
  for (size_t i = 0; i < cells.size(); ++i) {
    const Cell& cell = cells[i];
    html_ += "<td data-head=\"" + Escape(heads_.at(i)) + "\"";
    if (cell.is_bad) html_ += " class=\"bad\"";
    if (cell.is_wide) html_ += " colspan=\"" + std::to_string(heads_.size() - i) + "\"";
    html_ += ">" + Escape(cell.text) + "</td>";
    if (cell.is_wide) break;
  }
  html_ += "</tr>\n";
}

}  // namespace quenor::collector
