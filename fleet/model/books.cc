#include "fleet/model/books.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <utility>

#include "fleet/model/body.h"

namespace quenor::fleet {
namespace {

// Of the values, which it puts into another order; 0 of none.
uint64_t Quantile(std::vector<uint32_t>* values, double part) {
  if (values->empty()) return 0;
  const auto at =
      values->begin() + static_cast<std::ptrdiff_t>(part * static_cast<double>(values->size() - 1));
  std::nth_element(values->begin(), at, values->end());
  return *at;
}

}  // namespace

Books::Books(const Scenario& scenario) : scenario_(scenario) {
  ReportEvents::SetListener(this);
  Clock::Current().Post(this, kSecondUs);
}

Books::~Books() {
  Clock::Current().Cancel(this);
  ReportEvents::SetListener(nullptr);
}

void Books::Refused() {
  ++row_.refused;
  ++refused_;
}

void Books::Accepted(const CopyOnWriteBuffer& body) {
  ++row_.accepted;
  const int64_t age_us =
      Clock::Current().now_us() - Body::Read(body.cdata<uint8_t>()).handed_over_us;
  ages_ms_.push_back(static_cast<uint32_t>(age_us / 1000));
}

bool Books::IsInOutage(int64_t time_us) const {
  return std::any_of(
      scenario_.incidents.begin(), scenario_.incidents.end(),
      [time_us](const Incident& each) { return each.IsOutage() && each.Holds(time_us); });
}

void Books::Drop(const ReportEvent& event) {
  switch (event.cause) {
    case ReportEventCause::kTrimmed:
      ++totals_.trimmed;
      break;
    case ReportEventCause::kResendLimit:
      ++totals_.gave_up;
      break;
    default:
      ++totals_.terminated;
      if (closed_) return;  // The run's end loses nothing.
  }
  if (IsInOutage(Body::Read(event.data).handed_over_us)) ++lost_in_outage_;
}

void Books::OnReportEvent(const ReportEvent& event) {
  if (trace_) {
    const Body body = event.data != nullptr ? Body::Read(event.data) : Body();
    char line[200];
    std::snprintf(line, sizeof line,
                  "%lld %s kind %d cause %d report %u sent %u state %d status %d",
                  static_cast<long long>(Clock::Current().now_us()), event.channel_name.c_str(),
                  static_cast<int>(event.kind), static_cast<int>(event.cause), body.number,
                  event.send_count, event.http_state, event.status_code);
    trace_(line);
  }
  switch (event.kind) {
    case ReportEventKind::kHandedOver:
      ++totals_.handed_over;
      if (IsInOutage(Clock::Current().now_us())) ++handed_over_in_outage_;
      break;
    case ReportEventKind::kLoaded:
      ++totals_.loaded;
      break;
    case ReportEventKind::kAcknowledged:
      ++totals_.acknowledged;
      break;
    case ReportEventKind::kDropped:
      Drop(event);
      break;
    case ReportEventKind::kKept:
      ++totals_.kept;
      break;
    case ReportEventKind::kRefused:
      ++totals_.not_taken;
      break;
    default:
      break;
  }
}

void Books::OnDue() {
  if (closed_) return;
  row_.capacity = static_cast<uint64_t>(std::llround(capacity_()));
  row_.waiting = totals_.Waiting();
  row_.lost = totals_.Lost() - totals_.trimmed;
  row_.trimmed = totals_.trimmed;
  row_.age_p50_ms = Quantile(&ages_ms_, 0.5);
  row_.age_p99_ms = Quantile(&ages_ms_, 0.99);
  row_.interval_ms = interval_ms_;
  rows_.push_back(std::exchange(row_, Row()));
  ages_ms_.clear();
  Clock::Current().Post(this, kSecondUs);
}

void Books::Close() { closed_ = true; }

}  // namespace quenor::fleet
