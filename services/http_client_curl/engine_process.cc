// How the engine comes to life, and what it goes through when the process ends or forks.
#include <openssl/crypto.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "quenor_base/platform/base/monotonic_time.h"
#include "quenor_base/platform/base/thread_create_flag.h"
#include "quenor_base/platform/exception_barrier.h"
#include "services/http_client_curl/engine.h"

QUENOR_NAMESPACE_BEGIN
namespace http_engine {
namespace {

constexpr int64_t kExitWaitMs = 5000;
constexpr int kWatchMs = 250;              // How often the watch looks at the I/O thread.
constexpr uint64_t kFloodBytes = 1 << 20;  // What no answer brings within one step of that thread.

}  // namespace

// ---- Start --------------------------------------------------------------------------------------

// BeforeFork() asks for it, too: a fork that finds another thread in here waits for it.
Engine* Engine::Get() {
  static Engine* const engine = new Engine;
  return engine;
}

// Another thread may be in exit() already, or get there meanwhile. OpenSSL would free at exit what
// it has, by a handler that it registers in the middle of its start; so it is told to leave that to
// the system. If the host has started it before, its handler stands, and ours runs first: exit
// handlers run last come, first served, and what comes during an exit does so, too. From here on
// an exit waits for this start, because its handler needs the lock.
bool Engine::StartLibcurl(std::string* problem) {
  if (libcurl_ready_) return true;
  OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
  if (!exit_handled_ && std::atexit(&Engine::AtExit) != 0) {
    exiting_ = true;  // The last handler has run.
    return false;
  }
  exit_handled_ = true;
  if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
    *problem = "libcurl cannot be initialised";
    return false;
  }
  libcurl_ready_ = true;
  return true;
}

Io* Engine::EnsureIo(std::string* problem) {
  if (io_ != nullptr) return io_;
  if (exiting_ || !StartLibcurl(problem)) return nullptr;
  std::unique_ptr<Io> io(new Io);
  if (!io->multi.Open(problem)) return nullptr;
  base::InitMonotonicCondition(&io->work_done);
  if (const int error = StartThread(&Engine::ThreadMain, io.get()); error != 0) {
    *problem = std::string("the I/O thread cannot be started: ") + std::strerror(error);
    pthread_cond_destroy(&io->work_done);
    return nullptr;
  }
  io_ = io.release();
  return io_;
}

int Engine::StartThread(void* (*run)(void*), Io* io) {
  // The thread is born with every signal blocked: none of the host's is handled on it, and a write
  // to a dead connection, which OpenSSL does without MSG_NOSIGNAL, leaves SIGPIPE pending there.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  pthread_t thread;
  const int error = pthread_create(&thread, nullptr, run, io);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  if (error == 0) pthread_detach(thread);
  return error;
}

void* Engine::ThreadMain(void* io) {
  pthread_setname_np(pthread_self(), "quenor-http");
  base::ThreadCreateFlag::SetThreadCreateByQuenor(true);
  base::EndOnException(kInClient, [io] { Get()->Run(static_cast<Io*>(io)); });
  return nullptr;
}

void* Engine::WatchMain(void* io) {
  pthread_setname_np(pthread_self(), "quenor-watch");
  base::ThreadCreateFlag::SetThreadCreateByQuenor(true);
  base::EndOnException(kInClient, [io] { Get()->Watch(static_cast<Io*>(io)); });
  return nullptr;
}

// ---- Watch --------------------------------------------------------------------------------------

// Without a thread nobody watches, until there is one for a later step.
void Engine::BeWatched(Io* io) {
  if (!io->watched) io->watched = StartThread(&Engine::WatchMain, io) == 0;
}

// As long as the I/O thread is at work, and for a moment more. A step that lasts from one look to
// the next, and then reads as much as no answer brings, is a server that floods: its connection is
// cut, so that the thread comes back to time limits, other servers, fork() and exit.
void Engine::Watch(Io* io) {
  uint64_t seen = 0;     // The step that was last looked at ...
  bool is_long = false;  // ... and was going on at the look before, too.
  for (;;) {
    poll(nullptr, 0, kWatchMs);
    base::AutoLock hold(lock_);
    if (io->steps != seen) {
      seen = io->steps;
      is_long = false;
    } else if (!io->working) {
      io->watched = false;
      return;
    } else if (!is_long) {
      io->multi.sockets()->Mark();
      is_long = true;
    } else if (io->multi.sockets()->CutBusiest(kFloodBytes)) {
      is_long = false;
    }
  }
}

// ---- Exit ---------------------------------------------------------------------------------------

// Before whatever else ends with the process takes away what a live TLS session needs, the I/O
// thread stops going there, and no further callback starts. Waits for the step that it is in, which
// never waits for the network; the limit is there for a machine that has stopped running us, not
// for a slow step.
void Engine::AtExit() {
  Engine* engine = Get();
  base::AutoLock hold(engine->lock_);
  engine->exiting_ = true;
  Io* io = engine->io_;
  if (io == nullptr) return;
  io->parked = true;
  pthread_cond_broadcast(&io->work_done);
  const timespec until = base::MonotonicTimeIn(kExitWaitMs);
  while (io->working) {
    if (pthread_cond_timedwait(&io->work_done, engine->lock_.native_handle(), &until) != 0) return;
  }
}

// Once the process ends, the I/O thread does not come back from here.
void Engine::StayWhileParked(Io* io) {
  while (io->parked) pthread_cond_wait(&io->work_done, lock_.native_handle());
}

// ---- Fork ---------------------------------------------------------------------------------------

// When the library is loaded, so that a fork waits however early in the first request it comes.
const base::ForkHandlers Engine::fork_handlers_{&BeforeFork, &AfterForkInParent, &AfterForkInChild};

// A fork happens while the I/O thread is outside libcurl and nobody holds the lock, so that the
// child finds OpenSSL's and our own state whole.
void Engine::BeforeFork() QUENOR_NO_THREAD_SAFETY_ANALYSIS {
  Engine* engine = Get();
  engine->lock_.Acquire();
  Io* io = engine->io_;
  if (io == nullptr) return;
  ++io->forks;
  while (io->working && !io->parked) {
    pthread_cond_wait(&io->work_done, engine->lock_.native_handle());
  }
}

void Engine::AfterForkInParent() QUENOR_NO_THREAD_SAFETY_ANALYSIS {
  Engine* engine = Get();
  if (engine->io_ != nullptr) {
    --engine->io_->forks;
    pthread_cond_broadcast(&engine->io_->work_done);
  }
  engine->lock_.Release();
}

// The I/O thread exists in the parent only: the child forgets the parent's requests and connections
// and starts its own with its first request.
void Engine::AfterForkInChild() QUENOR_NO_THREAD_SAFETY_ANALYSIS {
  Engine* engine = Get();
  if (engine->io_ != nullptr) engine->parents_io_ = engine->io_;
  engine->io_ = nullptr;
  engine->lock_.Release();
}

}  // namespace http_engine
QUENOR_NAMESPACE_END
