// Timers over any dispatch queue: a timer is at most one cancelable delayed task.
#include <algorithm>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

#include "quenor_base/platform/base/fork.h"
#include "quenor_base/platform/base/timer.h"
#include "quenor_base/platform/dispatch_queue.h"

QUENOR_NAMESPACE_BEGIN
namespace base::internal {

namespace {

constexpr TimeDelta kNotRunning = TimeDelta::FromMilliseconds(-1);

}  // namespace

// The part that a posted deadline shares with the timer: a deadline that fires finds here whether
// it is still the current one.
struct TimerBase::State {
  struct Shared {
    // The timer's queue is a thread that does not exist there, and may hold the mutex.
    bool IsInForkedChild() const { return fork_generation != ForkGeneration(); }

    const uint32_t fork_generation = ForkGeneration();
    std::mutex mutex;
    std::condition_variable idle;
    std::shared_ptr<const RepeatingClosure> task;  // Shared with the run in progress.
    Location from;
    TimeDelta delay = kNotRunning;
    bool repeating = false;
    bool running = false;
    uint64_t generation = 0;             // Changes with every start and stop.
    std::weak_ptr<DispatchQueue> queue;  // Of the current start.
    uint64_t deadline_id = 0;            // On that queue; 0 for none.
    bool executing = false;
    std::thread::id executing_thread;
  };

  // The mutex is held. Posts the next deadline; false when the queue is gone.
  static bool Schedule(const std::shared_ptr<Shared>& shared) {
    const std::shared_ptr<DispatchQueue> queue = shared->queue.lock();
    if (queue == nullptr) return false;
    shared->deadline_id = queue->PostCancelableDelayedTask(
        shared->from, [shared, generation = shared->generation] { Fire(shared, generation); },
        shared->delay);
    return shared->deadline_id != 0;
  }

  // Ends the current start. The caller cancels what comes back, without the mutex.
  static std::pair<std::shared_ptr<DispatchQueue>, uint64_t> Halt(Shared* shared) {
    ++shared->generation;
    shared->running = false;
    return {shared->queue.lock(), std::exchange(shared->deadline_id, 0)};
  }

  static void StopTimer(Shared* shared, bool release_task) {
    if (shared->IsInForkedChild()) return;
    std::shared_ptr<const RepeatingClosure> released;  // Destroyed without the mutex.
    std::pair<std::shared_ptr<DispatchQueue>, uint64_t> deadline;
    {
      std::lock_guard<std::mutex> hold(shared->mutex);
      deadline = Halt(shared);
      if (release_task) released.swap(shared->task);
    }
    if (deadline.first != nullptr && deadline.second != 0) {
      deadline.first->CancelDelayedTask(deadline.second);
    }
  }

  static void Fire(const std::shared_ptr<Shared>& shared, uint64_t generation) {
    std::shared_ptr<const RepeatingClosure> task;
    {
      std::lock_guard<std::mutex> hold(shared->mutex);
      if (!shared->running || shared->generation != generation) return;
      shared->deadline_id = 0;
      task = shared->task;
      // The next period begins now, so that a late wake-up is made up for by nothing.
      shared->running = shared->repeating && Schedule(shared);
      shared->executing = true;
      shared->executing_thread = std::this_thread::get_id();
    }
    (*task)();
    std::lock_guard<std::mutex> hold(shared->mutex);
    shared->executing = false;
    shared->idle.notify_all();
  }

  std::shared_ptr<Shared> shared = std::make_shared<Shared>();
};

TimerBase::TimerBase(Kind kind) : state_(new State) {
  state_->shared->repeating = kind == Kind::kRepeating;
}

TimerBase::~TimerBase() {
  State::Shared* shared = state_->shared.get();
  State::StopTimer(shared, true);
  if (!shared->IsInForkedChild()) {
    std::unique_lock<std::mutex> hold(shared->mutex);
    if (shared->executing_thread != std::this_thread::get_id()) {
      shared->idle.wait(hold, [shared] { return !shared->executing; });
    }
  }
  delete state_;
}

bool TimerBase::IsRunning() const {
  if (state_->shared->IsInForkedChild()) return false;
  std::lock_guard<std::mutex> hold(state_->shared->mutex);
  return state_->shared->running;
}

void TimerBase::Stop() { State::StopTimer(state_->shared.get(), false); }

void TimerBase::AbandonAndStop() { State::StopTimer(state_->shared.get(), true); }

TimeDelta TimerBase::GetCurrentDelay() const {
  if (state_->shared->IsInForkedChild()) return kNotRunning;
  std::lock_guard<std::mutex> hold(state_->shared->mutex);
  return state_->shared->running ? state_->shared->delay : kNotRunning;
}

void TimerBase::StartTask(const Location& from, TimeDelta delay, RepeatingClosure task) {
  State::Shared* shared = state_->shared.get();
  if (shared->IsInForkedChild()) return;
  State::StopTimer(shared, true);
  std::lock_guard<std::mutex> hold(shared->mutex);
  shared->task = std::make_shared<const RepeatingClosure>(std::move(task));
  shared->from = from;
  shared->delay = std::max(delay, TimeDelta());
  shared->queue = DispatchQueue::Current();
  shared->running = State::Schedule(state_->shared);
}

const char* TimerBase::ImplementationName() { return "dispatch queue"; }

}  // namespace base::internal
QUENOR_NAMESPACE_END
