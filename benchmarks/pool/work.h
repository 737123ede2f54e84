// What a round does, and for whom: the same loops over each contender.
#ifndef QUENOR_BENCHMARKS_POOL_WORK_H_
#define QUENOR_BENCHMARKS_POOL_WORK_H_

#include <cstdint>
#include <string>

namespace quenor::bench {

struct Work {
  // "pool", "bare", "nodes", "malloc".
  std::string who;
  // "pairs": `depth` arrays are taken and then given back, the last one first.
  // "stream": one thread takes, another one gives back.
  std::string what;
  int class_index = 0;
  int depth = 1;
  double at_least_ms = 0;
};

struct Done {
  double ns_each = -1;           // Of one array, taken and given back; below 0: it failed.
  double allocations_each = -1;  // Of the heap; below 0: nobody counts them in this process.
};

// Takes the calling thread for one of the SDK's.
Done DoWork(const Work& work);

// Only for the pool and depth 1.
void TakeAndGivePooled(uint32_t size, int times);

}  // namespace quenor::bench

#endif  // QUENOR_BENCHMARKS_POOL_WORK_H_
