// Timers that run their task on the dispatch queue whose thread started them.
// Threads: Start() on a queue's thread; everything else on any thread, unless noted.
// Life cycle: a timer never runs after AbandonAndStop() on its queue's thread, or destruction on
// any, has returned; it holds no strong reference to its queue, and leaves no deadline behind when
// it stops. A repeating timer that wakes late runs once, not once for each missed period. A timer
// that still runs when the last std::shared_ptr to its receiver goes ends the process. See
// docs/design/timers.md.
#ifndef QUENOR_BASE_PLATFORM_BASE_TIMER_H_
#define QUENOR_BASE_PLATFORM_BASE_TIMER_H_

#include <memory>
#include <utility>

#include "quenor_base/platform/base/callback.h"
#include "quenor_base/platform/base/check.h"
#include "quenor_base/platform/base/location.h"
#include "quenor_base/platform/base/time.h"

QUENOR_NAMESPACE_BEGIN
namespace base {

namespace internal {

class TimerBase {
 public:
  TimerBase(const TimerBase&) = delete;
  TimerBase& operator=(const TimerBase&) = delete;

  // Any thread. True from Start() until Stop(), AbandonAndStop() or, for a one-shot timer, until
  // its task is about to run.
  bool IsRunning() const;

  // Any thread. Cancels the pending deadline and keeps the task's binding until the next Start().
  // A task in progress on another thread may still finish.
  void Stop();

  // Any thread. As Stop(), and releases the task as well.
  void AbandonAndStop();

  // Any thread. The running timer's delay; for a timer that is stopped or was never started, minus
  // one millisecond, which equals no unsigned interval.
  TimeDelta GetCurrentDelay() const;

  // Any thread. Names the implementation that is linked.
  static const char* ImplementationName();

 protected:
  enum class Kind { kOneShot, kRepeating };

  explicit TimerBase(Kind kind);
  // Any thread. Cancels, and waits for a task in progress on another thread; inside its own task it
  // does not wait.
  ~TimerBase();

  // Queue thread. (Re)starts the timer; a delay below zero counts as zero. On a thread that runs no
  // dispatch queue, or one that is shutting down, the timer stays stopped.
  void StartTask(const Location& from, TimeDelta delay, RepeatingClosure task);

 private:
  struct State;
  State* state_;  // Owned; shared with the posted deadline.
};

// What a timer knows of a receiver that std::shared_ptrs own and that can tell so by
// weak_from_this(); nothing of any other. It holds no reference but while the task runs, so that
// the receiver is not destroyed under it on another thread.
class ReceiverWatch {
 public:
  ReceiverWatch() = default;
  template <typename Receiver>
  explicit ReceiverWatch(Receiver* receiver)
      : weak_(OwnersOf(receiver, 0)), watches_(!weak_.expired()) {}

  // Ends the process, with a line that says what to do, when the last owner has gone.
  std::shared_ptr<const void> Hold() const {
    std::shared_ptr<const void> held = weak_.lock();
    QUENOR_CHECK(!watches_ || held != nullptr,
                 "the last reference to an object was dropped while a timer of it runs; stop its "
                 "timers first: call Terminate() on a report channel, then drop it");
    return held;
  }

 private:
  template <typename Receiver>
  static auto OwnersOf(Receiver* receiver, int) -> decltype(receiver->weak_from_this()) {
    return receiver->weak_from_this();
  }
  template <typename Receiver>
  static std::weak_ptr<const void> OwnersOf(Receiver*, ...) {
    return {};
  }

  std::weak_ptr<const void> weak_;
  bool watches_ = false;
};

// The two timers, which differ in their kind alone.
class ReceiverTimer : public TimerBase {
 public:
  // Queue thread. Borrows `receiver` until the timer is stopped or destroyed.
  template <typename Receiver>
  void Start(const Location& from, TimeDelta delay, Receiver* receiver,
             void (Receiver::*method)()) {
    watch_ = ReceiverWatch(receiver);
    StartTask(from, delay, [receiver, method, watch = watch_] {
      const std::shared_ptr<const void> held = watch.Hold();
      (receiver->*method)();
    });
  }

 protected:
  using TimerBase::TimerBase;
  ~ReceiverTimer() {
    if (IsRunning()) watch_.Hold();
  }

 private:
  ReceiverWatch watch_;
};

}  // namespace internal

// Runs its task once, `delay` after Start(). Starting it again restarts the delay.
class OneShotTimer : public internal::ReceiverTimer {
 public:
  OneShotTimer() : ReceiverTimer(Kind::kOneShot) {}
};

// Runs its task every `delay` until it is stopped.
class RepeatingTimer : public internal::ReceiverTimer {
 public:
  RepeatingTimer() : ReceiverTimer(Kind::kRepeating) {}
};

}  // namespace base
QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_PLATFORM_BASE_TIMER_H_
