// Options of a thread that the thread manager creates.
#ifndef QUENOR_BASE_PLATFORM_BASE_THREAD_H_
#define QUENOR_BASE_PLATFORM_BASE_THREAD_H_

#include <cstddef>

#include "quenor_base/platform/base/abi.h"

QUENOR_NAMESPACE_BEGIN
namespace base {

class Thread {
 public:
  struct Options {
    // Bytes of stack; 0 takes the platform's default. Values below the platform's minimum are
    // raised to it.
    size_t stack_size = 0;
  };
};

}  // namespace base
QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_PLATFORM_BASE_THREAD_H_
