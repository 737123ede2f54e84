#include "quenor_base/platform/throtter.h"

#include <gtest/gtest.h>

#include "tests/conformance/throtter_conformance.h"

namespace quenor::conformance {

INSTANTIATE_TYPED_TEST_SUITE_P(Default, ThrotterConformance, LinkedThrotter);

}  // namespace quenor::conformance

QUENOR_NAMESPACE_BEGIN
namespace {

TEST(ThrotterTest, NamesItsImplementation) { EXPECT_STREQ("std", Throtter::ImplementationName()); }

}  // namespace
QUENOR_NAMESPACE_END
