#include "cli/send/summary.h"

#include "cli/text.h"

namespace quenor::cli {
namespace {

// To try again is in vain until somebody changes an option, the server's certificate or the clock.
// A name that is not found is none of these: a machine without a network knows no names.
bool IsOfTrust(HttpReason reason) {
  switch (reason) {
    case HttpReason::kTlsExpired:
    case HttpReason::kTlsWrongHost:
    case HttpReason::kTlsUntrusted:
    case HttpReason::kTlsPin:
    case HttpReason::kProxyCredentials:
      return true;
    default:
      return false;
  }
}

}  // namespace

std::string ClosingLine(const Counts& counts) {
  return "handed_over=" + std::to_string(counts.handed_over) +
         " delivered=" + std::to_string(counts.delivered) +
         " failed_attempts=" + std::to_string(counts.failed_attempts) +
         " dropped=" + std::to_string(counts.dropped) + " left=" + std::to_string(counts.left) +
         " loaded=" + std::to_string(counts.loaded) + " kept=" + std::to_string(counts.kept);
}

ExitCode ExitCodeFor(const Counts& counts, bool input_failed) {
  if (counts.dropped > 0) return kExitUnavailable;
  if (input_failed) return kExitUnreadable;
  if (counts.left == 0) return kExitOk;
  return counts.delivered == 0 && IsOfTrust(counts.only_reason) ? kExitNotTrusted : kExitTempFail;
}

std::string LeftLine(uint64_t count, const std::vector<std::string>& names,
                     const std::string& cache_file, const std::string& last_failure) {
  std::string line = CountOf(count, "message") + " left undelivered (";
  for (size_t i = 0; i < names.size(); ++i) line += (i == 0 ? "" : ", ") + names[i];
  if (count > names.size()) line += " and " + std::to_string(count - names.size()) + " more";
  line += ")";
  const std::string them = count == 1 ? "it" : "them";
  line += cache_file.empty() ? " and not kept on disk"
                             : ", kept in " + cache_file + " for the next run";
  if (!last_failure.empty()) line += "; at the last failed send " + last_failure;
  if (!cache_file.empty()) {
    return line + "; do not hand " + them + " over again: a run of the same channel delivers " +
           them;
  }
  return line + "; hand " + them + " over again, or allow more time with --wait";
}

}  // namespace quenor::cli
