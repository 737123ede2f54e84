// QUENOR_CHECK: ends the process when an invariant of our own is broken, in every build type.
// Never used on anything that the network, the disk or the host application supplies.
#ifndef QUENOR_BASE_PLATFORM_BASE_CHECK_H_
#define QUENOR_BASE_PLATFORM_BASE_CHECK_H_

#include <cstdio>
#include <cstdlib>

#include "quenor_base/platform/base/abi.h"

QUENOR_NAMESPACE_BEGIN
namespace base::internal {

// Any thread. Writes one line to standard error and aborts. stderr, not the log: the host's sink
// may be what broke.
[[noreturn]] inline void CheckFailed(const char* what, const char* file, int line) {
  std::fprintf(stderr, "quenor: fatal: %s (%s:%d)\n", what, file, line);
  std::fflush(stderr);
  std::abort();
}

}  // namespace base::internal
QUENOR_NAMESPACE_END

#define QUENOR_CHECK(condition, what) \
  ((condition) ? (void)0 : ::quenor::base::internal::CheckFailed(what, __FILE__, __LINE__))

#endif  // QUENOR_BASE_PLATFORM_BASE_CHECK_H_
