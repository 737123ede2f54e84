#include <condition_variable>
#include <fstream>
#include <mutex>
#include <set>
#include <sstream>
#include <vector>

#include "quenor_base/platform/thread_manager.h"
#include "tests/integration/channel/channel_fixture.h"
#include "tests/integration/support/scripted_server.h"
#include "tests/integration/support/servers.h"

namespace quenor::test {
namespace {

constexpr char kSuccess[] = "{\"bytes_errinfo\":\"success\"}";

std::string EveryByte() {
  std::string bytes;
  for (int value = 0; value < 256; ++value) bytes.push_back(static_cast<char>(value));
  return bytes;
}

class ChannelTest : public ChannelOverNetworkTest {
 protected:
  void Finish(ReliableReportChannelHttps* channel) {
    channel->Terminate();
    EXPECT_TRUE(core::ThreadManager::WaitForDrain(base::TimeDelta::FromSeconds(60)));
  }
};

// Keeps the bodies that it received and answers 200 with a reply.
class BodyKeeper {
 public:
  explicit BodyKeeper(std::string reply) : reply_(std::move(reply)) {}

  ScriptedServer::Script Script() {
    return [this](ScriptedServer::Connection& connection) {
      ReceivedRequest request;
      while (connection.ReadRequest(&request)) {
        {
          std::lock_guard<std::mutex> hold(mutex_);
          bodies_.push_back(request.body);
        }
        if (!connection.Respond(200, reply_)) return;
      }
    };
  }

  std::multiset<std::string> Bodies() {
    std::lock_guard<std::mutex> hold(mutex_);
    return {bodies_.begin(), bodies_.end()};
  }

 private:
  const std::string reply_;
  std::mutex mutex_;
  std::vector<std::string> bodies_;
};

TEST_F(ChannelTest, EveryMessageArrivesOnceAndUnaltered) {
  BodyKeeper keeper(kSuccess);
  const Certificate certificate = GoodCertificate();
  ScriptedServer server(keeper.Script(), &certificate);
  const auto channel = Start(server.Origin() + "/reports");
  std::multiset<std::string> sent;
  size_t handed_over = 0;
  const auto send = [&](const std::string& bytes) {
    // Below the bound of the store, so that nothing is trimmed.
    if (handed_over >= 100) events_.WaitFor(ReportEventKind::kAcknowledged, handed_over - 99);
    Send(channel.get(), bytes);
    sent.insert(bytes);
    ++handed_over;
  };

  for (int i = 0; i < 1000; ++i) send("line " + std::to_string(i));
  send(std::string(383 * 1024, 'x'));
  send(std::string());
  send(EveryByte());
  events_.WaitFor(ReportEventKind::kAcknowledged, handed_over);
  Finish(channel.get());

  EXPECT_EQ(sent, keeper.Bodies());
  EXPECT_EQ(0u, events_.Count(ReportEventKind::kDropped));
}

class ChannelOverNginxTest : public ChannelTest, public ::testing::WithParamInterface<bool> {};

TEST_P(ChannelOverNginxTest, NginxLogsTheProtocolThatTheFlagAsksFor) {
  const bool http2 = GetParam();
  const Certificate certificate = GoodCertificate();
  NginxServer::Options options;
  options.certificate = &certificate;
  options.http2 = true;  // Offered in both cases: the channel's flag decides.
  const std::string log = folder_.File("requests.log");
  options.server_lines = "access_log " + log + " connections; location / { return 200 '{}'; }";
  NginxServer nginx(options);
  const auto channel = Start(nginx.Origin() + "/reports", http2);

  for (int i = 0; i < 100; ++i) Send(channel.get(), "message");
  events_.WaitFor(ReportEventKind::kAcknowledged, 100);
  Finish(channel.get());
  nginx.Stop();

  std::istringstream lines(ReadWholeFile(log));
  std::map<std::string, int> protocols;
  std::set<std::string> connections;
  for (std::string protocol, connection; lines >> protocol >> connection;) {
    ++protocols[protocol];
    connections.insert(connection);
  }
  EXPECT_EQ((std::map<std::string, int>{{http2 ? "HTTP/2.0" : "HTTP/1.1", 100}}), protocols);
  if (http2) {
    EXPECT_EQ(1u, connections.size());
  } else {
    EXPECT_LE(connections.size(), HttpDefaults().max_connections_per_host);
  }
}

INSTANTIATE_TEST_SUITE_P(Protocols, ChannelOverNginxTest, ::testing::Bool(),
                         [](const auto& test) { return test.param ? "Http2" : "Http1"; });

TEST_F(ChannelTest, SocksProxyWithPasswordIsUsedAndResolvesTheHostName) {
  if (!HostsFileNamesLocalhost()) GTEST_SKIP() << kNoLocalhost;
  BodyKeeper keeper(kSuccess);
  const Certificate certificate = GoodCertificate();
  ScriptedServer server(keeper.Script(), &certificate);
  SocksProxy proxy("reporter", "secret word");
  Socks5ProxyConfigHolder::Socks5ProxyConfig config;
  config.host = "127.0.0.1";
  config.port = proxy.port();
  config.user = "reporter";
  config.password = "secret word";
  config.enabled = true;
  GetSocks5ProxyConfigHolder()->SetConfig(config);
  const auto channel = Start(server.Origin("localhost") + "/");

  Send(channel.get(), "through the proxy");
  events_.WaitFor(ReportEventKind::kAcknowledged, 1);
  Finish(channel.get());

  EXPECT_EQ(std::multiset<std::string>{"through the proxy"}, keeper.Bodies());
  EXPECT_NE(std::string::npos, proxy.Output().find("localhost")) << proxy.Output();
}

TEST_F(ChannelTest, ProxyThatIsDownIsNotBypassed) {
  BodyKeeper keeper(kSuccess);
  const Certificate certificate = GoodCertificate();
  ScriptedServer server(keeper.Script(), &certificate);
  Socks5ProxyConfigHolder::Socks5ProxyConfig config;
  config.host = "127.0.0.1";
  config.port = UnusedPort();
  config.enabled = true;
  GetSocks5ProxyConfigHolder()->SetConfig(config);
  const auto channel = Start(server.Origin() + "/");

  Send(channel.get(), "must not go direct");
  events_.WaitFor(ReportEventKind::kFailed, 2);
  Finish(channel.get());

  EXPECT_EQ(0u, server.accepted());
}

struct BadCertificate {
  const char* name;
  const char* names;
  long from_seconds;
  long to_seconds;
  bool other_authority;
};

void PrintTo(const BadCertificate& bad, std::ostream* out) { *out << bad.name; }

class ChannelBadCertificateTest : public ChannelTest,
                                  public ::testing::WithParamInterface<BadCertificate> {};

TEST_P(ChannelBadCertificateTest, IsRefusedAndTheMessageGoesToTheNextServer) {
  const BadCertificate& bad = GetParam();
  CertificateAuthority other(folder_.path(), "other");
  CertificateAuthority& issuer = bad.other_authority ? other : authority_;
  const Certificate bad_certificate =
      issuer.Issue("bad", bad.names, bad.from_seconds, bad.to_seconds);
  const Certificate good_certificate = GoodCertificate();
  BodyKeeper impostor(kSuccess);
  BodyKeeper keeper(kSuccess);
  ScriptedServer bad_server(impostor.Script(), &bad_certificate);
  ScriptedServer good_server(keeper.Script(), &good_certificate);
  const auto channel = Start(bad_server.Origin() + "/");

  Send(channel.get(), "secret");
  events_.WaitFor(ReportEventKind::kFailed, 1);
  channel->SetServerDomain(good_server.Origin() + "/");
  events_.WaitFor(ReportEventKind::kAcknowledged, 1);
  Finish(channel.get());

  EXPECT_TRUE(impostor.Bodies().empty());
  EXPECT_EQ(std::multiset<std::string>{"secret"}, keeper.Bodies());
}

INSTANTIATE_TEST_SUITE_P(
    Certificates, ChannelBadCertificateTest,
    ::testing::Values(BadCertificate{"OtherAuthority", "IP:127.0.0.1", -3600, 3600, true},
                      BadCertificate{"Expired", "IP:127.0.0.1", -7200, -3600, false},
                      BadCertificate{"NotYetValid", "IP:127.0.0.1", 3600, 7200, false},
                      BadCertificate{"OtherHost", "DNS:other.example", -3600, 3600, false}),
    [](const auto& test) { return test.param.name; });

TEST_F(ChannelTest, ControlFieldsRetuneTheRunningChannel) {
  BodyKeeper keeper(
      "{\"bytes_errinfo\":\"success\",\"uint32_send_interval\":150,"
      "\"uint32_max_resend_count\":9,\"uint32_report_duration\":30}");
  const Certificate certificate = GoodCertificate();
  ScriptedServer server(keeper.Script(), &certificate);
  const auto channel = Start(server.Origin() + "/");
  const uint32_t before_ms = channel->GetReportInterval();

  Send(channel.get(), "first");
  events_.WaitFor(ReportEventKind::kRetuned, 1);
  Send(channel.get(), "second");  // Now in its turn: an interval is set.
  events_.WaitFor(ReportEventKind::kAcknowledged, 2);
  Finish(channel.get());

  EXPECT_EQ(10000u, before_ms);
  EXPECT_EQ(30000u, channel->GetReportInterval());
}

TEST_F(ChannelTest, ServerThatIsDownAtFirstGetsEverythingOnceItIsUp) {
  const Certificate certificate = GoodCertificate();
  const uint16_t port = UnusedPort();
  const std::string origin = "127.0.0.1:" + std::to_string(port);
  const auto channel = Start("https://" + origin + "/reports");
  for (int i = 0; i < 20; ++i) Send(channel.get(), "kept " + std::to_string(i));
  events_.WaitFor(ReportEventKind::kFailed, 20);

  ChildProcess collector(
      {QUENOR_COLLECTOR, "--listen", origin, "--cert", certificate.certificate_file, "--key",
       certificate.key_file, "--log", folder_.File("received.log")},
      folder_.File("collector.out"));
  events_.WaitFor(ReportEventKind::kAcknowledged, 20);
  Finish(channel.get());

  std::ifstream log(folder_.File("received.log"));
  std::set<std::string> received;
  for (std::string line; std::getline(log, line);) {
    received.insert(line.substr(line.find("\"sha256\":\""), 74));
  }
  EXPECT_EQ(20u, received.size());
}

}  // namespace
}  // namespace quenor::test
