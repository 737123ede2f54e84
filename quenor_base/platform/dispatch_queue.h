// A task queue with one thread of its own.
// Threads: every method on any thread, save where noted.
// Life cycle: queues come from core::ThreadManager. When the last reference goes, on whatever
// thread, the queue's own included, the destructor returns at once: it neither joins nor runs nor
// destroys a task. Tasks already posted still run, in order, on the queue's thread; delayed tasks
// not yet due are destroyed there unrun, outside the queue's lock; then the thread ends.
// See docs/design/dispatch-queue.md.
#ifndef QUENOR_BASE_PLATFORM_DISPATCH_QUEUE_H_
#define QUENOR_BASE_PLATFORM_DISPATCH_QUEUE_H_

#include <cstdint>
#include <memory>
#include <utility>

#include "quenor_base/platform/base/callback.h"
#include "quenor_base/platform/base/location.h"
#include "quenor_base/platform/base/time.h"

QUENOR_NAMESPACE_BEGIN

class DispatchQueue {
 public:
  virtual ~DispatchQueue() = default;
  DispatchQueue(const DispatchQueue&) = delete;
  DispatchQueue& operator=(const DispatchQueue&) = delete;

  // Any thread. Takes the task and runs it on the queue's thread. A task posted after another's
  // post has returned, on whatever thread, runs after it. The task is destroyed right after it ran.
  // A deadline that has passed waits for the tasks posted so far, and for no others. Whoever posts
  // holds the queue until the call has returned. What a task throws ends the process, after a line
  // that says so; and so does the lack of memory for one.
  virtual void PostTask(const base::Location& from, base::OnceCallback<void()> task) = 0;

  // Any thread. As PostTask(), not before `delay` has passed (a delay below zero counts as zero).
  // Equal deadlines run first in, first out. A deadline so far off that it cannot be represented is
  // never reached.
  virtual void PostDelayedTask(const base::Location& from, base::OnceCallback<void()> task,
                               base::TimeDelta delay) = 0;

  // Any thread. As PostDelayedTask(); answers an id, above 0 and never used twice by this queue,
  // for CancelDelayedTask().
  virtual uint64_t PostCancelableDelayedTask(const base::Location& from,
                                             base::OnceCallback<void()> task,
                                             base::TimeDelta delay) = 0;

  // Any thread. Removes a delayed task that still waits for its deadline, and the deadline with it;
  // true when there was one. One that is due already may still run. The task is destroyed unrun on
  // the calling thread, outside the queue's lock.
  virtual bool CancelDelayedTask(uint64_t id) = 0;

  // Any thread. Its owner is about to drop the queue: from here on core::ThreadManager's
  // WaitForDrain() waits for its end, even while another thread still holds it for a moment. Posts
  // go on as before. An implementation that counts nothing has nothing to do.
  virtual void Retire() {}

  // Any thread. The queue whose task the calling thread is running; empty elsewhere, and once the
  // last reference to that queue has gone.
  static std::shared_ptr<DispatchQueue> Current() { return current_.lock(); }

 protected:
  DispatchQueue() = default;

  // For implementations: makes `queue` the calling thread's current one until the scope ends.
  class ScopedCurrent {
   public:
    explicit ScopedCurrent(std::weak_ptr<DispatchQueue> queue) : previous_(std::move(current_)) {
      current_ = std::move(queue);
    }
    ~ScopedCurrent() { current_ = std::move(previous_); }
    ScopedCurrent(const ScopedCurrent&) = delete;
    ScopedCurrent& operator=(const ScopedCurrent&) = delete;

   private:
    std::weak_ptr<DispatchQueue> previous_;
  };

 private:
  inline static thread_local std::weak_ptr<DispatchQueue> current_;
};

QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_PLATFORM_DISPATCH_QUEUE_H_
