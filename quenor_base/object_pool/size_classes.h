// The nine size classes of the pooled byte arrays: the one table that the ladder of sizes, the
// pools and their release functions are made from.
// Design: docs/design/pooled-buffers.md.
#ifndef QUENOR_BASE_OBJECT_POOL_SIZE_CLASSES_H_
#define QUENOR_BASE_OBJECT_POOL_SIZE_CLASSES_H_

#include <cstddef>
#include <cstdint>
#include <iterator>

#include "quenor_base/platform/base/abi.h"

QUENOR_NAMESPACE_BEGIN
namespace internal {

struct BufferClass {
  uint32_t length_bytes;  // of every array; a size belongs to the first class that has room for it
  uint32_t capacity;      // per thread: arrays made at once when dry, bound of each of two lists
  uint32_t max_batches;   // in the shared tier
};

// The numbers bound what is kept idle. A dry thread makes `capacity` arrays at once, to save round
// trips to the shared mutex; of those that it does not use, one page each is touched, 32 KiB at
// most. A thread keeps at most 2 * capacity - 1 idle arrays of a class: 15.5, 31, 30, 60, 240, 480,
// 960, 1536 and 3072 KiB, together 6424.5 KiB in a thread that had as many in use at once of all
// nine (1816.5 KiB without the two largest). The shared tier, one for the process, keeps at most
// max_batches * capacity: 64, 128, 128, 256, 512, 1024, 2048, 8192 and 16384 KiB, together 28736
// KiB, and fills only when a thread gives back more arrays than its own lists hold.
// No class of 8192, 131072 or 262144 bytes.
inline constexpr BufferClass kBufferClasses[] = {
    {512, 16, 8},  {1024, 16, 8}, {2048, 8, 8},   {4096, 8, 8},    {16384, 8, 4},
    {32768, 8, 4}, {65536, 8, 4}, {524288, 2, 8}, {1048576, 2, 8},
};
inline constexpr size_t kBufferClassCount = std::size(kBufferClasses);

}  // namespace internal
QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_OBJECT_POOL_SIZE_CLASSES_H_
