#include "tests/support/memory_faults.h"

#include <cstdlib>
#include <cstring>
#include <new>

extern "C" {
void* __real_malloc(size_t size);
void* __wrap_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
void* __wrap_calloc(size_t count, size_t size);
}

namespace quenor::test {
namespace {

thread_local HeapCounts t_counts;
thread_local size_t t_mallocs = 0;
thread_local size_t t_fail_in = 0;  // 1: the next malloc fails; 0: none does.
thread_local size_t t_fail_new_in = 0;
thread_local bool t_has_failed = false;
thread_local size_t t_spared_arrays = 0;
thread_local size_t t_array_failures = 0;

size_t Allocations() { return t_mallocs + t_counts.News(); }

// True for the call that brings `countdown` to 0, and has failed.
bool MustFail(size_t* countdown) {
  if (*countdown == 0 || --*countdown > 0) return false;
  t_has_failed = true;
  return true;
}

bool MustFailArray() {
  if (t_array_failures == 0) return false;
  if (t_spared_arrays > 0) {
    --t_spared_arrays;
    return false;
  }
  --t_array_failures;
  return true;
}

// A zero-length allocation has an address of its own, as the standard's operators promise.
void* Allocate(size_t size) { return __real_malloc(size == 0 ? 1 : size); }

void* AllocateOrThrow(size_t size) {
  void* const memory = MustFail(&t_fail_new_in) ? nullptr : Allocate(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

// `array` (may be null), full of kFill.
void* Filled(void* array, size_t size) {
  t_counts.last_array_bytes = size;
  return array == nullptr ? nullptr : std::memset(array, MemoryFaults::kFill, size);
}

void DeleteObject(void* memory) {
  ++t_counts.object_deletes;
  std::free(memory);
}

void DeleteArray(void* memory) {
  ++t_counts.array_deletes;
  std::free(memory);
}

}  // namespace

void MemoryFaults::FailMalloc(size_t nth) {
  t_fail_in = nth;
  t_has_failed = false;
}

void MemoryFaults::FailNew(size_t nth) {
  t_fail_new_in = nth;
  t_has_failed = false;
}

void MemoryFaults::FailNothrowArrayNews(size_t nth, size_t times) {
  t_spared_arrays = nth - 1;
  t_array_failures = times;
}

bool MemoryFaults::HasFailed() { return t_has_failed; }

HeapCounts MemoryFaults::Counts() { return t_counts; }

MemoryFaults::Counter::Counter() : before_(Allocations()) {}

size_t MemoryFaults::Counter::count() const { return Allocations() - before_; }

}  // namespace quenor::test

using namespace quenor::test;

extern "C" void* __wrap_malloc(size_t size) {
  ++t_mallocs;
  return MustFail(&t_fail_in) ? nullptr : __real_malloc(size);
}

// An optimiser may turn a malloc and the clearing after it into a calloc.
extern "C" void* __wrap_calloc(size_t count, size_t size) {
  ++t_mallocs;
  return MustFail(&t_fail_in) ? nullptr : __real_calloc(count, size);
}

void* operator new(size_t size) {
  ++t_counts.object_news;
  return AllocateOrThrow(size);
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
  ++t_counts.object_news;
  return Allocate(size);
}
void* operator new[](size_t size) {
  ++t_counts.array_news;
  return Filled(AllocateOrThrow(size), size);
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
  ++t_counts.nothrow_array_news;
  return Filled(MustFailArray() ? nullptr : Allocate(size), size);
}
void operator delete(void* memory) noexcept { DeleteObject(memory); }
void operator delete(void* memory, size_t) noexcept { DeleteObject(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { DeleteObject(memory); }
void operator delete[](void* memory) noexcept { DeleteArray(memory); }
void operator delete[](void* memory, size_t) noexcept { DeleteArray(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { DeleteArray(memory); }
