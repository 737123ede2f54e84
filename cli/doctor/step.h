// One step of "quenor-report doctor": what was done, how long it took, how it went, and what to do
// about it; as lines for people or as one line of JSON. Pure values; any thread.
// Page: docs/guide/quenor-report.md.
#ifndef CLI_DOCTOR_STEP_H_
#define CLI_DOCTOR_STEP_H_

#include <string>
#include <utility>
#include <vector>

#include "quenor_base/platform/http_reason.h"

namespace quenor::cli {

struct Step {
  enum class Result { kOk, kWarning, kFailed, kSkipped };
  struct Detail {
    std::string name;
    std::string value;
  };

  Step() = default;
  explicit Step(std::string name_in, std::string summary_in = "")
      : name(std::move(name_in)), summary(std::move(summary_in)) {}

  // Ends it as failed. `cause_in` is one of the words on the page, for scripts; `reason` follows
  // from it.
  void Fail(const std::string& cause_in, const std::string& summary_in,
            const std::string& advice_in);

  // As Fail(), for what does not keep reports from arriving; a failure stays one, and the first
  // warning stays the one that is told.
  void Warn(const std::string& cause_in, const std::string& advice_in);

  void Add(const std::string& detail, const std::string& value) {
    details.push_back({detail, value});
  }

  std::string name;
  Result result = Result::kOk;
  double duration_ms = 0;
  std::string summary;
  std::vector<Detail> details;
  std::string cause;   // Of a failure or a warning.
  std::string advice;  // Likewise: what to do.
  // Of a failure: what the HTTP client says of the same fault.
  HttpReason reason = HttpReason::kNone;
};

// Lines, each ended: the step's own, then its details and the advice, indented.
std::string AsText(const Step& step);

// One ended line: an object with "step", "result", "ms", "summary", "details", "cause", "advice",
// "reason".
std::string AsJson(const Step& step);

}  // namespace quenor::cli

#endif  // CLI_DOCTOR_STEP_H_
