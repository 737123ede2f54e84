#include "tests/support/fakes/fake_cache_file.h"
#include "tests/support/fakes/fake_mmap_file.h"
#include "tests/unit/channel_cache/cache_backend.h"

namespace quenor::test {

const CacheBackend& Backend() {
  static const auto* const backend = new CacheBackend{1, ".cache", "cache file has been loaded!",
                                                      FakeCacheFiles(), FakeMmapFiles()};
  return *backend;
}

}  // namespace quenor::test
