// One metric in the text that monitoring systems scrape (Prometheus text format 0.0.4): its head,
// then its samples. Any thread.
#ifndef COLLECTOR_REPORTS_EXPOSITION_H_
#define COLLECTOR_REPORTS_EXPOSITION_H_

#include <cstdint>
#include <string>

namespace quenor::collector {

constexpr char kMetricsType[] = "text/plain; version=0.0.4; charset=utf-8";

class Metric {
 public:
  Metric(std::string* out, const std::string& name, const char* type, const char* help)
      : out_(out), name_("quenor_collector_" + name) {
    *out_ += "# HELP " + name_ + " " + help + "\n# TYPE " + name_ + " " + type + "\n";
  }
  // `suffix` is of a histogram's samples: "_bucket", "_sum", "_count".
  void Sample(const std::string& value, const std::string& labels = "",
              const char* suffix = "") const {
    *out_ += name_ + suffix + (labels.empty() ? "" : "{" + labels + "}") + " " + value + "\n";
  }

 private:
  std::string* const out_;
  const std::string name_;
};

// Milliseconds as a decimal number of seconds.
inline std::string SecondsText(int64_t milliseconds) {
  return std::to_string(milliseconds / 1000) + "." +
         std::to_string(1000 + milliseconds % 1000).substr(1);
}

}  // namespace quenor::collector

#endif  // COLLECTOR_REPORTS_EXPOSITION_H_
