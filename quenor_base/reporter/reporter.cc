#include "quenor_base/reporter/reporter.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <utility>

#include "quenor_base/data_report/https/reliable_report_channel_https.h"
#include "quenor_base/platform/base/fork.h"
#include "quenor_base/platform/base/monotonic_time.h"
#include "quenor_base/platform/exception_barrier.h"
#include "quenor_base/platform/thread_manager.h"
#include "quenor_base/reporter/exposition.h"
#include "quenor_base/reporter/refused_for_good.h"
#include "quenor_base/reporter/switchboard.h"

QUENOR_NAMESPACE_BEGIN
namespace {

using Kind = ReportEventKind;
using Cause = ReportEventCause;
using Time = base::MonotonicTime;
using std::chrono::milliseconds;

constexpr size_t kLongestName = 236;
constexpr uint32_t kLeastIntervalMs = 100;
constexpr std::chrono::seconds kLoadPatience{10};
// What the end takes beside sending: the tasks that are waiting.
constexpr milliseconds kGrace{50};

// What a host has for "forever" would run over the clock's end.
Time After(milliseconds patience) {
  constexpr milliseconds kForever = std::chrono::hours(24 * 365);
  return base::MonotonicNow() + std::clamp(patience, milliseconds(0), kForever);
}

bool IsEnd(Kind kind) {
  return kind == Kind::kRefused || kind == Kind::kAcknowledged || kind == Kind::kDropped ||
         kind == Kind::kKept;
}

// Told on any thread; the others on the queue thread only.
bool IsBeforeStore(const ReportEvent& event) {
  return event.kind == Kind::kHandedOver || event.kind == Kind::kRefused ||
         event.cause == Cause::kNotCompressed || event.cause == Cause::kNeverRun;
}

// It may carry a password, and is not repeated.
std::string WhatIsWrongWithUrl(const std::string& url, bool requires_tls) {
  const size_t scheme = url.compare(0, 8, "https://") == 0  ? 8
                        : url.compare(0, 7, "http://") == 0 ? 7
                                                            : 0;
  const bool has_host =
      scheme != 0 && scheme < url.size() && url.find_first_of("/?#", scheme) != scheme;
  const bool is_clean = std::all_of(url.begin(), url.end(), [](char c) {
    return static_cast<unsigned char>(c) > ' ' && c != '\x7f';
  });
  if (!has_host || !is_clean) {
    return "url: it is none of the form https://HOST/PATH (or http://); correct it";
  }
  if (scheme == 8 || !requires_tls) return "";
  return "url: it is not encrypted, and require_tls is set; give https://HOST/PATH";
}

std::string WhatIsWrongWith(const Reporter::Options& options) {
  const std::string& name = options.name;
  if (name.empty() || name.size() > kLongestName || name.find('\0') != std::string::npos ||
      ("/" + name + "/").find("/../") != std::string::npos) {
    return "name: it is to have 1 to 236 bytes, none of them NUL, and no way through \"..\"";
  }
  const HttpDefaults http = options.shared.http.value_or(GetHttpDefaults());
  const std::string wrong = WhatIsWrongWithUrl(options.url, http.require_tls);
  if (!wrong.empty()) return wrong;
  if (options.send_limit == 0) {
    return "send_limit: 0 would drop everything at its first failure; give 1 or more";
  }
  if (options.send_interval_ms != 0 && options.send_interval_ms < kLeastIntervalMs) {
    return "send_interval_ms: less than 100 is not to be had; give 0 for none, or 100 and more";
  }
  return "";
}

// The state of a message that an event is about, if there is one.
bool StateOf(const ReportEvent& event, bool is_rejection, Reporter::State* state) {
  switch (event.kind) {
    case Kind::kLoaded:
      *state = Reporter::State::kLoaded;
      return true;
    case Kind::kAdmitted:
      *state = Reporter::State::kAdmitted;
      return true;
    case Kind::kSent:
      *state = Reporter::State::kSent;
      return true;
    case Kind::kFailed:
      *state = Reporter::State::kFailed;
      return true;
    case Kind::kAcknowledged:
      *state = Reporter::State::kAcknowledged;
      return true;
    case Kind::kRefused:
    case Kind::kDropped:
      *state = is_rejection ? Reporter::State::kRejected : Reporter::State::kDropped;
      return true;
    case Kind::kKept:
      *state = Reporter::State::kKept;
      return true;
    default:
      return false;
  }
}

}  // namespace

class Reporter::Core final : public EventReceiver, public std::enable_shared_from_this<Core> {
 public:
  explicit Core(const Options& options) : options_(options), refused_(options.send_limit) {}

  // Once. Empty, or what is wrong.
  std::string Start();
  Sent Send(const void* bytes, size_t size, const SendOptions& options);
  Outcome Flush(milliseconds patience);
  Outcome Stop(milliseconds patience);
  void Silence();
  Outcome Now() const;
  BooksEntry ReadBooks() const override { return books_.Read(); }
  bool is_forked() const { return fork_generation_ != base::ForkGeneration(); }

  // `act` with the channel, unless it is gone.
  template <typename Act>
  bool WithChannel(Act act) {
    if (is_forked() || !Enter()) return false;
    act(channel_.get());
    Leave();
    return true;
  }

  void OnEvent(const ReportEvent& event, int64_t now_ns, Books* process_books) override;

 private:
  using Channel = ReliableReportChannelHttps;
  // One hand-over, to whoever tells of it on the same thread.
  struct HandOver {
    Core* core;
    uint64_t id = 0;
    Cause refused = Cause::kNone;
  };

  // Whether the channel may be used; then Leave() follows. Who leaves last lets go of it.
  bool Enter() {
    int64_t users = users_.load();
    while (users > 0 && !users_.compare_exchange_weak(users, users + 1)) {
    }
    return users > 0;
  }
  void Leave() {
    if (users_.fetch_sub(1) == 1) channel_.reset();
  }
  bool Reserve();
  void Free();
  void Wake();
  void OnGone();
  void OnOwnProbe(const ReportEvent& event);
  void NoteInStore(const ReportEvent& event, int64_t now_ns, bool is_rejection);
  bool TellSend(const ReportEvent& event);
  void TellHost(const ReportEvent& event, bool is_rejection);
  bool IsInCallback() const { return in_callback_of == this; }
  template <typename Condition>
  void WaitUntil(Time end, Condition condition) {
    std::unique_lock<std::mutex> hold(mutex_);
    changed_.wait_until(hold, end, condition);
  }

  const Options options_;
  const uint32_t fork_generation_ = base::ForkGeneration();
  Books books_;
  std::atomic<int64_t> users_{1};
  std::shared_ptr<Channel> channel_;     // By whoever has entered.
  std::atomic<int64_t> outstanding_{0};  // Reserved, or loaded, and not ended.
  std::atomic<bool> is_stopping_{false};
  std::atomic<bool> is_starting_{true};
  RefusedForGood refused_;  // The queue thread's.

  mutable std::mutex mutex_;  // Nothing of the host's runs under it.
  std::condition_variable changed_;
  // Guarded by `mutex_`.
  uint64_t kept_in_file_ = 0;  // Messages that have not ended; it may hold more of them.
  Cause probe_end_ = Cause::kNone;
  bool is_gone_ = false;

  std::mutex calling_;  // While a callback runs.
  std::atomic<bool> is_silent_{false};

  inline static thread_local HandOver* handing_over = nullptr;
  inline static thread_local const Core* in_callback_of = nullptr;
};

// Starting and ending -----------------------------------------------------------------------------

std::string Reporter::Core::Start() {
  const auto self = shared_from_this();
  switch (Switchboard::OfProcess().Join(options_.name, self)) {
    case Switchboard::Joined::kDone:
      break;
    case Switchboard::Joined::kNameTaken:
      return "name: a reporter of this process has \"" + options_.name +
             "\", or has not come to its end; stop it, or choose another";
    case Switchboard::Joined::kNoListener:
      return "the process has too many report event listeners, or this is called by one; take one "
             "away, and create reporters elsewhere";
  }
  // Without a URL, until what is in the file is loaded: nothing is taken, and nothing is sent.
  channel_ = std::shared_ptr<Channel>(
      new Channel(options_.name, /*url=*/"", 0, options_.http2, options_.compress),
      [self](Channel* channel) {
        delete channel;
        self->OnGone();
      });
  channel_->Initialize();
  channel_->SetMaxResendCount(options_.send_limit);
  if (options_.send_interval_ms != 0) channel_->SetResendInterval(options_.send_interval_ms);
  // An empty message, which is refused behind the load: that is how its end is known.
  channel_->SendPacket(nullptr, 0, /*need_cache=*/false, /*send_now=*/false);
  channel_->SetServerDomain(options_.url);
  channel_->FlushPacket();
  WaitUntil(base::MonotonicNow() + kLoadPatience, [this] { return probe_end_ != Cause::kNone; });
  std::unique_lock<std::mutex> hold(mutex_);
  const Cause end = probe_end_;
  hold.unlock();
  if (end == Cause::kNoServer) return "";
  is_silent_ = true;  // The host has no reporter. A callback that blocks is not waited for.
  Stop(milliseconds(0));
  return end == Cause::kNone ? "name: the file of \"" + options_.name +
                                   "\" could not be read within 10 s; look at the disk"
                             : "no thread could be made; raise the limit on processes or memory";
}

Reporter::Outcome Reporter::Core::Flush(milliseconds patience) {
  if (is_forked()) return Outcome();
  const Time end = After(patience);
  WithChannel([](Channel* channel) { channel->FlushPacket(); });
  if (!IsInCallback())
    WaitUntil(end, [this] { return outstanding_.load() <= books_.delayed() || is_gone_; });
  return Now();
}

Reporter::Outcome Reporter::Core::Stop(milliseconds patience) {
  if (is_forked()) return Outcome();
  const Time end = After(patience) + kGrace;
  if (patience.count() > 0) Flush(patience);
  if (!is_stopping_.exchange(true)) {
    channel_->Terminate();
    Leave();
  }
  if (!IsInCallback()) {
    WaitUntil(end, [this] { return is_gone_; });
    // Its thread, too, so that nothing of it runs while the process ends. Not for long: other
    // reporters' threads, which may be busy, are waited for with it.
    const auto left =
        std::min(kGrace, std::chrono::duration_cast<milliseconds>(end - base::MonotonicNow()));
    (void)core::ThreadManager::WaitForDrain(base::TimeDelta::FromMilliseconds(left.count()));
  }
  return Now();
}

// No callback begins any more; one that is running is waited for.
void Reporter::Core::Silence() {
  is_silent_ = true;
  if (is_forked() || IsInCallback()) return;
  std::lock_guard<std::mutex> behind(calling_);
}

// Whoever held the channel last has let go of it: no event comes any more.
void Reporter::Core::OnGone() {
  Switchboard::OfProcess().Leave(options_.name);
  std::lock_guard<std::mutex> hold(mutex_);
  is_gone_ = true;
  changed_.notify_all();
}

Reporter::Outcome Reporter::Core::Now() const {
  if (is_forked()) return Outcome();
  std::unique_lock<std::mutex> hold(mutex_);
  const BooksEntry books = books_.Read();
  const uint64_t kept_in_file = kept_in_file_;
  hold.unlock();
  const uint64_t outstanding = books.Outstanding();
  Outcome outcome;
  outcome.acknowledged = books.acknowledged;
  outcome.rejected = books.rejected;
  outcome.dropped = books.Dropped();
  // What Send() had taken, before the channel ended or lost its URL.
  for (const Cause cause : {Cause::kNotRunning, Cause::kNoServer}) {
    outcome.dropped += books.refused[static_cast<size_t>(cause)];
  }
  outcome.kept = books.kept + std::min(kept_in_file, outstanding);
  outcome.out = outstanding - std::min(kept_in_file, outstanding);
  return outcome;
}

// Sending -----------------------------------------------------------------------------------------

bool Reporter::Core::Reserve() {
  if (outstanding_.fetch_add(1) < kMostOutstanding) return true;
  Free();
  return false;
}

void Reporter::Core::Free() {
  if (outstanding_.fetch_sub(1) - 1 <= books_.delayed()) Wake();
}

// Whoever waits looks again.
void Reporter::Core::Wake() {
  std::lock_guard<std::mutex> hold(mutex_);
  changed_.notify_all();
}

Reporter::Sent Reporter::Core::Send(const void* bytes, size_t size, const SendOptions& options) {
  if (is_forked()) return {0, Refusal::kForked};
  if (size == 0) return {0, Refusal::kEmpty};
  if (bytes == nullptr) return {0, Refusal::kNoBytes};
  if (size > kMostBytes) return {0, Refusal::kTooLarge};
  if (options.now && options.delay_ms > 0) return {0, Refusal::kNowAndDelay};
  if (!Enter()) return {0, Refusal::kStopped};
  if (!Reserve()) {
    Leave();
    return {0, Refusal::kFull};
  }
  HandOver this_one{this};
  HandOver* const outer = std::exchange(handing_over, &this_one);
  const auto* const data = static_cast<const uint8_t*>(bytes);
  const auto length = static_cast<uint32_t>(size);
  if (options.delay_ms > 0) {
    channel_->SendPacketWithDelay(data, length, options.keep,
                                  base::TimeDelta::FromMilliseconds(options.delay_ms));
  } else {
    channel_->SendPacket(data, length, options.keep, options.now);
  }
  handing_over = outer;
  Leave();
  if (this_one.refused == Cause::kNone) return {this_one.id, Refusal::kNone};
  return {0, this_one.refused == Cause::kOutOfMemory ? Refusal::kNoMemory : Refusal::kStopped};
}

// Events ------------------------------------------------------------------------------------------

// Nobody but the probe is handed over before the end of the load.
void Reporter::Core::OnOwnProbe(const ReportEvent& event) {
  if (event.kind == Kind::kHandedOver) return;
  is_starting_ = false;
  std::lock_guard<std::mutex> hold(mutex_);
  probe_end_ = event.cause;
  changed_.notify_all();
}

// True when Send() is at it, on this thread, and says it.
bool Reporter::Core::TellSend(const ReportEvent& event) {
  HandOver* const now = handing_over;
  if (now == nullptr || now->core != this) return false;
  if (event.kind == Kind::kHandedOver) {
    now->id = event.message.id;
  } else if (now->id == event.message.id) {
    now->refused = event.cause;
  }
  return now->id == event.message.id;
}

// In one step for Now(): a message that has ended must not stand for another that is in memory
// only.
void Reporter::Core::NoteInStore(const ReportEvent& event, int64_t now_ns, bool is_rejection) {
  std::lock_guard<std::mutex> hold(mutex_);
  books_.Note(event, now_ns, is_rejection);
  if (event.kind == Kind::kLoaded) ++kept_in_file_;
  if (event.kind == Kind::kSaved) kept_in_file_ = event.count;
  // Which of them the last complete save holds nobody knows any more.
  if (event.kind == Kind::kNotSaved) kept_in_file_ = 0;
  if (IsEnd(event.kind) && event.need_cache && kept_in_file_ > 0) --kept_in_file_;
}

void Reporter::Core::OnEvent(const ReportEvent& event, int64_t now_ns, Books* process_books) {
  if (is_starting_ && IsBeforeStore(event)) return OnOwnProbe(event);
  bool is_rejection = false;
  const bool is_told_by_send = IsBeforeStore(event) && TellSend(event);
  if (!IsBeforeStore(event)) {
    is_rejection = refused_.IsRejection(event);
    uint32_t limit;
    const bool is_to_be_set = refused_.OnEvent(event, &limit);
    if (is_to_be_set) WithChannel([limit](Channel* channel) { channel->SetMaxResendCount(limit); });
  }
  process_books->Note(event, now_ns, is_rejection);
  if (IsBeforeStore(event)) {
    books_.Note(event, now_ns, is_rejection);
  } else {
    NoteInStore(event, now_ns, is_rejection);
  }
  if (event.kind == Kind::kLoaded) ++outstanding_;
  if (!is_told_by_send) TellHost(event, is_rejection);
  // Last: who waits for it finds the books and the host told.
  if (IsEnd(event.kind)) Free();
  // It was reserved before it was known to be delayed, and so waited for.
  if (event.kind == Kind::kHandedOver && event.message.is_delayed) Wake();
}

void Reporter::Core::TellHost(const ReportEvent& event, bool is_rejection) {
  State state;
  const bool is_state = StateOf(event, is_rejection, &state) && options_.on_update != nullptr;
  const bool is_tuning = event.kind == Kind::kRetuned && options_.on_tuning != nullptr;
  if (!is_state && !is_tuning) return;
  std::lock_guard<std::mutex> hold(calling_);
  if (is_silent_) return;
  const Core* const outer = std::exchange(in_callback_of, this);
  base::EndOnException("the host's reporter callback", [&] {
    if (is_state) {
      options_.on_update({event.message.id, state, event.cause, event.http_state, event.status_code,
                          event.send_count, event.http_reason});
    } else {
      options_.on_tuning({event.send_interval_ms, refused_.limit(), event.report_interval_ms});
    }
  });
  in_callback_of = outer;
}

// The class ---------------------------------------------------------------------------------------

std::unique_ptr<Reporter> Reporter::Create(const Options& options, std::string* error) {
  *error = WhatIsWrongWith(options);
  if (error->empty()) *error = FixSharedSettings(options.shared);
  if (!error->empty()) return nullptr;
  auto core = std::make_shared<Core>(options);
  *error = core->Start();
  if (!error->empty()) return nullptr;
  return std::unique_ptr<Reporter>(new Reporter(std::move(core)));
}

Reporter::Reporter(std::shared_ptr<Core> core) : core_(std::move(core)) {}
Reporter::~Reporter() {
  core_->Stop(milliseconds(0));
  core_->Silence();
}

Reporter::Sent Reporter::Send(const void* bytes, size_t size, const SendOptions& options) {
  return core_->Send(bytes, size, options);
}
Reporter::Outcome Reporter::Flush(milliseconds patience) { return core_->Flush(patience); }
Reporter::Outcome Reporter::Stop(milliseconds patience) { return core_->Stop(patience); }
Reporter::Outcome Reporter::Now() const { return core_->Now(); }
BooksEntry Reporter::ReadBooks() const { return core_->ReadBooks(); }
BooksEntry Reporter::ReadProcessBooks() { return Switchboard::OfProcess().ReadBooks(); }
std::string Reporter::Metrics() { return Exposition(Switchboard::OfProcess().ReadAllBooks()); }

void Reporter::SetSendInterval(uint32_t interval_ms) {
  core_->WithChannel([=](auto* channel) { channel->SetResendInterval(interval_ms); });
}
bool Reporter::SetUrl(const std::string& url) {
  if (!WhatIsWrongWithUrl(url, GetHttpDefaults().require_tls).empty()) return false;
  core_->WithChannel([&](auto* channel) { channel->SetServerDomain(url); });
  return true;
}
uint32_t Reporter::ReportIntervalMs() const {
  uint32_t interval_ms = 0;
  core_->WithChannel([&](auto* channel) { interval_ms = channel->GetReportInterval(); });
  return interval_ms;
}

const char* Reporter::TextOf(Refusal refusal) {
  switch (refusal) {
    case Refusal::kNone:
      return "taken";
    case Refusal::kFull:
      return "149 messages are out; try again when some of them have ended";
    case Refusal::kEmpty:
      return "the message is empty";
    case Refusal::kNoBytes:
      return "a null pointer was given with a size; give the bytes";
    case Refusal::kTooLarge:
      return "the message has more than 1 GiB; split it";
    case Refusal::kNowAndDelay:
      return "now and a delay were asked for; choose one";
    case Refusal::kStopped:
      return "the reporter has been stopped; create another";
    case Refusal::kNoMemory:
      return "there is no memory to copy the message; try again later";
    case Refusal::kForked:
      return "the reporter is the parent process's; create one in this process";
  }
  return "";
}

QUENOR_NAMESPACE_END
