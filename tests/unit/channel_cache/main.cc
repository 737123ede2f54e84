#include <gtest/gtest.h>

#include "quenor_base/platform/config_center.h"
#include "tests/unit/channel_cache/cache_backend.h"

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  // The override outranks the environment.
  quenor::config::ConfigCenterImpl::GetInstance()->SetHostOverride(
      quenor::config::BaseCfg().cache_option, quenor::test::Backend().option);
  return RUN_ALL_TESTS();
}
