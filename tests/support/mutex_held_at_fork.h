// A mutex of a fake that a forked child finds free, as it finds the services' own. Threads: any.
#ifndef QUENOR_TESTS_SUPPORT_MUTEX_HELD_AT_FORK_H_
#define QUENOR_TESTS_SUPPORT_MUTEX_HELD_AT_FORK_H_

#include <mutex>

#include "quenor_base/platform/base/fork.h"

namespace quenor::test {

class MutexHeldAtFork : public std::mutex {
 private:
  const base::HeldAtFork held_{this, [](void* it) { static_cast<MutexHeldAtFork*>(it)->lock(); },
                               [](void* it) { static_cast<MutexHeldAtFork*>(it)->unlock(); }};
};

}  // namespace quenor::test

#endif  // QUENOR_TESTS_SUPPORT_MUTEX_HELD_AT_FORK_H_
