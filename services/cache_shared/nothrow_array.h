// A growing array of plain values that says when memory is exhausted, where std::vector would end a
// process that has no exceptions. Keeps its memory until it is destroyed.
#ifndef SERVICES_CACHE_SHARED_NOTHROW_ARRAY_H_
#define SERVICES_CACHE_SHARED_NOTHROW_ARRAY_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <type_traits>
#include <utility>

#include "quenor_base/platform/base/abi.h"

QUENOR_NAMESPACE_BEGIN

template <typename T>
class NothrowArray {
 public:
  static_assert(std::is_trivially_copyable<T>::value, "moved with memcpy");

  NothrowArray() = default;
  ~NothrowArray() { std::free(data_); }
  NothrowArray(const NothrowArray&) = delete;
  NothrowArray& operator=(const NothrowArray&) = delete;

  // Makes room for `size` values in all, and for as many again when it has to grow. False when
  // there is no memory; nothing has changed then.
  [[nodiscard]] bool Reserve(size_t size) { return size <= capacity_ || Grow(size); }
  [[nodiscard]] bool Push(const T& value) { return Append(&value, 1); }
  // `values` must not be of this array.
  [[nodiscard]] bool Append(const T* values, size_t count) {
    if (count > SIZE_MAX - size_ || !Reserve(size_ + count)) return false;
    if (count > 0) std::memcpy(static_cast<void*>(data_ + size_), values, count * sizeof(T));
    size_ += count;
    return true;
  }
  // `count` values, each `value`, in place of the content.
  [[nodiscard]] bool Assign(size_t count, const T& value) {
    if (!Reserve(count)) return false;
    std::fill(data_, data_ + count, value);
    size_ = count;
    return true;
  }
  // New values are not initialised.
  [[nodiscard]] bool Resize(size_t size) {
    if (!Reserve(size)) return false;
    size_ = size;
    return true;
  }
  void Clear() { size_ = 0; }
  void swap(NothrowArray& other) {
    std::swap(data_, other.data_);
    std::swap(size_, other.size_);
    std::swap(capacity_, other.capacity_);
  }

  T* data() { return data_; }
  const T* data() const { return data_; }
  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  T& operator[](size_t i) { return data_[i]; }
  const T& operator[](size_t i) const { return data_[i]; }
  T& back() { return data_[size_ - 1]; }
  T* begin() { return data_; }
  T* end() { return data_ + size_; }
  const T* begin() const { return data_; }
  const T* end() const { return data_ + size_; }

 private:
  // One copy per type; inlined, it would be in every place that adds something.
  [[gnu::noinline]] bool Grow(size_t size) {
    if (size > SIZE_MAX / sizeof(T) / 2) return false;
    const size_t capacity = std::max(size, std::min(2 * capacity_, SIZE_MAX / sizeof(T) / 2));
    T* const grown = static_cast<T*>(std::malloc(capacity * sizeof(T)));
    if (grown == nullptr) return false;
    if (size_ > 0) std::memcpy(static_cast<void*>(grown), data_, size_ * sizeof(T));
    std::free(data_);
    data_ = grown;
    capacity_ = capacity;
    return true;
  }

  T* data_ = nullptr;  // Owned; null while nothing was reserved.
  size_t size_ = 0;
  size_t capacity_ = 0;
};

QUENOR_NAMESPACE_END

#endif  // SERVICES_CACHE_SHARED_NOTHROW_ARRAY_H_
