// An array that grows, of plain values, and answers false instead of ending the process when there
// is no memory. Keeps its memory when it is emptied. Threads: as a plain value.
#ifndef QUENOR_BASE_PLATFORM_DEFAULT_GROWABLE_ARRAY_H_
#define QUENOR_BASE_PLATFORM_DEFAULT_GROWABLE_ARRAY_H_

#include <cstddef>
#include <cstdlib>
#include <type_traits>
#include <utility>

namespace quenor {

template <typename T>
class GrowableArray {
  static_assert(std::is_trivially_copyable_v<T>);

 public:
  GrowableArray() = default;
  ~GrowableArray() { std::free(data_); }
  GrowableArray(const GrowableArray&) = delete;
  GrowableArray& operator=(const GrowableArray&) = delete;

  // Room for `count` elements; those that are there stay.
  [[nodiscard]] bool Reserve(size_t count) {
    if (count <= capacity_) return true;
    if (count > static_cast<size_t>(-1) / 2 / sizeof(T)) return false;
    size_t capacity = capacity_ < 8 ? 8 : 2 * capacity_;
    if (capacity < count) capacity = count;
    void* const data = std::realloc(static_cast<void*>(data_), capacity * sizeof(T));
    if (data == nullptr) return false;
    data_ = static_cast<T*>(data);
    capacity_ = capacity;
    return true;
  }
  [[nodiscard]] bool Add(const T& value) {
    if (!Reserve(size_ + 1)) return false;
    data_[size_++] = value;
    return true;
  }
  // New elements are not initialised.
  [[nodiscard]] bool Resize(size_t size) {
    if (!Reserve(size)) return false;
    size_ = size;
    return true;
  }
  void Clear() { size_ = 0; }
  void swap(GrowableArray& other) {
    std::swap(data_, other.data_);
    std::swap(size_, other.size_);
    std::swap(capacity_, other.capacity_);
  }

  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  T* data() { return data_; }
  const T* data() const { return data_; }
  T& operator[](size_t i) { return data_[i]; }
  const T& operator[](size_t i) const { return data_[i]; }
  T* begin() { return data_; }
  T* end() { return data_ + size_; }
  const T* begin() const { return data_; }
  const T* end() const { return data_ + size_; }

 private:
  T* data_ = nullptr;
  size_t size_ = 0;
  size_t capacity_ = 0;
};

}  // namespace quenor

#endif  // QUENOR_BASE_PLATFORM_DEFAULT_GROWABLE_ARRAY_H_
