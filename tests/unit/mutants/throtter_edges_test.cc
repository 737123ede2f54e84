// What a one-line change to the throttle could do unnoticed by its own tests.
#include <gtest/gtest.h>

#include <cstdint>

#include "quenor_base/platform/throtter.h"

namespace quenor::test {
namespace {

TEST(ThrotterEdgeTest, LongPeriodIsNoneThatWrapsToNothing) {
  // In nanoseconds a multiple of 2^32: reckoned in 32 bits it would be no period at all.
  Throtter throtter(uint32_t{1} << 26);

  EXPECT_TRUE(throtter.ShouldGo());
  EXPECT_FALSE(throtter.ShouldGo());
}

}  // namespace
}  // namespace quenor::test
