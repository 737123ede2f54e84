#include "cli/summary.h"

#include "cli/text.h"

namespace quenor::cli {

std::string ClosingLine(const Counts& counts) {
  return "handed_over=" + std::to_string(counts.handed_over) +
         " delivered=" + std::to_string(counts.delivered) +
         " failed_attempts=" + std::to_string(counts.failed_attempts) +
         " dropped=" + std::to_string(counts.dropped) + " left=" + std::to_string(counts.left);
}

ExitCode ExitCodeFor(const Counts& counts, bool input_failed) {
  if (counts.dropped > 0) return kExitUnavailable;
  if (input_failed) return kExitUnreadable;
  if (counts.left > 0) return kExitTempFail;
  return kExitOk;
}

std::string LeftLine(const Counts& counts, const std::vector<std::string>& names,
                     const std::string& last_failure) {
  std::string line = CountOf(counts.left, "message") + " left undelivered (";
  for (size_t i = 0; i < names.size(); ++i) line += (i == 0 ? "" : ", ") + names[i];
  if (counts.left > names.size()) {
    line += " and " + std::to_string(counts.left - names.size()) + " more";
  }
  line += ")";
  if (!last_failure.empty()) line += "; at the last failed send " + last_failure;
  return line + "; hand them over again, or allow more time with --wait";
}

}  // namespace quenor::cli
