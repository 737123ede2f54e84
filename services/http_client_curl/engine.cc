#include "services/http_client_curl/engine.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "quenor_base/platform/base/monotonic_time.h"
#include "quenor_base/platform/gathered_wake_ups.h"
#include "quenor_base/platform/local_log.h"
#include "services/http_client_curl/address.h"
#include "services/http_client_curl/failure_text.h"

QUENOR_NAMESPACE_BEGIN
namespace http_engine {
namespace {

constexpr char kLogFile[] = "services/http_client_curl/engine";
constexpr size_t kIdleTransfers = 64;  // Kept for reuse with their easy handles.

bool IsOfClosed(const http_lines::Member& member, int64_t) {
  return static_cast<const Transfer&>(member).IsCancelled();
}

}  // namespace

// ---- Doors --------------------------------------------------------------------------------------

Transfer* Engine::Acquire() {
  std::string problem;
  {
    base::AutoLock hold(lock_);
    Io* io = EnsureIo(&problem);
    if (io == nullptr && exiting_) return nullptr;
    if (io != nullptr && !io->idle.empty()) {
      Transfer* transfer = io->idle.back();
      io->idle.pop_back();
      return transfer;
    }
  }
  if (problem.empty()) {
    std::unique_ptr<Transfer> transfer = Transfer::Create();
    if (transfer != nullptr) return transfer.release();
    problem = "libcurl has no memory";
  }
  if (MayLog(problem)) {
    LocalLog(kLogError, kLogFile, __LINE__,
             "http: cannot send: %s; raise the limit or use less of it", problem.c_str());
  }
  return nullptr;
}

void Engine::GiveBack(Transfer* transfer) {
  transfer->Clear();
  transfer->configured_serial = 0;
  base::AutoLock hold(lock_);
  io_->idle.push_back(transfer);
}

void Engine::Submit(Transfer* transfer) {
  Io* io;
  {
    base::AutoLock hold(lock_);
    io = io_;
    ClientState* client = transfer->client.get();
    if (client->used_io != io) client->lines.clear();  // A parent's.
    client->used_io = io;
    // Where HTTP/2 is offered, libcurl does the queueing.
    const bool entered = transfer->settings->http2 ||
                         io->lines.Enter(transfer->request.url,
                                         transfer->settings->values().max_connections_per_host,
                                         &client->lines, transfer);
    if (entered) io->submitted.push_back(transfer);
    // One that waits has nothing for the I/O thread to do before its time limit.
    if (!entered && transfer->deadline_ms >= io->sleep_until_ms) return;
    if (!std::exchange(io->sleeping, false)) return;
  }
  io->multi.WakeUp();
}

void Engine::Close(ClientState* client) {
  base::AutoLock hold(lock_);
  // release: pairs with the acquire in Transfer::IsCancelled().
  client->closed.store(true, std::memory_order_release);
  Io* io = io_;
  if (io == nullptr || client->used_io != io) return;
  io->any_closed = true;
  if (std::exchange(io->sleeping, false)) io->multi.WakeUp();
  // Nobody hears of success once this has returned. The callback itself may be who closes.
  while (io->told == client && !io->parked && !pthread_equal(io->told_on, pthread_self())) {
    pthread_cond_wait(&io->work_done, lock_.native_handle());
  }
}

void Engine::NetworkChanged() {
  base::AutoLock hold(lock_);
  if (io_ == nullptr) return;
  io_->has_network_changed = true;
  if (std::exchange(io_->sleeping, false)) io_->multi.WakeUp();
}

// Tried here, where its caller hears of a failure; opened by the I/O thread, now or when there is
// one.
std::string Engine::WatchNetwork(bool on) {
  http_network::Watch trial;
  const std::string problem = on ? trial.Open() : std::string();
  base::AutoLock hold(lock_);
  watches_network_ = on && problem.empty();
  if (io_ == nullptr) return problem;
  io_->is_watch_changed = true;
  if (std::exchange(io_->sleeping, false)) io_->multi.WakeUp();
  return problem;
}

bool Engine::MayLog(const std::string& cause) {
  base::AutoLock hold(lock_);
  return log_pauses_.MayLog(cause, base::MonotonicMs());
}

// ---- I/O thread ---------------------------------------------------------------------------------

void Engine::Run(Io* io) {
  for (;;) {
    BeginWork(io);
    for (Transfer* transfer : io->surplus) delete transfer;
    io->surplus.clear();
    StartSubmitted(io);
    io->multi.Perform(&io->finished);
    const int64_t now_ms = base::MonotonicMs();
    MoveLinesOn(io, now_ms);
    io->multi.Expire(now_ms, &io->finished);
    EndWork(io);
    const bool at_once = io->multi.LookAgain(!io->finished.empty());
    Report(io);
    if (io->IsParents()) return;
    io->multi.CloseHungUp();
    if (!at_once) Wait(io);
  }
}

void Engine::BeginWork(Io* io) {
  bool any_closed;
  bool has_network_changed;
  bool watches_network;
  {
    base::AutoLock hold(lock_);
    while (io->forks > 0) pthread_cond_wait(&io->work_done, lock_.native_handle());
    StayWhileParked(io);
    BeWatched(io);
    io->working = true;
    ++io->steps;
    io->sleeping = false;
    any_closed = std::exchange(io->any_closed, false);
    has_network_changed = std::exchange(io->has_network_changed, false);
    io->is_watch_changed = false;
    watches_network = watches_network_;
    io->starting.swap(io->submitted);
    // Those that wait first, lest they take the places of the others.
    if (any_closed) io->lines.Take(&IsOfClosed, 0, &io->taken);
  }
  for (http_lines::Member* member : io->taken) {
    io->finished.push_back(static_cast<Transfer*>(member));
  }
  io->taken.clear();
  if (any_closed) io->multi.CancelClosed(&io->finished);
  io->multi.WatchNetwork(watches_network);
  io->multi.FollowNetwork(has_network_changed, &io->finished);
}

void Engine::StartSubmitted(Io* io) {
  for (Transfer* transfer : io->starting) {
    if (!io->multi.Start(transfer)) io->finished.push_back(transfer);
  }
  io->starting.clear();
}

// Who waits gets the places of those that have ended, or ends when it has waited too long.
void Engine::MoveLinesOn(Io* io, int64_t now_ms) {
  {
    base::AutoLock hold(lock_);
    PassPlacesOn(io);
    io->lines.TakeLate(now_ms, &io->taken);
  }
  for (http_lines::Member* member : io->taken) {
    Transfer* transfer = static_cast<Transfer*>(member);
    transfer->GiveUpWaiting();
    io->finished.push_back(transfer);
  }
  io->taken.clear();
}

void Engine::PassPlacesOn(Io* io) {
  for (Transfer* transfer : io->finished) {
    http_lines::Member* next = io->lines.Leave(&transfer->client->lines, transfer);
    if (next != nullptr) io->submitted.push_back(static_cast<Transfer*>(next));
  }
}

void Engine::EndWork(Io* io) {
  base::AutoLock hold(lock_);
  PassPlacesOn(io);
  io->working = false;
  pthread_cond_broadcast(&io->work_done);
}

// Runs what is due, without the lock: a callback may send, create and destroy clients, and fork.
// It, or the log's sink, may return in the child, too: there this thread ends. Callbacks in a row
// that only post wake their queues once, behind the last; any other runs as if it were alone.
void Engine::Report(Io* io) {
  std::optional<base::GatheredWakeUps> gathered;
  for (Transfer* transfer : io->finished) {
    if (!transfer->callback.only_posts()) gathered.reset();
    {
      base::AutoLock hold(lock_);
      if (io->parked) gathered.reset();
      StayWhileParked(io);
      DecideState(io, transfer);
    }
    HttpSpending::Get().Settle(transfer->charged_bytes, transfer->moved);
    if (transfer->state != HttpClient::State::kCompleted &&
        transfer->state != HttpClient::State::kCancelled) {
      LogFailure(*transfer);
      if (io->IsParents()) return;
    }
    if (transfer->callback.only_posts() && !gathered) gathered.emplace();
    transfer->RunCallback();
    if (io->IsParents()) return;
    transfer->Clear();
    base::AutoLock hold(lock_);
    if (io->told != nullptr) pthread_cond_broadcast(&io->work_done);
    io->told = nullptr;
    (io->idle.size() < kIdleTransfers ? io->idle : io->surplus).push_back(transfer);
  }
  io->finished.clear();
}

// From here on the client's destructor waits for a success that is told.
void Engine::DecideState(Io* io, Transfer* transfer) {
  if (transfer->IsCancelled()) {
    transfer->state = HttpClient::State::kCancelled;
  } else if (transfer->state == HttpClient::State::kCompleted) {
    io->told = transfer->client.get();
    io->told_on = pthread_self();
  }
}

void Engine::LogFailure(const Transfer& transfer) {
  const std::string url = http_address::LoggableUrl(transfer.request.url);
  const HttpFailure failure = transfer.Failure();
  const std::string cause = FailureCause(failure);
  if (!MayLog(url + '\n' + std::to_string(transfer.code) + '\n' +
              std::to_string(transfer.verify_result) + '\n' +
              std::to_string(static_cast<int>(transfer.limit)))) {
    return;
  }
  const bool is_post = transfer.request.method == "POST";
  LocalLog(kLogError, kLogFile, __LINE__, "http: cannot %s %s%s%s: %s; %s",
           is_post ? "post to" : ("send " + transfer.request.method + " to").c_str(), url.c_str(),
           transfer.settings->proxy.url.empty() ? "" : " through ",
           transfer.settings->proxy.url.c_str(), cause.c_str(), FailureAdvice(failure));
}

// Sleeps until there is something to do; with nothing pending, for good.
void Engine::Wait(Io* io) {
  int64_t until_ms;
  {
    base::AutoLock hold(lock_);
    if (!io->submitted.empty() || io->any_closed || io->has_network_changed ||
        io->is_watch_changed || !io->surplus.empty()) {
      return;
    }
    io->sleeping = true;  // From here on whoever has something wakes this thread.
    until_ms = std::min(io->multi.next_deadline_ms(), io->lines.deadline_ms());
    io->sleep_until_ms = until_ms;
  }
  io->multi.Wait(until_ms);
}

}  // namespace http_engine
QUENOR_NAMESPACE_END
