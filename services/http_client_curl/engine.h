// The I/O thread, which serves every client of the process, so that all of them share connections.
// Threads: any at the doors; the I/O thread, "quenor-http", drives libcurl and runs the callbacks;
// the watch, "quenor-watch", looks whether it comes back. What two of them see is under one lock,
// which is never held inside libcurl or a callback.
// Life cycle: starts with the first request and is never destroyed; an exit parks it, a forked
// child starts its own (engine_process.cc). See docs/design/http-client.md.
#ifndef SERVICES_HTTP_CLIENT_CURL_ENGINE_H_
#define SERVICES_HTTP_CLIENT_CURL_ENGINE_H_

#include <pthread.h>

#include <cstdint>
#include <string>
#include <vector>

#include "quenor_base/platform/base/fork.h"
#include "quenor_base/platform/base/lock.h"
#include "quenor_base/platform/base/thread_annotations.h"
#include "services/http_client_curl/multi.h"
#include "services/http_client_curl/rules/lines.h"
#include "services/http_client_curl/rules/log_pauses.h"
#include "services/http_client_curl/transfer.h"

QUENOR_NAMESPACE_BEGIN
namespace http_engine {

constexpr char kInClient[] = "quenor's HTTP client";
constexpr int kLogError = 2;

// What the I/O thread works on.
struct Io {
  // The thread has come back from the host's code in a forked child: nothing of this is there.
  bool IsParents() const { return generation != base::ForkGeneration(); }

  const uint32_t generation = base::ForkGeneration();
  Multi multi;

  // Guarded by the engine's lock.
  std::vector<Transfer*> submitted;
  std::vector<Transfer*> idle;
  http_lines::Lines lines;
  int64_t sleep_until_ms = http_lines::kNever;  // While `sleeping`.
  bool has_network_changed = false;             // As the host says.
  bool is_watch_changed = false;                // To be opened, or closed.
  bool any_closed = false;  // A client was destroyed since the I/O thread last looked.
  bool sleeping = false;    // The I/O thread waits, or is about to, and nobody has woken it yet.
  bool working = false;     // The I/O thread is inside libcurl's transfers, and so OpenSSL.
  uint64_t steps = 0;       // How often it has gone there.
  bool watched = false;     // The watch runs.
  int forks = 0;            // How many wait or are under way: they come before another step.
  bool parked = false;      // The process ends: no more transfers, no more callbacks.
  // Signalled when `working` or a fork ends, or `told`.
  pthread_cond_t work_done;
  const ClientState* told = nullptr;  // Whose callback runs with a success ...
  pthread_t told_on{};                // ... and on which thread.

  // I/O thread only.
  std::vector<Transfer*> starting;
  std::vector<http_lines::Member*> taken;  // Out of the lines.
  std::vector<Transfer*> finished;         // Their callbacks are due.
  std::vector<Transfer*> surplus;
};

class Engine {
 public:
  // Any thread. The process's engine; never null, never destroyed.
  static Engine* Get();

  // Any thread. An empty transfer with an easy handle, for the caller to fill; null when the I/O
  // thread, memory or libcurl cannot be had.
  Transfer* Acquire() QUENOR_EXCLUDES(lock_);
  // Any thread. Takes back a transfer that was not submitted.
  void GiveBack(Transfer* transfer) QUENOR_EXCLUDES(lock_);
  // Any thread. Hands the transfer to the I/O thread.
  void Submit(Transfer* transfer) QUENOR_EXCLUDES(lock_);
  // Any thread. Cancels what the client has sent.
  void Close(ClientState* client) QUENOR_EXCLUDES(lock_);
  // Any thread. As the functions of these names.
  void NetworkChanged() QUENOR_EXCLUDES(lock_);
  std::string WatchNetwork(bool on) QUENOR_EXCLUDES(lock_);
  // Any thread. As LogPauses::MayLog().
  bool MayLog(const std::string& cause) QUENOR_EXCLUDES(lock_);

 private:
  Engine() = default;

  // Life cycle: engine_process.cc.
  Io* EnsureIo(std::string* problem) QUENOR_REQUIRES(lock_);
  bool StartLibcurl(std::string* problem) QUENOR_REQUIRES(lock_);
  static int StartThread(void* (*run)(void*), Io* io);
  static void* ThreadMain(void* io);
  static void* WatchMain(void* io);
  static void AtExit();
  static void BeforeFork();
  static void AfterForkInParent();
  static void AfterForkInChild();
  static const base::ForkHandlers fork_handlers_;
  // I/O thread.
  void StayWhileParked(Io* io) QUENOR_REQUIRES(lock_);
  void BeWatched(Io* io) QUENOR_REQUIRES(lock_);
  // The watch's thread.
  void Watch(Io* io) QUENOR_EXCLUDES(lock_);

  // I/O thread.
  void Run(Io* io);
  void BeginWork(Io* io) QUENOR_EXCLUDES(lock_);
  void StartSubmitted(Io* io);
  void MoveLinesOn(Io* io, int64_t now_ms) QUENOR_EXCLUDES(lock_);
  void PassPlacesOn(Io* io) QUENOR_REQUIRES(lock_);
  void EndWork(Io* io) QUENOR_EXCLUDES(lock_);
  void Report(Io* io) QUENOR_EXCLUDES(lock_);
  void DecideState(Io* io, Transfer* transfer) QUENOR_REQUIRES(lock_);
  void LogFailure(const Transfer& transfer) QUENOR_EXCLUDES(lock_);
  void Wait(Io* io) QUENOR_EXCLUDES(lock_);

  base::Lock lock_;
  Io* io_ QUENOR_GUARDED_BY(lock_) = nullptr;
  Io* parents_io_ QUENOR_GUARDED_BY(lock_) = nullptr;  // In a forked child: never touched again.
  bool libcurl_ready_ QUENOR_GUARDED_BY(lock_) = false;
  bool exit_handled_ QUENOR_GUARDED_BY(lock_) = false;  // AtExit() is registered.
  bool exiting_ QUENOR_GUARDED_BY(lock_) = false;       // AtExit() has run, or can no more.
  bool watches_network_ QUENOR_GUARDED_BY(lock_) = false;
  LogPauses log_pauses_ QUENOR_GUARDED_BY(lock_);
};

}  // namespace http_engine
QUENOR_NAMESPACE_END

#endif  // SERVICES_HTTP_CLIENT_CURL_ENGINE_H_
