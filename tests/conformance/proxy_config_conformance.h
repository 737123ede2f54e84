// What every holder of the proxy's settings must do. An embedder runs it on his own by linking that
// and writing
//   INSTANTIATE_TYPED_TEST_SUITE_P(Mine, ProxyConfigConformance, LinkedProxyConfig);
// in namespace quenor::conformance. The parameter says where the process's holder is.
#ifndef QUENOR_TESTS_CONFORMANCE_PROXY_CONFIG_CONFORMANCE_H_
#define QUENOR_TESTS_CONFORMANCE_PROXY_CONFIG_CONFORMANCE_H_

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "quenor_base/platform/socks5_proxy_config.h"

namespace quenor::conformance {

// The holder that is linked.
struct LinkedProxyConfig {
  static Socks5ProxyConfigHolder* Holder() { return GetSocks5ProxyConfigHolder(); }
};

template <typename Linked>
class ProxyConfigConformance : public testing::Test {
 protected:
  using Config = Socks5ProxyConfigHolder::Socks5ProxyConfig;

  ~ProxyConfigConformance() override { Linked::Holder()->SetConfig(Config()); }

  static Config Settings(const std::string& text) {
    return {text + ".example", 1080, text, "secret of " + text, true};
  }
  static auto Values(const Config& config) {
    return std::tuple(config.host, config.port, config.user, config.password, config.enabled);
  }
};
TYPED_TEST_SUITE_P(ProxyConfigConformance);

TYPED_TEST_P(ProxyConfigConformance, HasOneHolderWithoutAProxyUntilTheHostSetsOne) {
  ASSERT_NE(nullptr, TypeParam::Holder());
  EXPECT_EQ(TypeParam::Holder(), TypeParam::Holder());
  EXPECT_EQ(this->Values({}), this->Values(TypeParam::Holder()->GetConfig()));
}

TYPED_TEST_P(ProxyConfigConformance, GivesBackACopyOfWhatWasSetLast) {
  TypeParam::Holder()->SetConfig(this->Settings("first"));
  auto config = this->Settings("second");
  TypeParam::Holder()->SetConfig(config);
  config.host = "changed";

  auto copy = TypeParam::Holder()->GetConfig();
  EXPECT_EQ(this->Values(this->Settings("second")), this->Values(copy));
  copy.user = "changed";

  EXPECT_EQ(this->Values(this->Settings("second")), this->Values(TypeParam::Holder()->GetConfig()));
}

TYPED_TEST_P(ProxyConfigConformance, ReplacesTheSettingsWhole) {
  TypeParam::Holder()->SetConfig(this->Settings("first"));
  TypeParam::Holder()->SetConfig({"second.example", 1, "", "", false});

  EXPECT_EQ(this->Values({"second.example", 1, "", "", false}),
            this->Values(TypeParam::Holder()->GetConfig()));
}

TYPED_TEST_P(ProxyConfigConformance, NeverMixesTheSettingsOfTwoThreads) {
  std::vector<std::thread> threads;
  TypeParam::Holder()->SetConfig(this->Settings("0"));
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([this, i] {
      for (int n = 0; n < 500; ++n) {
        TypeParam::Holder()->SetConfig(this->Settings(std::to_string(i)));
        const auto config = TypeParam::Holder()->GetConfig();
        EXPECT_EQ(this->Values(this->Settings(config.user)), this->Values(config));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

REGISTER_TYPED_TEST_SUITE_P(ProxyConfigConformance, HasOneHolderWithoutAProxyUntilTheHostSetsOne,
                            GivesBackACopyOfWhatWasSetLast, ReplacesTheSettingsWhole,
                            NeverMixesTheSettingsOfTwoThreads);

}  // namespace quenor::conformance

#endif  // QUENOR_TESTS_CONFORMANCE_PROXY_CONFIG_CONFORMANCE_H_
