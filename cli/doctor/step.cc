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

struct Meaning {
  const char* cause;
  HttpReason reason;
};
constexpr Meaning kMeanings[] = {
    {"name_unknown", HttpReason::kNameNotFound}, {"resolver_failed", HttpReason::kNameNotFound},
    {"refused", HttpReason::kRefused},           {"proxy_auth", HttpReason::kProxyCredentials},
    {"expired", HttpReason::kTlsExpired},        {"not_yet_valid", HttpReason::kTlsExpired},
    {"wrong_host", HttpReason::kTlsWrongHost},   {"wrong_ca", HttpReason::kTlsUntrusted},
    {"self_signed", HttpReason::kTlsUntrusted},  {"pin_mismatch", HttpReason::kTlsPin},
};

// What the HTTP client says of the same fault; each step has a word for all that has none.
HttpReason ReasonOf(const std::string& step, const std::string& cause) {
  const bool is_silence = cause.size() >= 7 && cause.compare(cause.size() - 7, 7, "timeout") == 0;
  if (is_silence) return HttpReason::kConnectTimeout;
  if (step == "proxy-resolve" || step == "proxy-connect") return HttpReason::kProxyUnreachable;
  for (const Meaning& meaning : kMeanings) {
    if (cause == meaning.cause) return meaning.reason;
  }
  if (step == "connect") return HttpReason::kUnreachable;
  return step == "proxy" ? HttpReason::kProxyRefused : HttpReason::kTlsOther;
}

}  // namespace

void Step::Fail(const std::string& cause_in, const std::string& summary_in,
                const std::string& advice_in) {
  result = Result::kFailed;
  cause = cause_in;
  summary = summary_in;
  advice = advice_in;
  reason = ReasonOf(name, cause);
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
         "],\"cause\":" + JsonString(step.cause) + ",\"advice\":" + JsonString(step.advice) +
         ",\"reason\":\"" + HttpReasonName(step.reason) + "\"}\n";
}

}  // namespace quenor::cli
