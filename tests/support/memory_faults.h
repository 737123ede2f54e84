// MemoryFaults: fails the n-th allocation of the calling thread, and counts its allocations.
// Reaches the malloc calls of our own libraries (the linker redirects them by --wrap, under the
// sanitizers too) and every operator new of the process; not the malloc calls inside shared
// objects. Threads: counts and failures are the calling thread's own.
#ifndef QUENOR_TESTS_SUPPORT_MEMORY_FAULTS_H_
#define QUENOR_TESTS_SUPPORT_MEMORY_FAULTS_H_

#include <cstddef>
#include <cstdint>

namespace quenor::test {

// What a thread has had of operators new and delete since it started.
struct HeapCounts {
  uint64_t object_news = 0;
  uint64_t array_news = 0;          // throwing new[]
  uint64_t nothrow_array_news = 0;  // also those that were made to fail
  uint64_t object_deletes = 0;      // of null too
  uint64_t array_deletes = 0;       // of null too
  size_t last_array_bytes = 0;      // asked of the latest new[] of either form

  uint64_t News() const { return object_news + array_news + nothrow_array_news; }
  uint64_t Deletes() const { return object_deletes + array_deletes; }
};

class MemoryFaults {
 public:
  // What every new array is full of, so that clearing one would show.
  static constexpr uint8_t kFill = 0xC3;

  // From now on the `nth` malloc of this thread (1 is the next one) answers null; 0 for none.
  // operator new is not failed.
  static void FailMalloc(size_t nth);
  // From now on the `nth` operator new of this thread that may throws std::bad_alloc; 0 for none.
  static void FailNew(size_t nth);
  // From the `nth` nothrow new[] of this thread on, `times` of them answer null.
  static void FailNothrowArrayNews(size_t nth, size_t times);
  // True when the malloc or throwing new that was to fail has.
  static bool HasFailed();

  static HeapCounts Counts();

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
