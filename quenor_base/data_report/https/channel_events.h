// ChannelEvents: what a listener is told of one channel and its messages; platform/report_events.h
// says what each event means. While nobody listens nothing is built. Threads: HandedOver and
// Refused on any, the others on the channel's queue thread. Life cycle: made where it is used; it
// borrows the channel's name.
#ifndef QUENOR_BASE_DATA_REPORT_HTTPS_CHANNEL_EVENTS_H_
#define QUENOR_BASE_DATA_REPORT_HTTPS_CHANNEL_EVENTS_H_

#include <cstdint>
#include <list>
#include <map>
#include <string>

#include "quenor_base/buffer/copy_on_write_buffer.h"
#include "quenor_base/data_report/https/reliable_report_channel_https.h"
#include "quenor_base/platform/http_client.h"
#include "quenor_base/platform/report_events.h"

QUENOR_NAMESPACE_BEGIN

class ChannelEvents {
 public:
  using Message = ReliableReportChannelHttps::CachedMessage;

  explicit ChannelEvents(const std::string& channel_name) : channel_name_(channel_name) {}

  // Of bytes that are no message of the store yet, or never will be. The first answers the
  // message's tag, which the body is to carry; none while nobody listens.
  MessageTag HandedOver(const uint8_t* data, uint32_t size, bool need_cache,
                        bool is_delayed) const {
    if (!ReportEvents::HasListener()) return MessageTag();
    return TellHandedOver(data, size, need_cache, is_delayed);
  }
  void Refused(ReportEventCause cause, const MessageTag& tag, const uint8_t* data, uint32_t size,
               bool need_cache) const;
  void Refused(ReportEventCause cause, const CopyOnWriteBuffer& body, bool need_cache) const;
  void Dropped(ReportEventCause cause, const CopyOnWriteBuffer& body, bool need_cache) const;

  // `original` is what was handed over; the message's body may be compressed.
  void Admitted(const Message& message, const CopyOnWriteBuffer& original) const;
  // Gives it a tag, while somebody listens.
  void Loaded(Message* message) const;
  void Sent(const Message& message, int64_t request_id) const;
  void Acknowledged(const Message& message, int64_t request_id) const;
  // `response` may be null.
  void Failed(HttpClient::State state, const HttpClient::Response* response, const Message& message,
              const HttpClient::Request& request) const;
  // `request_id` is 0 for a message that is not in flight.
  void Dropped(ReportEventCause cause, const Message& message, int64_t request_id) const;
  // What a termination finds in the store: kept when the cache holds it, else dropped.
  void LeftOver(const std::map<int64_t, Message>& sending, const std::list<Message>& pending,
                bool cache_is_whole) const;

  void Saved(uint32_t count, bool is_complete) const;
  void Retuned(uint32_t send_interval_ms, uint32_t max_resend_count, uint32_t report_interval_ms,
               bool sets_max_resend_count) const;

 private:
  MessageTag TellHandedOver(const uint8_t* data, uint32_t size, bool need_cache,
                            bool is_delayed) const;

  const std::string& channel_name_;  // Borrowed.
};

QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_DATA_REPORT_HTTPS_CHANNEL_EVENTS_H_
