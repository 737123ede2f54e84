#include "quenor_base/data_report/https/channel_events.h"

QUENOR_NAMESPACE_BEGIN
namespace {

using Kind = ReportEventKind;
using Cause = ReportEventCause;

ReportEvent OfBytes(Kind kind, Cause cause, const std::string& channel_name, const MessageTag& tag,
                    const uint8_t* data, uint32_t size, bool need_cache) {
  ReportEvent event{kind, cause, channel_name, tag};
  event.data = size > 0 ? data : nullptr;
  event.size = size;
  event.need_cache = need_cache;
  return event;
}

ReportEvent OfBody(Kind kind, Cause cause, const std::string& channel_name,
                   const CopyOnWriteBuffer& body, bool need_cache) {
  return OfBytes(kind, cause, channel_name, body.tag(), body.cdata<uint8_t>(), body.size(),
                 need_cache);
}

ReportEvent OfMessage(Kind kind, Cause cause, const std::string& channel_name,
                      const ChannelEvents::Message& message, int64_t request_id) {
  ReportEvent event = OfBody(kind, cause, channel_name, message.data, message.need_cache);
  event.send_count = message.send_count;
  event.request_id = request_id;
  return event;
}

void TellMessage(Kind kind, Cause cause, const std::string& channel_name,
                 const ChannelEvents::Message& message, int64_t request_id) {
  if (!ReportEvents::HasListener()) return;
  ReportEvents::Tell(OfMessage(kind, cause, channel_name, message, request_id));
}

}  // namespace

MessageTag ChannelEvents::TellHandedOver(const uint8_t* data, uint32_t size, bool need_cache,
                                         bool is_delayed) const {
  const MessageTag tag = ReportEvents::NewMessage(is_delayed, /*is_loaded=*/false);
  ReportEvents::Tell(
      OfBytes(Kind::kHandedOver, Cause::kNone, channel_name_, tag, data, size, need_cache));
  return tag;
}

void ChannelEvents::Refused(Cause cause, const MessageTag& tag, const uint8_t* data, uint32_t size,
                            bool need_cache) const {
  if (!ReportEvents::HasListener()) return;
  ReportEvents::Tell(OfBytes(Kind::kRefused, cause, channel_name_, tag, data, size, need_cache));
}

void ChannelEvents::Refused(Cause cause, const CopyOnWriteBuffer& body, bool need_cache) const {
  Refused(cause, body.tag(), body.cdata<uint8_t>(), body.size(), need_cache);
}

void ChannelEvents::Dropped(Cause cause, const CopyOnWriteBuffer& body, bool need_cache) const {
  if (!ReportEvents::HasListener()) return;
  ReportEvents::Tell(OfBody(Kind::kDropped, cause, channel_name_, body, need_cache));
}

void ChannelEvents::Admitted(const Message& message, const CopyOnWriteBuffer& original) const {
  if (!ReportEvents::HasListener()) return;
  ReportEvent event = OfMessage(Kind::kAdmitted, Cause::kNone, channel_name_, message, 0);
  const uint8_t* const bytes = original.size() > 0 ? original.cdata<uint8_t>() : nullptr;
  if (event.data != bytes) {
    event.original_data = bytes;
    event.original_size = original.size();
  }
  ReportEvents::Tell(event);
}

void ChannelEvents::Loaded(Message* message) const {
  if (!ReportEvents::HasListener()) return;
  message->data.set_tag(ReportEvents::NewMessage(/*is_delayed=*/false, /*is_loaded=*/true));
  TellMessage(Kind::kLoaded, Cause::kNone, channel_name_, *message, 0);
}

void ChannelEvents::Sent(const Message& message, int64_t request_id) const {
  TellMessage(Kind::kSent, Cause::kNone, channel_name_, message, request_id);
}

void ChannelEvents::Acknowledged(const Message& message, int64_t request_id) const {
  TellMessage(Kind::kAcknowledged, Cause::kNone, channel_name_, message, request_id);
}

void ChannelEvents::Failed(HttpClient::State state, const HttpClient::Response* response,
                           const Message& message, const HttpClient::Request& request) const {
  if (!ReportEvents::HasListener()) return;
  const bool answered = state == HttpClient::State::kCompleted && response != nullptr;
  ReportEvent event = OfMessage(Kind::kFailed, answered ? Cause::kStatus : Cause::kTransport,
                                channel_name_, message, request.request_id);
  event.http_state = static_cast<int32_t>(state);
  event.status_code = answered ? response->status_code : 0;
  // A host's client may know of no reasons.
  event.http_reason =
      request.reason != HttpReason::kNone ? request.reason : HttpClient::ReasonOf(state, response);
  ReportEvents::Tell(event);
}

void ChannelEvents::Dropped(Cause cause, const Message& message, int64_t request_id) const {
  TellMessage(Kind::kDropped, cause, channel_name_, message, request_id);
}

void ChannelEvents::LeftOver(const std::map<int64_t, Message>& sending,
                             const std::list<Message>& pending, bool cache_is_whole) const {
  const auto tell = [&](const Message& message, int64_t request_id) {
    const bool kept = cache_is_whole && message.need_cache;
    TellMessage(kept ? Kind::kKept : Kind::kDropped, kept ? Cause::kNone : Cause::kTerminated,
                channel_name_, message, request_id);
  };
  for (const auto& [request_id, message] : sending) tell(message, request_id);
  for (const Message& message : pending) tell(message, 0);
}

void ChannelEvents::Saved(uint32_t count, bool is_complete) const {
  if (!ReportEvents::HasListener()) return;
  ReportEvent event{is_complete ? Kind::kSaved : Kind::kNotSaved, Cause::kNone, channel_name_};
  event.count = count;
  ReportEvents::Tell(event);
}

void ChannelEvents::Retuned(uint32_t send_interval_ms, uint32_t max_resend_count,
                            uint32_t report_interval_ms, bool sets_max_resend_count) const {
  if (!ReportEvents::HasListener()) return;
  ReportEvent event{Kind::kRetuned, Cause::kNone, channel_name_};
  event.send_interval_ms = send_interval_ms;
  event.max_resend_count = max_resend_count;
  event.report_interval_ms = report_interval_ms;
  event.sets_max_resend_count = sets_max_resend_count;
  ReportEvents::Tell(event);
}

QUENOR_NAMESPACE_END
