// What the fuzzers of the cache files share: a file in memory, and its packets as a multiset. One
// thread.
#ifndef QUENOR_FUZZERS_FUZZED_FILE_H_
#define QUENOR_FUZZERS_FUZZED_FILE_H_

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fuzzers/fuzz_support.h"
#include "quenor_base/platform/base/file_path.h"
#include "quenor_base/platform/cache_file_inspector.h"

namespace quenor::fuzz {

using Packets = std::vector<std::string>;

// How the name of the file under test ends: the inspector goes by it when the first bytes tell
// nothing. Each program has its own.
extern const char* const kFuzzedEnd;
// The path of the file under test: in memory, in a folder of this process, removed at its end.
const std::string& FuzzedPath();
// Removes the file and those beside it.
void RemoveFuzzed();
void WriteFuzzed(const uint8_t* data, size_t size);

// How much of `wanted` is missing in `packets`, each as often as it is in `wanted`.
size_t CountMissing(Packets packets, Packets wanted);

struct Inspected {
  CacheFileInspector::Result result;
  CacheFileInspector::Summary summary;
  Packets packets;  // Of all owners.
};
// Asks the inspector, and checks that what it says of the packets is what it shows.
Inspected InspectFuzzed();
// Whether the file begins like one of the kind with this magic; it is then taken for one.
inline bool BeginsWith(const uint8_t* data, size_t size, uint64_t magic) {
  uint64_t first = 0;
  if (size >= sizeof first) std::memcpy(&first, data, sizeof first);
  return first == magic;
}

// Of a file as a writer left it, killed or not.
Inspected InspectWhole();
// Has the inspector remove the file; how many packets it counted before.
uint64_t PurgeFuzzed();

}  // namespace quenor::fuzz

#endif  // QUENOR_FUZZERS_FUZZED_FILE_H_
