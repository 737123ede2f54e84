// Counts, in place of times; made by the program quenor_bench_hand_over_probe.
#ifndef QUENOR_BENCHMARKS_HAND_OVER_FACTS_H_
#define QUENOR_BENCHMARKS_HAND_OVER_FACTS_H_

#include "benchmarks/support/area.h"

namespace quenor::bench {

// Tells every fact of the area that is wanted. Ends the program when the probe fails.
void TellFacts(Area* area);

}  // namespace quenor::bench

#endif  // QUENOR_BENCHMARKS_HAND_OVER_FACTS_H_
