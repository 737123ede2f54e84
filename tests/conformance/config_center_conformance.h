// What every configuration centre must do. An embedder runs it on his own by linking that and
// writing
//   INSTANTIATE_TYPED_TEST_SUITE_P(Mine, ConfigCenterConformance,
//   quenor::config::ConfigCenterImpl);
// in namespace quenor::conformance. The parameter has the members of ConfigCenterImpl.
#ifndef QUENOR_TESTS_CONFORMANCE_CONFIG_CENTER_CONFORMANCE_H_
#define QUENOR_TESTS_CONFORMANCE_CONFIG_CENTER_CONFORMANCE_H_

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "quenor_base/platform/config_center.h"
#include "tests/conformance/captured_log.h"
#include "tests/conformance/environment_variable.h"

namespace quenor::conformance {

template <typename Center>
class ConfigCenterConformance : public testing::Test {
 protected:
  // A key of its own for each test: what is logged once per key stays logged for the process.
  ConfigCenterConformance() {
    static int tests = 0;
    const std::string number = std::to_string(++tests);
    key_ = "quenor.conformance.Key" + number;
    variable_ = "QUENOR_CONFORMANCE_KEY" + number;
  }
  ~ConfigCenterConformance() override {
    center().SetHostOverride(key_, base::nullopt);
    center().SetHostOverride(config::BaseCfg().cache_option, base::nullopt);
  }

  static Center& center() { return *Center::GetInstance(); }
  base::Optional<uint64_t> Get(base::Optional<uint64_t> default_value) {
    return center().GetValueWithPriority(key_, default_value);
  }

  std::string key_;
  std::string variable_;  // The key's environment variable.
};
TYPED_TEST_SUITE_P(ConfigCenterConformance);

TYPED_TEST_P(ConfigCenterConformance, HasOneInstanceAndOneKeyTable) {
  EXPECT_NE(nullptr, TypeParam::GetInstance());
  EXPECT_EQ(TypeParam::GetInstance(), TypeParam::GetInstance());
  EXPECT_EQ(&config::BaseCfg(), &config::BaseCfg());
  EXPECT_EQ("quenor.report.cache_option", config::BaseCfg().cache_option);
}

TYPED_TEST_P(ConfigCenterConformance, GivesTheDefaultOfAKeyThatNoSourceHas) {
  EXPECT_EQ(uint64_t{2}, this->Get(2));
  EXPECT_EQ(uint64_t{7}, this->Get(7));
  EXPECT_EQ(base::nullopt, this->Get(base::nullopt));
}

TYPED_TEST_P(ConfigCenterConformance, PrefersTheHostToTheEnvironmentAndThatToTheDefault) {
  const EnvironmentVariable variable(this->variable_, "5");
  EXPECT_EQ(uint64_t{5}, this->Get(2));
  EXPECT_EQ(uint64_t{5}, this->Get(base::nullopt));

  this->center().SetHostOverride(this->key_, 9);
  EXPECT_EQ(uint64_t{9}, this->Get(2));
  this->center().SetHostOverride(this->key_, 0);
  EXPECT_EQ(uint64_t{0}, this->Get(2)) << "the host's last";
  this->center().SetHostOverride(this->key_, base::nullopt);
  EXPECT_EQ(uint64_t{5}, this->Get(2)) << "taken back";
}

TYPED_TEST_P(ConfigCenterConformance, LetsHostAndEnvironmentChooseTheCacheOption) {
  const std::string& key = config::BaseCfg().cache_option;
  const EnvironmentVariable variable("QUENOR_REPORT_CACHE_OPTION", "0");
  EXPECT_EQ(uint64_t{0}, this->center().GetValueWithPriority(key, 2));

  this->center().SetHostOverride(key, 1);

  EXPECT_EQ(uint64_t{1}, this->center().GetValueWithPriority(key, 2));
}

TYPED_TEST_P(ConfigCenterConformance, GivesNumbersOf64BitsWhole) {
  EnvironmentVariable variable(this->variable_, "4294967297");
  EXPECT_EQ(uint64_t{4294967297}, this->Get(2));

  variable.Set("18446744073709551615");
  EXPECT_EQ(std::numeric_limits<uint64_t>::max(), this->Get(2));

  variable.Set("0");
  EXPECT_EQ(uint64_t{0}, this->Get(2));

  variable.Set("007");
  EXPECT_EQ(uint64_t{7}, this->Get(2));

  this->center().SetHostOverride(this->key_, std::numeric_limits<uint64_t>::max());
  EXPECT_EQ(std::numeric_limits<uint64_t>::max(), this->Get(2));
}

TYPED_TEST_P(ConfigCenterConformance, SkipsAnEnvironmentTextThatIsNoDecimalNumber) {
  const CapturedLog log;
  EnvironmentVariable variable(this->variable_, nullptr);

  for (const char* text : {"",
                           " ",
                           "+1",
                           "-1",
                           "-0",
                           " 1",
                           "1 ",
                           "1\n",
                           "\t1",
                           "0x1",
                           "1e3",
                           "1.0",
                           "1,0",
                           "1_000",
                           "one",
                           "true",
                           "1a",
                           "18446744073709551616",
                           "99999999999999999999999999",
                           "\xD9\xA1"}) {
    variable.Set(text);
    EXPECT_EQ(uint64_t{2}, this->Get(2)) << '"' << text << '"';
  }
}

TYPED_TEST_P(ConfigCenterConformance, LogsASkippedTextOncePerKeyWithVariableAndValue) {
  const CapturedLog log;
  EnvironmentVariable variable(this->variable_, "two");

  this->Get(2);
  this->Get(2);
  variable.Set("three");
  this->Get(2);

  ASSERT_EQ(1u, log.lines().size());
  EXPECT_EQ(2, log.lines()[0].level);
  EXPECT_NE(std::string::npos, log.lines()[0].text.find(this->variable_));
  EXPECT_NE(std::string::npos, log.lines()[0].text.find("two"));
}

TYPED_TEST_P(ConfigCenterConformance, LogsNothingAboutNumbersAndKeysUnset) {
  const CapturedLog log;
  EnvironmentVariable variable(this->variable_, "1");

  this->Get(2);
  variable.Set(nullptr);
  this->Get(2);

  EXPECT_TRUE(log.lines().empty());
}

TYPED_TEST_P(ConfigCenterConformance, TellsKeysApart) {
  const std::string other = this->key_ + "x";
  this->center().SetHostOverride(this->key_, 9);

  EXPECT_EQ(uint64_t{2}, this->center().GetValueWithPriority(other, 2));
  EXPECT_EQ(uint64_t{2}, this->center().GetValueWithPriority("", 2));
}

TYPED_TEST_P(ConfigCenterConformance, ServesManyThreadsAtOnce) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([this, i] {
      for (int n = 0; n < 500; ++n) {
        if (i % 2 == 0) {
          this->center().SetHostOverride(this->key_,
                                         n % 2 == 0 ? base::Optional<uint64_t>(9) : base::nullopt);
        } else {
          const base::Optional<uint64_t> value = this->Get(2);
          EXPECT_TRUE(value == uint64_t{2} || value == uint64_t{9});
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

REGISTER_TYPED_TEST_SUITE_P(ConfigCenterConformance, HasOneInstanceAndOneKeyTable,
                            GivesTheDefaultOfAKeyThatNoSourceHas,
                            PrefersTheHostToTheEnvironmentAndThatToTheDefault,
                            LetsHostAndEnvironmentChooseTheCacheOption, GivesNumbersOf64BitsWhole,
                            SkipsAnEnvironmentTextThatIsNoDecimalNumber,
                            LogsASkippedTextOncePerKeyWithVariableAndValue,
                            LogsNothingAboutNumbersAndKeysUnset, TellsKeysApart,
                            ServesManyThreadsAtOnce);

}  // namespace quenor::conformance

#endif  // QUENOR_TESTS_CONFORMANCE_CONFIG_CENTER_CONFORMANCE_H_
