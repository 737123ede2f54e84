// Timers on the clock: each is one event, in its timer, without a task in between.
#include <algorithm>
#include <utility>

#include "fleet/engine/clock.h"
#include "quenor_base/platform/base/timer.h"
#include "quenor_base/platform/dispatch_queue.h"

QUENOR_NAMESPACE_BEGIN
namespace base::internal {

namespace {

constexpr TimeDelta kNotRunning = TimeDelta::FromMilliseconds(-1);

// Makes a queue the current one; DispatchQueue lets only implementations do that.
class AsCurrent : public DispatchQueue {
 public:
  using Scope = ScopedCurrent;
};

}  // namespace

struct TimerBase::State final : fleet::Event {
  explicit State(bool repeating_in) : repeating(repeating_in) {}
  ~State() {
    Stop();
    if (gone != nullptr) *gone = true;
  }

  void Stop() { fleet::Clock::Current().Cancel(this); }
  void Abandon() {
    Stop();
    task = nullptr;
    ++generation;
  }

  void OnDue() override {
    if (queue.expired()) return;
    // The next period begins before the task, which may stop, start or destroy the timer.
    if (repeating) fleet::Clock::Current().Post(this, delay.InMicroseconds());
    RepeatingClosure running = std::move(task);
    const uint32_t begun = generation;
    bool is_gone = false;
    gone = &is_gone;
    {
      const AsCurrent::Scope current(queue);
      running();
    }
    if (is_gone) return;
    gone = nullptr;
    if (generation == begun) task = std::move(running);
  }

  RepeatingClosure task;  // Empty while it runs.
  TimeDelta delay;
  std::weak_ptr<DispatchQueue> queue;
  bool* gone = nullptr;     // While the task runs: set when the timer is destroyed in there.
  uint32_t generation = 0;  // Changes when the task is released or replaced.
  const bool repeating;
};

TimerBase::TimerBase(Kind kind) : state_(new State(kind == Kind::kRepeating)) {}

TimerBase::~TimerBase() { delete state_; }

bool TimerBase::IsRunning() const { return state_->waits(); }

void TimerBase::Stop() { state_->Stop(); }

void TimerBase::AbandonAndStop() { state_->Abandon(); }

TimeDelta TimerBase::GetCurrentDelay() const {
  return state_->waits() ? state_->delay : kNotRunning;
}

void TimerBase::StartTask(const Location&, TimeDelta delay, RepeatingClosure task) {
  state_->Abandon();
  state_->task = std::move(task);
  state_->delay = std::max(delay, TimeDelta());
  state_->queue = DispatchQueue::Current();
  if (!state_->queue.expired()) {
    fleet::Clock::Current().Post(state_, state_->delay.InMicroseconds());
  }
}

const char* TimerBase::ImplementationName() { return "wheel"; }

}  // namespace base::internal
QUENOR_NAMESPACE_END
