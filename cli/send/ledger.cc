#include "cli/send/ledger.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "cli/send/deflate.h"
#include "cli/text.h"
#include "quenor_base/platform/http_client.h"

namespace quenor::cli {
namespace {

constexpr uint32_t kNoLimit = std::numeric_limits<uint32_t>::max();

std::string_view BytesOf(const ReportEvent& event) {
  if (event.size == 0) return {};
  return {reinterpret_cast<const char*>(event.data), event.size};
}

std::string FailureText(const ReportEvent& event) {
  if (event.cause == ReportEventCause::kStatus) {
    return "the server answered with HTTP status " + std::to_string(event.status_code);
  }
  switch (static_cast<HttpClient::State>(event.http_state)) {
    case HttpClient::State::kTimedOut:
      return "the server did not answer in time";
    case HttpClient::State::kTooLarge:
      return "the server's answer was too large";
    case HttpClient::State::kCancelled:
      return "the request was cancelled";
    default:
      return "the server could not be reached, not be verified, or broke off";
  }
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

// The event is about a message in the channel's store.
bool IsOfTheStore(const ReportEvent& event) {
  return event.kind != ReportEventKind::kRefused &&
         event.cause != ReportEventCause::kNotCompressed &&
         event.cause != ReportEventCause::kNeverRun;
}

// The message leaves the channel's store with this event.
bool EndsInTheStore(const ReportEvent& event) {
  return event.kind == ReportEventKind::kAcknowledged || event.kind == ReportEventKind::kDropped;
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
  const std::string_view bytes = BytesOf(event);
  if (event.kind == ReportEventKind::kHandedOver) return OnHandedOver(bytes);
  if (event.kind == ReportEventKind::kRetuned) return OnRetuned(event);
  if (event.kind == ReportEventKind::kLoaded) return OnLoaded(event);
  if (event.kind == ReportEventKind::kSaved) return OnSaved();
  if (event.kind == ReportEventKind::kAdmitted) return OnAdmitted(event);
  const bool is_probe = !load_over_ && event.kind == ReportEventKind::kRefused && bytes.empty();
  if (is_probe) return OnProbeRefused(event.cause);
  const auto stored = IsOfTheStore(event) ? in_store_.find(bytes) : in_store_.end();
  const bool is_cut = stored != in_store_.end() && stored->second.original == nullptr;
  const auto entry = is_cut                      ? outstanding_.end()
                     : stored == in_store_.end() ? outstanding_.find(bytes)
                                                 : outstanding_.find(*stored->second.original);
  if (stored != in_store_.end() && EndsInTheStore(event)) Release(stored);
  if (is_cut) return EndsInTheStore(event);  // There may be room again.
  if (entry == outstanding_.end()) return false;
  if (IsOfTheStore(event) && EndsInTheStore(event) && event.need_cache) ForgetSaved(entry);
  switch (event.kind) {
    case ReportEventKind::kSent:
      ++counts_.in_flight;
      return false;
    case ReportEventKind::kRefused:
      return OnRefused(event, entry);
    case ReportEventKind::kAcknowledged:
      return OnAcknowledged(entry);
    case ReportEventKind::kFailed:
      return OnFailed(event);
    case ReportEventKind::kDropped:
      return OnDropped(event, entry);
    case ReportEventKind::kKept:
      if (event.request_id != 0) --counts_.in_flight;
      return OnKept(entry);
    default:
      return false;
  }
}

bool Ledger::OnHandedOver(std::string_view bytes) {
  // Unannounced, it is handed over again and on the books already.
  if (!expected_ || expected_->bytes != bytes) return false;
  Add(bytes, std::move(expected_->name), std::move(expected_->id));
  expected_.reset();
  ++counts_.handed_over;
  return false;
}

bool Ledger::OnProbeRefused(ReportEventCause cause) {
  broken_ = broken_ || (!closed_ && IsOfTermination(cause));
  load_over_ = cause == ReportEventCause::kNoServer;
  return true;
}

bool Ledger::OnLoaded(const ReportEvent& event) {
  Equal& equal =
      Add(BytesOf(event), "a message of an earlier run (" + CountOf(event.size, "byte") + ")", "");
  ++equal.to_save;
  ++equal.saved;
  ++counts_.loaded;
  return false;
}

// The save holds every message that is in the store and for the cache.
bool Ledger::OnSaved() {
  if (!std::exchange(unsaved_, false)) return false;
  bool listed = false;
  for (auto& [bytes, equal] : outstanding_) {
    equal.saved = equal.to_save;
    for (uint64_t i = 0; i < equal.saved && i < equal.names.size(); ++i) {
      listed = List(&equal.names[i]) || listed;
    }
  }
  return listed;
}

// Only what a completed save holds is safe: saves that failed since have left it in place.
bool Ledger::OnKept(Outstanding::iterator entry) {
  Equal& equal = entry->second;
  if (equal.kept == equal.saved) return false;
  ++equal.kept;
  ++counts_.kept;
  return false;
}

void Ledger::ForgetSaved(Outstanding::iterator entry) {
  Equal& equal = entry->second;
  if (equal.to_save > 0) --equal.to_save;
  equal.saved = std::min(equal.saved, equal.to_save);
}

bool Ledger::List(Name* name) {
  if (!options_.list_saved || name->listed || name->id.empty()) return false;
  name->listed = true;
  saved_.push_back(name->id);
  return true;
}

Ledger::Equal& Ledger::Add(std::string_view bytes, std::string name, std::string id) {
  auto entry = outstanding_.find(bytes);
  if (entry == outstanding_.end()) entry = outstanding_.try_emplace(std::string(bytes)).first;
  entry->second.names.push_back({next_order_++, std::move(name), std::move(id), false});
  ++outstanding_count_;
  outstanding_bytes_ += bytes.size();
  return entry->second;
}

Ledger::Name Ledger::Remove(Outstanding::iterator entry) {
  Name name = std::move(entry->second.names.front());
  entry->second.names.pop_front();
  --outstanding_count_;
  outstanding_bytes_ -= entry->first.size();
  if (entry->second.names.empty()) outstanding_.erase(entry);
  return name;
}

void Ledger::Drop(const std::string& reason, Outstanding::iterator entry) {
  notices_.push_back(Remove(entry).text + " was dropped: " + reason);
  ++counts_.dropped;
}

bool Ledger::OnAdmitted(const ReportEvent& event) {
  const bool is_original = event.original_data == nullptr;
  const std::string_view bytes = BytesOf(event);
  const std::string_view original =
      is_original ? bytes
                  : std::string_view{reinterpret_cast<const char*>(event.original_data),
                                     event.original_size};
  const auto entry = outstanding_.find(original);
  if (entry == outstanding_.end()) return false;
  if (is_original) return OnInStore(event, entry);
  Compressed& stored = in_store_.try_emplace(std::string(bytes), Compressed{}).first->second;
  ++stored.count;
  // The room for the stream is as large as the message. When it is full before the message has been
  // read, the channel sends the stream as far as it got.
  if (bytes.size() != original.size() || IsWholeDeflateStream(bytes)) {
    stored.original = &entry->first;
    return OnInStore(event, entry);
  }
  ++cut_count_;
  cut_bytes_ += bytes.size();
  Drop("deflate does not make it shorter and was cut short; send it without --compress", entry);
  return true;
}

bool Ledger::OnInStore(const ReportEvent& event, Outstanding::iterator entry) {
  if (!event.need_cache) return false;
  ++entry->second.to_save;
  unsaved_ = true;
  return false;
}

void Ledger::Release(InStore::iterator stored) {
  if (stored->second.original == nullptr) {
    --cut_count_;
    cut_bytes_ -= stored->first.size();
  }
  if (--stored->second.count == 0) in_store_.erase(stored);
}

bool Ledger::OnRefused(const ReportEvent& event, Outstanding::iterator entry) {
  if (IsOfTermination(event.cause)) {
    broken_ = broken_ || !closed_;
    return true;  // Left.
  }
  Drop(DropReason(event, last_failure_), entry);
  return true;
}

bool Ledger::OnAcknowledged(Outstanding::iterator entry) {
  const bool had_room = HasRoomLocked();
  Name name = Remove(entry);
  const bool listed = List(&name);
  --counts_.in_flight;
  ++counts_.delivered;
  const bool recovered = std::exchange(failing_, false);
  return listed || recovered || outstanding_count_ == 0 || (!had_room && HasRoomLocked());
}

bool Ledger::OnFailed(const ReportEvent& event) {
  --counts_.in_flight;
  ++counts_.failed_attempts;
  ++counts_.retries;
  last_failure_ = FailureText(event);
  return !std::exchange(failing_, true);
}

bool Ledger::OnDropped(const ReportEvent& event, Outstanding::iterator entry) {
  if (IsOfTermination(event.cause)) {
    if (event.request_id != 0) --counts_.in_flight;
    return false;  // Left.
  }
  if (event.cause == ReportEventCause::kReplaced) --counts_.in_flight;
  if (event.cause == ReportEventCause::kResendLimit) return OnResendLimit(event, entry);
  Drop(DropReason(event, last_failure_), entry);
  return true;
}

bool Ledger::OnResendLimit(const ReportEvent& event, Outstanding::iterator entry) {
  // The bytes of an earlier run are compressed already, and would be again.
  const bool is_of_earlier_run = options_.compress && BytesOf(event) == entry->first;
  if (!options_.max_resend && !is_of_earlier_run) {
    // A limit of the server's was in force for a moment.
    if (!closed_) again_.push_back({entry->first, event.need_cache});
    return true;
  }
  --counts_.retries;
  Drop(DropReason(event, last_failure_), entry);
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
  return outstanding_count_ + cut_count_ < kMaxOutstanding &&
         outstanding_bytes_ + cut_bytes_ < kMaxOutstandingBytes;
}

bool Ledger::HasRoom() const {
  std::lock_guard<std::mutex> hold(mutex_);
  return HasRoomLocked();
}

std::optional<Ledger::Again> Ledger::TakeToHandOverAgain() {
  std::lock_guard<std::mutex> hold(mutex_);
  if (again_.empty() || closed_) return std::nullopt;
  if (outstanding_count_ + cut_count_ - again_.size() >= kMaxOutstanding) return std::nullopt;
  Again again = std::move(again_.front());
  again_.pop_front();
  return again;
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
}

Counts Ledger::GetCounts() const {
  std::lock_guard<std::mutex> hold(mutex_);
  Counts counts = counts_;
  counts.left = outstanding_count_;
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
  std::vector<const Name*> left;
  for (const auto& [bytes, equal] : outstanding_) {
    for (size_t i = 0; i < equal.names.size(); ++i) {
      if ((i < equal.kept) == kept) left.push_back(&equal.names[i]);
    }
  }
  std::sort(left.begin(), left.end(),
            [](const Name* a, const Name* b) { return a->order < b->order; });
  std::vector<std::string> texts;
  for (const Name* name : left) {
    if (texts.size() == limit) break;
    texts.push_back(name->text);
  }
  return texts;
}

void Ledger::WakeOnNextEvent() {
  std::lock_guard<std::mutex> hold(mutex_);
  wake_on_next_ = true;
}

}  // namespace quenor::cli
