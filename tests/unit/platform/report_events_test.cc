#include "quenor_base/platform/report_events.h"

#include <gtest/gtest.h>

#include "tests/conformance/report_events_conformance.h"

namespace quenor::conformance {

INSTANTIATE_TYPED_TEST_SUITE_P(Default, ReportEventsConformance, ReportEvents);

}  // namespace quenor::conformance

QUENOR_NAMESPACE_BEGIN
namespace {

TEST(ReportEventsTest, NamesItsImplementation) {
  EXPECT_STREQ("std", ReportEvents::ImplementationName());
}

}  // namespace
QUENOR_NAMESPACE_END
