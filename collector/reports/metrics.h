// What GET /metrics answers: the counts as the text that monitoring systems scrape (Prometheus text
// format 0.0.4). Any thread. Page: docs/guide/collector.md.
#ifndef COLLECTOR_REPORTS_METRICS_H_
#define COLLECTOR_REPORTS_METRICS_H_

#include <chrono>
#include <cstdint>
#include <string>

#include "collector/reports/exposition.h"
#include "collector/reports/recorder.h"

namespace quenor::collector {

struct Connections {
  uint64_t accepted = 0;
  uint64_t open = 0;
};

std::string MetricsText(const Counts& counts, const Connections& connections,
                        std::chrono::milliseconds uptime);

}  // namespace quenor::collector

#endif  // COLLECTOR_REPORTS_METRICS_H_
