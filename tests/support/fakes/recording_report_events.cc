#include "tests/support/fakes/recording_report_events.h"

#include <algorithm>
#include <utility>

namespace quenor::test {

namespace {

std::string Bytes(const uint8_t* data, uint32_t size) {
  return data == nullptr ? std::string() : std::string(reinterpret_cast<const char*>(data), size);
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const RecordedEvent& event) {
  return out << "event " << static_cast<int>(event.kind) << " cause "
             << static_cast<int>(event.cause) << " \"" << event.data << "\" id " << event.request_id
             << " sent " << event.send_count << " message " << event.message_id;
}

void RecordingReportEvents::OnReportEvent(const ReportEvent& event) {
  std::function<void(const ReportEvent&)> on_event;
  {
    std::lock_guard<std::mutex> hold(mutex_);
    on_event = on_event_;
    events_.push_back({event.kind, event.cause, event.channel_name, Bytes(event.data, event.size),
                       event.data != nullptr, Bytes(event.original_data, event.original_size),
                       event.original_data != nullptr, event.request_id, event.send_count,
                       event.http_state, event.status_code, event.count, event.send_interval_ms,
                       event.max_resend_count, event.report_interval_ms, event.need_cache,
                       event.message.id, event.sets_max_resend_count, event.http_reason});
  }
  if (on_event) on_event(event);
}

void RecordingReportEvents::SetOnEvent(std::function<void(const ReportEvent&)> on_event) {
  std::lock_guard<std::mutex> hold(mutex_);
  on_event_ = std::move(on_event);
}

std::vector<RecordedEvent> RecordingReportEvents::Events() const {
  std::lock_guard<std::mutex> hold(mutex_);
  return events_;
}

std::vector<RecordedEvent> RecordingReportEvents::OfKind(ReportEventKind kind) const {
  std::vector<RecordedEvent> found;
  for (RecordedEvent& event : Events()) {
    if (event.kind == kind) found.push_back(std::move(event));
  }
  return found;
}

size_t RecordingReportEvents::Count(ReportEventKind kind) const {
  std::lock_guard<std::mutex> hold(mutex_);
  return static_cast<size_t>(
      std::count_if(events_.begin(), events_.end(),
                    [kind](const RecordedEvent& event) { return event.kind == kind; }));
}

size_t RecordingReportEvents::Count(ReportEventKind kind, ReportEventCause cause) const {
  std::lock_guard<std::mutex> hold(mutex_);
  return static_cast<size_t>(
      std::count_if(events_.begin(), events_.end(), [kind, cause](const RecordedEvent& event) {
        return event.kind == kind && event.cause == cause;
      }));
}

void RecordingReportEvents::Clear() {
  std::lock_guard<std::mutex> hold(mutex_);
  events_.clear();
}

int64_t RecordingReportEvents::OpenMessages() const {
  int64_t open = 0;
  std::lock_guard<std::mutex> hold(mutex_);
  for (const RecordedEvent& event : events_) {
    switch (event.kind) {
      case ReportEventKind::kHandedOver:
      case ReportEventKind::kLoaded:
        ++open;
        break;
      case ReportEventKind::kAcknowledged:
      case ReportEventKind::kDropped:
      case ReportEventKind::kRefused:
      case ReportEventKind::kKept:
        --open;
        break;
      default:
        break;
    }
  }
  return open;
}

}  // namespace quenor::test
