#include "cli/send/ledger.h"

#include <limits>
#include <string_view>
#include <utility>

#include "cli/send/deflate.h"
#include "cli/text.h"
#include "quenor_base/platform/base/monotonic_time.h"
#include "quenor_base/platform/http_reason.h"

namespace quenor::cli {
namespace {

constexpr uint32_t kNoLimit = std::numeric_limits<uint32_t>::max();

std::string_view BytesOf(const ReportEvent& event) {
  if (event.size == 0) return {};
  return {reinterpret_cast<const char*>(event.data), event.size};
}

const char* WordsFor(HttpReason reason) {
  switch (reason) {
    case HttpReason::kNameNotFound:
      return "the server's name was not found";
    case HttpReason::kRefused:
      return "the server's machine refused the connection";
    case HttpReason::kUnreachable:
      return "the server could not be reached";
    case HttpReason::kConnectTimeout:
    case HttpReason::kTotalTimeout:
    case HttpReason::kTooSlow:
      return "the server did not answer in time";
    case HttpReason::kTlsExpired:
      return "the server's certificate was not valid at this time";
    case HttpReason::kTlsWrongHost:
      return "the server's certificate was for another name";
    case HttpReason::kTlsUntrusted:
      return "the server's certificate led to no trusted CA";
    case HttpReason::kTlsPin:
      return "the server's key was none of those pinned";
    case HttpReason::kTlsOther:
      return "TLS with the server failed";
    case HttpReason::kProxyUnreachable:
      return "the proxy could not be reached";
    case HttpReason::kProxyCredentials:
      return "the proxy refused user and password";
    case HttpReason::kProxyRefused:
      return "the proxy did not connect to the server";
    case HttpReason::kProtocol:
      return "the server broke off, or answered with no HTTP";
    case HttpReason::kTooLarge:
      return "the server's answer was too large";
    case HttpReason::kCancelled:
      return "the request was cancelled";
    default:
      return "the request failed";
  }
}

std::string FailureText(const ReportEvent& event) {
  if (event.cause == ReportEventCause::kStatus) {
    return "the server answered with HTTP status " + std::to_string(event.status_code);
  }
  return std::string(WordsFor(event.http_reason)) + " (" + HttpReasonName(event.http_reason) + ")";
}

HttpReason OnlyReasonOf(const BooksEntry& books) {
  HttpReason only = HttpReason::kNone;
  for (size_t i = 0; i < books.failed_by_reason.size(); ++i) {
    if (books.failed_by_reason[i] == 0) continue;
    if (only != HttpReason::kNone) return HttpReason::kNone;
    only = static_cast<HttpReason>(i);
  }
  return only;
}

std::string DropReason(const ReportEvent& event, const std::string& last_failure) {
  switch (event.cause) {
    case ReportEventCause::kResendLimit:
      return CountOf(event.send_count, "failed send") + "; the last time " + last_failure;
    case ReportEventCause::kTrimmed:
      return "too many messages were waiting";
    case ReportEventCause::kNotCompressed:
      return event.size == 0 ? "an empty message cannot be compressed; send it without --compress"
                             : "deflate does not make it shorter; send it without --compress";
    case ReportEventCause::kReplaced:
      return "another request took its place";
    case ReportEventCause::kOutOfMemory:
      return "there was no memory to copy it";
    case ReportEventCause::kNoServer:
      return "the channel has no URL";
    default:
      return "the channel gave it up";
  }
}

bool IsEnd(ReportEventKind kind) {
  return kind == ReportEventKind::kAcknowledged || kind == ReportEventKind::kDropped ||
         kind == ReportEventKind::kRefused || kind == ReportEventKind::kKept;
}

// The channel has stopped, or is about to: the message can be handed over to the next one.
bool IsOfTermination(ReportEventCause cause) {
  switch (cause) {
    case ReportEventCause::kNotInitialized:
    case ReportEventCause::kQueueGone:
    case ReportEventCause::kNotRunning:
    case ReportEventCause::kTerminated:
    case ReportEventCause::kNeverRun:
      return true;
    default:
      return false;
  }
}

}  // namespace

Ledger::Ledger(Options options)
    : options_(std::move(options)),
      noted_interval_ms_(options_.interval_ms),
      noted_limit_(options_.max_resend.value_or(kNoLimit)) {}

void Ledger::Expect(const Message& message) {
  std::lock_guard<std::mutex> hold(mutex_);
  expected_ = message;
}

void Ledger::OnReportEvent(const ReportEvent& event) {
  bool wake;
  bool lift;
  {
    std::lock_guard<std::mutex> hold(mutex_);
    wake = Account(event) || wake_on_next_;
    wake_on_next_ = false;
    lift = event.kind == ReportEventKind::kRetuned && !options_.max_resend &&
           event.max_resend_count != kNoLimit && !closed_;
  }
  if (lift) options_.lift_resend_limit();
  if (wake) options_.wake();
}

bool Ledger::Account(const ReportEvent& event) {
  switch (event.kind) {
    case ReportEventKind::kHandedOver:
      return OnHandedOver(event);
    case ReportEventKind::kLoaded:
      return OnLoaded(event);
    case ReportEventKind::kSaved:
      Note(event);
      return OnSaved();
    case ReportEventKind::kRetuned:
      Note(event);
      return OnRetuned(event);
    case ReportEventKind::kNotSaved:
      Note(event);
      return false;
    default:
      break;
  }
  if (event.message.id == probe_id_) return OnProbeRefused(event.cause);
  const auto entry = Find(event.message.id);
  return entry != entries_.end() && AccountFor(event, entry);
}

bool Ledger::AccountFor(const ReportEvent& event, Entries::iterator entry) {
  if (entry->second.is_cut) {
    if (!IsEnd(event.kind)) return false;
    --cut_;
    Remove(entry);
    return true;  // There may be room again.
  }
  switch (event.kind) {
    case ReportEventKind::kAdmitted:
      return OnAdmitted(event, entry);
    case ReportEventKind::kAcknowledged:
      return OnAcknowledged(event, entry);
    case ReportEventKind::kDropped:
      return OnDropped(event, entry);
    case ReportEventKind::kRefused:
      Note(event);
      return OnRefused(event, entry);
    case ReportEventKind::kFailed:
      Note(event);
      return OnFailed(event);
    case ReportEventKind::kKept:
      // Only what a completed save holds is safe: saves that failed since have left it in place.
      entry->second.kept = entry->second.saved;
      kept_ += entry->second.kept;
      [[fallthrough]];
    default:
      Note(event);
      return false;
  }
}

void Ledger::Note(const ReportEvent& event) {
  books_.Note(event, base::MonotonicNs(), /*is_rejected=*/false);
}

bool Ledger::OnHandedOver(const ReportEvent& event) {
  const uint64_t id = event.message.id;
  if (expected_again_) {  // It is on the books already.
    first_ids_[id] = *std::exchange(expected_again_, std::nullopt);
  } else if (expected_) {
    Note(event);
    Add(id, {std::move(expected_->name), std::move(expected_->id), std::move(expected_->bytes)});
    expected_.reset();
  } else {
    probe_id_ = id;
  }
  return false;
}

bool Ledger::OnProbeRefused(ReportEventCause cause) {
  broken_ = broken_ || (!closed_ && IsOfTermination(cause));
  load_over_ = cause == ReportEventCause::kNoServer;
  return true;
}

bool Ledger::OnLoaded(const ReportEvent& event) {
  Note(event);
  const std::string name = "a message of an earlier run (" + CountOf(event.size, "byte") + ")";
  Entry entry{name, "", std::string(BytesOf(event))};
  entry.to_save = entry.saved = true;
  Add(event.message.id, std::move(entry));
  return false;
}

// The save holds every message that is in the store and for the cache.
bool Ledger::OnSaved() {
  if (!std::exchange(unsaved_, false)) return false;
  bool listed = false;
  for (auto& [id, entry] : entries_) {
    entry.saved = entry.to_save;
    if (entry.saved) listed = List(&entry) || listed;
  }
  return listed;
}

bool Ledger::List(Entry* entry) {
  if (!options_.list_saved || entry->listed || entry->id.empty()) return false;
  entry->listed = true;
  saved_.push_back(entry->id);
  return true;
}

Ledger::Entries::iterator Ledger::Find(uint64_t message_id) {
  const auto again = first_ids_.find(message_id);
  return entries_.find(again != first_ids_.end() ? again->second : message_id);
}

void Ledger::Add(uint64_t message_id, Entry entry) {
  bytes_ += entry.bytes.size();
  entries_.emplace(message_id, std::move(entry));
}

void Ledger::Remove(Entries::iterator entry) {
  bytes_ -= entry->second.bytes.size();
  entries_.erase(entry);
}

bool Ledger::Drop(const std::string& reason, Entries::iterator entry) {
  notices_.push_back(entry->second.name + " was dropped: " + reason);
  Remove(entry);
  return true;
}

bool Ledger::OnAdmitted(const ReportEvent& event, Entries::iterator entry) {
  // The room for the stream is as large as the message. When it is full before the message has been
  // read, the channel sends the stream as far as it got.
  const bool may_be_cut = event.original_data != nullptr && event.size == event.original_size;
  if (may_be_cut && !IsWholeDeflateStream(BytesOf(event))) {
    ReportEvent end = event;
    end.kind = ReportEventKind::kDropped;
    end.cause = ReportEventCause::kNotCompressed;
    Note(end);
    entry->second.is_cut = true;
    ++cut_;
    notices_.push_back(entry->second.name +
                       " was dropped: deflate does not make it shorter and was cut short; send it "
                       "without --compress");
    return true;
  }
  Note(event);
  entry->second.to_save = event.need_cache;
  unsaved_ = unsaved_ || event.need_cache;
  return false;
}

bool Ledger::OnRefused(const ReportEvent& event, Entries::iterator entry) {
  if (!IsOfTermination(event.cause)) return Drop(DropReason(event, last_failure_), entry);
  broken_ = broken_ || !closed_;
  return true;  // Left.
}

bool Ledger::OnAcknowledged(const ReportEvent& event, Entries::iterator entry) {
  Note(event);
  const bool had_room = HasRoomLocked();
  const bool listed = List(&entry->second);
  first_ids_.erase(event.message.id);
  Remove(entry);
  const bool recovered = std::exchange(failing_, false);
  return listed || recovered || entries_.size() == cut_ || (!had_room && HasRoomLocked());
}

bool Ledger::OnFailed(const ReportEvent& event) {
  last_failure_ = FailureText(event);
  return !std::exchange(failing_, true);
}

bool Ledger::OnDropped(const ReportEvent& event, Entries::iterator entry) {
  if (event.cause == ReportEventCause::kResendLimit) return OnResendLimit(event, entry);
  Note(event);
  if (IsOfTermination(event.cause)) return false;  // Left.
  return Drop(DropReason(event, last_failure_), entry);
}

bool Ledger::OnResendLimit(const ReportEvent& event, Entries::iterator entry) {
  first_ids_.erase(event.message.id);
  // The bytes of an earlier run are compressed already, and would be again.
  const bool is_of_earlier_run = options_.compress && entry->second.id.empty();
  if (options_.max_resend || is_of_earlier_run) {
    Note(event);
    return Drop(DropReason(event, last_failure_), entry);
  }
  // A limit of the server's was in force for a moment.
  entry->second.to_save = entry->second.saved = false;
  if (!closed_) {
    entry->second.need_cache = event.need_cache;
    again_.push_back(entry->first);
    return true;
  }
  ReportEvent end = event;
  end.cause = ReportEventCause::kTerminated;
  end.request_id = 0;  // Its failure has been told.
  Note(end);
  return true;
}

bool Ledger::OnRetuned(const ReportEvent& event) {
  const size_t before = notices_.size();
  if (event.send_interval_ms != noted_interval_ms_) {
    noted_interval_ms_ = event.send_interval_ms;
    std::string text = "the send interval is now " + std::to_string(event.send_interval_ms) +
                       " ms: the server has set it";
    if (options_.send_now) text += "; --send-now is off while an interval is set";
    notices_.push_back(std::move(text));
  }
  const bool none_in_force = !options_.max_resend && event.max_resend_count == kNoLimit;
  if (event.max_resend_count != noted_limit_ && !none_in_force) {
    noted_limit_ = event.max_resend_count;
    std::string text =
        "the server has set the resend limit to " + std::to_string(event.max_resend_count);
    text += options_.max_resend
                ? " in place of --max-resend " + std::to_string(*options_.max_resend)
                : "; it is lifted again, as no --max-resend is given";
    notices_.push_back(std::move(text));
  }
  return notices_.size() != before;
}

bool Ledger::HasRoomLocked() const {
  return entries_.size() < kMaxOutstanding && bytes_ < kMaxOutstandingBytes;
}

bool Ledger::HasRoom() const {
  std::lock_guard<std::mutex> hold(mutex_);
  return HasRoomLocked();
}

std::optional<Ledger::Again> Ledger::TakeToHandOverAgain() {
  std::lock_guard<std::mutex> hold(mutex_);
  if (again_.empty() || closed_) return std::nullopt;
  if (entries_.size() - again_.size() >= kMaxOutstanding) return std::nullopt;
  expected_again_ = again_.front();
  again_.pop_front();
  const Entry& entry = entries_.at(*expected_again_);
  return Again{entry.bytes, entry.need_cache};
}

std::vector<std::string> Ledger::TakeSaved() {
  std::lock_guard<std::mutex> hold(mutex_);
  return std::exchange(saved_, {});
}

bool Ledger::IsLoadOver() const {
  std::lock_guard<std::mutex> hold(mutex_);
  return load_over_;
}

void Ledger::Close() {
  std::lock_guard<std::mutex> hold(mutex_);
  closed_ = true;
  // They are left, and no event will tell.
  const std::string no_channel;
  for (const uint64_t id : std::exchange(again_, {})) {
    Note({ReportEventKind::kDropped, ReportEventCause::kTerminated, no_channel, {id}});
  }
}

Counts Ledger::GetCounts() const {
  std::lock_guard<std::mutex> hold(mutex_);
  const BooksEntry books = books_.Read();
  Counts counts;
  counts.loaded = books.loaded;
  counts.handed_over = books.handed_over;
  counts.delivered = books.acknowledged;
  counts.failed_attempts = books.FailedAttempts();
  counts.left = entries_.size() - cut_;
  counts.dropped = counts.loaded + counts.handed_over - counts.delivered - counts.left;
  counts.kept = kept_;
  counts.in_flight = books.in_flight;
  counts.retries =
      counts.failed_attempts - books.dropped[static_cast<size_t>(ReportEventCause::kResendLimit)];
  counts.only_reason = OnlyReasonOf(books);
  return counts;
}

bool Ledger::IsBroken() const {
  std::lock_guard<std::mutex> hold(mutex_);
  return broken_;
}

bool Ledger::IsFailing() const {
  std::lock_guard<std::mutex> hold(mutex_);
  return failing_;
}

std::string Ledger::LastFailure() const {
  std::lock_guard<std::mutex> hold(mutex_);
  return last_failure_;
}

std::vector<std::string> Ledger::TakeNotices() {
  std::lock_guard<std::mutex> hold(mutex_);
  return std::exchange(notices_, {});
}

std::vector<std::string> Ledger::LeftNames(bool kept, size_t limit) const {
  std::lock_guard<std::mutex> hold(mutex_);
  std::vector<std::string> names;
  for (const auto& [id, entry] : entries_) {
    if (names.size() == limit) break;
    if (!entry.is_cut && entry.kept == kept) names.push_back(entry.name);
  }
  return names;
}

void Ledger::WakeOnNextEvent() {
  std::lock_guard<std::mutex> hold(mutex_);
  wake_on_next_ = true;
}

}  // namespace quenor::cli
