// Structures of the C interface, which begin with their size: what an older program does not know
// of reads as 0, and what a newer one knows of is not written. Threads: any.
#ifndef C_SIZED_H_
#define C_SIZED_H_

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace sized {

// As much of it as the program knows of; the rest is 0. False when it is none: no structure ends
// in the middle of a pointer.
template <typename T>
bool Take(const T* from, T* to) {
  *to = T();
  if (from == nullptr || from->size < sizeof(size_t) || from->size % alignof(T) != 0) return false;
  std::memcpy(static_cast<void*>(to), from, std::min(from->size, sizeof(T)));
  return true;
}

// As much as the program has room for; its size stays.
template <typename T>
void Give(const T& from, T* to) {
  const size_t size = std::min(to->size - to->size % alignof(T), sizeof(T));
  if (size <= sizeof(size_t)) return;
  std::memcpy(reinterpret_cast<char*>(to) + sizeof(size_t),
              reinterpret_cast<const char*>(&from) + sizeof(size_t), size - sizeof(size_t));
}

}  // namespace sized

#endif  // C_SIZED_H_
