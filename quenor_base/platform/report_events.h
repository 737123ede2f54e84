// What becomes of each message, told to whoever listens: metrics, command lines, tests.
// A message is known by its id, from kHandedOver or kLoaded to its end.
// Threads: an event is told on the thread where it happens: the caller's for kHandedOver and for
// refusals before the queue, the channel's queue thread for all others. Events of one channel never
// overlap on the queue thread; a listener sees them in the order in which they happened.
// The books close: every message told as kHandedOver (or kLoaded) later ends in exactly one of
// kAcknowledged, kDropped, kRefused or kKept.
#ifndef QUENOR_BASE_PLATFORM_REPORT_EVENTS_H_
#define QUENOR_BASE_PLATFORM_REPORT_EVENTS_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

#include "quenor_base/buffer/copy_on_write_buffer.h"
#include "quenor_base/platform/base/abi.h"
#include "quenor_base/platform/base/monotonic_time.h"
#include "quenor_base/platform/http_reason.h"

QUENOR_NAMESPACE_BEGIN

enum class ReportEventKind : int32_t {
  kHandedOver,    // SendPacket or SendPacketWithDelay was called; told before anything else.
  kRefused,       // Not taken; `cause` says why. The message's end.
  kAdmitted,      // In the store.
  kSent,          // Handed to the HTTP client under `request_id`.
  kAcknowledged,  // The server answered 200. The message's end.
  kFailed,        // An attempt failed; `cause` and `status_code` say how. kDropped may follow;
                  // otherwise the message is pending again.
  kDropped,       // Given up; `cause` says why. The message's end.
  kSaved,         // The cache was rewritten; `count` messages were written to it.
  kLoaded,        // One message came back from the cache.
  kRetuned,       // A server's reply brought control fields; the values now in force are given.
  kKept,          // Still in the cache when the channel terminated. The message's end, in this run.
  kNotSaved,      // The cache could not be rewritten with `count` messages: the last save stays.
};

enum class ReportEventCause : int32_t {
  kNone,
  // kRefused
  kNotInitialized,  // The channel was not initialised.
  kQueueGone,       // A termination had just dropped the queue.
  kNotRunning,      // The channel had stopped before the message reached the store.
  kNoServer,        // The server's URL is empty.
  kOutOfMemory,     // The bytes could not be copied.
  // kFailed
  kTransport,  // No HTTP response; `http_state` says how the exchange ended.
  kStatus,     // An HTTP status other than 200.
  // kDropped
  kTrimmed,        // The pending list was full and this message the oldest.
  kResendLimit,    // Sent as often as the limit allows.
  kNotCompressed,  // Compression failed or would have made it longer.
  kTerminated,     // In memory only when the channel terminated.
  kNeverRun,       // Its task was destroyed unrun (a delay not yet over at termination).
  kReplaced,       // The HTTP client gave its request id to another message.
};

// Borrowed by the listener for the length of the call.
struct ReportEvent {
  ReportEventKind kind;
  ReportEventCause cause = ReportEventCause::kNone;
  const std::string& channel_name;
  // Whose event it is; id 0 for what is about no message, and for one that was handed over, or
  // loaded, while nobody listened.
  MessageTag message = MessageTag();
  // The bytes as they stand at this point: the caller's for kHandedOver, kRefused and a message
  // that never reached the store, the stored (perhaps compressed) ones afterwards. Null with size 0
  // for an empty message, for kSaved, kNotSaved and kRetuned.
  const uint8_t* data = nullptr;
  uint32_t size = 0;
  // kAdmitted only: the caller's bytes when the stored ones differ.
  const uint8_t* original_data = nullptr;
  uint32_t original_size = 0;
  int64_t request_id = 0;           // kSent and what follows it, while the message is in flight.
  uint32_t send_count = 0;          // How often the message has been sent.
  int32_t http_state = 0;           // kFailed: the HTTP client's state.
  int status_code = 0;              // kFailed: the HTTP status, or 0.
  uint32_t count = 0;               // kSaved, kNotSaved: messages.
  uint32_t send_interval_ms = 0;    // kRetuned; 0 means none configured.
  uint32_t max_resend_count = 0;    // kRetuned.
  uint32_t report_interval_ms = 0;  // kRetuned.
  bool need_cache = false;
  bool sets_max_resend_count = false;          // kRetuned: the reply brought `max_resend_count`.
  HttpReason http_reason = HttpReason::kNone;  // kFailed: why.
};

class ReportEventListener {
 public:
  virtual ~ReportEventListener() = default;
  // On several threads at once. Must not block: it runs in the way of the channel, or of its
  // caller. Must not throw: that ends the process, after a line that says so. It may call a
  // channel's public operations, and is told of them inside its own call.
  virtual void OnReportEvent(const ReportEvent& event) = 0;
};

class ReportEvents {
 public:
  // Any thread, but not from a listener, where it is logged and does nothing. Replaces the
  // process's listener (may be null; borrowed until it is replaced). When it returns, the old
  // listener is not being called and never will be; events meanwhile go to the old or to the new
  // one.
  static void SetListener(ReportEventListener* listener);

  // As SetListener(), for one listener more, which keeps none of the others from being told; one
  // that is there already stays as it is, and then no call is waited for. False for null, when
  // kMostListeners are there, and inside a listener.
  static constexpr size_t kMostListeners = 8;
  static bool AddListener(ReportEventListener* listener) { return AddListener(listener, nullptr); }
  // Once it is added, and before it is told of anything, writes to `*newest_before` which message
  // was the newest then: who leaves out that one and all with lower ids is told of every other one
  // from its hand-over on. May be null; left alone for a listener that is there already.
  static bool AddListener(ReportEventListener* listener, uint64_t* newest_before);
  // Takes away what AddListener() added. When it returns, the listener is not being called and
  // never will be. Not from a listener.
  static void RemoveListener(ReportEventListener* listener);

  // Any thread. One load and one predictable branch: ask before building an event.
  static bool HasListener() {
    // relaxed: only a hint; Tell() takes the listener under its own synchronisation.
    return has_listener_.load(std::memory_order_relaxed);
  }

  // Any thread. The tag of a message that comes now.
  static MessageTag NewMessage(bool is_delayed, bool is_loaded) {
    // relaxed: nothing but its uniqueness matters.
    const uint64_t id = last_message_id_.fetch_add(1, std::memory_order_relaxed) + 1;
    return {id, base::MonotonicNs(), is_delayed, is_loaded};
  }

  // Any thread. The id of the newest message; 0 when there has been none.
  static uint64_t NewestMessage() { return last_message_id_.load(std::memory_order_relaxed); }

  // Any thread, also from a listener. Tells every listener, if there is one.
  static void Tell(const ReportEvent& event);

  // Any thread. Names the implementation that is linked.
  static const char* ImplementationName();

 private:
  inline static std::atomic<bool> has_listener_{false};
  inline static std::atomic<uint64_t> last_message_id_{0};
};

QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_PLATFORM_REPORT_EVENTS_H_
