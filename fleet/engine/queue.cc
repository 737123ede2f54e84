// Dispatch queues on the clock: a posted task is an event that is due at once. All of them run on
// the one thread that runs the clock, each with its queue as the current one.
#include <memory>
#include <unordered_map>
#include <utility>

#include "fleet/engine/clock.h"
#include "quenor_base/platform/base/thread_create_flag.h"
#include "quenor_base/platform/dispatch_queue.h"
#include "quenor_base/platform/thread_manager.h"

QUENOR_NAMESPACE_BEGIN
namespace {

using Waiting = std::unordered_map<uint64_t, fleet::Event*>;

class Queue : public DispatchQueue, public std::enable_shared_from_this<Queue> {
 public:
  void PostTask(const base::Location&, base::OnceClosure task) override {
    Post(std::move(task), 0, 0);
  }
  void PostDelayedTask(const base::Location&, base::OnceClosure task,
                       base::TimeDelta delay) override {
    Post(std::move(task), delay.InMicroseconds(), ++last_id_);
  }
  uint64_t PostCancelableDelayedTask(const base::Location&, base::OnceClosure task,
                                     base::TimeDelta delay) override {
    const uint64_t id = ++last_id_;
    if (waiting_ == nullptr) waiting_ = std::make_unique<Waiting>();
    (*waiting_)[id] = Post(std::move(task), delay.InMicroseconds(), id);
    return id;
  }
  bool CancelDelayedTask(uint64_t id) override {
    if (waiting_ == nullptr) return false;
    const auto found = waiting_->find(id);
    if (found == waiting_->end()) return false;
    fleet::Clock::Current().Cancel(found->second);
    found->second->OnNever();
    waiting_->erase(found);
    return true;
  }

 private:
  // Destroys itself once it has run. A delayed one of a queue that has gone is destroyed unrun.
  class Task final : public fleet::Event {
   public:
    Task(std::weak_ptr<Queue> queue, base::OnceClosure task, uint64_t delayed_id)
        : queue_(std::move(queue)), task_(std::move(task)), delayed_id_(delayed_id) {}

    void OnDue() override {
      const std::unique_ptr<Task> self(this);
      if (delayed_id_ != 0) {
        const std::shared_ptr<Queue> queue = queue_.lock();
        if (queue == nullptr) return;
        if (queue->waiting_ != nullptr) queue->waiting_->erase(delayed_id_);
      }
      const ScopedCurrent current(std::move(queue_));
      std::move(task_).Run();
    }
    void OnNever() override { delete this; }

   private:
    std::weak_ptr<Queue> queue_;
    base::OnceClosure task_;
    const uint64_t delayed_id_;  // 0 for a task that was not delayed.
  };

  fleet::Event* Post(base::OnceClosure task, int64_t delay_us, uint64_t delayed_id) {
    auto* const event = new Task(weak_from_this(), std::move(task), delayed_id);
    fleet::Clock::Current().Post(event, delay_us);
    return event;
  }

  uint64_t last_id_ = 0;
  // That can be cancelled. Null as long as there was none: a fleet's timers are no tasks.
  std::unique_ptr<Waiting> waiting_;
};

}  // namespace

namespace core {

std::shared_ptr<DispatchQueue> ThreadManager::CreateNewDispatchQueue(
    BusinessID, const std::string&, const base::Optional<base::Thread::Options>&) {
  base::ThreadCreateFlag::SetThreadCreateByQuenor(true);  // The one thread is all of theirs.
  return std::make_shared<Queue>();
}

bool ThreadManager::WaitForDrain(base::TimeDelta) {
  fleet::Clock::Current().RunFor(0);
  return true;
}

const char* ThreadManager::ImplementationName() { return "wheel"; }

}  // namespace core
QUENOR_NAMESPACE_END
