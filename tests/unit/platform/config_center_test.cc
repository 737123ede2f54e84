#include "quenor_base/platform/config_center.h"

#include <gtest/gtest.h>

#include "tests/conformance/config_center_conformance.h"

namespace quenor::conformance {

INSTANTIATE_TYPED_TEST_SUITE_P(Default, ConfigCenterConformance, config::ConfigCenterImpl);

}  // namespace quenor::conformance

QUENOR_NAMESPACE_BEGIN
namespace config {
namespace {

TEST(ConfigCenterTest, LeavesTheCacheOptionToItsReaderWhenNoSourceHasIt) {
  const conformance::EnvironmentVariable unset("QUENOR_REPORT_CACHE_OPTION", nullptr);
  ConfigCenterImpl* const center = ConfigCenterImpl::GetInstance();

  EXPECT_EQ(uint64_t{2}, center->GetValueWithPriority(BaseCfg().cache_option, 2));
  EXPECT_EQ(base::nullopt, center->GetValueWithPriority(BaseCfg().cache_option, base::nullopt));
}

TEST(ConfigCenterTest, FallsBackToTheDefaultBehindATextThatIsNoNumber) {
  const conformance::CapturedLog log;
  const conformance::EnvironmentVariable variable("QUENOR_REPORT_CACHE_OPTION", "mmap");

  EXPECT_EQ(uint64_t{2},
            ConfigCenterImpl::GetInstance()->GetValueWithPriority(BaseCfg().cache_option, 2));
}

TEST(ConfigCenterTest, SaysWhatToDoAboutATextThatIsNoNumber) {
  static int runs = 0;  // Once per key is logged, so each run takes another one.
  const std::string number = std::to_string(++runs);
  const conformance::CapturedLog log;
  const conformance::EnvironmentVariable variable("QUENOR_UNIT_KEY" + number, "-1");

  ConfigCenterImpl::GetInstance()->GetValueWithPriority("quenor.unit.key" + number, 2);

  ASSERT_EQ(1u, log.lines().size());
  EXPECT_EQ("config: QUENOR_UNIT_KEY" + number +
                "=\"-1\" is skipped: it is not a decimal number from 0 to 18446744073709551615; "
                "correct the variable or unset it",
            log.lines()[0].text);
}

TEST(ConfigCenterTest, MapsOnlyDotsAndLowerCaseLettersToTheVariablesName) {
  const conformance::EnvironmentVariable variable("QUENOR_UNIT-KEY_2", "5");

  EXPECT_EQ(uint64_t{5},
            ConfigCenterImpl::GetInstance()->GetValueWithPriority("quenor.Unit-kEy_2", 2));
}

TEST(ConfigCenterTest, NamesItsImplementation) {
  EXPECT_STREQ("std", ConfigCenterImpl::ImplementationName());
}

}  // namespace
}  // namespace config
QUENOR_NAMESPACE_END
