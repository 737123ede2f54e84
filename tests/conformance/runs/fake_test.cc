// The contracts of the queues and timers on virtual time: what holds for the real ones holds for
// those that the other tests see.
#include "tests/conformance/timer_conformance.h"
#include "tests/unit/support/virtual_host.h"

namespace quenor::conformance {
namespace {

INSTANTIATE_TEST_SUITE_P(Virtual, DispatchQueueConformance, ::testing::Values(&MakeVirtualHost));
INSTANTIATE_TEST_SUITE_P(Virtual, TimerConformance, ::testing::Values(&MakeVirtualHost));

}  // namespace
}  // namespace quenor::conformance
