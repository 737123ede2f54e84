// The cache option of this executable and what goes with it: the option is one per process, so the
// tests that both backends share are linked twice.
#ifndef QUENOR_TESTS_UNIT_CHANNEL_CACHE_CACHE_BACKEND_H_
#define QUENOR_TESTS_UNIT_CHANNEL_CACHE_CACHE_BACKEND_H_

#include <cstdint>
#include <string>

#include "tests/support/fakes/fake_packet_files.h"

namespace quenor::test {

struct CacheBackend {
  uint64_t option;
  std::string suffix;        // Of its files' names.
  std::string refused_save;  // What is logged at a save while the cache is not loaded.
  FakePacketFiles& files;
  FakePacketFiles& other_files;  // Of the backend that must not be touched.
};

// Any thread.
const CacheBackend& Backend();

}  // namespace quenor::test

#endif  // QUENOR_TESTS_UNIT_CHANNEL_CACHE_CACHE_BACKEND_H_
