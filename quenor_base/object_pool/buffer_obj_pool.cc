#include "quenor_base/object_pool/alloc_buffer_from_pool.h"

QUENOR_NAMESPACE_BEGIN

template class ObjectPool<uint8_t[], objpool::DefaultResetter<uint8_t[]>,
                          objpool::DefaultAllocator<uint8_t[]>,
                          objpool::DefaultDestroyer<uint8_t[]>>;

namespace internal {
namespace {

// The nine pools, each null until its first use. Never destroyed: an array may come back during the
// exit of any thread or of the process.
std::atomic<BufferObjPool*> pools[kBufferClassCount] = {};

}  // namespace

BufferObjPool* GetBufferObjPool(uint32_t class_length) {
  for (size_t i = 0; i < kBufferClassCount; ++i) {
    const BufferClass& one = kBufferClasses[i];
    if (one.length_bytes != class_length) continue;
    return base::FindOrMake(&pools[i], [&one] {
      return new BufferObjPool(one.length_bytes, one.capacity, one.max_batches);
    });
  }
  return nullptr;
}

}  // namespace internal
QUENOR_NAMESPACE_END
