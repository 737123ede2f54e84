#include "cli/stop_signals.h"

#include <pthread.h>
#include <unistd.h>

#include <system_error>
#include <thread>

#include "cli/fatal.h"

namespace quenor::cli {

StopSignals* StopSignals::Start(Wakeup* wakeup) {
  auto* const signals = new StopSignals(wakeup);
  try {
    std::thread(&StopSignals::Run, signals).detach();
  } catch (const std::system_error& error) {
    throw Fatal(kExitInternal, std::string("cannot start a thread: ") + error.what() +
                                   "; raise the limit on processes");
  }
  return signals;
}

StopSignals::StopSignals(Wakeup* wakeup) : wakeup_(wakeup) {
  sigemptyset(&signals_);
  sigaddset(&signals_, SIGINT);
  sigaddset(&signals_, SIGTERM);
  struct sigaction hang_up {};
  if (::sigaction(SIGHUP, nullptr, &hang_up) == 0 && hang_up.sa_handler != SIG_IGN) {
    sigaddset(&signals_, SIGHUP);
  }
  pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
}

void StopSignals::Run() {
  int number = 0;
  while (sigwait(&signals_, &number) != 0) {
  }
  received_.store(number, std::memory_order_release);
  wakeup_->Notify();
  while (sigwait(&signals_, &number) != 0) {
  }
  // By the signal itself, so that the parent sees what ended the process.
  std::signal(number, SIG_DFL);
  pthread_sigmask(SIG_UNBLOCK, &signals_, nullptr);
  ::kill(::getpid(), number);
}

}  // namespace quenor::cli
