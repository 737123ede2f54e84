// A spin lock for a few instructions, of which a post takes one. Internal to the dispatch queue.
#ifndef SERVICES_DISPATCH_QUEUE_PTHREAD_SHORT_LOCK_H_
#define SERVICES_DISPATCH_QUEUE_PTHREAD_SHORT_LOCK_H_

#include <sched.h>
#include <time.h>

#include <atomic>

#include "quenor_base/platform/base/lock.h"

QUENOR_NAMESPACE_BEGIN
namespace dispatch_queue {

// Held for a few instructions at a time, none of which allocates, waits or runs foreign code.
// Taking it is one atomic operation and giving it back a plain store, which is what it has over a
// mutex. Not recursive. Fits std::lock_guard and std::unique_lock.
class ShortLock {
 public:
  ShortLock() = default;
  ShortLock(const ShortLock&) = delete;
  ShortLock& operator=(const ShortLock&) = delete;

  // Any thread. Waits on its feet.
  void lock() {
    if (!try_lock()) LockContended();
  }
  // Any thread. True when the lock was free and is now held by the caller.
  bool try_lock() {
    // acquire: sees what was done under the lock before.
    return !locked_.exchange(true, std::memory_order_acquire);
  }
  // The holding thread only.
  void unlock() {
    // release: the next holder sees what was done.
    locked_.store(false, std::memory_order_release);
  }

 private:
  // A holder that keeps the lock for longer has lost its processor. It gets ours and, as it may be
  // of a lower priority, which a yield does not help, in the end all of our time.
  [[gnu::noinline]] void LockContended() {
    constexpr int kLooks = 12;
    constexpr int kYields = 20;
    for (int i = 0;; ++i) {
      if (i < kLooks) {
        base::StandBack();
      } else if (i < kLooks + kYields) {
        sched_yield();
      } else {
        const timespec rest{0, 50000};
        nanosleep(&rest, nullptr);
      }
      // relaxed: only looks, so that the waiting do not take the holder's cache line away.
      if (!locked_.load(std::memory_order_relaxed) && try_lock()) return;
    }
  }

  std::atomic<bool> locked_{false};
};

}  // namespace dispatch_queue
QUENOR_NAMESPACE_END

#endif  // SERVICES_DISPATCH_QUEUE_PTHREAD_SHORT_LOCK_H_
