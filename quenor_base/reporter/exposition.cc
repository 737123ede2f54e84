#include "quenor_base/reporter/exposition.h"

#include <algorithm>
#include <string_view>

QUENOR_NAMESPACE_BEGIN
namespace {

using Cause = ReportEventCause;
using AllBooks = std::vector<std::pair<std::string, BooksEntry>>;

// Bytes of the UTF-8 character that `text` begins with, 0 if it begins with none.
size_t LengthOfCharacter(std::string_view text) {
  const auto byte = [text](size_t i) { return i < text.size() ? text[i] & 0xffu : 0u; };
  const unsigned first = byte(0);
  const size_t length = first < 0x80   ? 1
                        : first < 0xc2 ? 0
                        : first < 0xe0 ? 2
                        : first < 0xf0 ? 3
                                       : 4;
  for (size_t i = 1; i < length; ++i) {
    if (byte(i) >> 6 != 2) return 0;
  }
  // Longer than need be, a surrogate, or past the last character.
  const unsigned two = first << 8 | byte(1);
  const bool is_none = (length == 3 && (two < 0xe0a0 || (two >= 0xeda0 && two < 0xee00))) ||
                       (length == 4 && (two < 0xf090 || two >= 0xf490));
  return is_none ? 0 : length;
}

// A byte that is none of a character's becomes its number: scrapers refuse the whole text
// otherwise.
std::string Escaped(std::string_view label) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  std::string escaped;
  for (size_t length; !label.empty(); label.remove_prefix(std::max<size_t>(length, 1))) {
    const char c = label.front();
    length = LengthOfCharacter(label);
    if (length == 0) {
      escaped += {'%', kDigits[(c >> 4) & 15], kDigits[c & 15]};
    } else if (c == '\n') {
      escaped += "\\n";
    } else {
      if (c == '\\' || c == '"') escaped += '\\';
      escaped += label.substr(0, length);
    }
  }
  return escaped;
}

// Without printf(), which heeds the host's locale.
std::string Seconds(uint64_t ms) {
  return std::to_string(ms / 1000) + "." + std::to_string(1000 + ms % 1000).substr(1);
}

// One metric: its head once, then its samples.
class Metric {
 public:
  Metric(std::string* out, const char* name, const char* type, const char* help)
      : out_(out), name_(name) {
    *out_ += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
  }
  void Sample(const std::string& reporter, const std::string& more_labels, const std::string& value,
              const char* suffix = "") const {
    *out_ += std::string(name_) + suffix + "{reporter=\"" + Escaped(reporter) + "\"" +
             (more_labels.empty() ? "" : "," + more_labels) + "} " + value + "\n";
  }
  void Sample(const std::string& reporter, const std::string& more_labels, uint64_t value) const {
    Sample(reporter, more_labels, std::to_string(value));
  }

 private:
  std::string* const out_;
  const char* const name_;
};

std::string End(const char* end, const char* cause = "") {
  return std::string("end=\"") + end + "\",cause=\"" + cause + "\"";
}

void WriteEnds(const AllBooks& all, std::string* out) {
  const Metric metric(out, "quenor_messages_ended_total", "counter",
                      "Messages that have ended, by how and why.");
  for (const auto& [name, books] : all) {
    metric.Sample(name, End("acknowledged"), books.acknowledged);
    metric.Sample(name, End("rejected"), books.rejected);
    metric.Sample(name, End("kept"), books.kept);
    for (const Cause cause : {Cause::kNotInitialized, Cause::kQueueGone, Cause::kNotRunning,
                              Cause::kNoServer, Cause::kOutOfMemory}) {
      metric.Sample(name, End("refused", NameOf(cause)), books.refused[static_cast<size_t>(cause)]);
    }
    for (const Cause cause : {Cause::kTrimmed, Cause::kResendLimit, Cause::kNotCompressed,
                              Cause::kTerminated, Cause::kNeverRun, Cause::kReplaced}) {
      metric.Sample(name, End("dropped", NameOf(cause)), books.dropped[static_cast<size_t>(cause)]);
    }
  }
}

void WriteFailures(const AllBooks& all, std::string* out) {
  const Metric metric(out, "quenor_attempts_failed_total", "counter",
                      "Exchanges that failed, by the HTTP status or by why there was none.");
  for (const auto& [name, books] : all) {
    for (size_t hundreds = 0; hundreds < books.failed_by_status.size(); ++hundreds) {
      const bool is_rare = hundreds < 1 || hundreds > 5;
      if (is_rare && books.failed_by_status[hundreds] == 0) continue;
      metric.Sample(name, "reason=\"status_" + std::to_string(hundreds) + "xx\"",
                    books.failed_by_status[hundreds]);
    }
    for (int32_t i = 1; i < kHttpReasons; ++i) {
      const auto reason = static_cast<HttpReason>(i);
      if (reason == HttpReason::kHttpStatus) continue;  // As above.
      metric.Sample(name, std::string("reason=\"") + HttpReasonName(reason) + "\"",
                    books.failed_by_reason[static_cast<size_t>(i)]);
    }
  }
}

void WriteLatency(const AllBooks& all, std::string* out) {
  const Metric metric(out, "quenor_delivery_seconds", "histogram",
                      "From hand-over to acknowledgement, of messages of this run.");
  for (const auto& [name, books] : all) {
    uint64_t count = 0;
    for (size_t i = 0; i < books.latency.size(); ++i) {
      count += books.latency[i];
      const bool is_last = i == BooksEntry::kLatencyBoundsMs.size();
      const std::string bound =
          is_last ? "+Inf" : Seconds(static_cast<uint64_t>(BooksEntry::kLatencyBoundsMs[i]));
      metric.Sample(name, "le=\"" + bound + "\"", std::to_string(count), "_bucket");
    }
    metric.Sample(name, "", Seconds(books.latency_sum_ms), "_sum");
    metric.Sample(name, "", std::to_string(count), "_count");
  }
}

struct Single {
  const char* name;
  const char* type;
  const char* help;
  uint64_t BooksEntry::*value;
};
constexpr Single kSingles[] = {
    {"quenor_messages_handed_over_total", "counter", "Messages that were handed over.",
     &BooksEntry::handed_over},
    {"quenor_messages_loaded_total", "counter", "Messages that an earlier run had kept.",
     &BooksEntry::loaded},
    {"quenor_messages_delayed", "gauge", "Messages whose delay is not over.", &BooksEntry::delayed},
    {"quenor_messages_pending", "gauge", "Messages that wait for their turn.",
     &BooksEntry::pending},
    {"quenor_messages_in_flight", "gauge", "Messages that are on their way.",
     &BooksEntry::in_flight},
    {"quenor_attempts_total", "counter", "Exchanges that were begun.", &BooksEntry::attempts},
    {"quenor_handed_over_bytes_total", "counter", "Bytes of the messages handed over.",
     &BooksEntry::bytes_handed_over},
    {"quenor_acknowledged_bytes_total", "counter", "Bytes of the messages acknowledged, as sent.",
     &BooksEntry::bytes_acknowledged},
    {"quenor_saves_total", "counter", "Complete saves of the cache.", &BooksEntry::saves},
    {"quenor_saves_failed_total", "counter", "Saves that the disk did not take.",
     &BooksEntry::failed_saves},
    {"quenor_retunings_total", "counter", "Replies of the server that set something.",
     &BooksEntry::retunings},
};

}  // namespace

const char* NameOf(Cause cause) {
  switch (cause) {
    case Cause::kNone:
      return "none";
    case Cause::kNotInitialized:
      return "not_initialized";
    case Cause::kQueueGone:
      return "queue_gone";
    case Cause::kNotRunning:
      return "not_running";
    case Cause::kNoServer:
      return "no_server";
    case Cause::kOutOfMemory:
      return "out_of_memory";
    case Cause::kTransport:
      return "transport";
    case Cause::kStatus:
      return "status";
    case Cause::kTrimmed:
      return "trimmed";
    case Cause::kResendLimit:
      return "resend_limit";
    case Cause::kNotCompressed:
      return "not_compressed";
    case Cause::kTerminated:
      return "terminated";
    case Cause::kNeverRun:
      return "never_run";
    case Cause::kReplaced:
      return "replaced";
  }
  return "";
}

std::string Exposition(const AllBooks& books) {
  std::string out;
  for (const Single& single : kSingles) {
    const Metric metric(&out, single.name, single.type, single.help);
    for (const auto& [name, entry] : books) metric.Sample(name, "", entry.*single.value);
  }
  WriteEnds(books, &out);
  WriteFailures(books, &out);
  WriteLatency(books, &out);
  const Metric last(&out, "quenor_last_failure_timestamp_seconds", "gauge",
                    "When an exchange failed last, since 1970; 0: none did.");
  for (const auto& [name, entry] : books) {
    last.Sample(name, "", std::to_string(entry.last_failure_time));
  }
  return out;
}

QUENOR_NAMESPACE_END
