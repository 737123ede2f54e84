#include "quenor_base/object_pool/alloc_buffer_from_pool.h"

namespace quenor {

template class ObjectPool<uint8_t[], objpool::DefaultResetter<uint8_t[]>,
                          objpool::DefaultAllocator<uint8_t[]>,
                          objpool::DefaultDestroyer<uint8_t[]>>;

namespace internal {
namespace {

// Out of line: looking a pool up that exists then saves no registers.
[[gnu::noinline]] BufferObjPool* MakePool(const BufferClass& buffer_class) {
  return new BufferObjPool(buffer_class.length_bytes, buffer_class.capacity,
                           buffer_class.max_batches);
}

// Never destroyed: an array may come back during the exit of any thread or of the process.
template <size_t kIndex>
BufferObjPool* PoolOfClass() {
  static BufferObjPool* const pool = MakePool(kBufferClasses[kIndex]);
  return pool;
}

}  // namespace

BufferObjPool* GetBufferObjPool(uint32_t class_length) {
  switch (class_length) {
    case kBufferClasses[0].length_bytes:
      return PoolOfClass<0>();
    case kBufferClasses[1].length_bytes:
      return PoolOfClass<1>();
    case kBufferClasses[2].length_bytes:
      return PoolOfClass<2>();
    case kBufferClasses[3].length_bytes:
      return PoolOfClass<3>();
    case kBufferClasses[4].length_bytes:
      return PoolOfClass<4>();
    case kBufferClasses[5].length_bytes:
      return PoolOfClass<5>();
    case kBufferClasses[6].length_bytes:
      return PoolOfClass<6>();
    case kBufferClasses[7].length_bytes:
      return PoolOfClass<7>();
    case kBufferClasses[8].length_bytes:
      return PoolOfClass<8>();
    default:
      return nullptr;
  }
}

}  // namespace internal
}  // namespace quenor
