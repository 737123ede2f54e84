// Options of a thread that the thread manager creates.
#ifndef QUENOR_BASE_PLATFORM_BASE_THREAD_H_
#define QUENOR_BASE_PLATFORM_BASE_THREAD_H_

#include <cstddef>

namespace quenor::base {

class Thread {
 public:
  struct Options {
    // Bytes of stack; 0 takes the platform's default. Values below the platform's minimum are
    // raised to it.
    size_t stack_size = 0;
  };
};

}  // namespace quenor::base

#endif  // QUENOR_BASE_PLATFORM_BASE_THREAD_H_
