// The threads of the process's dispatch queues: those that drain, and those that have ended and
// wait to be joined. Lives for the process: a queue's thread may outlast every static object. A
// forked child, where none of the threads is, has one of its own. Threads: any.
#ifndef SERVICES_DISPATCH_QUEUE_PTHREAD_THREAD_REGISTRY_H_
#define SERVICES_DISPATCH_QUEUE_PTHREAD_THREAD_REGISTRY_H_

#include <pthread.h>

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <vector>

#include "quenor_base/platform/base/abi.h"
#include "quenor_base/platform/base/monotonic_time.h"

QUENOR_NAMESPACE_BEGIN
namespace dispatch_queue {

class ThreadRegistry {
 public:
  [[gnu::cold]] static ThreadRegistry& Get();
  explicit ThreadRegistry(ThreadRegistry* /*parents*/) {}

  // A queue is retired or dropped whose thread has not ended. Counts it once: `*is_counted`, which
  // is guarded by this object, says whether that was done.
  [[gnu::cold]] void AddDraining(bool* is_counted);
  // Such a queue has no thread after all, or its thread, the calling one, is at its very end: then
  // somebody joins it.
  [[gnu::cold]] void EndDraining();
  [[gnu::cold]] void EndDrainingThread();
  // Joins every thread that is at its end. False when one has not come to it by then: it is joined
  // another time.
  [[gnu::cold]] bool JoinEnded(base::MonotonicTime deadline);
  // Waits until no queue drains, and joins their threads. False when that has not come by then.
  [[gnu::cold]] bool WaitUntilDrained(base::MonotonicTime deadline);

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  size_t draining_ = 0;
  size_t joining_ = 0;            // Threads taken out of `ended_` and not yet joined.
  std::vector<pthread_t> ended_;  // Threads at their very end, to be joined.
};

}  // namespace dispatch_queue
QUENOR_NAMESPACE_END

#endif  // SERVICES_DISPATCH_QUEUE_PTHREAD_THREAD_REGISTRY_H_
