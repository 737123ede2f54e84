// MemoryFaults: fails the n-th malloc of the calling thread, and counts its allocations.
// Reaches the malloc calls of our own libraries (the linker redirects them by --wrap, under the
// sanitizers too) and every operator new of the process; not the malloc calls inside shared
// objects. Threads: counts and failures are the calling thread's own.
#ifndef QUENOR_TESTS_SUPPORT_MEMORY_FAULTS_H_
#define QUENOR_TESTS_SUPPORT_MEMORY_FAULTS_H_

#include <cstddef>

namespace quenor::test {

class MemoryFaults {
 public:
  // From now on the `nth` malloc of this thread (1 is the next one) answers null; 0 for none.
  // operator new is not failed.
  static void FailMalloc(size_t nth);
  // From now on the `nth` operator new of this thread throws std::bad_alloc; 0 for none.
  static void FailNew(size_t nth);
  // True when the failure that was asked for has happened.
  static bool HasFailed();

  // Counts this thread's mallocs and operator new calls for as long as it lives.
  class Counter {
   public:
    Counter();
    size_t count() const;

   private:
    const size_t before_;
  };
};

}  // namespace quenor::test

#endif  // QUENOR_TESTS_SUPPORT_MEMORY_FAULTS_H_
