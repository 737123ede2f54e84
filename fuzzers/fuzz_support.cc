#include "fuzzers/fuzz_support.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace quenor::fuzz {

uint64_t Interesting(Random& random, uint64_t other) {
  constexpr uint64_t kNumbers[] = {0,          1,          2,          63,
                                   64,         16384,      32768,      UINT32_MAX,
                                   UINT64_MAX, 1ull << 31, 1ull << 62, (1ull << 62) - 1,
                                   1ull << 63, ~16383ull};
  switch (Below(random, 4)) {
    case 0:
      return kNumbers[Below(random, std::size(kNumbers))];
    case 1:
      return other + Below(random, 17) - 8;
    case 2:
      return Below(random, 100);
    default:
      return uint64_t{random()} << Below(random, 40);
  }
}

namespace {

void ChangeOne(Bytes* bytes, size_t begin, const std::vector<std::string>& words, Random& random) {
  begin = std::min(begin, bytes->size());
  const size_t size = bytes->size() - begin;
  const auto at = bytes->begin() + begin + Below(random, size + 1);
  const size_t left = bytes->end() - at;
  const size_t length = Below(random, std::min<size_t>(left, OneIn(random, 8) ? 256 : 8) + 1);
  const std::string& word = words[Below(random, words.size())];
  switch (Below(random, 8)) {
    case 0:
    case 1:
    case 2:
      bytes->insert(at, word.begin(), word.end());
      break;
    case 3:
      bytes->insert(bytes->erase(at, at + length), word.begin(), word.end());
      break;
    case 4:
      bytes->erase(at, at + length);
      break;
    case 5: {
      const Bytes copy(at, at + length);
      bytes->insert(bytes->begin() + begin + Below(random, size + 1), copy.begin(), copy.end());
      break;
    }
    default:
      MutatePart(bytes, begin, size, size + 16);
  }
}

}  // namespace

void MutateText(Bytes* bytes, size_t begin, const std::vector<std::string>& words, Random& random) {
  for (size_t i = 1 + Below(random, 4); i > 0; --i) ChangeOne(bytes, begin, words, random);
}

size_t PutBack(const Bytes& bytes, uint8_t* data, size_t max_size) {
  const size_t size = std::min(bytes.size(), max_size);
  if (size > 0) std::memcpy(data, bytes.data(), size);
  return size;
}

}  // namespace quenor::fuzz
