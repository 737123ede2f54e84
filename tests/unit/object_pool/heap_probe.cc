#include "heap_probe.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "quenor_base/platform/base/abi.h"

QUENOR_NAMESPACE_BEGIN
namespace {

thread_local HeapCounts counts;
thread_local uint64_t news_before_failure = 0;
thread_local uint64_t failures_left = 0;

bool MustFail() {
  if (failures_left == 0) return false;
  if (news_before_failure > 0) {
    --news_before_failure;
    return false;
  }
  --failures_left;
  return true;
}

// A zero-length allocation has an address of its own, as the standard's operators promise.
void* Allocate(size_t bytes) { return std::malloc(bytes == 0 ? 1 : bytes); }

void* AllocateOrThrow(size_t bytes) {
  void* memory = Allocate(bytes);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

// `array` (may be null), full of kFill.
void* Filled(void* array, size_t bytes) {
  return array == nullptr ? nullptr : std::memset(array, HeapProbe::kFill, bytes);
}

void DeleteObject(void* memory) {
  ++counts.object_deletes;
  std::free(memory);
}

void DeleteArray(void* memory) {
  ++counts.array_deletes;
  std::free(memory);
}

}  // namespace

HeapCounts HeapProbe::Counts() { return counts; }

void HeapProbe::FailNothrowArrayNews(uint64_t n, uint64_t times) {
  news_before_failure = n - 1;
  failures_left = times;
}

QUENOR_NAMESPACE_END

void* operator new(size_t bytes) {
  ++quenor::counts.object_news;
  return quenor::AllocateOrThrow(bytes);
}
void* operator new(size_t bytes, const std::nothrow_t&) noexcept {
  ++quenor::counts.object_news;
  return quenor::Allocate(bytes);
}
void* operator new[](size_t bytes) {
  ++quenor::counts.array_news;
  quenor::counts.last_array_bytes = bytes;
  return quenor::Filled(quenor::AllocateOrThrow(bytes), bytes);
}
void* operator new[](size_t bytes, const std::nothrow_t&) noexcept {
  ++quenor::counts.nothrow_array_news;
  quenor::counts.last_array_bytes = bytes;
  return quenor::MustFail() ? nullptr : quenor::Filled(quenor::Allocate(bytes), bytes);
}
void operator delete(void* memory) noexcept { quenor::DeleteObject(memory); }
void operator delete(void* memory, size_t) noexcept { quenor::DeleteObject(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { quenor::DeleteObject(memory); }
void operator delete[](void* memory) noexcept { quenor::DeleteArray(memory); }
void operator delete[](void* memory, size_t) noexcept { quenor::DeleteArray(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept {
  quenor::DeleteArray(memory);
}
