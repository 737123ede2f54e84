// What the fuzzers share: a check that ends the process, and ways to change an input. One thread.
#ifndef QUENOR_FUZZERS_FUZZ_SUPPORT_H_
#define QUENOR_FUZZERS_FUZZ_SUPPORT_H_

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

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
using Random = std::minstd_rand;

inline size_t Below(Random& random, size_t end) { return random() % end; }
inline bool OneIn(Random& random, size_t n) { return Below(random, n) == 0; }

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

// Changes a text that begins at `begin`, which may be beyond its end, in one to four places: a word
// put in, or in the place of some bytes, bytes doubled or left out, or any change of libFuzzer's.
void MutateText(Bytes* bytes, size_t begin, const std::vector<std::string>& words, Random& random);
// The bytes as a custom mutator gives them back: `data` has room for `max_size`.
size_t PutBack(const Bytes& bytes, uint8_t* data, size_t max_size);

}  // namespace quenor::fuzz

#endif  // QUENOR_FUZZERS_FUZZ_SUPPORT_H_
