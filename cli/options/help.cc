#include "cli/options/help.h"

#include <algorithm>
#include <sstream>
#include <vector>

namespace quenor::cli {
namespace {

constexpr size_t kMinWidth = 40;
constexpr size_t kMinColumn = 30;  // A narrower description goes below.
constexpr size_t kBelowIndent = 6;
constexpr size_t kCommandIndent = 4;  // Of what a command goes on with.

size_t IndentOf(const std::string& line) {
  return std::min(line.find_first_not_of(' '), line.size());
}

// Appends the words of `text`, the first line being `line` so far, all others indented by `indent`.
void Fill(std::string line, const std::string& text, size_t indent, size_t width,
          const std::string& line_end, std::string* out) {
  std::istringstream words(text);
  bool is_begin = true;  // Of a line: no blank is due.
  for (std::string word; words >> word;) {
    const size_t blank = is_begin ? 0 : 1;
    if (!is_begin && line.size() + blank + word.size() + line_end.size() > width) {
      *out += line + line_end + "\n";
      line.assign(indent, ' ');
      line += word;
      continue;
    }
    line += std::string(blank, ' ') + word;
    is_begin = false;
  }
  *out += line + "\n";
}

// Where the description of an option begins, 0 if none stands on the line.
size_t ColumnOf(const std::string& line) {
  const size_t gap = line.find("  ", IndentOf(line));
  return gap == std::string::npos ? 0 : std::min(line.find_first_not_of(' ', gap), line.size());
}

void FitLine(const std::string& line, bool in_examples, size_t width, std::string* out) {
  const size_t indent = IndentOf(line);
  const std::string margin(indent, ' ');
  if (line.size() <= width) {
    *out += line + "\n";
  } else if (in_examples && indent == 2) {
    Fill(margin, line.substr(indent), kCommandIndent, width, " \\", out);
  } else if (const size_t column = ColumnOf(line); column > 0 && column < line.size()) {
    if (width - std::min(width, column) >= kMinColumn) {
      Fill(line.substr(0, column), line.substr(column), column, width, "", out);
    } else {
      Fill(margin, line.substr(indent, column - indent), kBelowIndent, width, "", out);
      Fill(std::string(kBelowIndent, ' '), line.substr(column), kBelowIndent, width, "", out);
    }
  } else {
    // The rest of an option, a column alone, or running text.
    const size_t kept = width - std::min(width, indent) >= kMinColumn ? indent : kBelowIndent;
    Fill(std::string(kept, ' '), line.substr(indent), kept, width, "", out);
  }
}

}  // namespace

std::string FitHelp(const std::string& help, size_t width) {
  width = std::max(width, kMinWidth);
  std::vector<std::string> lines;
  size_t examples = std::string::npos;  // Where they begin.
  std::istringstream text(help);
  for (std::string line; std::getline(text, line);) {
    const size_t indent = IndentOf(line);
    const bool goes_on = lines.size() > examples && indent < line.size() && indent != 2 &&
                         !lines.back().empty() && indent == IndentOf(lines.back());
    if (goes_on) {
      lines.back() += " " + line.substr(indent);
    } else {
      if (line == "Examples:") examples = lines.size();
      lines.push_back(line);
    }
  }
  std::string fitted;
  for (size_t i = 0; i < lines.size(); ++i) FitLine(lines[i], i > examples, width, &fitted);
  return fitted;
}

}  // namespace quenor::cli
