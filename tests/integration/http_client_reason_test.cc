// Why an exchange failed, as its callback hears it.
#include "tests/integration/http_client_fixture.h"
#include "tests/integration/support/scripted_server.h"
#include "tests/integration/support/servers.h"
#include "tests/support/loopback.h"
#include "tests/support/process.h"

namespace quenor::test {
namespace {

using Connection = ScriptedServer::Connection;

// Longer than a name's part can be: no resolver asks anybody.
const std::string kNoName = std::string(64, 'n') + ".invalid";

class HttpClientReasonTest : public HttpClientTest {
 protected:
  HttpReason ReasonOf(const std::string& url, const HttpDefaults& defaults,
                      const HttpClient::Config& config = {}) const {
    return Send(MakeClient(defaults, config).get(), MakeRequest(url, "x")).reason;
  }
  HttpReason ReasonOf(const std::string& url) const { return ReasonOf(url, TrustingDefaults()); }

  static HttpClient::Config Through(uint16_t port, const std::string& password = "password") {
    HttpClient::Config config;
    config.SetSocks5Proxy("127.0.0.1", port, "user", password);
    return config;
  }
};

TEST_F(HttpClientReasonTest, NamesWhatKeptItFromConnecting) {
  HttpDefaults hasty = TrustingDefaults();
  hasty.connect_timeout_ms = 50;
  ScriptedServer silent([](Connection& connection) { connection.HoldUntilClosed(); });

  EXPECT_EQ(ReasonOf("https://" + kNoName + "/"), HttpReason::kNameNotFound);
  EXPECT_EQ(ReasonOf("https://127.0.0.1:" + std::to_string(UnusedPort()) + "/"),
            HttpReason::kRefused);
  EXPECT_EQ(ReasonOf("https://255.255.255.255/"), HttpReason::kUnreachable);
  EXPECT_EQ(ReasonOf("https://127.0.0.1:" + std::to_string(silent.port()) + "/", hasty),
            HttpReason::kConnectTimeout);
}

TEST_F(HttpClientReasonTest, NamesWhatIsWrongWithTheAnswer) {
  std::string answer;
  ScriptedServer server(
      [&answer](Connection& connection) {
        ReceivedRequest request;
        if (!connection.ReadRequest(&request)) return;
        if (answer.empty()) connection.HoldUntilClosed();
        connection.Write(answer);
      },
      &certificate_);
  HttpDefaults tight = TrustingDefaults();
  tight.max_response_body_bytes = 1;
  HttpDefaults hasty = TrustingDefaults();
  hasty.total_timeout_ms = 500;
  const std::string url = server.Origin() + "/";

  answer = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n{}";
  EXPECT_EQ(ReasonOf(url), HttpReason::kNone);
  EXPECT_EQ(ReasonOf(url, tight), HttpReason::kTooLarge);
  answer = "HTTP/1.1 503 Busy\r\nContent-Length: 0\r\n\r\n";
  EXPECT_EQ(ReasonOf(url), HttpReason::kHttpStatus);
  answer = "HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\n{}";
  EXPECT_EQ(ReasonOf(url), HttpReason::kProtocol);
  answer = "";
  EXPECT_EQ(ReasonOf(url, hasty), HttpReason::kTotalTimeout);
}

TEST_F(HttpClientReasonTest, NamesWhatIsWrongWithTheProxy) {
  SocksProxy proxy("user", "password");
  ScriptedServer none([](Connection& connection) { connection.Write("HTTP/1.1 400 No\r\n\r\n"); });
  const std::string url = "https://127.0.0.1:" + std::to_string(UnusedPort()) + "/";
  const auto through = [&](const HttpClient::Config& config) {
    return ReasonOf(url, TrustingDefaults(), config);
  };
  HttpClient::Config nameless;
  nameless.SetSocks5Proxy(kNoName, 1080, "", "");

  EXPECT_EQ(through(Through(UnusedPort())), HttpReason::kProxyUnreachable);
  EXPECT_EQ(through(nameless), HttpReason::kProxyUnreachable);
  EXPECT_EQ(through(Through(proxy.port(), "wrong")), HttpReason::kProxyCredentials);
  EXPECT_EQ(through(Through(none.port())), HttpReason::kProxyRefused);
  EXPECT_EQ(through(Through(proxy.port())), HttpReason::kProxyRefused);
}

TEST_F(HttpClientReasonTest, OfAServerThatGoesPastTheProxyIsTheServers) {
  HttpDefaults defaults = TrustingDefaults();
  uint16_t proxy_port = 0;
  uint16_t port = 0;
  const Fd proxy(BindLoopback(&proxy_port));  // Neither listens.
  const Fd server(BindLoopback(&port));
  defaults.proxy.url = "https://127.0.0.1:" + std::to_string(proxy_port);
  const std::string url = "https://127.0.0.1:" + std::to_string(port) + "/";
  EXPECT_EQ(ReasonOf(url, defaults), HttpReason::kProxyUnreachable);

  defaults.proxy.except = {"127.0.0.1", "invalid"};

  EXPECT_EQ(ReasonOf(url, defaults), HttpReason::kRefused);
  EXPECT_EQ(ReasonOf("https://" + kNoName + "/", defaults), HttpReason::kNameNotFound);
  ScriptedServer none([](Connection& connection) { connection.Write("no TLS"); });
  EXPECT_EQ(ReasonOf("https://127.0.0.1:" + std::to_string(none.port()) + "/", defaults),
            HttpReason::kTlsOther);
}

TEST_F(HttpClientReasonTest, OfAnAddressInAnExceptedIpv6NetworkIsTheServers) {
  HttpDefaults defaults = TrustingDefaults();
  uint16_t proxy_port = 0;
  uint16_t port = 0;
  const Fd proxy(BindLoopback(&proxy_port));  // Neither listens.
  const Fd server(BindLoopback(&port));
  defaults.proxy.url = "http://127.0.0.1:" + std::to_string(proxy_port);
  const std::string url = "https://[::1]:" + std::to_string(port) + "/";

  defaults.proxy.except = {"fd00::/8"};
  EXPECT_EQ(ReasonOf(url, defaults), HttpReason::kProxyUnreachable);
  defaults.proxy.except = {"::/64"};
  const HttpReason reason = ReasonOf(url, defaults);
  EXPECT_TRUE(reason == HttpReason::kRefused || reason == HttpReason::kUnreachable)  // No IPv6.
      << HttpReasonName(reason);
}

TEST_F(HttpClientReasonTest, IsCancelledForWhoIsNotWaitedForAndNewForTheNext) {
  ScriptedServer silent([](Connection& connection) { connection.HoldUntilClosed(); });
  Exchanges exchanges;
  auto client = MakeClient();

  ASSERT_GE(client->SendRequest(MakeRequest(silent.Origin() + "/", "x"), exchanges.Note()), 1);
  client.reset();
  exchanges.WaitFor(1);

  EXPECT_EQ(exchanges.Take()[0].reason, HttpReason::kCancelled);
  HttpClient::Request dirty =
      MakeRequest("https://127.0.0.1:" + std::to_string(UnusedPort()) + "/", "x");
  dirty.reason = HttpReason::kTooLarge;
  EXPECT_EQ(Send(MakeClient().get(), dirty).reason, HttpReason::kRefused);
}

}  // namespace
}  // namespace quenor::test
