#include "collector/reports/metrics.h"

#include <map>
#include <utility>

#include "collector/reports/exposition.h"

#ifndef QUENOR_COLLECTOR_VERSION
#define QUENOR_COLLECTOR_VERSION "unknown"
#endif

namespace quenor::collector {
namespace {

// So that a first refusal is seen as a rise from 0.
std::map<std::pair<std::string, int>, uint64_t> EveryRefusal() {
  std::map<std::pair<std::string, int>, uint64_t> all;
  for (const int status : {400, 405, 408, 413, 414, 431, 501}) all[{"head", status}] = 0;
  for (const int status : {400, 408, 413, 431}) all[{"body", status}] = 0;
  all[{"record", kCannotRecordStatus}] = 0;
  return all;
}

}  // namespace

std::string MetricsText(const Counts& counts, const Connections& connections,
                        std::chrono::milliseconds uptime) {
  std::string out;
  const auto single = [&out](const char* name, const char* type, const char* help, uint64_t value) {
    Metric(&out, name, type, help).Sample(std::to_string(value));
  };
  std::map<int, uint64_t> by_status = counts.by_status;
  by_status[200] += 0;
  const Metric requests(&out, "requests_total", "counter",
                        "Requests with a report, by the status on record; none: no answer.");
  for (const auto& [status, count] : by_status) {
    const std::string name = status == 0 ? "none" : std::to_string(status);
    requests.Sample(std::to_string(count), "status=\"" + name + "\"");
  }
  std::map<std::pair<std::string, int>, uint64_t> refused = EveryRefusal();
  for (const auto& [reason, count] : counts.refused) refused[reason] = count;
  const Metric refusals(&out, "refused_total", "counter",
                        "What was refused whatever a script says, by the part at fault.");
  for (const auto& [reason, count] : refused) {
    refusals.Sample(std::to_string(count), "part=\"" + reason.first + "\",status=\"" +
                                               std::to_string(reason.second) + "\"");
  }
  single("reports_stored_total", "counter", "Reports put on record and acknowledged.",
         counts.accepted);
  single("reports_repeated_total", "counter", "Those whose bytes were on record already.",
         counts.accepted - counts.distinct_sha256);
  single("report_bytes_total", "counter", "Bytes of the reports stored, as received.",
         counts.bytes);
  single("incomplete_total", "counter", "Requests whose body never arrived whole.",
         counts.incomplete);
  single("misbehaved_total", "counter", "Requests that a script did something to.",
         counts.misbehaved);
  single("connections_total", "counter", "Connections accepted.", connections.accepted);
  single("connections_open", "gauge", "Connections that are open, this one included.",
         connections.open);
  Metric(&out, "uptime_seconds", "gauge", "Since the collector began.")
      .Sample(SecondsText(uptime.count()));
  Metric(&out, "build_info", "gauge", "Always 1; the version is in the label.")
      .Sample("1", "version=\"" QUENOR_COLLECTOR_VERSION "\"");
  return out;
}

}  // namespace quenor::collector
