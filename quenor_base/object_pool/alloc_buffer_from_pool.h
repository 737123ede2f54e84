// AllocBufferTFromPool: scratch byte arrays from nine pools, one for each size class.
// Whoever drops the result needs to know neither class nor pool: it carries its release function.
// Life cycle: a pool is made on the first use of its class and never destroyed.
// Thread safety: any thread, see object_pool.h. Design: docs/design/pooled-buffers.md.
#ifndef QUENOR_BASE_OBJECT_POOL_ALLOC_BUFFER_FROM_POOL_H_
#define QUENOR_BASE_OBJECT_POOL_ALLOC_BUFFER_FROM_POOL_H_

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <type_traits>
#include <utility>

#include "quenor_base/object_pool/object_pool.h"
#include "quenor_base/object_pool/size_classes.h"
#include "quenor_base/platform/base/thread_create_flag.h"

QUENOR_NAMESPACE_BEGIN

extern template class ObjectPool<uint8_t[], objpool::DefaultResetter<uint8_t[]>,
                                 objpool::DefaultAllocator<uint8_t[]>,
                                 objpool::DefaultDestroyer<uint8_t[]>>;

namespace internal {

using BufferObjPool =
    ObjectPool<uint8_t[], objpool::DefaultResetter<uint8_t[]>, objpool::DefaultAllocator<uint8_t[]>,
               objpool::DefaultDestroyer<uint8_t[]>>;

// Any thread. The pool of the arrays of `class_length` bytes: for the nine class lengths never null
// and the same one for the life of the process; null for every other length. Lends it.
BufferObjPool* GetBufferObjPool(uint32_t class_length);

// The eleven release functions. A pooled array goes to the tier of the thread that releases it.
template <uint32_t kClassLength>
void ReleasePooledBuffer(void* array) {
  GetBufferObjPool(kClassLength)->Reuse(static_cast<uint8_t*>(array));
}
inline void ReleaseForeignThreadBuffer(void* array) { delete[] static_cast<uint8_t*>(array); }
inline void ReleaseOversizeBuffer(void* array) { delete[] static_cast<uint8_t*>(array); }

// Of the classes, in their order.
template <size_t... kIndex>
constexpr std::array<void (*)(void*), sizeof...(kIndex)> PooledReleases(
    std::index_sequence<kIndex...>) {
  return {&ReleasePooledBuffer<kBufferClasses[kIndex].length_bytes>...};
}
inline constexpr auto kPooledReleases =
    PooledReleases(std::make_index_sequence<kBufferClassCount>());

// Any thread. An array of at least `size` bytes, not cleared; callers must not rely on the bytes
// beyond `size`. Test the array before use: it is null for size 0 on a thread of the SDK (with a
// null release function), and when memory runs out for a pooled class (nothing throws). On a thread
// that the SDK did not create, and above 1048576 bytes, the array comes from the plain heap with
// exactly `size` bytes, and exhaustion is std::bad_alloc. The caller owns the result and may drop
// it on any thread.
template <typename T>
[[nodiscard]] std::unique_ptr<T, void (*)(void*)> AllocBufferTFromPool(uint32_t size) {
  static_assert(std::is_same_v<T, uint8_t[]>, "only byte arrays have pools");
  if (!base::ThreadCreateFlag::IsThreadCreateByQuenor()) {
    return {new uint8_t[size], &ReleaseForeignThreadBuffer};
  }
  if (size == 0) return {nullptr, nullptr};
  for (size_t i = 0; i < kBufferClassCount; ++i) {
    const uint32_t bound = kBufferClasses[i].length_bytes;
    if (size <= bound) return {GetBufferObjPool(bound)->AllocRaw(), kPooledReleases[i]};
  }
  return {new uint8_t[size], &ReleaseOversizeBuffer};
}

}  // namespace internal
QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_OBJECT_POOL_ALLOC_BUFFER_FROM_POOL_H_
