// Servers as they are shipped, mostly over HTTP/2: nginx, which closes a connection after so many
// requests or as a flood, and nghttpd. The channel's queue runs in virtual time; every message
// arrives.
#include "tests/integration/support/servers.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <set>
#include <sstream>

#include "quenor_base/data_report/https/reliable_report_channel_https.h"
#include "quenor_base/platform/config_center.h"
#include "quenor_base/platform/local_log.h"
#include "quenor_base/platform/socks5_proxy_config.h"
#include "tests/integration/matrix/client_watch.h"
#include "tests/support/fakes/recording_report_events.h"
#include "tests/support/fakes/virtual_time.h"

namespace quenor::test {
namespace {

constexpr size_t kInFlight = 50;
constexpr size_t kProtocolPosts = 3000;

bool IsFull() {
  const char* const full = std::getenv("QUENOR_NETWORK_FULL");
  return full != nullptr && *full == '1';
}

void IgnoreLine(void*, int, const char*, int, const char*, size_t) {}

// nghttpd on a free port of 127.0.0.1; answers each POST with 200 and the bytes that came.
class Nghttpd {
 public:
  static std::string WhyNot() {
    for (const char* path : {"/usr/local/bin/nghttpd", "/usr/sbin/nghttpd", "/usr/bin/nghttpd"}) {
      if (access(path, X_OK) == 0) return "";
    }
    return "nghttpd is not installed; install the package nghttp2-server";
  }

  explicit Nghttpd(const Certificate& certificate) {
    // It cannot say which port it took; another process may be quicker to take a free one.
    for (int attempt = 0; attempt < 20 && !listens_; ++attempt) {
      port_ = UnusedPort();
      process_ = std::make_unique<ChildProcess>(
          std::vector<std::string>{"nghttpd", "-a", "127.0.0.1", "--echo-upload",
                                   std::to_string(port_), certificate.key_file,
                                   certificate.certificate_file},
          folder_.File("output"));
      while (!listens_ && !process_->HasEnded()) {
        listens_ = CanConnect();
        if (!listens_) poll(nullptr, 0, 1);
      }
    }
    EXPECT_TRUE(listens_) << ReadWholeFile(folder_.File("output"));
  }

  std::string Origin() const { return "https://127.0.0.1:" + std::to_string(port_); }

 private:
  bool CanConnect() const {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port_);
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool connected = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    close(fd);
    return connected;
  }

  TempFolder folder_;
  uint16_t port_ = 0;
  bool listens_ = false;
  std::unique_ptr<ChildProcess> process_;
};

class Http2ServersTest : public ::testing::Test {
 protected:
  Http2ServersTest() : authority_(folder_.path(), "ca") {
    certificate_ = authority_.Issue("server", "DNS:localhost,IP:127.0.0.1");
    HttpDefaults defaults;
    defaults.ca_file = authority_.ca_file();
    // A request that libcurl forgets is only found again by one of its limits: it is to fail then.
    defaults.connect_timeout_ms = 600000;
    defaults.total_timeout_ms = 20000;
    EXPECT_EQ("", SetHttpDefaults(defaults));
    config::ConfigCenterImpl::GetInstance()->SetHostOverride(config::BaseCfg().cache_option,
                                                             uint64_t{0});
    GetSocks5ProxyConfigHolder()->SetConfig({});
    watch_->Clear();
    SetLogSink(&IgnoreLine, nullptr);
  }
  ~Http2ServersTest() override { SetLogSink(nullptr, nullptr); }

  // Sends `count` messages, never more than some in flight, and waits until each has arrived.
  void Deliver(const std::string& url, bool http2, size_t count,
               const std::string& content = "message ") {
    auto channel = std::make_shared<ReliableReportChannelHttps>("servers", url, 0, http2, false);
    channel->Initialize();
    channel->SetMaxResendCount(UINT32_MAX);
    for (size_t handed = 0; acknowledged_ < count;) {
      for (; handed < count && handed - acknowledged_ < kInFlight; ++handed) {
        const std::string bytes = content + std::to_string(handed);
        channel->SendPacket(reinterpret_cast<const uint8_t*>(bytes.data()),
                            static_cast<uint32_t>(bytes.size()), true, true);
      }
      clock_.RunUntilIdle();
      Tally();
      if (watch_->started() > acknowledged_ + failed_) {
        watch_->WaitFor(acknowledged_ + failed_ + 1);
        clock_.RunUntilIdle();
        Tally();
      } else if (handed > acknowledged_) {
        // What failed goes out again, one at each tick of the back-off.
        clock_.AdvanceBy(base::TimeDelta::FromSeconds(1));
      }
    }
    channel->Terminate();
    clock_.RunUntilIdle();
    Tally();
    EXPECT_EQ(0u, watch_->repeated());
    EXPECT_EQ(0u, watch_->unrun());
    EXPECT_EQ(watch_->started(), watch_->ended());
    EXPECT_EQ(count, acknowledged_);
    EXPECT_EQ(count + failed_, watch_->ended());
    EXPECT_EQ(0u, lost_);
  }

  // Counts what was told since the last time.
  void Tally() {
    for (const RecordedEvent& event : events_.Events()) {
      acknowledged_ += event.kind == ReportEventKind::kAcknowledged;
      failed_ += event.kind == ReportEventKind::kFailed;
      lost_ += event.kind == ReportEventKind::kDropped || event.kind == ReportEventKind::kRefused ||
               event.kind == ReportEventKind::kKept;
    }
    events_.Clear();
  }

  // nginx that answers 200; `lines` come beside.
  std::unique_ptr<NginxServer> Nginx(const std::string& lines) {
    NginxServer::Options options;
    options.certificate = &certificate_;
    options.http2 = true;
    options.server_lines = "access_log " + RequestLog() + " connections; " + lines +
                           " location / { return 200 '{}'; }";
    return std::make_unique<NginxServer>(options);
  }
  std::string RequestLog() const { return folder_.File("requests.log"); }
  size_t ConnectionsThatNginxSaw() const {
    std::istringstream lines(ReadWholeFile(RequestLog()));
    std::set<std::string> connections;
    for (std::string protocol, connection; lines >> protocol >> connection;) {
      connections.insert(connection);
    }
    return connections.size();
  }

  TempFolder folder_;
  CertificateAuthority authority_;
  Certificate certificate_;
  VirtualTime clock_;
  RecordingReportEvents events_;
  ClientWatch* const watch_ = ClientWatch::Get();
  size_t acknowledged_ = 0;
  size_t failed_ = 0;
  size_t lost_ = 0;
};

TEST_F(Http2ServersTest, NginxThatEndsConnectionsAfterSoManyRequestsGetsEverything) {
  const size_t count = IsFull() ? 25000 : 1000;
  const auto nginx = Nginx("keepalive_requests 50;");

  Deliver(nginx->Origin() + "/reports", /*http2=*/true, count);
  nginx->Stop();

  std::printf("%zu posts over %zu connections, %zu failed once, lost %zu\n", count,
              ConnectionsThatNginxSaw(), failed_, lost_);
  EXPECT_GE(ConnectionsThatNginxSaw(), count / 50);
}

// nginx calls it a flood when it has passed over 8 MiB on one connection: bodies that its answer
// did not wait for count.
TEST_F(Http2ServersTest, NginxThatTakesUsForAFloodGetsEverything) {
  const size_t count = IsFull() ? 25000 : 5000;
  const auto nginx = Nginx("keepalive_requests 1000000; error_log stderr info;");

  Deliver(nginx->Origin() + "/reports", /*http2=*/true, count, std::string(4000, 'x'));
  nginx->Stop();

  std::istringstream lines(nginx->Output());
  size_t floods = 0;
  for (std::string line; std::getline(lines, line);) {
    floods += line.find("flood detected") != std::string::npos;
  }
  std::printf("%zu posts over %zu connections, %zu ended as a flood, %zu failed once, lost %zu\n",
              count, ConnectionsThatNginxSaw(), floods, failed_, lost_);
  EXPECT_GE(floods, 1u);
}

TEST_F(Http2ServersTest, NghttpdGetsEverything) {
  const std::string why_not = Nghttpd::WhyNot();
  if (!why_not.empty()) GTEST_SKIP() << why_not;
  Nghttpd server(certificate_);

  Deliver(server.Origin() + "/reports", /*http2=*/true, 200);

  std::printf("200 posts, %zu failed once, lost %zu\n", failed_, lost_);
  EXPECT_EQ(0u, failed_);
}

class NginxProtocolsTest : public Http2ServersTest, public ::testing::WithParamInterface<bool> {};

TEST_P(NginxProtocolsTest, GetsEverything) {
  const auto nginx = Nginx("");

  Deliver(nginx->Origin() + "/reports", GetParam(), kProtocolPosts);

  std::printf("%zu posts, %zu failed once, lost %zu\n", kProtocolPosts, failed_, lost_);
  EXPECT_EQ(0u, failed_);
}

INSTANTIATE_TEST_SUITE_P(Protocols, NginxProtocolsTest, ::testing::Bool(),
                         [](const auto& test) { return test.param ? "Http2" : "Http1"; });

}  // namespace
}  // namespace quenor::test
