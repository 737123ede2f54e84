// Creates dispatch queues and knows when dropped ones have finished. Process-wide.
#ifndef QUENOR_BASE_PLATFORM_THREAD_MANAGER_H_
#define QUENOR_BASE_PLATFORM_THREAD_MANAGER_H_

#include <cstdint>
#include <memory>
#include <string>

#include "quenor_base/platform/base/optional.h"
#include "quenor_base/platform/base/thread.h"
#include "quenor_base/platform/base/time.h"
#include "quenor_base/platform/dispatch_queue.h"

QUENOR_NAMESPACE_BEGIN
namespace core {

// Who a queue works for. Written into traces; it changes nothing.
enum class BusinessID : int32_t {
  kReliableReport = 709,
};

class ThreadManager {
 public:
  // Any thread. A queue with a new thread, named after `name` as far as the system allows (15 bytes
  // on Linux), on which ThreadCreateFlag::IsThreadCreateByQuenor() is true and every signal is
  // blocked. Null when the thread cannot be created.
  static std::shared_ptr<DispatchQueue> CreateNewDispatchQueue(
      BusinessID business, const std::string& name,
      const base::Optional<base::Thread::Options>& options);

  // Any thread but a queue's own. Waits until every queue that was retired, or whose last reference
  // has gone, has run what was posted to it and its thread has ended; false when `timeout` passes
  // first. Call it
  // after Terminate(): before the process exits, so that the last tasks run, and before the same
  // channel is initialised again. On a thread of the SDK's own it answers false at once.
  [[nodiscard]] static bool WaitForDrain(base::TimeDelta timeout);

  // Any thread. Names the implementation that is linked.
  static const char* ImplementationName();
};

}  // namespace core
QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_PLATFORM_THREAD_MANAGER_H_
