// CopyOnWriteBuffer: a message body as a view onto reference-counted bytes. Copying shares, the
// first write through a shared body copies.
// Threads: one object, one thread at a time; buffers that share bytes may live on different
// threads, and whichever drops the last one frees the bytes. See
// docs/design/copy-on-write-buffer.md.
#ifndef QUENOR_BASE_BUFFER_COPY_ON_WRITE_BUFFER_H_
#define QUENOR_BASE_BUFFER_COPY_ON_WRITE_BUFFER_H_

#include <cstdint>
#include <cstring>
#include <memory>
#include <type_traits>
#include <utility>

#include "quenor_base/platform/base/ref_counted.h"

QUENOR_NAMESPACE_BEGIN

// What a body says of the message that it is the body of, to whoever is told what becomes of it.
struct MessageTag {
  uint64_t id = 0;             // Unique in the process and rising; 0: none.
  int64_t handed_over_ns = 0;  // Monotonic time; of a message that was loaded: when that was.
  bool is_delayed = false;     // It was handed over to be admitted later.
  bool is_loaded = false;      // It came back from the cache.
};

// The shared bytes. They are released through whatever function they came with.
struct BufferStorage : public base::subtle::RefCountedThreadSafeBase {
  BufferStorage(uint32_t length_in, uint32_t capacity_in,
                std::unique_ptr<uint8_t[], void (*)(void*)> data_in)
      : length(length_in), capacity(capacity_in), data(std::move(data_in)) {}

  uint32_t length;    // Bytes that the first view was made with.
  uint32_t capacity;  // Usable bytes.
  std::unique_ptr<uint8_t[], void (*)(void*)> data;
  MessageTag tag;
};

class CopyOnWriteBuffer {
 public:
  // No storage, size 0.
  CopyOnWriteBuffer() = default;

  // New storage with room for at least `capacity` bytes (at least `size`), uncleared, and a view of
  // `size` bytes. No storage when both are 0, and none, with size 0, when memory is exhausted: the
  // caller that asked for bytes tells the two apart. Storage and bytes come from one malloc, which
  // is the fastest source for blocks that are freed on another thread than the one that made them.
  CopyOnWriteBuffer(uint32_t size, uint32_t capacity);

  // Copies `size` bytes from `data`. As above when memory is exhausted: never a storage with other
  // bytes. `data` may be null when `size` is 0.
  template <typename T, typename = std::enable_if_t<sizeof(T) == 1>>
  CopyOnWriteBuffer(const T* data, uint32_t size) : CopyOnWriteBuffer(size, size) {
    if (buffer_ == nullptr || size == 0) return;
    std::memcpy(buffer_->data.get(), data, size);
    offset_ = 0;
    size_ = size;
  }

  // Takes `array`, which has `capacity` bytes, and views its first `size` (at most all). The array
  // is released through the function that it carries, on the thread that drops the last holder. A
  // null array makes an empty buffer; so does exhausted memory, after releasing the array.
  CopyOnWriteBuffer(std::unique_ptr<uint8_t[], void (*)(void*)> array, uint32_t size,
                    uint32_t capacity);

  CopyOnWriteBuffer(const CopyOnWriteBuffer& other) noexcept
      : buffer_(other.buffer_), offset_(other.offset_), size_(other.size_) {
    if (buffer_ != nullptr) buffer_->AddRef();
  }
  // Leaves `other` empty.
  CopyOnWriteBuffer(CopyOnWriteBuffer&& other) noexcept
      : buffer_(std::exchange(other.buffer_, nullptr)),
        offset_(std::exchange(other.offset_, 0)),
        size_(std::exchange(other.size_, 0)) {}
  CopyOnWriteBuffer& operator=(const CopyOnWriteBuffer& other) noexcept {
    // The new reference first: both may be views of the same storage.
    if (other.buffer_ != nullptr) other.buffer_->AddRef();
    BufferStorage* old = buffer_;
    buffer_ = other.buffer_;
    ReleaseStorage(old);
    offset_ = other.offset_;
    size_ = other.size_;
    return *this;
  }
  // Leaves `other` empty; assigning a buffer to itself changes nothing.
  CopyOnWriteBuffer& operator=(CopyOnWriteBuffer&& other) noexcept {
    CopyOnWriteBuffer taken(std::move(other));
    std::swap(buffer_, taken.buffer_);
    std::swap(offset_, taken.offset_);
    std::swap(size_, taken.size_);
    return *this;
  }
  ~CopyOnWriteBuffer() { ReleaseStorage(buffer_); }

  // Writable bytes of the view, private to this buffer; null when it has no storage, and null when
  // the bytes are shared and memory for a copy is exhausted (the view then stays as it was).
  template <typename T>
  T* data() {
    static_assert(sizeof(T) == 1, "a body is bytes");
    if (buffer_ == nullptr) return nullptr;
    if (!buffer_->HasOneRef() && !UnshareAndEnsureCapacity(buffer_->capacity - offset_)) {
      return nullptr;
    }
    return reinterpret_cast<T*>(buffer_->data.get()) + offset_;
  }

  // Readable bytes of the view, never copied; null when the buffer has no storage.
  template <typename T>
  const T* cdata() const {
    static_assert(sizeof(T) == 1, "a body is bytes");
    if (buffer_ == nullptr) return nullptr;
    return reinterpret_cast<const T*>(buffer_->data.get()) + offset_;
  }

  uint32_t size() const { return size_; }

  // Every copy of the buffer has it, whatever happens to the bytes.
  MessageTag tag() const { return buffer_ != nullptr ? buffer_->tag : MessageTag(); }
  // Before the buffer is shared. A buffer without storage gets one, for nothing but a tag that has
  // an id; it stays as it is when memory is exhausted.
  void set_tag(const MessageTag& tag) {
    if (buffer_ == nullptr && tag.id != 0) *this = CopyOnWriteBuffer(0, 1);
    if (buffer_ != nullptr) buffer_->tag = tag;
  }

  // Makes the storage this buffer's own, with at least `capacity` bytes from the view's start on;
  // the view's bytes stay. A storage that has to grow grows by half at least. False, and nothing
  // changed, when memory is exhausted.
  bool UnshareAndEnsureCapacity(uint32_t capacity) {
    const uint32_t room = buffer_ != nullptr ? buffer_->capacity - offset_ : 0;
    if (buffer_ == nullptr ? capacity == 0 : buffer_->HasOneRef() && capacity <= room) return true;
    return Replace(capacity, room);
  }

 private:
  friend class CopyOnWriteBufferTestPeer;

  // As UnshareAndEnsureCapacity, where the storage will not do; it has `room` from the view's start
  // on. Out of line, as all that is rare: copying, moving and writing in place need no call.
  bool Replace(uint32_t capacity, uint32_t room);

  // Drops one reference; with the last, the bytes and the storage go.
  static void ReleaseStorage(BufferStorage* storage) {
    if (storage != nullptr && storage->Release()) FreeStorage(storage);
  }
  static void FreeStorage(BufferStorage* storage);

  BufferStorage* buffer_ = nullptr;
  uint32_t offset_ = 0;
  uint32_t size_ = 0;
};

QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_BUFFER_COPY_ON_WRITE_BUFFER_H_
