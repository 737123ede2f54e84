#include "collector/tier/meter.h"

#include <algorithm>

#include "collector/reports/exposition.h"

namespace quenor::collector {

void Meter::CountAnswer(int status, std::chrono::microseconds took) {
  ++answered_[status];
  const auto bound = std::find_if(kBoundsMs.begin(), kBoundsMs.end(), [took](uint32_t bound_ms) {
    return took <= std::chrono::milliseconds(bound_ms);
  });
  ++took_[static_cast<size_t>(bound - kBoundsMs.begin())];
  took_together_ += took;
}

void Meter::CountStored(uint64_t size_bytes) {
  ++stored_;
  stored_bytes_ += size_bytes;
}

uint64_t Meter::answered() const {
  uint64_t requests = 0;
  for (const auto& [status, count] : answered_) requests += count;
  return requests;
}

std::string Meter::Line() const {
  const auto of = [this](int status) {
    const auto found = answered_.find(status);
    return std::to_string(found == answered_.end() ? 0 : found->second);
  };
  return "requests=" + std::to_string(answered()) + " stored=" + std::to_string(stored_) +
         " bytes=" + std::to_string(stored_bytes_) + " rejected=" + std::to_string(rejected_) +
         " busy=" + of(503) + " full=" + of(507);
}

std::string Meter::Text(const Present& present, Time now) const {
  std::string out;
  const auto single = [&out](const char* name, const char* type, const char* help, uint64_t value) {
    Metric(&out, name, type, help).Sample(std::to_string(value));
  };
  // So that a first one is seen as a rise from 0.
  std::map<int, uint64_t> answered = {{200, 0}, {503, 0}, {507, 0}};
  for (const auto& [status, count] : answered_) answered[status] = count;
  const Metric requests(&out, "requests_total", "counter", "Reports, by the status of the answer.");
  for (const auto& [status, count] : answered) {
    requests.Sample(std::to_string(count), "status=\"" + std::to_string(status) + "\"");
  }
  std::map<int, uint64_t> refused = {{404, 0}, {405, 0}, {413, 0}};
  for (const auto& [status, count] : refused_) refused[status] = count;
  const Metric refusals(&out, "refused_total", "counter", "Requests that are no report.");
  for (const auto& [status, count] : refused) {
    refusals.Sample(std::to_string(count), "status=\"" + std::to_string(status) + "\"");
  }
  const Metric took(&out, "answer_seconds", "histogram",
                    "From a report's last byte to its answer.");
  uint64_t sum = 0;
  for (size_t i = 0; i < took_.size(); ++i) {
    sum += took_[i];
    const std::string bound = i < kBoundsMs.size() ? SecondsText(kBoundsMs[i]) : "+Inf";
    took.Sample(std::to_string(sum), "le=\"" + bound + "\"", "_bucket");
  }
  took.Sample(SecondsText(took_together_.count() / 1000), "", "_sum");
  took.Sample(std::to_string(sum), "", "_count");
  single("reports_stored_total", "counter", "Reports that the store acknowledged.", stored_);
  single("report_bytes_total", "counter", "Bytes of those reports.", stored_bytes_);
  single("published_again_total", "counter", "Attempts beyond a report's first.", published_again_);
  single("reports_rejected_total", "counter", "Reports that will never be taken.", rejected_);
  single("reports_held", "gauge", "Reports that wait for the store.", present.held_reports);
  single("held_bytes", "gauge", "Bytes of those reports.", present.held_bytes);
  const Metric state(&out, "state", "gauge", "1 for the present state.");
  for (const TierState each : {TierState::kConnecting, TierState::kReady, TierState::kStalled,
                               TierState::kFull, TierState::kDraining}) {
    state.Sample(each == present.state ? "1" : "0", "state=\"" + std::string(NameOf(each)) + "\"");
  }
  single("store_connections_total", "counter", "Connections made to the store.", connected_);
  single("connections_open", "gauge", "Connections of senders, this one included.",
         present.connections);
  single("control_revision", "gauge", "Of the control settings in force; 0: the command line's.",
         present.control_revision);
  single("control_interval_ms", "gauge", "The interval in force before its jitter; 0: none.",
         present.control_interval_ms);
  single("control_refused_total", "counter", "Control settings that cannot be meant.",
         control_refused_);
  const auto uptime = std::chrono::duration_cast<std::chrono::milliseconds>(now - started_);
  Metric(&out, "uptime_seconds", "gauge", "Since the collector began.")
      .Sample(SecondsText(uptime.count()));
  return out;
}

}  // namespace quenor::collector
