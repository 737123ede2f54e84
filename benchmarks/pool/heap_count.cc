// A library to preload: counts what a program asks of the heap, and leaves all else as it is.
#include <atomic>
#include <cstddef>
#include <cstdint>

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);

// relaxed: a count that publishes nothing.
static std::atomic<uint64_t> g_allocations{0};

uint64_t QuenorBenchHeapAllocations() { return g_allocations.load(std::memory_order_relaxed); }

void* malloc(size_t size) {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  return __libc_malloc(size);
}
void* calloc(size_t count, size_t size) {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  return __libc_calloc(count, size);
}
void* realloc(void* memory, size_t size) {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  return __libc_realloc(memory, size);
}
}
