// AllocBufferTFromPool: scratch byte arrays from nine pools, one for each size class.
// Whoever drops the result needs to know neither class nor pool: it carries its release function.
// Life cycle: a pool is made on the first use of its class and never destroyed.
// Thread safety: any thread, see object_pool.h. Design: docs/design/pooled-buffers.md.
#ifndef QUENOR_BASE_OBJECT_POOL_ALLOC_BUFFER_FROM_POOL_H_
#define QUENOR_BASE_OBJECT_POOL_ALLOC_BUFFER_FROM_POOL_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <type_traits>

#include "quenor_base/object_pool/object_pool.h"
#include "quenor_base/platform/base/thread_create_flag.h"

namespace quenor {

extern template class ObjectPool<uint8_t[], objpool::DefaultResetter<uint8_t[]>,
                                 objpool::DefaultAllocator<uint8_t[]>,
                                 objpool::DefaultDestroyer<uint8_t[]>>;

namespace internal {

using BufferObjPool =
    ObjectPool<uint8_t[], objpool::DefaultResetter<uint8_t[]>, objpool::DefaultAllocator<uint8_t[]>,
               objpool::DefaultDestroyer<uint8_t[]>>;

struct BufferClass {
  uint32_t length_bytes;
  uint32_t capacity;     // per thread: arrays made at once when dry, bound of each of two lists
  uint32_t max_batches;  // in the shared tier
};

// The numbers bound what is kept idle. A dry thread makes `capacity` arrays at once, to save round
// trips to the shared mutex; of those that it does not use, one page each is touched, 32 KiB at
// most. A thread keeps at most 2 * capacity - 1 idle arrays of a class: 15.5, 31, 30, 60, 240, 480,
// 960, 1536 and 3072 KiB, together 6424.5 KiB in a thread that had as many in use at once of all
// nine (1816.5 KiB without the two largest). The shared tier, one for the process, keeps at most
// max_batches * capacity: 64, 128, 128, 256, 512, 1024, 2048, 8192 and 16384 KiB, together 28736
// KiB, and fills only when a thread gives back more arrays than its own lists hold.
inline constexpr BufferClass kBufferClasses[] = {
    {512, 16, 8},  {1024, 16, 8}, {2048, 8, 8},   {4096, 8, 8},    {16384, 8, 4},
    {32768, 8, 4}, {65536, 8, 4}, {524288, 2, 8}, {1048576, 2, 8},
};

// The nine pools, each null until its first use. Never destroyed: an array may come back during the
// exit of any thread or of the process.
// acquire and release: who finds a pool here finds it whole.
inline std::atomic<BufferObjPool*> g_buffer_pools[std::size(kBufferClasses)] = {};

// Makes pool number `index`, once.
BufferObjPool* MakeBufferObjPool(size_t index);

// Any thread. The pool of the arrays of `class_length` bytes: for the nine class lengths never null
// and the same one for the life of the process; null for every other length. Lends it.
inline BufferObjPool* GetBufferObjPool(uint32_t class_length) {
  for (size_t i = 0; i < std::size(kBufferClasses); ++i) {
    if (kBufferClasses[i].length_bytes != class_length) continue;
    BufferObjPool* const pool = g_buffer_pools[i].load(std::memory_order_acquire);
    return pool != nullptr ? pool : MakeBufferObjPool(i);
  }
  return nullptr;
}

// The number of the class of `class_length` bytes, which is its pool's place in NearTiers, too.
constexpr uint32_t BufferClassIndex(uint32_t class_length) {
  uint32_t index = 0;
  while (kBufferClasses[index].length_bytes != class_length) ++index;
  return index;
}

// Gives an array back through GetBufferObjPool(class_length).
void ReuseThroughPool(uint32_t class_length, void* array);

// The eleven release functions. A pooled array goes to the tier of the thread that releases it:
// GetBufferObjPool(kClassLength)->Reuse(array), by a short cut when that tier is at hand.
template <uint32_t kClassLength>
void ReleasePooledBuffer(void* array) {
  constexpr uint32_t kPlace = BufferClassIndex(kClassLength);
  auto* const tier = BufferObjPool::TLSPool::TierAtHand(kPlace);
  if (tier == nullptr || array == nullptr) return ReuseThroughPool(kClassLength, array);
  tier->Reuse(static_cast<uint8_t*>(array));
}
inline void ReleaseForeignThreadBuffer(void* array) { delete[] static_cast<uint8_t*>(array); }
inline void ReleaseOversizeBuffer(void* array) { delete[] static_cast<uint8_t*>(array); }

inline constexpr uint32_t kLargestPooledBuffer = 1048576;  // bytes

// Where AllocBufferTFromPool() finds an array that is ready, and how that is released.
struct BufferShortCut {
  uint32_t place;  // in NearTiers
  void (*release)(void*);
};
template <uint32_t kClassLength>
inline constexpr BufferShortCut kShortCutOf{BufferClassIndex(kClassLength),
                                            &ReleasePooledBuffer<kClassLength>};
// By how often `size` - 1 can be halved until it is 1 or 0, since the bounds are powers of two:
// from index 0, for 1 and 2 bytes, up to 19, for 524289 to 1048576.
inline constexpr BufferShortCut kBufferShortCuts[] = {
    kShortCutOf<512>,    kShortCutOf<512>,    kShortCutOf<512>,    kShortCutOf<512>,
    kShortCutOf<512>,    kShortCutOf<512>,    kShortCutOf<512>,    kShortCutOf<512>,
    kShortCutOf<512>,    kShortCutOf<1024>,   kShortCutOf<2048>,   kShortCutOf<4096>,
    kShortCutOf<16384>,  kShortCutOf<16384>,  kShortCutOf<32768>,  kShortCutOf<65536>,
    kShortCutOf<524288>, kShortCutOf<524288>, kShortCutOf<524288>, kShortCutOf<1048576>,
};
// `size` from 1 to kLargestPooledBuffer.
inline const BufferShortCut& BufferShortCutOf(uint32_t size) {
  return kBufferShortCuts[static_cast<uint32_t>(31 ^ __builtin_clz((size - 1) | 1))];
}

// The parts of a result of AllocBufferTFromPool(), owned by whoever holds them. In two registers,
// so that the result itself need not lie in memory where its use is inlined.
struct BufferParts {
  uint8_t* array;
  void (*release)(void*);
};
// The whole of AllocBufferTFromPool(), without short cut.
BufferParts AllocBuffer(uint32_t size);

// Any thread. An array of at least `size` bytes, not cleared; callers must not rely on the bytes
// beyond `size`. Test the array before use: it is null for size 0 on a thread of the SDK (with a
// null release function), and when memory runs out for a pooled class (nothing throws). On a thread
// that the SDK did not create, and above 1048576 bytes, the array comes from the plain heap with
// exactly `size` bytes, and exhaustion is std::bad_alloc. The caller owns the result and may drop
// it on any thread.
template <typename T>
[[nodiscard]] inline std::unique_ptr<T, void (*)(void*)> AllocBufferTFromPool(uint32_t size) {
  static_assert(std::is_same_v<T, uint8_t[]>, "only byte arrays have pools");
  if (base::ThreadCreateFlag::IsThreadCreateByQuenor() && size - 1 < kLargestPooledBuffer) {
    const BufferShortCut& cut = BufferShortCutOf(size);
    auto* const tier = BufferObjPool::TLSPool::TierAtHand(cut.place);
    // What AllocBuffer() would do, without the way through the pool.
    if (tier != nullptr && !tier->IsDry()) return {tier->Alloc().Release(), cut.release};
  }
  const BufferParts made = AllocBuffer(size);
  return {made.array, made.release};
}

}  // namespace internal
}  // namespace quenor

#endif  // QUENOR_BASE_OBJECT_POOL_ALLOC_BUFFER_FROM_POOL_H_
