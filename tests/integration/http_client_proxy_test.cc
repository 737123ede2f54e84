// The SOCKS5 proxy: what goes through it, and that nothing ever goes past it.
#include <algorithm>

#include "quenor_base/platform/socks5_proxy_config.h"
#include "tests/integration/http_client_fixture.h"
#include "tests/integration/support/scripted_server.h"
#include "tests/integration/support/servers.h"
#include "tests/support/fakes/recording_log.h"

namespace quenor::test {
namespace {

using State = HttpClient::State;
using Connection = ScriptedServer::Connection;

constexpr char kUser[] = "reporter";
constexpr char kPassword[] = "p@ss:w/rd";

class HttpClientProxyTest : public HttpClientTest {
 protected:
  HttpClientProxyTest()
      : server_(
            [](Connection& connection) {
              ReceivedRequest request;
              while (connection.ReadRequest(&request)) connection.Respond(200, request.body);
            },
            &certificate_) {}

  static HttpClient::Config Through(uint16_t port, const std::string& password = kPassword) {
    HttpClient::Config config;
    config.SetSocks5Proxy("127.0.0.1", port, kUser, password);
    return config;
  }

  std::string Url() const { return server_.Origin() + "/"; }

  ScriptedServer server_;
};

// ---- Without encryption: through a proxy that is not there, so that nothing leaves --------------

TEST_F(HttpClientProxyTest, FirstRequestWithoutEncryptionIsWarnedOfOnce) {
  const auto direct = MakeClient(HttpDefaults());
  const auto client = MakeClient(HttpDefaults(), Through(UnusedPort()));
  const auto warnings = [] {
    size_t count = 0;
    for (const std::string& text : RecordingLog::Texts(2)) {
      count += text.find("without encryption") != std::string::npos;
    }
    return count;
  };

  Send(direct.get(), MakeRequest("http://127.0.0.1:" + std::to_string(UnusedPort()) + "/", "x"));
  Send(client.get(), MakeRequest("https://collector.example/", "x"));
  EXPECT_EQ(warnings(), 0u);
  for (const char* url : {"http://u:p@collector.example/a?t=1", "http://collector.example/b"}) {
    Send(client.get(), MakeRequest(url, "x"));
    EXPECT_EQ(warnings(), 1u);
  }
  const std::vector<std::string> texts = RecordingLog::Texts(2);
  EXPECT_EQ(std::count(texts.begin(), texts.end(),
                       "http: requests to http://collector.example/a go out without encryption; "
                       "give https://, and set HttpDefaults::require_tls to have others refused"),
            1);
}

TEST_F(HttpClientProxyTest, RequestWithoutEncryptionIsRefusedWhereTheHostForbidsIt) {
  HttpDefaults defaults = TrustingDefaults();
  const auto allowed = MakeClient(defaults, Through(UnusedPort()));
  defaults.require_tls = true;
  const auto client = MakeClient(defaults);
  ASSERT_TRUE(GetHttpDefaults().require_tls);

  for (const char* url :
       {"http://127.0.0.1:1/", "HTTP://localhost:1/", "http:/collector.example"}) {
    Send(allowed.get(), MakeRequest(url, "x"));  // Known as usable now.
    EXPECT_LT(client->SendRequest(MakeRequest(url, "x"), nullptr), 1) << url;
  }
  EXPECT_EQ(Send(client.get(), MakeRequest(server_.Origin() + "/", "x")).status(), 200);
}

TEST_F(HttpClientProxyTest, NameIsResolvedByTheProxy) {
  if (!HostsFileNamesLocalhost()) GTEST_SKIP() << kNoLocalhost;
  SocksProxy proxy(kUser, kPassword);
  const auto client = MakeClient(TrustingDefaults(), Through(proxy.port()));

  EXPECT_EQ(Send(client.get(), MakeRequest(server_.Origin("localhost") + "/", "via")).body(),
            "via");

  EXPECT_NE(proxy.Output().find("localhost:" + std::to_string(server_.port())), std::string::npos)
      << proxy.Output();
}

TEST_F(HttpClientProxyTest, AddressesGoThroughTheProxyToo) {
  SocksProxy proxy(kUser, kPassword);
  const auto client = MakeClient(TrustingDefaults(), Through(proxy.port()));

  EXPECT_EQ(Send(client.get(), MakeRequest(Url(), "4")).body(), "4");
  EXPECT_EQ(Send(client.get(), MakeRequest(server_.Origin("[::1]") + "/", "6")).body(), "6");

  EXPECT_NE(proxy.Output().find("127.0.0.1:" + std::to_string(server_.port())), std::string::npos)
      << proxy.Output();
  EXPECT_NE(proxy.Output().find("::1:" + std::to_string(server_.port())), std::string::npos)
      << proxy.Output();
}

TEST_F(HttpClientProxyTest, WrongPasswordFailsAndIsNotLogged) {
  SocksProxy proxy(kUser, kPassword);
  const auto client = MakeClient(TrustingDefaults(), Through(proxy.port(), "wr0ng"));

  EXPECT_EQ(Send(client.get(), MakeRequest(Url(), "x")).state, State::kFailed);

  EXPECT_EQ(server_.accepted(), 0u);
  ASSERT_EQ(RecordingLog::Texts(2).size(), 1u);
  const std::string line = RecordingLog::Texts(2)[0];
  EXPECT_NE(line.find(" through socks5h://127.0.0.1:"), std::string::npos) << line;
  EXPECT_NE(line.find("check the proxy's user and password"), std::string::npos) << line;
  EXPECT_EQ(line.find("wr0ng"), std::string::npos) << line;
  EXPECT_EQ(line.find(kUser), std::string::npos) << line;
}

TEST_F(HttpClientProxyTest, ProxyThatIsDownIsNeverBypassed) {
  const auto client = MakeClient(TrustingDefaults(), Through(UnusedPort()));

  EXPECT_EQ(Send(client.get(), MakeRequest(server_.Origin("localhost") + "/", "x")).state,
            State::kFailed);
  EXPECT_EQ(Send(client.get(), MakeRequest(Url(), "x")).state, State::kFailed);

  EXPECT_EQ(server_.accepted(), 0u);
}

TEST_F(HttpClientProxyTest, ProxyThatGoesDownIsNotBypassedAfterwards) {
  SocksProxy proxy(kUser, kPassword);
  const auto client = MakeClient(TrustingDefaults(), Through(proxy.port()));
  ASSERT_EQ(Send(client.get(), MakeRequest(Url(), "x")).status(), 200);

  proxy.Stop();

  EXPECT_EQ(Send(client.get(), MakeRequest(Url(), "x")).state, State::kFailed);
  EXPECT_EQ(server_.accepted(), 1u);
}

TEST_F(HttpClientProxyTest, ConnectionsAreNotSharedBetweenProxiedAndDirectClients) {
  SocksProxy proxy(kUser, kPassword);
  SocksProxy second(kUser, kPassword);
  const auto direct = MakeClient();
  const auto proxied = MakeClient(TrustingDefaults(), Through(proxy.port()));
  const auto other = MakeClient(TrustingDefaults(), Through(second.port()));

  for (int i = 0; i < 3; ++i) {
    for (HttpClient* client : {direct.get(), proxied.get(), other.get()}) {
      EXPECT_EQ(Send(client, MakeRequest(Url(), "x")).status(), 200);
    }
  }

  EXPECT_EQ(server_.accepted(), 3u);
}

TEST_F(HttpClientProxyTest, OtherCredentialsDoNotShareAConnection) {
  SocksProxy proxy(kUser, kPassword);
  const auto right = MakeClient(TrustingDefaults(), Through(proxy.port()));
  const auto wrong = MakeClient(TrustingDefaults(), Through(proxy.port(), "wr0ng"));

  EXPECT_EQ(Send(right.get(), MakeRequest(Url(), "x")).status(), 200);
  EXPECT_EQ(Send(wrong.get(), MakeRequest(Url(), "x")).state, State::kFailed);
}

TEST_F(HttpClientProxyTest, CredentialsThatLookEncodedReachTheProxyAsTheyAre) {
  constexpr char kLooksEncoded[] = "p%41%zz+%";
  SocksProxy proxy("u%42", kLooksEncoded);
  HttpClient::Config config;
  config.SetSocks5Proxy("127.0.0.1", proxy.port(), "u%42", kLooksEncoded);
  const auto client = MakeClient(TrustingDefaults(), config);

  EXPECT_EQ(Send(client.get(), MakeRequest(Url(), "x")).status(), 200);
}

TEST_F(HttpClientProxyTest, SilentProxyTimesOut) {
  ScriptedServer silent([](Connection& connection) { connection.HoldUntilClosed(); });
  HttpDefaults defaults = TrustingDefaults();
  defaults.connect_timeout_ms = 50;
  const auto client = MakeClient(defaults, Through(silent.port()));

  EXPECT_EQ(Send(client.get(), MakeRequest(Url(), "x")).state, State::kTimedOut);
  EXPECT_EQ(server_.accepted(), 0u);
}

TEST_F(HttpClientProxyTest, Ipv6ProxyMayBeWrittenWithAndWithoutBrackets) {
  const uint16_t port = UnusedPort();
  for (const char* host : {"::1", "[::1]"}) {
    RecordingLog::Clear();
    HttpClient::Config config;
    config.SetSocks5Proxy(host, port, "", "");
    const auto client = MakeClient(TrustingDefaults(), config);
    ASSERT_NE(client, nullptr) << host;
    EXPECT_EQ(
        Send(client.get(), MakeRequest("https://" + std::string(host[0] == '[' ? "a" : "b"), "x"))
            .state,
        State::kFailed);
    ASSERT_EQ(RecordingLog::Texts(2).size(), 1u);
    EXPECT_NE(RecordingLog::Texts(2)[0].find("socks5h://[::1]:" + std::to_string(port)),
              std::string::npos)
        << RecordingLog::Texts(2)[0];
  }
}

TEST_F(HttpClientProxyTest, ProxyThatCannotBeMeantMakesNoClient) {
  for (const char* host :
       {"", "a b", "user@host", "host/path", "socks5://host", "h\r\nx", "a%41", "[::1"}) {
    HttpClient::Config config;
    config.SetSocks5Proxy(host, 1080, "", "");
    EXPECT_EQ(HttpClientFactory::Create(config), nullptr) << host;
  }
  HttpClient::Config config;
  config.SetSocks5Proxy("127.0.0.1", 0, "", "");
  EXPECT_EQ(HttpClientFactory::Create(config), nullptr);
}

// ---- The process-wide settings ------------------------------------------------------------------

}  // namespace
}  // namespace quenor::test
