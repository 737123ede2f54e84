// Books: what became of messages, counted from their events: of one reporter, or of the process.
// They close: what was handed over or loaded is refused, acknowledged, rejected, dropped or kept,
// or is delayed, pending or in flight, at every instant at which no event is on its way. Threads:
// any; nothing waits for anything. A copy of the numbers that is taken while events are told may be
// a few messages off in itself; the next one is not.
#ifndef QUENOR_BASE_REPORTER_BOOKS_H_
#define QUENOR_BASE_REPORTER_BOOKS_H_

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "quenor_base/platform/http_reason.h"
#include "quenor_base/platform/report_events.h"

QUENOR_NAMESPACE_BEGIN

// Counts of messages unless they say something else; all since the books were opened.
struct BooksEntry {
  static constexpr size_t kCauses = static_cast<size_t>(ReportEventCause::kReplaced) + 1;
  static constexpr size_t kHttpReasons = static_cast<size_t>(quenor::kHttpReasons);
  // From hand-over to acknowledgement; the last one has no upper bound.
  static constexpr std::array<int64_t, 15> kLatencyBoundsMs = {
      10,    50,    100,   250,    500,    1000,    2500,    5000,
      10000, 30000, 60000, 300000, 900000, 3600000, 86400000};

  // What came.
  uint64_t handed_over = 0;
  uint64_t loaded = 0;  // From the cache, left there by an earlier run.
  // What ended, by ReportEventCause where there is more than one.
  uint64_t acknowledged = 0;
  std::array<uint64_t, kCauses> refused{};
  std::array<uint64_t, kCauses> dropped{};  // `rejected` not included.
  uint64_t rejected = 0;                    // Given up because the server refused it for good.
  uint64_t kept = 0;                        // In the cache at a channel's end.
  // What has not ended.
  uint64_t delayed = 0;    // Its delay is not over.
  uint64_t pending = 0;    // Waits for admission or for its turn.
  uint64_t in_flight = 0;  // At the HTTP client.

  // Attempts that failed, by HttpReason; those with an HTTP status other than 200 by its hundreds,
  // too.
  std::array<uint64_t, 10> failed_by_status{};
  std::array<uint64_t, kHttpReasons> failed_by_reason{};
  uint64_t attempts = 0;
  uint64_t bytes_handed_over = 0;
  uint64_t bytes_acknowledged = 0;  // As they were sent.
  uint64_t saves = 0;
  uint64_t failed_saves = 0;
  uint64_t retunings = 0;
  std::array<uint64_t, kLatencyBoundsMs.size() + 1> latency{};  // Each message in one of them.
  uint64_t latency_sum_ms = 0;
  // The last attempt that failed; 0 when none did. Seconds since 1970.
  int64_t last_failure_time = 0;
  int last_failure_status = 0;  // The HTTP status, or 0.
  HttpReason last_failure_reason = HttpReason::kNone;

  uint64_t Refused() const;
  // Lost before admission (kNotCompressed, kNeverRun) and at a channel's end (kTerminated)
  // included.
  uint64_t Dropped() const;
  uint64_t FailedAttempts() const;
  uint64_t Outstanding() const { return delayed + pending + in_flight; }
  bool Closes() const;
};

class Books {
 public:
  // 0 at first. For ReportEvents::AddListener(), or written before the first Note(): of that
  // message and of all with lower ids nothing is noted, as their beginning was not.
  uint64_t* newest_before() { return &newest_before_; }
  // `is_rejected`: the drop that is told is that of a message that the server refused for good.
  void Note(const ReportEvent& event, int64_t now_ns, bool is_rejected);
  BooksEntry Read() const;
  int64_t delayed() const { return delayed_.load(std::memory_order_relaxed); }

 private:
  using Count = std::atomic<uint64_t>;

  void NoteMove(const ReportEvent& event);
  void NoteFailure(const ReportEvent& event);
  void NoteLatency(int64_t ns);

  uint64_t newest_before_ = 0;
  static constexpr size_t kKinds = static_cast<size_t>(ReportEventKind::kNotSaved) + 1;
  // Events of each kind, by cause.
  std::array<std::array<Count, BooksEntry::kCauses>, kKinds> events_{};
  // Signed: those of one message may be told on two threads.
  std::atomic<int64_t> delayed_{0};
  std::atomic<int64_t> pending_{0};
  std::atomic<int64_t> in_flight_{0};
  Count rejected_{0};
  Count bytes_handed_over_{0};
  Count bytes_acknowledged_{0};
  std::array<Count, 10> failed_by_status_{};
  std::array<Count, BooksEntry::kHttpReasons> failed_by_reason_{};
  std::array<Count, BooksEntry::kLatencyBoundsMs.size() + 1> latency_{};
  Count latency_sum_us_{0};
  // Time, status and reason in one, so that they belong together.
  Count last_failure_{0};
};

QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_REPORTER_BOOKS_H_
