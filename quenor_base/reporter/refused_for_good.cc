#include "quenor_base/reporter/refused_for_good.h"

#include <algorithm>

QUENOR_NAMESPACE_BEGIN
namespace {

using Kind = ReportEventKind;

constexpr int kRequestTimeout = 408;
constexpr int kTooManyRequests = 429;

// An answer that the same request will get again.
bool IsRefusal(const ReportEvent& event) {
  const int status = event.status_code;
  return event.cause == ReportEventCause::kStatus && status >= 400 && status < 500 &&
         status != kRequestTimeout && status != kTooManyRequests;
}

}  // namespace

bool RefusedForGood::IsRejection(const ReportEvent& event) const {
  if (event.kind != Kind::kDropped || event.cause != ReportEventCause::kResendLimit) return false;
  const auto found = messages_.find(event.message.id);
  return found != messages_.end() && found->second.is_condemned();
}

bool RefusedForGood::OnEvent(const ReportEvent& event, uint32_t* limit) {
  const uint64_t id = event.message.id;
  if (event.kind == Kind::kRetuned) {
    if (!event.sets_max_resend_count) return false;
    // It is in force at once. One that was to be set before may still be on its way and will
    // replace it, so it is set behind that once more.
    limit_ = event.max_resend_count;
    *limit = in_force_ = Wanted();
    return true;
  } else if (id == 0) {
    return false;
  } else if (event.kind == Kind::kSent || event.kind == Kind::kFailed) {
    Message& message = messages_[id];
    const bool was_condemned = message.is_condemned();
    message.sends = event.send_count;
    // Once condemned it stays so: its next failure, of whatever kind, may meet the lowered limit.
    if (event.kind == Kind::kFailed && !was_condemned) {
      message.refusals = IsRefusal(event) ? message.refusals + 1 : 0;
    }
    condemned_ += message.is_condemned();
    condemned_ -= was_condemned;
  } else if (event.kind == Kind::kAdmitted || event.kind == Kind::kLoaded) {
    messages_[id];
  } else {
    const auto found = messages_.find(id);
    if (found != messages_.end()) {
      condemned_ -= found->second.is_condemned();
      messages_.erase(found);
    }
  }
  const uint32_t wanted = Wanted();
  if (wanted == in_force_) return false;
  *limit = in_force_ = wanted;
  return true;
}

// A message that has been sent n times may fail the n-th time, or, before a limit that is set now
// is in force, be sent and fail once more: then it must still be below the limit.
uint32_t RefusedForGood::Wanted() const {
  if (condemned_ == 0) return limit_;
  uint32_t most_sends = 0;
  for (const auto& [id, message] : messages_) {
    if (!message.is_condemned()) most_sends = std::max(most_sends, message.sends);
  }
  return most_sends < limit_ - 2 ? std::min(limit_, most_sends + 2) : limit_;
}

QUENOR_NAMESPACE_END
