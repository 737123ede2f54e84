#include "collector/tier/tier.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <random>
#include <unordered_map>
#include <utility>

#include "collector/control_room/desk.h"
#include "collector/control_room/watch.h"
#include "collector/fatal.h"
#include "collector/files.h"
#include "collector/reports/digest.h"
#include "collector/reports/exposition.h"
#include "collector/reports/json.h"
#include "collector/reports/recorder.h"
#include "collector/tier/front.h"
#include "collector/tier/ledger.h"
#include "collector/tier/meter.h"
#include "collector/tier/publisher.h"

namespace quenor::collector {
namespace {

using std::chrono::milliseconds;

constexpr int kTickMs = 50;
constexpr int kCalmTickMs =
    static_cast<int>(1000 * control::kTickSeconds);  // For the policy alone.
constexpr milliseconds kLeaveTime{1'000};  // For answers that are on their way at the end.

// The store's files have no message of more than 32 MiB with its headers: it acknowledges one where
// its max_payload allows, and does not find it again.
constexpr size_t kMostReportBytes = size_t{31} << 20;

// Lines about rejected reports in a second; all are counted.
constexpr int kMostLines = 10;

class Tier {
 public:
  Tier(const TierOptions& options, int stop_fd);
  ~Tier() { ::close(epoll_fd_); }
  Tier(const Tier&) = delete;
  Tier& operator=(const Tier&) = delete;

  const Front& front() const { return front_; }
  void Run();
  std::string CountsText() const { return meter_.Line(); }

 private:
  struct Held {
    FrontRequest* request;
    std::string time;
    std::string sha256;
  };

  std::optional<FrontReply> OnReport(FrontRequest* request);
  std::optional<FrontReply> Hold(FrontRequest* request, std::string sha256) noexcept;
  FrontReply OnGet(const std::string& path) const;
  FrontReply ReplyOf(Answer answer, const std::string& words);
  bool IsWanted(const std::string& target) const;
  void Reject(const FrontRequest& request, const std::string& sha256, const std::string& words);
  void Publish(uint64_t id);
  void PublishAgain(const std::vector<uint64_t>& ids);
  void OnStore();
  void OnCompletion(const Publisher::Completion& completion);
  void End(uint64_t id, Answer answer, const std::string& words);
  void Tick();
  void OnControl();
  void TickPolicy(Time now);
  void Watch(int fd) const;
  int WaitMs() const;
  void Drain();

  const TierOptions options_;
  const int stop_fd_;
  Desk desk_;
  std::mt19937_64 random_{std::random_device()()};
  Meter meter_;
  Ledger ledger_;
  std::unordered_map<uint64_t, Held> held_;  // Of the ledger's reports, by their numbers.
  Time policy_ticked_ = Now();
  uint64_t answered_then_ = 0;
  uint64_t stored_then_ = 0;
  double most_held_ = 0;  // Of what may be, since then.
  Time lines_since_{};
  int lines_ = 0;
  Publisher publisher_;
  ControlWatch watch_;  // Ends before the connection, which is the publisher's.
  Front front_;
  int epoll_fd_ = -1;
};

Tier::Tier(const TierOptions& options, int stop_fd)
    : options_(options),
      stop_fd_(stop_fd),
      desk_(options.control),
      meter_(Now()),
      ledger_(options.hold),
      publisher_(options.store, options.hold),
      watch_(options.store, publisher_.connection()),
      front_({options.host, options.port, options.max_body_bytes, options.idle_timeout_s},
             {[this](FrontRequest* request) { return OnReport(request); },
              [this](const std::string& path) { return OnGet(path); },
              [this](int status) { meter_.CountRefused(status); }}) {
  epoll_fd_ = ::epoll_create1(EPOLL_CLOEXEC);
  if (epoll_fd_ < 0) {
    throw Fatal(kExitInternal,
                "cannot wait: " + ErrnoText(errno) + "; raise the limit on open files");
  }
  Watch(stop_fd_);
  Watch(publisher_.event_fd());
  Watch(watch_.event_fd());
  Watch(front_.epoll_fd());
}

void Tier::Watch(int fd) const {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = fd;
  ::epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, fd, &event);
}

void Tier::Run() {
  Time next_tick = Now();
  Time leave = Time::max();
  for (;;) {
    epoll_event events[4];
    const int count = ::epoll_wait(epoll_fd_, events, 4, WaitMs());
    for (int i = 0; i < count; ++i) {
      if (events[i].data.fd != stop_fd_) continue;
      Drain();
      ::epoll_ctl(epoll_fd_, EPOLL_CTL_DEL, stop_fd_, nullptr);
    }
    OnStore();
    OnControl();
    const Time now = Now();
    if (now >= next_tick) {
      Tick();
      TickPolicy(now);
      next_tick = now + milliseconds(kTickMs);
    }
    front_.Run();
    if (ledger_.GetState(now) != TierState::kDraining || !ledger_.is_empty()) continue;
    if (leave == Time::max()) leave = now + kLeaveTime;
    if (front_.connections() == 0 || now >= leave) return;
  }
}

int Tier::WaitMs() const {
  const bool is_calm = ledger_.is_empty() && ledger_.GetState(Now()) != TierState::kDraining;
  const int most_ms = is_calm ? kCalmTickMs : kTickMs;
  const int wait_ms = front_.TimeoutMs();
  return wait_ms < 0 ? most_ms : std::min(wait_ms, most_ms);
}

void Tier::Drain() {
  ledger_.Drain();
  front_.StopListening();
}

// ---- Senders -----------------------------------------------------------------------------------

std::optional<FrontReply> Tier::OnReport(FrontRequest* request) {
  std::string sha256 = Sha256Hex(request->body);
  const char* why = nullptr;
  if (!IsWanted(request->target)) why = "path not wanted";
  if (request->body.size() > kMostReportBytes)
    why = "larger than the 31 MiB that the store can keep";
  if (why != nullptr) {
    Reject(*request, sha256, why);
    meter_.CountAnswer(200, {});
    return ReplyOf(Answer::kRejected, why);
  }
  return Hold(request, std::move(sha256));
}

// Without memory here the process ends, and what it has not answered comes again elsewhere.
std::optional<FrontReply> Tier::Hold(FrontRequest* request, std::string sha256) noexcept {
  Answer refusal = Answer::kBusy;
  const uint64_t id = ledger_.Take(request->body.size(), request->arrived, &refusal);
  if (id == 0) {
    FrontReply reply = ReplyOf(refusal, "");
    meter_.CountAnswer(reply.status, {});
    return reply;
  }
  held_.emplace(id, Held{request, UtcNow(), std::move(sha256)});
  if (ledger_.is_connected()) Publish(id);
  return std::nullopt;
}

FrontReply Tier::OnGet(const std::string& path) const {
  const TierState state = ledger_.GetState(Now());
  FrontReply reply;
  reply.type = "text/plain";
  if (path == "/healthz") {
    reply.body = "ok\n";
  } else if (path == "/readyz") {
    reply.status = state == TierState::kReady ? 200 : 503;
    reply.body = NameOf(state) + std::string("\n");
  } else if (path == "/metrics") {
    reply.type = kMetricsType;
    reply.body = meter_.Text({state, ledger_.reports(), ledger_.bytes(), front_.connections(),
                              desk_.revision(), desk_.interval_ms()},
                             Now());
  } else {
    reply.status = 404;
    reply.body = "POST reports on any path; GET /healthz, /readyz or /metrics\n";
  }
  return reply;
}

FrontReply Tier::ReplyOf(Answer answer, const std::string& words) {
  FrontReply reply;
  const auto say = [&reply](int status, const std::string& errinfo) {
    reply.status = status;
    reply.body = JsonObject().Add("bytes_errinfo", errinfo).Finish();
    reply.retry_later = status != 200;
  };
  switch (answer) {
    case Answer::kStored:
      reply.body = desk_.Reply(std::uniform_real_distribution<double>()(random_));
      break;
    case Answer::kRejected:
      say(200, "rejected: " + words);
      break;
    case Answer::kBusy:
      say(503, "too much is waiting");
      break;
    case Answer::kLate:
      say(503, "the store does not answer");
      break;
    case Answer::kFull:
      say(507, "the store is full");
      break;
    case Answer::kDraining:
      say(503, "the collector is about to end");
      break;
  }
  return reply;
}

bool Tier::IsWanted(const std::string& target) const {
  const std::string path = target.substr(0, target.find('?'));
  return options_.paths.empty() ||
         std::find(options_.paths.begin(), options_.paths.end(), path) != options_.paths.end();
}

void Tier::Reject(const FrontRequest& request, const std::string& sha256,
                  const std::string& words) {
  meter_.CountRejected();
  const Time now = Now();
  if (now - lines_since_ >= std::chrono::seconds(1)) {
    lines_since_ = now;
    lines_ = 0;
  }
  if (lines_++ >= kMostLines) return;
  std::fprintf(stderr, "quenor-collector: rejected: %s\n",
               JsonObject()
                   .Add("path", request.target)
                   .AddNumber("size", request.body.size())
                   .Add("sha256", sha256)
                   .Add("why", words)
                   .Finish()
                   .c_str());
}

// ---- The store ---------------------------------------------------------------------------------

void Tier::Publish(uint64_t id) {
  const Held& held = held_.at(id);
  publisher_.Publish(id, {held.request->body, held.request->target, held.time, held.sha256});
}

void Tier::PublishAgain(const std::vector<uint64_t>& ids) {
  meter_.CountPublishedAgain(ids.size());
  for (const uint64_t id : ids) Publish(id);
}

void Tier::OnStore() {
  const Publisher::Events events = publisher_.TakeEvents();
  if (events.is_closed) {
    Drain();  // What is whole from now on is refused, not held.
    while (!held_.empty()) End(held_.begin()->first, Answer::kLate, "");
    front_.Run();
    throw Fatal(kExitUnavailable, "the store " + NodesText(options_.store) +
                                      " takes this collector no longer; check the user and the "
                                      "password in --store");
  }
  for (const Publisher::Completion& completion : events.completions) OnCompletion(completion);
  if (events.is_new && events.is_connected) {
    meter_.CountConnected();
    publisher_.Renew();
    PublishAgain(ledger_.OnConnected(Now()));
  } else if (!events.is_connected) {
    ledger_.OnDisconnected();
  }
}

void Tier::OnCompletion(const Publisher::Completion& completion) {
  const auto held = held_.find(completion.id);
  if (held == held_.end()) return;  // Answered already.
  const std::optional<Answer> answer = ledger_.OnOutcome(completion.id, completion.outcome, Now());
  if (!answer) return;
  const FrontRequest& request = *held->second.request;
  if (*answer == Answer::kStored) {
    meter_.CountStored(request.body.size());
  } else if (*answer == Answer::kRejected) {
    Reject(request, held->second.sha256, completion.words);
  }
  End(completion.id, *answer, completion.words);
}

void Tier::End(uint64_t id, Answer answer, const std::string& words) {
  const auto held = held_.find(id);
  FrontRequest* const request = held->second.request;
  FrontReply reply = ReplyOf(answer, words);
  meter_.CountAnswer(reply.status, std::chrono::duration_cast<std::chrono::microseconds>(
                                       Now() - request->arrived));
  held_.erase(held);
  front_.Answer(request, std::move(reply));
}

void Tier::Tick() {
  const Ledger::Due due = ledger_.Tick(Now());
  for (const uint64_t id : due.late) End(id, Answer::kLate, "");
  PublishAgain(due.publish);
}

// ---- Control -----------------------------------------------------------------------------------

void Tier::OnControl() {
  const std::optional<ControlWatch::Value> value = watch_.Take();
  if (!value) return;
  if (value->revision == 0) return desk_.Apply(options_.control, 0);
  std::string problem;
  const std::optional<ControlSettings> settings = SettingsFromJson(value->json, &problem);
  if (settings) return desk_.Apply(*settings, value->revision);
  meter_.CountControlRefused();
  std::fprintf(stderr,
               "quenor-collector: control revision %llu is ignored: %s; set it with "
               "quenor-collector control\n",
               static_cast<unsigned long long>(value->revision), problem.c_str());
}

void Tier::TickPolicy(Time now) {
  const auto part = [](uint64_t held, uint64_t most) {
    return static_cast<double>(held) / static_cast<double>(most);
  };
  most_held_ = std::max({most_held_, part(ledger_.reports(), options_.hold.max_reports),
                         part(ledger_.bytes(), options_.hold.max_bytes)});
  const double seconds = std::chrono::duration<double>(now - policy_ticked_).count();
  if (seconds < control::kTickSeconds) return;
  const uint64_t answered = meter_.answered();
  const uint64_t stored = meter_.stored();
  desk_.Tick(answered - answered_then_, stored - stored_then_, most_held_, seconds);
  answered_then_ = answered;
  stored_then_ = stored;
  most_held_ = 0;
  policy_ticked_ = now;
}

}  // namespace

void RunTier(const TierOptions& options, int stop_fd,
             const std::function<void(const std::string& line)>& announce) {
  Tier tier(options, stop_fd);
  if (!options.port_file.empty()) {
    const int error = WriteFileWhole(options.port_file, std::to_string(tier.front().port()) + "\n");
    if (error != 0) {
      throw Fatal(kExitCannotCreate, "cannot write port file " + options.port_file + ": " +
                                         ErrnoText(error) +
                                         "; give --port-file a path in a writable folder");
    }
  }
  announce("listening url=" + tier.front().url());
  tier.Run();
  announce(tier.CountsText());
}

}  // namespace quenor::collector
