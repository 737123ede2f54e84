#include "cli/doctor/step.h"

#include <cstdio>

#include "cli/text.h"
#include "quenor_base/platform/base/json_reader.h"

namespace quenor::cli {
namespace {

const char* ResultWord(Step::Result result) {
  switch (result) {
    case Step::Result::kOk:
      return "ok";
    case Step::Result::kWarning:
      return "warning";
    case Step::Result::kFailed:
      return "FAILED";
    default:
      return "skipped";
  }
}

std::string Quoted(const std::string& text, bool ascii_only) {
  std::string quoted = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') {
      quoted += '\\';
      quoted += c;
    } else if (ascii_only && static_cast<unsigned char>(c) >= 0x80) {
      char escaped[8];
      std::snprintf(escaped, sizeof(escaped), "\\\\x%02x", static_cast<unsigned char>(c));
      quoted += escaped;
    } else {
      quoted += c;
    }
  }
  return quoted + '"';
}

// A JSON string. Names from the command line and the network may be in any encoding.
std::string JsonString(const std::string& text) {
  const std::string quoted = Quoted(Printable(text), /*ascii_only=*/false);
  if (base::JSONReader::Read("[" + quoted + "]", 0, 2).has_value()) return quoted;
  return Quoted(Printable(text), /*ascii_only=*/true);
}

std::string Milliseconds(double duration_ms) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.1f", duration_ms);
  return text;
}

}  // namespace

void Step::Fail(const std::string& cause_in, const std::string& summary_in,
                const std::string& advice_in) {
  result = Result::kFailed;
  cause = cause_in;
  summary = summary_in;
  advice = advice_in;
}

void Step::Warn(const std::string& cause_in, const std::string& advice_in) {
  if (result != Result::kOk) return;
  result = Result::kWarning;
  cause = cause_in;
  advice = advice_in;
}

std::string AsText(const Step& step) {
  char head[64];
  std::snprintf(head, sizeof(head), "%-14s %-8s %8s ms  ", step.name.c_str(),
                ResultWord(step.result), Milliseconds(step.duration_ms).c_str());
  std::string text = head + Printable(step.summary) + "\n";
  for (const Step::Detail& detail : step.details) {
    text += "    " + Printable(detail.name) + ": " + Printable(detail.value) + "\n";
  }
  if (!step.advice.empty()) text += "    what to do: " + Printable(step.advice) + "\n";
  return text;
}

std::string AsJson(const Step& step) {
  const std::string result =
      step.result == Step::Result::kFailed ? "failed" : ResultWord(step.result);
  std::string details;
  for (const Step::Detail& detail : step.details) {
    details += (details.empty() ? "" : ",") + std::string("{\"name\":") + JsonString(detail.name) +
               ",\"value\":" + JsonString(detail.value) + "}";
  }
  return "{\"step\":" + JsonString(step.name) + ",\"result\":\"" + result +
         "\",\"ms\":" + Milliseconds(step.duration_ms) +
         ",\"summary\":" + JsonString(step.summary) + ",\"details\":[" + details +
         "],\"cause\":" + JsonString(step.cause) + ",\"advice\":" + JsonString(step.advice) + "}\n";
}

}  // namespace quenor::cli
