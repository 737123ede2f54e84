#include "tests/conformance/dispatch_queue_conformance.h"
#include "tests/conformance/throtter_conformance.h"

namespace quenor::conformance {

INSTANTIATE_TEST_SUITE_P(Mine, DispatchQueueConformance, ::testing::Values(&MakeThreadedHost));
INSTANTIATE_TYPED_TEST_SUITE_P(Mine, ThrotterConformance, LinkedThrotter);

}  // namespace quenor::conformance
