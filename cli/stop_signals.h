// SIGINT, SIGTERM and SIGHUP as events: the first one asks for an orderly end, the second one ends
// the process at once. No handler runs; a thread of its own waits for them.
#ifndef CLI_STOP_SIGNALS_H_
#define CLI_STOP_SIGNALS_H_

#include <atomic>
#include <csignal>

#include "cli/wakeup.h"

namespace quenor::cli {

class StopSignals {
 public:
  // The main thread, before any other thread exists: blocks these signals in it and all later ones
  // and starts to wait for them, but leaves SIGHUP to be ignored if it is, as nohup asks. Lives for
  // the process, as its thread does; so must `wakeup`, which is borrowed and notified on the first
  // signal. Throws Fatal with kExitInternal.
  static StopSignals* Start(Wakeup* wakeup);

  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

  // Any thread. The number of the first signal, 0 before it.
  int received() const { return received_.load(std::memory_order_acquire); }

 private:
  explicit StopSignals(Wakeup* wakeup);
  void Run();

  Wakeup* const wakeup_;
  sigset_t signals_;
  std::atomic<int> received_{0};  // release: pairs with the acquire in received().
};

}  // namespace quenor::cli

#endif  // CLI_STOP_SIGNALS_H_
