// VirtualTime: a clock that moves only when the test says so, and every dispatch queue of the
// process. Tasks wait in one map keyed (due time, sequence number) and run on the thread that calls
// AdvanceBy(), so a day of timers takes microseconds and always runs in the same order.
// Threads: posting and dropping queues on any thread; running on one thread at a time.
// Life cycle: one per test, made before the first queue. Linking quenor_fake_dispatch_queue makes
// core::ThreadManager hand out its queues; without a VirtualTime that lives, no queue is created.
#ifndef QUENOR_TESTS_SUPPORT_FAKES_VIRTUAL_TIME_H_
#define QUENOR_TESTS_SUPPORT_FAKES_VIRTUAL_TIME_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "quenor_base/platform/base/callback.h"
#include "quenor_base/platform/base/optional.h"
#include "quenor_base/platform/base/thread.h"
#include "quenor_base/platform/base/time.h"
#include "quenor_base/platform/dispatch_queue.h"
#include "quenor_base/platform/thread_manager.h"

namespace quenor::test {

class VirtualTime {
 public:
  // One call of CreateNewDispatchQueue().
  struct Creation {
    int32_t business_id;
    std::string name;
    bool has_options;
    size_t stack_size;  // 0 without options.
    bool succeeded;
  };

  VirtualTime();
  // Destroys what has not run, unrun.
  ~VirtualTime();
  VirtualTime(const VirtualTime&) = delete;
  VirtualTime& operator=(const VirtualTime&) = delete;

  // Any thread. The instance that lives; null when there is none.
  static VirtualTime* Current();

  // Any thread. Microseconds that have passed since this clock was made.
  int64_t NowUs() const;

  // Runs everything that falls due in the next `delta`, the clock standing at each task's own due
  // time while it runs, and leaves the clock `delta` later. Answers how many tasks ran. Not from
  // inside a task.
  size_t AdvanceBy(base::TimeDelta delta);
  // As AdvanceBy(), as if the machine had slept: the clock jumps first, then what is due runs.
  size_t WakeLateBy(base::TimeDelta delta);
  // Runs what is due now, and what that posts. Answers how many tasks ran.
  size_t RunUntilIdle();
  // Runs one task that is due now; false when there is none.
  bool RunNext();
  // Called after each task, on the thread that ran it, outside all locks; null for nothing.
  void SetAfterEachTask(std::function<void()> check);

  // Any thread. Runs `task` as a thread that belongs to no queue and that the SDK did not create,
  // as an HTTP client's callbacks run.
  void PostToNetwork(base::OnceClosure task, base::TimeDelta delay = base::TimeDelta());

  // Any thread. The next `count` creations answer null.
  void FailNextCreations(size_t count);
  // Any thread. Every creation so far.
  std::vector<Creation> Creations() const;

  // Any thread. Called in each creation, on its thread, before the queue exists; null for nothing.
  void SetOnCreate(std::function<void()> on_create);
  // Any thread. Where the last task that was posted to a queue came from.
  base::Location LastPostedFrom() const;

  // Any thread. Delayed tasks of living queues whose deadline lies ahead: what a stopped timer must
  // not leave behind.
  size_t PendingDeadlines() const;
  // Any thread. Tasks that are due and have not run.
  size_t DueTasks() const;
  // Any thread. Queues that somebody still holds, and retired or dropped ones whose thread has not
  // ended.
  size_t LiveQueues() const;
  size_t DrainingQueues() const;

  // What core::ThreadManager does while this library is linked.
  // Any thread. A new queue of the living clock; null when told to fail, and without a clock.
  static std::shared_ptr<DispatchQueue> CreateQueue(
      core::BusinessID business, const std::string& name,
      const base::Optional<base::Thread::Options>& options);
  // The running thread, not from inside a task. Runs what is due now; true when every retired or
  // dropped queue has ended. False at once on a queue's thread.
  bool Drain();

  struct Core;  // Shared with the queues, which may outlive this object.

 private:
  const std::shared_ptr<Core> core_;
};

}  // namespace quenor::test

#endif  // QUENOR_TESTS_SUPPORT_FAKES_VIRTUAL_TIME_H_
