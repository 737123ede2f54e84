// The throttle on virtual time keeps the contract that the default keeps.
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>

#include "quenor_base/platform/base/time.h"
#include "quenor_base/platform/throtter.h"
#include "tests/conformance/throtter_conformance.h"
#include "tests/support/virtual_time.h"

namespace quenor::conformance {

struct VirtualThrotter {
  // Each throttle of the suite brings the clock that it reads, if there is none yet.
  class Type {
   public:
    explicit Type(uint32_t period_ms)
        : time_(test::VirtualTime::Current() == nullptr ? std::make_unique<test::VirtualTime>()
                                                        : nullptr),
          throtter_(period_ms) {}
    bool ShouldGo() { return throtter_.ShouldGo(); }

   private:
    const std::unique_ptr<test::VirtualTime> time_;
    Throtter throtter_;
  };
  static void LetTimePass() {
    test::VirtualTime::Current()->AdvanceBy(base::TimeDelta::FromMicroseconds(100));
  }
};

INSTANTIATE_TYPED_TEST_SUITE_P(Virtual, ThrotterConformance, VirtualThrotter);

}  // namespace quenor::conformance

QUENOR_NAMESPACE_BEGIN
namespace {

TEST(FakeThrotterTest, OpensExactlyAfterAPeriodOfVirtualTime) {
  test::VirtualTime time;
  Throtter throtter(60000);
  ASSERT_TRUE(throtter.ShouldGo());

  time.AdvanceBy(base::TimeDelta::FromMicroseconds(59999999));
  EXPECT_FALSE(throtter.ShouldGo());

  time.AdvanceBy(base::TimeDelta::FromMicroseconds(1));
  EXPECT_TRUE(throtter.ShouldGo());
  EXPECT_FALSE(throtter.ShouldGo());
}

}  // namespace
QUENOR_NAMESPACE_END
