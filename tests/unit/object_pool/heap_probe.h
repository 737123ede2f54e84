// What the calling thread does with the heap. heap_probe.cc replaces the global operators new and
// delete of this test executable.
#ifndef QUENOR_TESTS_UNIT_OBJECT_POOL_HEAP_PROBE_H_
#define QUENOR_TESTS_UNIT_OBJECT_POOL_HEAP_PROBE_H_

#include <cstddef>
#include <cstdint>

#include "quenor_base/platform/base/abi.h"

QUENOR_NAMESPACE_BEGIN

// Counts of the calling thread since it started.
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

class HeapProbe {
 public:
  // What every new array is full of, so that clearing one would show.
  static constexpr uint8_t kFill = 0xC3;

  static HeapCounts Counts();

  // From the n-th nothrow new[] of this thread on (1: the next), `times` of them answer null.
  static void FailNothrowArrayNews(uint64_t n, uint64_t times);
};

QUENOR_NAMESPACE_END

#endif  // QUENOR_TESTS_UNIT_OBJECT_POOL_HEAP_PROBE_H_
