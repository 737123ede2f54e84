// A dispatch queue's tasks and deadlines, and the loop that runs them: a list of tasks under a
// short lock, which the thread swaps out whole, and an ordered map of deadlines under a mutex. An
// idle queue waits without a time-out. Internal to the dispatch queue. Page:
// docs/design/dispatch-queue.md.
#ifndef SERVICES_DISPATCH_QUEUE_PTHREAD_QUEUE_CORE_H_
#define SERVICES_DISPATCH_QUEUE_PTHREAD_QUEUE_CORE_H_

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

#include "quenor_base/platform/base/fork.h"
#include "quenor_base/platform/base/monotonic_time.h"
#include "quenor_base/platform/base/thread_create_flag.h"
#include "quenor_base/platform/base/time.h"
#include "quenor_base/platform/gathered_wake_ups.h"
#include "services/dispatch_queue_pthread/short_lock.h"
#include "services/dispatch_queue_pthread/task_list.h"

QUENOR_NAMESPACE_BEGIN
namespace dispatch_queue {

// Any thread. When a delay that begins now ends.
base::MonotonicTime DeadlineAfter(base::TimeDelta delay);

// What a queue's thread runs on; lives as long as the thread and the queue object, so that either
// may go first. In a forked child, where the thread is not: everything is dropped, no lock is
// taken.
class QueueCore {
 public:
  // Any thread. One of the holders is done with it; the last one deletes it.
  void Drop() {
    // acq_rel: release publishes this holder's writes, acquire lets the last one see them all.
    if (holders_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }

  // Any thread, this and the next three.
  void Post(Task&& task) {
    if (IsInForkedChild()) return;
    std::unique_lock<ShortLock> hold(lock_);
    if (!tasks_.HasRoom()) return MakeRoomAndPost(std::move(task), &hold);
    Add(std::move(task), &hold);
  }

  // Answers an id for Cancel(), above 0; 0 in a forked child.
  uint64_t PostDelayed(Task task, base::TimeDelta delay);
  // False when the task has run, runs, or never was.
  bool Cancel(uint64_t id);
  // Counts the queue as draining, once.
  [[gnu::cold]] void Retire();

  // The last reference to the queue has gone. Nothing is run or destroyed here.
  [[gnu::cold]] void Close();

  // The thread's whole life. False when a task has forked and come back in the child: nothing that
  // the parent has posted runs or is destroyed there.
  [[gnu::hot, gnu::noinline]] bool Run();

 private:
  // More of a host's threads' posts at a time are a burst.
  static constexpr uint8_t kFewTasks = 4;

  // In whose scope this is.
  class Sleeper final : public base::GatheredWakeUps::Sleeper {
   public:
    explicit Sleeper(QueueCore* core) : core_(core) {}
    void WakeUp() override { core_->WakeGathered(); }

   private:
    QueueCore* const core_;
  };

  bool IsInForkedChild() const { return generation_ != base::ForkGeneration(); }

  // Runs and destroys the tasks; false as soon as this is a forked child.
  bool RunAll(TaskList* batch);

  // Allocates and frees without the lock.
  [[gnu::cold, gnu::noinline]] void MakeRoomAndPost(Task&& task, std::unique_lock<ShortLock>* hold);

  void Add(Task&& task, std::unique_lock<ShortLock>* hold) {
    tasks_.Add(std::move(task));
    if (single_posts_ <= kFewTasks && !base::ThreadCreateFlag::IsThreadCreateByQuenor()) {
      ++single_posts_;
    }
    if (waiting_ && base::GatheredWakeUps::Open() != nullptr) return WakeLater(hold);
    WakeAndUnlock(hold);
  }

  // At the end of the calling thread's scope.
  [[gnu::noinline]] void WakeLater(std::unique_lock<ShortLock>* hold);
  void WakeGathered();

  void WakeAndUnlock(std::unique_lock<ShortLock>* hold) {
    const bool wake = waiting_;
    waiting_ = false;  // One wake-up per sleep.
    hold->unlock();
    if (wake) Wake();
  }

  [[gnu::noinline]] void Wake();

  // The first deadline has changed: the thread may not go to sleep on what it has read.
  void LookAgain();

  // Waits until something is to be run and moves it into `batch`, in order; false when the queue is
  // closed and everything that was posted has run.
  bool WaitForTasks(TaskList* batch);

  // Moves what is to be run now into `batch`, which is empty; answers the next deadline.
  base::MonotonicTime Take(TaskList* batch);

  // Until somebody has woken the thread, or until `due`.
  void Sleep(base::MonotonicTime due);

  // A pause in a burst, in which nobody has to wake the thread and the thread is in nobody's way.
  void Nap();

  [[gnu::cold]] void DestroyDelayed();

  // What every post touches, on a cache line of its own.
  alignas(64) const uint32_t generation_ = base::ForkGeneration();
  ShortLock lock_;
  bool waiting_ = false;      // The thread sleeps, or is about to, and nobody has woken it yet.
  uint8_t single_posts_ = 0;  // By threads that are not the SDK's; counted no further than needed.
  TaskList tasks_;

  // Guarded by lock_, too.
  alignas(64) bool look_again_ = false;
  bool closed_ = false;
  base::GatheredWakeUps* gathered_by_ = nullptr;  // Who is to wake the thread, unless another does.

  // Guarded by delayed_mutex_, under which lock_ may be taken. Ordered by deadline, equal ones by
  // age.
  std::mutex delayed_mutex_;
  using Delayed = std::map<std::pair<base::MonotonicTime, uint64_t>, Task>;
  using DueById = std::map<uint64_t, base::MonotonicTime>;
  Delayed delayed_;
  DueById due_by_id_;
  Delayed::node_type spare_delayed_;  // One kept of the last that went, for a timer that is started
  DueById::node_type spare_due_;      // and stopped with every message.
  uint64_t last_delayed_id_ = 0;

  std::mutex sleep_mutex_;  // Guards woken_; nothing is taken under it.
  std::condition_variable awake_;
  bool woken_ = false;

  uint8_t single_posts_taken_ = 0;  // The thread's own, and the next.
  bool in_burst_ = false;
  bool is_draining_ = false;     // Counted as such; guarded by the registry.
  std::atomic<int> holders_{2};  // The thread, the queue object and a scope that is to wake it.
  Sleeper sleeper_{this};
};

}  // namespace dispatch_queue
QUENOR_NAMESPACE_END

#endif  // SERVICES_DISPATCH_QUEUE_PTHREAD_QUEUE_CORE_H_
