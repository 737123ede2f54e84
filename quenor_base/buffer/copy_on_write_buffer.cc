#include "quenor_base/buffer/copy_on_write_buffer.h"

#include <algorithm>
#include <cstdlib>
#include <new>

QUENOR_NAMESPACE_BEGIN

namespace {

// The bytes of a storage made here lie behind it, in the same block, and go with it.
void ReleaseWithBlock(void*) {}

BufferStorage* AllocateStorage(uint32_t size, uint32_t capacity) {
  void* block = std::malloc(sizeof(BufferStorage) + size_t{capacity});
  if (block == nullptr) return nullptr;
  auto* bytes = static_cast<uint8_t*>(block) + sizeof(BufferStorage);
  auto* storage = new (block) BufferStorage(
      size, capacity, std::unique_ptr<uint8_t[], void (*)(void*)>(bytes, &ReleaseWithBlock));
  storage->AddRef();
  return storage;
}

}  // namespace

CopyOnWriteBuffer::CopyOnWriteBuffer(uint32_t size, uint32_t capacity) {
  if (size == 0 && capacity == 0) return;
  buffer_ = AllocateStorage(size, std::max(size, capacity));
  if (buffer_ != nullptr) size_ = size;
}

CopyOnWriteBuffer::CopyOnWriteBuffer(std::unique_ptr<uint8_t[], void (*)(void*)> array,
                                     uint32_t size, uint32_t capacity) {
  if (array == nullptr) return;
  void* block = std::malloc(sizeof(BufferStorage));
  if (block == nullptr) return;
  size_ = std::min(size, capacity);
  buffer_ = new (block) BufferStorage(size_, capacity, std::move(array));
  buffer_->AddRef();
}

bool CopyOnWriteBuffer::Replace(uint32_t capacity, uint32_t room) {
  uint32_t wanted = std::max(capacity, size_);
  if (wanted > room) {
    const uint64_t grown = uint64_t{room} + room / 2;
    wanted = std::max(wanted, static_cast<uint32_t>(std::min<uint64_t>(grown, UINT32_MAX)));
  }
  BufferStorage* fresh = AllocateStorage(size_, wanted);
  if (fresh == nullptr) return false;
  if (buffer_ != nullptr) fresh->tag = buffer_->tag;
  if (size_ > 0) std::memcpy(fresh->data.get(), buffer_->data.get() + offset_, size_);
  ReleaseStorage(std::exchange(buffer_, fresh));
  offset_ = 0;
  return true;
}

void CopyOnWriteBuffer::FreeStorage(BufferStorage* storage) {
  storage->~BufferStorage();
  std::free(storage);
}

QUENOR_NAMESPACE_END
