// What the contenders of the area "admission" keep: messages of one size, as many all the time, of
// which in each operation one comes and the oldest goes.
#ifndef QUENOR_BENCHMARKS_ADMISSION_CONTENTS_H_
#define QUENOR_BENCHMARKS_ADMISSION_CONTENTS_H_

#include <cstdint>
#include <random>
#include <vector>

#include "benchmarks/support/area.h"

namespace quenor::bench {

using Bytes = std::vector<uint8_t>;

inline void FillRandom(Bytes* bytes, std::mt19937_64* random) {
  size_t at = 0;
  while (at < bytes->size()) {
    uint64_t word = (*random)();
    for (int i = 0; i < 8 && at < bytes->size(); ++i, word >>= 8) {
      (*bytes)[at++] = static_cast<uint8_t>(word);
    }
  }
}

inline std::vector<Bytes> RandomMessages(size_t count, size_t size, uint64_t seed) {
  std::mt19937_64 random(seed);
  std::vector<Bytes> messages(count, Bytes(size));
  for (Bytes& message : messages) FillRandom(&message, &random);
  return messages;
}

// How many messages are made, off the clock, before so many are timed in a row.
constexpr size_t kBatch = 32;

// Mean nanoseconds of one operation with a message that was never seen before. `prepare(messages)`
// takes a batch of them, off the clock; then `operate(i)` is called for each. Goes on until
// `least_ns` were timed.
template <typename Prepare, typename Operate>
double MeanNsOfFresh(size_t size, double least_ns, std::mt19937_64* random, const Prepare& prepare,
                     const Operate& operate) {
  std::vector<Bytes> fresh(kBatch, Bytes(size));
  double spent = 0;
  size_t count = 0;
  while (spent < least_ns) {
    for (Bytes& message : fresh) FillRandom(&message, random);
    prepare(fresh);
    const double begin = NowNs();
    for (size_t i = 0; i < kBatch; ++i) operate(i);
    spent += NowNs() - begin;
    count += kBatch;
  }
  return spent / static_cast<double>(count);
}

}  // namespace quenor::bench

#endif  // QUENOR_BENCHMARKS_ADMISSION_CONTENTS_H_
