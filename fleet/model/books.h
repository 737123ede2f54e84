// Books: what became of every report of a run, second by second and in the end.
// Thread: the fleet's. Life cycle: one per run, around the channels; the listener of their events.
#ifndef FLEET_MODEL_BOOKS_H_
#define FLEET_MODEL_BOOKS_H_

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "fleet/engine/clock.h"
#include "fleet/scenario/scenario.h"
#include "quenor_base/platform/report_events.h"

namespace quenor::fleet {

// One second of a run.
struct Row {
  uint64_t requests = 0;    // That arrived, or found nobody.
  uint64_t accepted = 0;    // Answered with 200.
  uint64_t refused = 0;     // Answered with something else.
  uint64_t capacity = 0;    // Reports.
  uint64_t waiting = 0;     // Not acknowledged, at its end.
  uint64_t lost = 0;        // Dropped for the resend limit, or with a process that ended.
  uint64_t trimmed = 0;     // Dropped as too many waited.
  uint64_t age_p50_ms = 0;  // Of the reports accepted: from the hand-over to their arrival.
  uint64_t age_p99_ms = 0;
  uint64_t interval_ms = 0;  // The policy's, at its end.
};

// Of the whole run. A report handed over, or loaded, ends in one of the next six.
struct Totals {
  uint64_t handed_over = 0;
  uint64_t loaded = 0;
  uint64_t acknowledged = 0;
  uint64_t gave_up = 0;  // At the resend limit.
  uint64_t trimmed = 0;
  uint64_t terminated = 0;  // In memory only when its process ended.
  uint64_t kept = 0;        // In the cache when its process ended.
  uint64_t not_taken = 0;

  uint64_t Waiting() const {
    return handed_over + loaded - acknowledged - gave_up - trimmed - terminated - kept - not_taken;
  }
  uint64_t Lost() const { return gave_up + trimmed + terminated + not_taken; }
};

class Books final : public ReportEventListener, public Event {
 public:
  // Listens until it goes. Borrows the scenario.
  explicit Books(const Scenario& scenario);
  ~Books() override;

  // What the server tells.
  void Arrived() { ++row_.requests; }
  void Refused();
  void Accepted(const CopyOnWriteBuffer& body);
  void SetInterval(uint32_t interval_ms) { interval_ms_ = interval_ms; }
  void SetCapacity(std::function<double()> capacity) { capacity_ = std::move(capacity); }
  // Each event, in one line; null for nothing.
  void SetTrace(std::function<void(const std::string&)> trace) { trace_ = std::move(trace); }

  // No more rows: what comes from now on is the end of the run.
  void Close();

  const std::vector<Row>& rows() const { return rows_; }
  const Totals& totals() const { return totals_; }
  uint64_t refused() const { return refused_; }
  // Of reports handed over while an outage held.
  uint64_t handed_over_in_outage() const { return handed_over_in_outage_; }
  uint64_t lost_in_outage() const { return lost_in_outage_; }

 private:
  void OnReportEvent(const ReportEvent& event) override;
  void OnDue() override;  // A second is over.
  void Drop(const ReportEvent& event);
  bool IsInOutage(int64_t time_us) const;

  const Scenario& scenario_;
  std::function<double()> capacity_;
  std::function<void(const std::string&)> trace_;
  Totals totals_;
  Row row_;
  std::vector<Row> rows_;
  std::vector<uint32_t> ages_ms_;  // Of this second.
  uint64_t refused_ = 0;
  uint64_t handed_over_in_outage_ = 0;
  uint64_t lost_in_outage_ = 0;
  uint32_t interval_ms_ = 0;
  bool closed_ = false;
};

}  // namespace quenor::fleet

#endif  // FLEET_MODEL_BOOKS_H_
