// What is set for one origin holds there and nowhere else: two users of the client in one process
// never find each other's authorities, certificates, headers or connections.
#include <atomic>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <thread>

#include "tests/integration/http_client_fixture.h"
#include "tests/integration/support/servers.h"
#include "tests/support/fakes/recording_log.h"

namespace quenor::test {
namespace {

// Says by which connection a request came, as whom, with which header, and whether the TLS session
// is one that was resumed ("r").
constexpr char kSayWho[] =
    "ssl_verify_client optional_no_ca; ssl_session_cache shared:s:1m;"
    "location / {"
    "  add_header x-connection $connection; add_header x-client \"$ssl_client_fingerprint\";"
    "  add_header x-set \"$http_x_set\"; add_header x-agent \"$http_user_agent\";"
    "  add_header x-resumed \"$ssl_session_reused\"; return 200 ''; }";

std::string Content(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

// What one user of the client has for itself.
struct Sdk {
  Sdk(const std::string& folder, const std::string& name_in)
      : name(name_in),
        authority(folder, name_in),
        servers(authority.Issue(name_in + "-server", "DNS:localhost,IP:127.0.0.1")),
        own(authority.Issue(name_in + "-client", "DNS:" + name_in)) {
    settings.ca_pem = Content(authority.ca_file());
    settings.pinned_public_keys = {servers.pin};
    settings.client_certificate_pem = Content(own.certificate_file);
    settings.client_key_pem = Content(own.key_file);
    settings.headers = {{"X-Set", name}};
    settings.user_agent = "sdk-" + name;
  }
  NginxServer::Options Nginx(bool http2, const char* more = "keepalive_requests 100000;") const {
    NginxServer::Options options;
    options.certificate = &servers;
    options.http2 = http2;
    options.server_lines = more + std::string(kSayWho);
    return options;
  }

  const std::string name;
  CertificateAuthority authority;
  const Certificate servers;
  const Certificate own;
  HttpSettings settings;
};

class HttpClientSettingsTest : public HttpClientTest, public ::testing::WithParamInterface<bool> {
 protected:
  ~HttpClientSettingsTest() override {
    for (const std::string& origin : origins_) ResetHttpSettings(origin);
    EXPECT_EQ(SetHttpDefaults(HttpDefaults()), "");
  }
  void Set(const std::string& origin, const HttpSettings& settings) {
    ASSERT_EQ(SetHttpSettings(origin, settings), "");
    origins_.insert(origin);
  }
  // Which set an answered request went by, as its server saw it; each connection is of one set.
  std::string SetOf(const Outcome& outcome) {
    const std::string seen = outcome.header("x-set") + " " + outcome.header("x-agent") + " " +
                             outcome.header("x-client");
    EXPECT_EQ(outcome.status(), 200)
        << (RecordingLog::Texts(2).empty() ? "" : RecordingLog::Texts(2).back());
    std::string& of_connection = connections_[outcome.header("x-connection")];
    if (of_connection.empty()) of_connection = seen;
    EXPECT_EQ(of_connection, seen);
    return seen;
  }

  std::set<std::string> origins_;
  std::map<std::string, std::string> connections_;
};

INSTANTIATE_TEST_SUITE_P(Http, HttpClientSettingsTest, ::testing::Values(false, true),
                         [](const auto& row) { return row.param ? "Http2" : "Http11"; });

TEST_P(HttpClientSettingsTest, OfTwoOriginsEachHasItsOwn) {
  Sdk a(folder_.path(), "a");
  Sdk b(folder_.path(), "b");
  const NginxServer server_a(a.Nginx(GetParam()));
  const NginxServer server_b(b.Nginx(GetParam()));
  HttpClient::Config config;
  config.enable_http2 = GetParam();
  const auto client = MakeClient(HttpDefaults(), config);
  EXPECT_EQ(Send(client.get(), MakeRequest(server_a.Origin() + "/", "x")).status(), 0);
  const SocksProxy proxy("user", "password");
  const bool is_proxied = HostsFileNamesLocalhost();  // Which the proxy has to resolve.
  if (is_proxied) {
    const std::string url = "socks5h://127.0.0.1:" + std::to_string(proxy.port());
    a.settings.proxy = {url, "user", "password", "", {}};
  }
  Set(server_a.Origin(), a.settings);
  Set(server_b.Origin(), b.settings);
  constexpr int kEach = 1250;

  std::vector<std::vector<Outcome>> outcomes(4);
  std::vector<std::thread> threads;
  for (size_t t = 0; t < outcomes.size(); ++t) {
    threads.emplace_back([&, t] {
      const std::string url = (t % 2 == 0 ? server_a : server_b).Origin() + "/";
      Exchanges exchanges;
      for (int i = 0; i < kEach; ++i) {
        EXPECT_GE(client->SendRequest(MakeRequest(url, "x"), exchanges.Note()), 1);
        if (i % 25 == 24) exchanges.WaitFor(static_cast<size_t>(i) + 1);
      }
      exchanges.WaitFor(kEach);
      outcomes[t] = exchanges.Take();
    });
  }
  for (std::thread& thread : threads) thread.join();

  for (size_t t = 0; t < outcomes.size(); ++t) {
    connections_.clear();
    std::set<std::string> sets;
    for (const Outcome& outcome : outcomes[t]) sets.insert(SetOf(outcome).substr(0, 8));
    EXPECT_EQ(sets, std::set<std::string>{t % 2 == 0 ? "a sdk-a " : "b sdk-b "});
  }
  const auto went_through = [&](const NginxServer& server) {
    return proxy.Output().find("localhost:" + std::to_string(server.port())) != std::string::npos;
  };
  EXPECT_EQ(went_through(server_a), is_proxied);
  EXPECT_FALSE(went_through(server_b));
}

TEST_P(HttpClientSettingsTest, NoConnectionStaysWhereNoneIsToStay) {
  Sdk a(folder_.path(), "a");
  const NginxServer server(a.Nginx(GetParam()));
  HttpClient::Config config;
  config.enable_http2 = GetParam();
  const auto client = MakeClient(HttpDefaults(), config);

  for (const bool keep : {false, true}) {
    a.settings.keep_idle_connections = keep;
    Set(server.Origin(), a.settings);
    connections_.clear();
    for (int i = 0; i < 5; ++i) SetOf(Send(client.get(), MakeRequest(server.Origin() + "/", "x")));
    EXPECT_EQ(connections_.size(), keep ? 1u : 5u);
  }
}

// libcurl would give a connection of one to the other.
TEST_P(HttpClientSettingsTest, SetsThatDifferInAHeaderAloneShareNoConnection) {
  Sdk a(folder_.path(), "a");
  const NginxServer server(a.Nginx(GetParam()));
  HttpClient::Config config;
  config.enable_http2 = GetParam();
  const auto client = MakeClient(HttpDefaults(), config);
  const auto connection = [&] {
    return Send(client.get(), MakeRequest(server.Origin() + "/", "x")).header("x-connection");
  };
  Set(server.Origin(), a.settings);
  const std::string first = connection();
  EXPECT_EQ(connection(), first);

  a.settings.headers["x-other"] = "y";
  Set(server.Origin(), a.settings);

  EXPECT_NE(connection(), first);
}

// Two sets in turn for one origin, changed beside the senders.
TEST_P(HttpClientSettingsTest, EachRequestGoesByOneWholeSet) {
  Sdk a(folder_.path(), "a");
  Sdk b(folder_.path(), "b");
  b.settings.ca_pem = a.settings.ca_pem;  // The server is a's.
  b.settings.pinned_public_keys = {a.servers.pin};
  const NginxServer server(a.Nginx(GetParam()));
  HttpClient::Config config;
  config.enable_http2 = GetParam();
  const auto client = MakeClient(HttpDefaults(), config);
  Set(server.Origin(), a.settings);
  constexpr size_t kRequests = 2500;

  std::atomic<bool> is_over{false};
  std::thread changer([&] {
    for (int i = 0; !is_over; ++i) {
      EXPECT_EQ(SetHttpSettings(server.Origin(), i % 2 == 0 ? b.settings : a.settings), "");
      // Some requests go between two changes.
      for (int yields = 0; yields < 100; ++yields) std::this_thread::yield();
    }
  });
  Exchanges exchanges;
  for (size_t i = 0; i < kRequests; ++i) {
    // At least so often, however little the other thread comes to it.
    if (i % 50 == 0) {
      EXPECT_EQ(SetHttpSettings(server.Origin(), (i % 100 == 0 ? b : a).settings), "");
    }
    EXPECT_GE(client->SendRequest(MakeRequest(server.Origin() + "/", "x"), exchanges.Note()), 1);
    if (i % 25 == 24) exchanges.WaitFor(i + 1);
  }
  exchanges.WaitFor(kRequests);
  is_over = true;
  changer.join();

  std::map<std::string, int> seen;
  for (const Outcome& outcome : exchanges.Take()) ++seen[SetOf(outcome)];
  EXPECT_EQ(seen.size(), 2u) << seen.begin()->first << ": " << seen.begin()->second;
}

TEST_P(HttpClientSettingsTest, AnotherHandleResumesTheTlsSession) {
  Sdk a(folder_.path(), "a");
  const NginxServer server(a.Nginx(GetParam(), "keepalive_requests 1;"));
  HttpClient::Config config;
  config.enable_http2 = GetParam();
  Set(server.Origin(), a.settings);

  std::map<std::string, int> handshakes;
  for (int i = 0; i < 20; ++i) {
    const auto client = MakeClient(HttpDefaults(), config);
    // Without a body: nginx would answer before it has read one, and then closes in a hurry.
    const Outcome outcome = Send(client.get(), MakeRequest(server.Origin() + "/", "", "GET"));
    ++handshakes[outcome.header("x-resumed")];
    SetOf(outcome);
  }

  EXPECT_EQ(connections_.size(), 20u);  // None was kept.
  EXPECT_EQ(handshakes["."], 1);
  EXPECT_EQ(handshakes["r"], 19);
}

TEST_P(HttpClientSettingsTest, HeadersThatChangeAreAskedForEachRequest) {
  Sdk a(folder_.path(), "a");
  const NginxServer server(a.Nginx(GetParam()));
  std::atomic<int> asked{0};
  a.settings.fresh_headers = [&] {
    return std::map<std::string, std::string>{{"x-set", "token " + std::to_string(++asked)}};
  };
  HttpClient::Config config;
  config.enable_http2 = GetParam();
  const auto client = MakeClient(HttpDefaults(), config);
  Set(server.Origin(), a.settings);
  HttpClient::Request request = MakeRequest(server.Origin() + "/", "x");

  for (int i = 1; i <= 3; ++i) {
    EXPECT_EQ(Send(client.get(), request).header("x-set"), "token " + std::to_string(i));
  }
  request.headers = {{"X-SET", "the request's"}};
  EXPECT_EQ(Send(client.get(), request).header("x-set"), "the request's");
  EXPECT_TRUE(ResetHttpSettings(server.Origin()));
  EXPECT_FALSE(ResetHttpSettings(server.Origin()));
  EXPECT_EQ(Send(client.get(), request).status(), 0);  // Nobody is trusted any more.

  a.settings.fresh_headers = [] { return std::map<std::string, std::string>{{"A", "x\r\nB: y"}}; };
  Set(server.Origin(), a.settings);
  EXPECT_LT(Send(client.get(), request).id, 1);
}

// Nothing has changed after any of these.
TEST_P(HttpClientSettingsTest, WhatCannotBeMeantIsRefusedByName) {
  Sdk a(folder_.path(), "a");
  Sdk b(folder_.path(), "b");
  const NginxServer server(a.Nginx(false));
  const auto client = MakeClient(HttpDefaults());
  Set(server.Origin(), a.settings);
  const struct {
    const char* named;
    std::function<void(HttpSettings*)> spoil;
  } rows[] = {
      {"client_key_pem", [&](HttpSettings* s) { s->client_key_pem = a.settings.client_key_pem; }},
      {"ca_file", [&](HttpSettings* s) { s->ca_pem.clear(), s->ca_file = folder_.File("none"); }},
      {"headers", [](HttpSettings* s) { s->headers["A"] = "x\r\nB: y"; }},
      {"user_agent", [](HttpSettings* s) { s->user_agent = "a\nb"; }},
      {"pinned_public_keys", [](HttpSettings* s) { s->pinned_public_keys = {"md5//"}; }},
  };
  for (const auto& row : rows) {
    HttpSettings settings = b.settings;
    row.spoil(&settings);
    const std::string problem = SetHttpSettings(server.Origin(), settings);
    EXPECT_NE(problem.find(row.named), std::string::npos) << problem;
    EXPECT_EQ(problem.find("BEGIN"), std::string::npos) << problem;
    EXPECT_EQ(Send(client.get(), MakeRequest(server.Origin() + "/", "x")).header("x-set"), "a");
  }
  for (const char* origin : {"", "localhost", "ftp://localhost", "https://"}) {
    EXPECT_NE(SetHttpSettings(origin, a.settings), "") << origin;
  }
}

}  // namespace
}  // namespace quenor::test
