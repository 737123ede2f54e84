#include "quenor_base/object_pool/alloc_buffer_from_pool.h"

namespace quenor {

template class ObjectPool<uint8_t[], objpool::DefaultResetter<uint8_t[]>,
                          objpool::DefaultAllocator<uint8_t[]>,
                          objpool::DefaultDestroyer<uint8_t[]>>;

namespace internal {

static_assert(std::size(kBufferClasses) == objpool::NearTiers::kByteArrayPools);

BufferObjPool* MakeBufferObjPool(size_t index) {
  return base::FindOrMake(&g_buffer_pools[index], [index] {
    const BufferClass& made = kBufferClasses[index];
    return new BufferObjPool(made.length_bytes, made.capacity, made.max_batches,
                             /*near_place=*/static_cast<uint32_t>(index));
  });
}

void ReuseThroughPool(uint32_t class_length, void* array) {
  GetBufferObjPool(class_length)->Reuse(static_cast<uint8_t*>(array));
}

template <uint32_t kClassLength>
static BufferParts AllocPooledBuffer() {
  return {GetBufferObjPool(kClassLength)->AllocRaw(), &ReleasePooledBuffer<kClassLength>};
}

BufferParts AllocBuffer(uint32_t size) {
  if (!base::ThreadCreateFlag::IsThreadCreateByQuenor()) {
    return {new uint8_t[size], &ReleaseForeignThreadBuffer};
  }
  if (size == 0) return {nullptr, nullptr};
  if (size <= 512) return AllocPooledBuffer<512>();
  if (size <= 1024) return AllocPooledBuffer<1024>();
  if (size <= 2048) return AllocPooledBuffer<2048>();
  if (size <= 4096) return AllocPooledBuffer<4096>();
  if (size <= 16384) return AllocPooledBuffer<16384>();  // no class of 8192 bytes
  if (size <= 32768) return AllocPooledBuffer<32768>();
  if (size <= 65536) return AllocPooledBuffer<65536>();
  if (size <= 524288) return AllocPooledBuffer<524288>();  // none of 131072 or 262144 either
  if (size <= kLargestPooledBuffer) return AllocPooledBuffer<1048576>();
  return {new uint8_t[size], &ReleaseOversizeBuffer};
}

}  // namespace internal
}  // namespace quenor
