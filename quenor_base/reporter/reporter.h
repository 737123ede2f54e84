// Reporter: hands reports to a collection server and says what became of them. One object, owned by
// the host, safe by construction: any operation on any thread, in any order, any number of times.
//
//   std::string error;
//   auto reporter = quenor::Reporter::Create({"usage", "https://collector.example/"}, &error);
//   if (reporter == nullptr) { ... error says what is wrong ... }
//   reporter->Send("started", 7);
//   const quenor::Reporter::Outcome outcome = reporter->Stop(std::chrono::seconds(2));
//
// Each reporter has a thread and, where messages are kept, a file of its own; what all of a process
// share is in SharedSettings. A message that fails is sent again until the server has answered 200,
// however long that takes, unless the host or the server sets a limit; one that the server refuses
// for good (an HTTP status 4xx other than 408 and 429, five times running) is given up and counted
// as rejected. Exceptions: Create() lets std::bad_alloc out; what a callback throws ends the
// process. In a child that the host forks, a reporter of the parent's refuses everything; the child
// may create its own. Page: docs/guide/embedding.md.
#ifndef QUENOR_BASE_REPORTER_REPORTER_H_
#define QUENOR_BASE_REPORTER_REPORTER_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "quenor_base/platform/report_events.h"
#include "quenor_base/reporter/books.h"
#include "quenor_base/reporter/shared_settings.h"

QUENOR_NAMESPACE_BEGIN

class Reporter {
 public:
  static constexpr uint32_t kNoLimit = UINT32_MAX;
  // As many messages may be out at a time: more would make the store drop its oldest.
  static constexpr int64_t kMostOutstanding = 149;

  // What became of one message, or happens to it.
  enum class State {
    kLoaded,    // An earlier run had kept it. It has a new id.
    kAdmitted,  // In the store.
    kSent,      // On its way, for the `sends`-th time.
    kFailed,    // That attempt failed; it will be sent again, unless kDropped or kRejected follows.
    kAcknowledged,  // The server has answered 200. An end, as all that follow.
    kRejected,      // Given up: the server has refused it for good.
    kDropped,       // Given up for another reason; `cause` says which.
    kKept,          // In the file when the reporter stopped; the next run sends it.
  };
  struct Update {
    uint64_t id;
    State state;
    ReportEventCause cause;  // kFailed, kDropped.
    int32_t http_state;      // kFailed: HttpClient::State.
    int status_code;         // kFailed: the HTTP status, or 0.
    uint32_t sends;
    HttpReason reason;  // kFailed: why.
  };
  struct Tuning {
    uint32_t send_interval_ms;  // 0: none.
    uint32_t send_limit;
    uint32_t report_interval_ms;  // How often the server wants the host to report.
  };

  struct Options {
    // Of the file and the thread; 1 to 236 bytes without NUL, and no way through "..". One reporter
    // of a process at a time has it.
    std::string name;
    std::string url;  // "https://..." or "http://...".
    bool http2 = true;
    // Sends every body as raw deflate; what that does not make shorter is dropped.
    bool compress = false;
    // A message that has failed so often is dropped; the server may set another limit.
    uint32_t send_limit = kNoLimit;
    // 0: one message each 100 ms, and after a failure the next in 1, 2, 4, then 8 seconds. Else one
    // message in so many, at least 100; the server may set it, too.
    uint32_t send_interval_ms = 0;
    SharedSettings shared = SharedSettings();
    // Both on the reporter's thread, which waits for them: they must not block. They may call the
    // reporter; Flush() and Stop() do not wait there. Never after the reporter's end. That waits
    // for one that runs, and Create() for those of what it loads: no lock is to be held there that
    // a callback takes.
    std::function<void(const Update&)> on_update = nullptr;
    std::function<void(const Tuning&)> on_tuning = nullptr;
  };

  struct SendOptions {
    bool keep = true;  // On disk until the server has answered.
    // Ahead of all others and at once; no effect while an interval is in force.
    bool now = false;
    // Only then admitted; in memory until that. Not together with `now`.
    uint32_t delay_ms = 0;
  };
  enum class Refusal {
    kNone,
    kFull,         // kMostOutstanding messages are out; try again when some have ended.
    kEmpty,        // There are no bytes.
    kNoBytes,      // Null, and a size.
    kTooLarge,     // More than kMostBytes.
    kNowAndDelay,  // Both were asked for.
    kStopped,
    kNoMemory,
    kForked,  // It is the parent's reporter.
  };
  static constexpr size_t kMostBytes = size_t{1} << 30;
  // What Send() answers: the message's id, or why there is none.
  struct Sent {
    uint64_t id = 0;
    Refusal refusal = Refusal::kNone;
    explicit operator bool() const { return refusal == Refusal::kNone; }
  };
  static const char* TextOf(Refusal refusal);

  // Of all messages since Create(); the last two as things stand.
  struct Outcome {
    uint64_t acknowledged = 0;
    uint64_t rejected = 0;  // By the server, for good.
    uint64_t dropped = 0;   // Lost: at a limit, or in memory only when the reporter stopped.
    uint64_t kept = 0;      // Not acknowledged, and safe in the file.
    uint64_t out = 0;       // Not acknowledged, and in memory only.
    bool all_delivered() const { return rejected + dropped + kept + out == 0; }
  };

  // Any thread but a callback's. Makes the reporter's thread and loads what an earlier run has
  // kept, which takes the time to read one file; it is sent without being asked for. Null, and one
  // line in `*error` that says what is wrong and what to do.
  static std::unique_ptr<Reporter> Create(const Options& options, std::string* error);

  // Stop(0). A callback that is running is waited for, but in a callback.
  ~Reporter();
  Reporter(const Reporter&) = delete;
  Reporter& operator=(const Reporter&) = delete;

  // Any thread; never waits for the network or the disk. Copies `size` bytes.
  Sent Send(const void* bytes, size_t size) { return Send(bytes, size, SendOptions()); }
  Sent Send(const void* bytes, size_t size, const SendOptions& options);

  // Any thread. Waits until every message that is out has ended, or `patience` is over: sending
  // takes 0.1 s a message, or the interval in force. What earlier runs have left is sent, too.
  // Delays that are not over are not waited for.
  Outcome Flush(std::chrono::milliseconds patience);

  // Any thread. Flush(), then no further message is taken and sending ends. After it the process
  // may exit. Takes `patience` and 0.1 s at most.
  Outcome Stop(std::chrono::milliseconds patience);

  // Any thread; never waits.
  Outcome Now() const;
  BooksEntry ReadBooks() const;
  // Of all channels of the process since its first Create(), whoever made them.
  static BooksEntry ReadProcessBooks();
  // Those of every reporter that has not ended, and the process's, as the text that monitoring
  // systems scrape. Any thread.
  static std::string Metrics();

  void SetSendInterval(uint32_t interval_ms);
  // False when Create() would not take it: then the old one stays.
  bool SetUrl(const std::string& url);
  // How often the server wants a report, in milliseconds: 10000 until it says so.
  uint32_t ReportIntervalMs() const;

 private:
  class Core;
  explicit Reporter(std::shared_ptr<Core> core);

  const std::shared_ptr<Core> core_;
};

QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_REPORTER_REPORTER_H_
