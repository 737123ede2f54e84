// The hashes of both kinds of cache files, XXH3 of 64 and of 128 bits, in one object: inlined, each
// would bring several KiB of code to every place that uses it. Any thread; nothing fails.
#ifndef SERVICES_CACHE_SHARED_CHECKSUM_H_
#define SERVICES_CACHE_SHARED_CHECKSUM_H_

#define XXH_STATIC_LINKING_ONLY  // The states' size; nothing here is linked with xxHash.
#include <xxhash.h>

#include <cstddef>
#include <cstdint>

#include "quenor_base/platform/base/abi.h"

QUENOR_NAMESPACE_BEGIN
namespace cache_io {

// XXH3-64, as it stands in the files.
uint64_t CheckOfBytes(const void* bytes, size_t size, uint64_t seed = 0);

// Of a packet's bytes, under a key of the process's own, and never in a file. Two packets of one
// digest and one size count as the same bytes.
struct Digest {
  uint64_t low;
  uint64_t high;
};
inline bool operator==(const Digest& a, const Digest& b) {
  return a.low == b.low && a.high == b.high;
}
Digest DigestOf(const void* data, size_t size, uint64_t key);

// Check, with that seed, and digest of bytes that come in parts.
class BodyHasher {
 public:
  BodyHasher(uint64_t seed, uint64_t key);
  void Update(const void* data, size_t size);
  uint64_t Check() const;
  Digest ContentDigest() const;

 private:
  XXH3_state_t check_;
  XXH3_state_t digest_;
};

}  // namespace cache_io
QUENOR_NAMESPACE_END

#endif  // SERVICES_CACHE_SHARED_CHECKSUM_H_
