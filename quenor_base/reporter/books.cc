#include "quenor_base/reporter/books.h"

#include <algorithm>
#include <ctime>
#include <numeric>

QUENOR_NAMESPACE_BEGIN
namespace {

using Kind = ReportEventKind;
using Cause = ReportEventCause;

// relaxed, everywhere: nothing is read because of a count.
constexpr auto kRelaxed = std::memory_order_relaxed;

template <typename T>
void Add(std::atomic<T>* count, T n) {
  count->fetch_add(n, kRelaxed);
}

uint64_t AtLeastZero(int64_t count) { return static_cast<uint64_t>(std::max<int64_t>(count, 0)); }

template <typename Counts>
uint64_t Sum(const Counts& counts) {
  return std::accumulate(counts.begin(), counts.end(), uint64_t{0});
}

// Of the parts of `last_failure_`, from the lowest bit on.
constexpr int kReasonBits = 8;
constexpr int kStatusBits = 12;

bool IsAboutAMessage(Kind kind) {
  return kind != Kind::kSaved && kind != Kind::kNotSaved && kind != Kind::kRetuned;
}

bool IsBeforeAdmission(const ReportEvent& event) {
  return event.kind == Kind::kRefused || event.cause == Cause::kNotCompressed ||
         event.cause == Cause::kNeverRun;
}

}  // namespace

uint64_t BooksEntry::Refused() const { return Sum(refused); }
uint64_t BooksEntry::Dropped() const { return Sum(dropped); }
uint64_t BooksEntry::FailedAttempts() const { return Sum(failed_by_reason); }
bool BooksEntry::Closes() const {
  return handed_over + loaded ==
         Refused() + acknowledged + Dropped() + rejected + kept + Outstanding();
}

void Books::Note(const ReportEvent& event, int64_t now_ns, bool is_rejected) {
  // It came before the books; 0: before anybody listened.
  if (IsAboutAMessage(event.kind) && event.message.id <= newest_before_) return;
  Count& of_its_kind = events_[static_cast<size_t>(event.kind)][static_cast<size_t>(event.cause)];
  Add(is_rejected ? &rejected_ : &of_its_kind, uint64_t{1});
  NoteMove(event);
  if (event.kind == Kind::kHandedOver) Add(&bytes_handed_over_, uint64_t{event.size});
  if (event.kind == Kind::kFailed) NoteFailure(event);
  if (event.kind != Kind::kAcknowledged) return;
  Add(&bytes_acknowledged_, uint64_t{event.size});
  if (!event.message.is_loaded) NoteLatency(now_ns - event.message.handed_over_ns);
}

void Books::NoteMove(const ReportEvent& event) {
  std::atomic<int64_t>* const waiting = event.message.is_delayed ? &delayed_ : &pending_;
  std::atomic<int64_t>* const stored = event.request_id != 0 ? &in_flight_ : &pending_;
  switch (event.kind) {
    case Kind::kHandedOver:
      return Add(waiting, int64_t{1});
    case Kind::kLoaded:
      return Add(&pending_, int64_t{1});
    case Kind::kAdmitted:
      Add(waiting, int64_t{-1});
      return Add(&pending_, int64_t{1});
    case Kind::kSent:
      Add(&pending_, int64_t{-1});
      return Add(&in_flight_, int64_t{1});
    case Kind::kFailed:
      Add(&in_flight_, int64_t{-1});
      return Add(&pending_, int64_t{1});
    case Kind::kAcknowledged:
      return Add(&in_flight_, int64_t{-1});
    case Kind::kRefused:
    case Kind::kDropped:
    case Kind::kKept:
      if (IsBeforeAdmission(event)) return Add(waiting, int64_t{-1});
      // Its failure has been told, which made it pending.
      if (event.cause == Cause::kResendLimit) return Add(&pending_, int64_t{-1});
      return Add(stored, int64_t{-1});
    case Kind::kSaved:
    case Kind::kNotSaved:
    case Kind::kRetuned:
      return;
  }
}

void Books::NoteFailure(const ReportEvent& event) {
  const auto status = static_cast<uint64_t>(std::clamp(event.status_code, 0, 999));
  const auto reason = static_cast<uint64_t>(
      std::clamp<int32_t>(static_cast<int32_t>(event.http_reason), 0, kHttpReasons - 1));
  Add(&failed_by_reason_[reason], uint64_t{1});
  if (event.cause == Cause::kStatus) Add(&failed_by_status_[status / 100], uint64_t{1});
  const auto now = static_cast<uint64_t>(std::time(nullptr));
  last_failure_.store(((now << kStatusBits) + status) << kReasonBits | reason, kRelaxed);
}

void Books::NoteLatency(int64_t ns) {
  const int64_t us = std::max<int64_t>(ns, 0) / 1000;
  const auto& bounds = BooksEntry::kLatencyBoundsMs;
  const auto bound = std::lower_bound(bounds.begin(), bounds.end(), (us + 999) / 1000);
  Add(&latency_[static_cast<size_t>(bound - bounds.begin())], uint64_t{1});
  Add(&latency_sum_us_, static_cast<uint64_t>(us));
}

BooksEntry Books::Read() const {
  BooksEntry entry;
  const auto copy = [](const auto& from, auto* to) {
    std::transform(from.begin(), from.end(), to->begin(),
                   [](const Count& count) { return count.load(kRelaxed); });
  };
  const auto of = [this](Kind kind, Cause cause = Cause::kNone) {
    return events_[static_cast<size_t>(kind)][static_cast<size_t>(cause)].load(kRelaxed);
  };
  entry.handed_over = of(Kind::kHandedOver);
  entry.loaded = of(Kind::kLoaded);
  entry.acknowledged = of(Kind::kAcknowledged);
  entry.rejected = rejected_.load(kRelaxed);
  copy(events_[static_cast<size_t>(Kind::kRefused)], &entry.refused);
  copy(events_[static_cast<size_t>(Kind::kDropped)], &entry.dropped);
  entry.kept = of(Kind::kKept);
  entry.delayed = AtLeastZero(delayed_.load(kRelaxed));
  entry.pending = AtLeastZero(pending_.load(kRelaxed));
  entry.in_flight = AtLeastZero(in_flight_.load(kRelaxed));
  copy(failed_by_status_, &entry.failed_by_status);
  copy(failed_by_reason_, &entry.failed_by_reason);
  entry.attempts = of(Kind::kSent);
  entry.bytes_handed_over = bytes_handed_over_.load(kRelaxed);
  entry.bytes_acknowledged = bytes_acknowledged_.load(kRelaxed);
  entry.saves = of(Kind::kSaved);
  entry.failed_saves = of(Kind::kNotSaved);
  entry.retunings = of(Kind::kRetuned);
  copy(latency_, &entry.latency);
  entry.latency_sum_ms = latency_sum_us_.load(kRelaxed) / 1000;
  const uint64_t failure = last_failure_.load(kRelaxed);
  entry.last_failure_reason = static_cast<HttpReason>(failure & ((1u << kReasonBits) - 1));
  entry.last_failure_status = static_cast<int>(failure >> kReasonBits & ((1u << kStatusBits) - 1));
  entry.last_failure_time = static_cast<int64_t>(failure >> (kReasonBits + kStatusBits));
  return entry;
}

QUENOR_NAMESPACE_END
