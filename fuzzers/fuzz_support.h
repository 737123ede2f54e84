// What the fuzzers of the cache files share: a file in memory, its packets as a multiset, and a
// check that ends the process. One thread.
#ifndef QUENOR_FUZZERS_FUZZ_SUPPORT_H_
#define QUENOR_FUZZERS_FUZZ_SUPPORT_H_

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "quenor_base/platform/base/file_path.h"
#include "quenor_base/platform/cache_file_inspector.h"

#define FUZZ_CHECK(condition)                                                            \
  do {                                                                                   \
    if (!(condition)) {                                                                  \
      std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                      \
    }                                                                                    \
  } while (false)

extern "C" {
int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t max_size, unsigned seed);
// libFuzzer's, or the replay's own.
size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t max_size);
}

namespace quenor::fuzz {

using Bytes = std::vector<uint8_t>;
using Packets = std::vector<std::string>;
using Random = std::minstd_rand;

inline size_t Below(Random& random, size_t end) { return random() % end; }
inline bool OneIn(Random& random, size_t n) { return Below(random, n) == 0; }

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

// Lets libFuzzer change a part of `bytes`, to at most `max_part` bytes.
inline void MutatePart(Bytes* bytes, size_t begin, size_t size, size_t max_part) {
  Bytes part(bytes->begin() + begin, bytes->begin() + begin + size);
  part.resize(max_part < size ? size : max_part);
  if (part.empty()) return;
  part.resize(LLVMFuzzerMutate(part.data(), size, part.size()));
  bytes->erase(bytes->begin() + begin, bytes->begin() + begin + size);
  bytes->insert(bytes->begin() + begin, part.begin(), part.end());
}
// A number that is near a limit, or near `other`.
uint64_t Interesting(Random& random, uint64_t other);

}  // namespace quenor::fuzz

#endif  // QUENOR_FUZZERS_FUZZ_SUPPORT_H_
