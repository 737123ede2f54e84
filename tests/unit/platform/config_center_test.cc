#include "quenor_base/platform/config_center.h"

#include <gtest/gtest.h>

#include "tests/conformance/captured_log.h"
#include "tests/conformance/environment_variable.h"

QUENOR_NAMESPACE_BEGIN
namespace config {
namespace {

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

}  // namespace
}  // namespace config
QUENOR_NAMESPACE_END
