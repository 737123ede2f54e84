#include "quenor_base/object_pool/alloc_buffer_from_pool.h"

namespace quenor {

template class ObjectPool<uint8_t[], objpool::DefaultResetter<uint8_t[]>,
                          objpool::DefaultAllocator<uint8_t[]>,
                          objpool::DefaultDestroyer<uint8_t[]>>;

namespace internal {

BufferObjPool* MakeBufferObjPool(size_t index) {
  static base::Lock lock;
  base::AutoLock hold(lock);
  // relaxed: written under the lock only.
  BufferObjPool* pool = g_buffer_pools[index].load(std::memory_order_relaxed);
  if (pool == nullptr) {
    const BufferClass& made = kBufferClasses[index];
    pool = new BufferObjPool(made.length_bytes, made.capacity, made.max_batches);
    g_buffer_pools[index].store(pool, std::memory_order_release);
  }
  return pool;
}

}  // namespace internal
}  // namespace quenor
