#include <gtest/gtest.h>

#include <string>

#include "quenor_base/platform/http_client.h"
#include "tests/support/memory_faults.h"

QUENOR_NAMESPACE_BEGIN
namespace {

using ::quenor::test::MemoryFaults;

HttpDefaults Pinned() {
  HttpDefaults defaults;
  defaults.pinned_public_keys = {"sha256//" + std::string(43, 'A') + "="};
  return defaults;
}

// The lock that they are copied under would stay held, and every later request would wait for it.
TEST(HttpDefaultsDeathTest, MemoryThatRunsOutInTheirCopyEndsTheProcessWithALine) {
  ASSERT_EQ("", SetHttpDefaults(Pinned()));
  for (size_t nth = 1; nth <= 2; ++nth) {
    EXPECT_DEATH(
        {
          MemoryFaults::FailNew(nth);
          (void)GetHttpDefaults();
        },
        "quenor's HTTP client.*bad_alloc");
  }
  const HttpDefaults defaults = Pinned();
  EXPECT_DEATH(
      {
        MemoryFaults::FailNew(1);
        (void)SetHttpDefaults(defaults);
      },
      "quenor's HTTP client.*bad_alloc");
}

}  // namespace
QUENOR_NAMESPACE_END
