// A channel over the real HTTP client, a certificate authority, and a listener that a test can wait
// on. Threads: the test's own; events arrive on others.
#ifndef QUENOR_TESTS_INTEGRATION_CHANNEL_CHANNEL_FIXTURE_H_
#define QUENOR_TESTS_INTEGRATION_CHANNEL_CHANNEL_FIXTURE_H_

#include <gtest/gtest.h>

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "quenor_base/data_report/https/reliable_report_channel_https.h"
#include "quenor_base/platform/config_center.h"
#include "quenor_base/platform/http_client.h"
#include "quenor_base/platform/report_events.h"
#include "quenor_base/platform/socks5_proxy_config.h"
#include "tests/support/certificates.h"
#include "tests/support/patience.h"
#include "tests/support/temp_folder.h"

namespace quenor::test {

// Counts events and wakes whoever waits for one.
class EventCounter : public ReportEventListener {
 public:
  EventCounter() { ReportEvents::SetListener(this); }
  ~EventCounter() override { ReportEvents::SetListener(nullptr); }

  void OnReportEvent(const ReportEvent& event) override {
    std::lock_guard<std::mutex> hold(mutex_);
    ++counts_[event.kind];
    changed_.notify_all();
  }

  // Returns once the kind has been told `count` times; throws when it is not.
  void WaitFor(ReportEventKind kind, size_t count) {
    std::unique_lock<std::mutex> hold(mutex_);
    WaitPatiently(&changed_, &hold, std::to_string(count) + " events",
                  [&] { return counts_[kind] >= count; });
  }

  size_t Count(ReportEventKind kind) {
    std::lock_guard<std::mutex> hold(mutex_);
    return counts_[kind];
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::map<ReportEventKind, size_t> counts_;
};

class ChannelOverNetworkTest : public ::testing::Test {
 protected:
  ChannelOverNetworkTest() : authority_(folder_.path(), "ca") {
    Trust(authority_);
    // Nothing on disk: these tests are about the network.
    config::ConfigCenterImpl::GetInstance()->SetHostOverride(config::BaseCfg().cache_option,
                                                             uint64_t{0});
    GetSocks5ProxyConfigHolder()->SetConfig({});
  }

  static void Trust(const CertificateAuthority& authority) {
    HttpDefaults defaults;
    defaults.ca_file = authority.ca_file();
    EXPECT_EQ("", SetHttpDefaults(defaults));
  }

  Certificate GoodCertificate() { return authority_.Issue("server", "DNS:localhost,IP:127.0.0.1"); }

  // A channel that never gives a message up.
  std::shared_ptr<ReliableReportChannelHttps> Start(const std::string& url, bool http2 = false) {
    auto channel =
        std::make_shared<ReliableReportChannelHttps>("network_test", url, 0, http2, false);
    channel->Initialize();
    channel->SetMaxResendCount(UINT32_MAX);
    return channel;
  }

  static void Send(ReliableReportChannelHttps* channel, const std::string& bytes,
                   bool send_now = true) {
    channel->SendPacket(reinterpret_cast<const uint8_t*>(bytes.data()),
                        static_cast<uint32_t>(bytes.size()), true, send_now);
  }

  TempFolder folder_;
  CertificateAuthority authority_;
  EventCounter events_;
};

}  // namespace quenor::test

#endif  // QUENOR_TESTS_INTEGRATION_CHANNEL_CHANNEL_FIXTURE_H_
