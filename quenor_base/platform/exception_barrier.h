// Where an exception ends: at each door of the library behind which memory may run out, and around
// each call of the host's code. The library is compiled without exceptions, so nothing would take
// its locks back while one passes through it.
// Threads: any. docs/guide/embedding.md says which calls of a host are meant.
#ifndef QUENOR_BASE_PLATFORM_EXCEPTION_BARRIER_H_
#define QUENOR_BASE_PLATFORM_EXCEPTION_BARRIER_H_

#include <type_traits>

#include "quenor_base/platform/base/abi.h"

QUENOR_NAMESPACE_BEGIN
namespace base {

namespace internal {
void CallBehindBarrier(const char* whose, void (*call)(void*), void* context);
}  // namespace internal

// Calls `act`. What it throws ends the process, after a line on standard error that says `whose`
// exception it was ("the host's log sink") and what it was. So does a thread that is ended in it.
template <typename Act>
void EndOnException(const char* whose, Act&& act) {
  internal::CallBehindBarrier(
      whose, [](void* context) { (*static_cast<std::remove_reference_t<Act>*>(context))(); },
      const_cast<void*>(static_cast<const void*>(&act)));
}

}  // namespace base
QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_PLATFORM_EXCEPTION_BARRIER_H_
