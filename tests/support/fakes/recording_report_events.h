// RecordingReportEvents: a listener that keeps a copy of every event, and balances the books.
// Threads: events arrive on any thread. Life cycle: listens from construction to destruction.
#ifndef QUENOR_TESTS_SUPPORT_FAKES_RECORDING_REPORT_EVENTS_H_
#define QUENOR_TESTS_SUPPORT_FAKES_RECORDING_REPORT_EVENTS_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "quenor_base/platform/report_events.h"

namespace quenor::test {

struct RecordedEvent {
  ReportEventKind kind;
  ReportEventCause cause;
  std::string channel_name;
  std::string data;
  bool has_data;  // The data pointer was not null.
  std::string original_data;
  bool has_original_data;
  int64_t request_id;
  uint32_t send_count;
  int32_t http_state;
  int status_code;
  uint32_t count;
  uint32_t send_interval_ms;
  uint32_t max_resend_count;
  uint32_t report_interval_ms;
  bool need_cache;
  uint64_t message_id;
  bool sets_max_resend_count;
  HttpReason http_reason = HttpReason::kNone;
};

std::ostream& operator<<(std::ostream& out, const RecordedEvent& event);

class RecordingReportEvents : public ReportEventListener {
 public:
  RecordingReportEvents() { ReportEvents::SetListener(this); }
  ~RecordingReportEvents() override { ReportEvents::SetListener(nullptr); }
  RecordingReportEvents(const RecordingReportEvents&) = delete;
  RecordingReportEvents& operator=(const RecordingReportEvents&) = delete;

  void OnReportEvent(const ReportEvent& event) override;

  // Any thread. Called with each event as it is told, outside the lock; null for nothing.
  void SetOnEvent(std::function<void(const ReportEvent&)> on_event);

  std::vector<RecordedEvent> Events() const;
  std::vector<RecordedEvent> OfKind(ReportEventKind kind) const;
  size_t Count(ReportEventKind kind) const;
  size_t Count(ReportEventKind kind, ReportEventCause cause) const;
  void Clear();

  // Messages told as handed over or loaded, less those told as acknowledged, dropped, refused or
  // kept: 0 once everything has ended.
  int64_t OpenMessages() const;

 private:
  mutable std::mutex mutex_;
  std::vector<RecordedEvent> events_;
  std::function<void(const ReportEvent&)> on_event_;
};

}  // namespace quenor::test

#endif  // QUENOR_TESTS_SUPPORT_FAKES_RECORDING_REPORT_EVENTS_H_
