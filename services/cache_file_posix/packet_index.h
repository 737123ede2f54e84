// Finds the packets of a plain cache file by their bytes, to name in a save what is in the file
// already. Threads: one at a time. Page: docs/design/cache-file.md.
#ifndef SERVICES_CACHE_FILE_POSIX_PACKET_INDEX_H_
#define SERVICES_CACHE_FILE_POSIX_PACKET_INDEX_H_

#include <cstddef>
#include <cstdint>

#include "services/cache_file_posix/reader.h"
#include "services/cache_shared/nothrow_array.h"

QUENOR_NAMESPACE_BEGIN
namespace cache_file {

constexpr uint32_t kNoPosition = UINT32_MAX;

// Of a sequence; finds each packet at most once.
class PacketIndex {
 public:
  // Forgets what it was built of before. False when there is no memory: then it finds nothing.
  [[nodiscard]] bool Build(const NothrowArray<Packet>& packets);
  // The first position, not yet taken, of a packet with these bytes, and takes it; else
  // kNoPosition. `packets` is what it was built of.
  uint32_t Take(const NothrowArray<Packet>& packets, const Digest& digest, uint32_t size);

 private:
  uint32_t* SlotOf(const NothrowArray<Packet>& packets, const Digest& digest, uint32_t size);

  NothrowArray<uint32_t> slots_;  // A power of two, at most half of them in use.
  NothrowArray<uint32_t> next_;   // Per position: the next one with the same bytes.
  NothrowArray<uint8_t> taken_;   // Per position.
};

}  // namespace cache_file
QUENOR_NAMESPACE_END

#endif  // SERVICES_CACHE_FILE_POSIX_PACKET_INDEX_H_
