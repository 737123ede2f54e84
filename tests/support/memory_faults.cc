#include "tests/support/memory_faults.h"

#include <cstdlib>
#include <new>

extern "C" {
void* __real_malloc(size_t size);
void* __wrap_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
void* __wrap_calloc(size_t count, size_t size);
}

namespace quenor::test {

namespace {

thread_local size_t t_allocations = 0;
thread_local size_t t_fail_in = 0;  // 1: the next malloc fails; 0: none does.
thread_local size_t t_fail_new_in = 0;
thread_local bool t_has_failed = false;

}  // namespace

void MemoryFaults::FailMalloc(size_t nth) {
  t_fail_in = nth;
  t_has_failed = false;
}

void MemoryFaults::FailNew(size_t nth) {
  t_fail_new_in = nth;
  t_has_failed = false;
}

bool MemoryFaults::HasFailed() { return t_has_failed; }

MemoryFaults::Counter::Counter() : before_(t_allocations) {}

size_t MemoryFaults::Counter::count() const { return t_allocations - before_; }

// Called by __wrap_malloc: false when this one has to fail.
bool NoteMalloc() {
  ++t_allocations;
  if (t_fail_in == 0 || --t_fail_in > 0) return true;
  t_has_failed = true;
  return false;
}

void* AllocateForNew(size_t size) {
  ++t_allocations;
  if (t_fail_new_in != 0 && --t_fail_new_in == 0) {
    t_has_failed = true;
    throw std::bad_alloc();
  }
  void* const memory = __real_malloc(size == 0 ? 1 : size);
  if (memory == nullptr) std::abort();
  return memory;
}

}  // namespace quenor::test

extern "C" void* __wrap_malloc(size_t size) {
  return quenor::test::NoteMalloc() ? __real_malloc(size) : nullptr;
}

// An optimiser may turn a malloc and the clearing after it into a calloc.
extern "C" void* __wrap_calloc(size_t count, size_t size) {
  return quenor::test::NoteMalloc() ? __real_calloc(count, size) : nullptr;
}

void* operator new(size_t size) { return quenor::test::AllocateForNew(size); }
void* operator new[](size_t size) { return quenor::test::AllocateForNew(size); }
void* operator new(size_t size, const std::nothrow_t&) noexcept {
  return quenor::test::AllocateForNew(size);
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
  return quenor::test::AllocateForNew(size);
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, size_t) noexcept { std::free(memory); }
