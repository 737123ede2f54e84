#include <gtest/gtest.h>

#include "quenor_base/platform/config_center.h"

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  // A death test runs in a process of its own, started anew: what a process reads only once (the
  // cache option) is unread there, and other threads' locks are free.
  ::testing::GTEST_FLAG(death_test_style) = "threadsafe";
  // No cache unless a test says otherwise; the override outranks the environment.
  quenor::config::ConfigCenterImpl::GetInstance()->SetHostOverride(
      quenor::config::BaseCfg().cache_option, uint64_t{0});
  return RUN_ALL_TESTS();
}
