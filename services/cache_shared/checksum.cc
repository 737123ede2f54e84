#define XXH_NO_INLINE_HINTS 1  // A third less code, a few nanoseconds a call.
#define XXH_INLINE_ALL
#include "services/cache_shared/checksum.h"

QUENOR_NAMESPACE_BEGIN
namespace cache_io {

uint64_t CheckOfBytes(const void* bytes, size_t size, uint64_t seed) {
  return XXH3_64bits_withSeed(bytes, size, seed);
}

Digest DigestOf(const void* data, size_t size, uint64_t key) {
  const XXH128_hash_t hash = XXH3_128bits_withSeed(data, size, key);
  return {hash.low64, hash.high64};
}

BodyHasher::BodyHasher(uint64_t seed, uint64_t key) {
  XXH3_INITSTATE(&check_);
  XXH3_INITSTATE(&digest_);
  XXH3_64bits_reset_withSeed(&check_, seed);
  XXH3_128bits_reset_withSeed(&digest_, key);
}

void BodyHasher::Update(const void* data, size_t size) {
  XXH3_64bits_update(&check_, data, size);
  XXH3_128bits_update(&digest_, data, size);
}

uint64_t BodyHasher::Check() const { return XXH3_64bits_digest(&check_); }

Digest BodyHasher::ContentDigest() const {
  const XXH128_hash_t hash = XXH3_128bits_digest(&digest_);
  return {hash.low64, hash.high64};
}

}  // namespace cache_io
QUENOR_NAMESPACE_END
