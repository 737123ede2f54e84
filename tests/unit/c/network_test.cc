// What C programs set for the HTTP client: taken whole, or refused by its name with nothing
// changed.
#include "c/quenor/network.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <thread>

#include "c/quenor/transport.h"
#include "quenor_base/platform/http_settings.h"
#include "quenor_base/platform/http_thrift.h"
#include "tests/support/certificates.h"
#include "tests/support/temp_folder.h"

namespace quenor::test {
namespace {

constexpr char kOrigin[] = "https://collector.example";
using Function = int (*)(void*, quenor_headers*);

template <typename T>
T Fresh() {
  T structure;
  QUENOR_INIT(&structure);
  return structure;
}

class CNetworkTest : public ::testing::Test {
 protected:
  ~CNetworkTest() override {
    quenor_set_transport(nullptr);
    quenor_reset_http(kOrigin);
    EXPECT_EQ(SetHttpDefaults(HttpDefaults()), "");
    EXPECT_EQ(SetHttpThrift({}), "");
  }

  // What fresh_headers() gives, as the client asks for it.
  std::optional<std::map<std::string, std::string>> Ask() {
    return GetHttpDefaults().fresh_headers();
  }

  const TempFolder folder_;
  quenor_http http_ = Fresh<quenor_http>();
};

TEST_F(CNetworkTest, EveryFieldIsTaken) {
  CertificateAuthority authority(folder_.path(), "own");
  const Certificate own = authority.Issue("own", "DNS:own");
  const char* const pins[] = {"sha256//AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA="};
  const char* const except[] = {"localhost", "10.0.0.0/8"};
  const char* const places[] = {"collector.example:443:127.0.0.1"};
  const quenor_header headers[] = {{"Authorization", "Basic eA=="}, {"X-A", ""}};
  http_.ca_file = authority.ca_file().c_str();
  http_.ca_folder = folder_.path().c_str();
  http_.pinned_public_keys = pins;
  http_.pinned_public_key_count = 1;
  http_.client_certificate_file = own.certificate_file.c_str();
  http_.client_key_file = own.key_file.c_str();
  http_.user_agent = "c/1";
  http_.connect_timeout_ms = 1;
  http_.total_timeout_ms = 2;
  http_.low_speed_bytes_per_second = 3;
  http_.low_speed_seconds = 4;
  http_.max_response_body_bytes = 5;
  http_.max_response_header_bytes = 6;
  http_.max_connections_per_host = 7;
  http_.require_tls = 1;
  http_.close_idle_connections = 1;
  http_.headers = headers;
  http_.header_count = 2;
  http_.proxy_url = "http://proxy.example:3128";
  http_.proxy_user = "user";
  http_.proxy_password = "password";
  http_.proxy_ca_file = authority.ca_file().c_str();
  http_.proxy_except = except;
  http_.proxy_except_count = 2;
  http_.proxy_from_environment = 1;
  http_.connect_to = places;
  http_.connect_to_count = 1;
  ASSERT_EQ(quenor_set_http(nullptr, &http_), QUENOR_OK) << quenor_last_error();

  HttpSettings wanted;
  wanted.ca_file = authority.ca_file();
  wanted.ca_folder = folder_.path();
  wanted.pinned_public_keys = {pins[0]};
  wanted.client_certificate_file = own.certificate_file;
  wanted.client_key_file = own.key_file;
  wanted.user_agent = "c/1";
  wanted.connect_timeout_ms = 1;
  wanted.total_timeout_ms = 2;
  wanted.low_speed_bytes_per_second = 3;
  wanted.low_speed_seconds = 4;
  wanted.max_response_body_bytes = 5;
  wanted.max_response_header_bytes = 6;
  wanted.max_connections_per_host = 7;
  wanted.require_tls = true;
  wanted.keep_idle_connections = false;
  wanted.headers = {{"Authorization", "Basic eA=="}, {"X-A", ""}};
  wanted.proxy = {"http://proxy.example:3128",
                  "user",
                  "password",
                  authority.ca_file(),
                  {"localhost", "10.0.0.0/8"}};
  wanted.proxy_from_environment = true;
  wanted.connect_to = {places[0]};
  EXPECT_TRUE(GetHttpDefaults() == wanted);

  http_ = Fresh<quenor_http>();
  ASSERT_EQ(quenor_set_http(nullptr, &http_), QUENOR_OK) << quenor_last_error();
  HttpSettings defaults;
  defaults.user_agent = std::string("quenor/") + quenor_version();
  EXPECT_TRUE(GetHttpDefaults() == defaults);
}

TEST_F(CNetworkTest, WhatCannotBeMeantIsRefusedByItsName) {
  http_.user_agent = "before";
  ASSERT_EQ(quenor_set_http(nullptr, &http_), QUENOR_OK);
  http_ = Fresh<quenor_http>();
  static const char* const bad[] = {"a b"};
  static const char* const pins[] = {"md5//"};
  static const quenor_header broken[] = {{"A", "x\r\nB: y"}};
  static const quenor_header twice[] = {{"A", "x"}, {"A", "y"}};
  const struct {
    std::function<void(quenor_http*)> spoil;
    const char* named;
  } rows[] = {
      {[](quenor_http* h) { h->ca_file = "/nowhere/proxy.pem"; }, "ca_file '/nowhere/proxy.pem'"},
      {[](quenor_http* h) { h->ca_folder = "/nowhere"; }, "ca_folder"},
      {[](quenor_http* h) { h->ca_pem = "none"; }, "ca_pem"},
      {[](quenor_http* h) { h->pinned_public_keys = pins, h->pinned_public_key_count = 1; },
       "pinned_public_keys"},
      {[](quenor_http* h) { h->client_certificate_file = "/nowhere"; }, "client_certificate_file"},
      {[](quenor_http* h) { h->client_certificate_pem = "none"; }, "client_certificate_pem"},
      {[](quenor_http* h) { h->client_key_file = "/nowhere"; }, "client_key_file"},
      {[](quenor_http* h) { h->client_key_pem = "none"; }, "client_key_pem"},
      {[](quenor_http* h) { h->user_agent = "a\nb"; }, "user_agent"},
      {[](quenor_http* h) { h->max_response_header_bytes = 1 << 20; }, "max_response_header_bytes"},
      {[](quenor_http* h) { h->headers = broken, h->header_count = 1; }, "headers: "},
      {[](quenor_http* h) { h->headers = twice, h->header_count = 2; }, "headers: A"},
      {[](quenor_http* h) { h->proxy_url = "http://proxy.example:3128/path"; }, "proxy_url"},
      {[](quenor_http* h) { h->proxy_url = "http://p:1", h->proxy_user = "a:b"; }, "proxy_user"},
      {[](quenor_http* h) { h->proxy_url = "http://p:1", h->proxy_password = "s3cret"; },
       "proxy_password"},
      {[](quenor_http* h) { h->proxy_ca_file = "/nowhere"; }, "proxy_ca_file"},
      {[](quenor_http* h) {
         h->proxy_url = "http://p:1", h->proxy_except = bad, h->proxy_except_count = 1;
       },
       "proxy_except"},
      {[](quenor_http* h) { h->connect_to = bad, h->connect_to_count = 1; }, "connect_to"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.named);
    quenor_http http = http_;
    row.spoil(&http);
    for (const char* origin : {static_cast<const char*>(nullptr), kOrigin}) {
      EXPECT_EQ(quenor_set_http(origin, &http), QUENOR_BAD_OPTION);
      EXPECT_NE(std::strstr(quenor_last_error(), row.named), nullptr) << quenor_last_error();
      EXPECT_EQ(std::strstr(quenor_last_error(), "s3cret"), nullptr) << quenor_last_error();
    }
  }
  for (const char* origin : {"", "collector.example", "https://collector.example/path"}) {
    EXPECT_EQ(quenor_set_http(origin, &http_), QUENOR_BAD_OPTION) << origin;
    EXPECT_NE(std::strstr(quenor_last_error(), "origin"), nullptr) << quenor_last_error();
  }
  EXPECT_EQ(GetHttpDefaults().user_agent, "before");
  EXPECT_EQ(quenor_reset_http(kOrigin), 0);
}

TEST_F(CNetworkTest, NullPointersAreBadArguments) {
  static const char* const null_text[] = {nullptr};
  static const quenor_header null_header[] = {{"A", nullptr}};
  const std::function<void(quenor_http*)> rows[] = {
      [](quenor_http* h) { h->size = 0; },
      [](quenor_http* h) { h->pinned_public_key_count = 1; },
      [](quenor_http* h) { h->pinned_public_keys = null_text, h->pinned_public_key_count = 1; },
      [](quenor_http* h) { h->header_count = 1; },
      [](quenor_http* h) { h->headers = null_header, h->header_count = 1; },
      [](quenor_http* h) { h->proxy_except_count = 1; },
      [](quenor_http* h) { h->connect_to = null_text, h->connect_to_count = 1; },
  };
  for (const auto& spoil : rows) {
    quenor_http http = http_;
    spoil(&http);
    EXPECT_EQ(quenor_set_http(nullptr, &http), QUENOR_BAD_ARGUMENT);
  }
  EXPECT_EQ(quenor_set_http(nullptr, nullptr), QUENOR_BAD_ARGUMENT);
  EXPECT_EQ(quenor_reset_http(nullptr), 0);
  EXPECT_EQ(quenor_add_header(nullptr, "a", "b"), QUENOR_BAD_ARGUMENT);
  EXPECT_EQ(quenor_set_thrift(nullptr), QUENOR_BAD_ARGUMENT);
  EXPECT_EQ(quenor_get_spent(nullptr), QUENOR_BAD_ARGUMENT);
}

TEST_F(CNetworkTest, AnOriginHasItsOwnUntilTheyAreReset) {
  ASSERT_EQ(quenor_set_http("https://COLLECTOR.example:443", &http_), QUENOR_OK);
  EXPECT_EQ(quenor_reset_http(kOrigin), 1);
  EXPECT_EQ(quenor_reset_http(kOrigin), 0);
}

TEST_F(CNetworkTest, AnEncryptedKeyIsOpenedByItsPassphrase) {
  CertificateAuthority authority(folder_.path(), "own");
  const Certificate own = authority.Issue("own", "DNS:own");
  const std::string encrypted = folder_.File("encrypted.key");
  ASSERT_EQ(std::system(("openssl pkcs8 -topk8 -in " + own.key_file + " -out " + encrypted +
                         " -passout pass:open")
                            .c_str()),
            0);
  http_.client_certificate_file = own.certificate_file.c_str();
  http_.client_key_file = encrypted.c_str();
  EXPECT_EQ(quenor_set_http(nullptr, &http_), QUENOR_BAD_OPTION);
  const auto says = [&](const char* passphrase) {
    http_.context = const_cast<char*>(passphrase);
    http_.key_passphrase = [](void* context, char* text, size_t size) {
      if (context == nullptr) return -1;
      const size_t length = std::strlen(static_cast<char*>(context));
      if (length > size) return static_cast<int>(size) + 1;  // A fault of the host's.
      std::memcpy(text, context, length);
      return static_cast<int>(length);
    };
    return quenor_set_http(nullptr, &http_);
  };
  EXPECT_EQ(says("wrong"), QUENOR_BAD_OPTION);
  EXPECT_NE(std::strstr(quenor_last_error(), "key_passphrase"), nullptr) << quenor_last_error();
  EXPECT_EQ(says(nullptr), QUENOR_BAD_OPTION);
  EXPECT_EQ(says(std::string(5000, 'x').c_str()), QUENOR_BAD_OPTION);
  EXPECT_EQ(says("open"), QUENOR_OK) << quenor_last_error();
}

TEST_F(CNetworkTest, HeadersThatChangeAreAskedForUntilTheyAreWithdrawn) {
  const Function ask = [](void* context, quenor_headers* to) {
    const int round = ++*static_cast<int*>(context);
    EXPECT_EQ(quenor_add_header(to, "Authorization", std::to_string(round).c_str()), QUENOR_OK);
    EXPECT_EQ(quenor_add_header(to, "A", nullptr), QUENOR_BAD_ARGUMENT);
    return round == 3 ? 1 : 0;
  };
  int rounds = 0;
  http_.fresh_headers = ask;
  http_.context = &rounds;
  ASSERT_EQ(quenor_set_http(nullptr, &http_), QUENOR_OK);
  EXPECT_EQ(Ask()->at("Authorization"), "1");
  EXPECT_EQ(Ask()->at("Authorization"), "2");
  EXPECT_FALSE(Ask());  // The third time the host has none.
  EXPECT_EQ(quenor_withdraw_fresh_headers(ask), 0u);
  EXPECT_FALSE(Ask());
  EXPECT_EQ(rounds, 3);
  ASSERT_EQ(quenor_set_http(nullptr, &http_), QUENOR_OK);
  EXPECT_EQ(Ask()->at("Authorization"), "4");
}

TEST_F(CNetworkTest, WithdrawingSaysHowManyCallsRun) {
  struct Gate {
    std::atomic<bool> is_in{false}, may_go{false};
  } gate;
  http_.context = &gate;
  http_.fresh_headers = [](void* context, quenor_headers*) {
    auto* const at = static_cast<Gate*>(context);
    at->is_in = true;
    while (!at->may_go) std::this_thread::yield();
    return 0;
  };
  ASSERT_EQ(quenor_set_http(nullptr, &http_), QUENOR_OK);
  std::thread asking([&] { EXPECT_TRUE(Ask()); });
  while (!gate.is_in) std::this_thread::yield();
  EXPECT_EQ(quenor_withdraw_fresh_headers(http_.fresh_headers), 1u);
  EXPECT_FALSE(Ask());
  gate.may_go = true;
  asking.join();
  EXPECT_EQ(quenor_withdraw_fresh_headers(http_.fresh_headers), 0u);
}

TEST_F(CNetworkTest, BesideATransportOnlyWhatItHeedsIsTaken) {
  auto transport = Fresh<quenor_transport>();
  transport.start = [](void*, const quenor_request*) { return 1; };
  ASSERT_EQ(quenor_set_transport(&transport), QUENOR_OK);
  EXPECT_EQ(quenor_set_http(kOrigin, &http_), QUENOR_BAD_OPTION);
  http_.require_tls = 1;
  http_.total_timeout_ms = 1000;
  http_.max_response_body_bytes = 1000;
  EXPECT_EQ(quenor_set_http(nullptr, &http_), QUENOR_OK) << quenor_last_error();
  http_.proxy_url = "http://proxy.example:3128";
  EXPECT_EQ(quenor_set_http(nullptr, &http_), QUENOR_BAD_OPTION);
  EXPECT_NE(std::strstr(quenor_last_error(), "quenor_set_transport"), nullptr);
  EXPECT_EQ(GetHttpDefaults().total_timeout_ms, 1000u);
  auto thrift = Fresh<quenor_thrift>();
  EXPECT_EQ(quenor_set_thrift(&thrift), QUENOR_BAD_OPTION);
  EXPECT_EQ(quenor_watch_network(1), QUENOR_BAD_OPTION);
  quenor_network_changed();
}

TEST_F(CNetworkTest, CapsAndWhatIsSpent) {
  auto thrift = Fresh<quenor_thrift>();
  thrift.bytes_per_second = 1000;
  thrift.bytes_per_day = 100000;
  ASSERT_EQ(quenor_set_thrift(&thrift), QUENOR_OK) << quenor_last_error();
  thrift.bytes_per_day = 1;
  EXPECT_EQ(quenor_set_thrift(&thrift), QUENOR_BAD_OPTION);
  EXPECT_NE(std::strstr(quenor_last_error(), "bytes_per_day"), nullptr) << quenor_last_error();
  thrift.bytes_per_day = 0;
  thrift.bytes_per_second = UINT64_MAX;
  EXPECT_EQ(quenor_set_thrift(&thrift), QUENOR_BAD_OPTION);
  EXPECT_NE(std::strstr(quenor_last_error(), "bytes_per_second"), nullptr) << quenor_last_error();
  EXPECT_EQ(GetHttpThrift().bytes_per_second, 1000u);
  EXPECT_EQ(GetHttpThrift().bytes_per_day, 100000u);
  quenor_spent spent;
  std::memset(&spent, 0xa5, sizeof spent);
  spent.size = offsetof(quenor_spent, held_back);
  ASSERT_EQ(quenor_get_spent(&spent), QUENOR_OK);
  EXPECT_EQ(spent.bytes + spent.bytes_within_day + spent.exchanges + spent.connections, 0u);
  EXPECT_EQ(spent.held_back, 0xa5a5a5a5a5a5a5a5u) << "beyond its size";
  EXPECT_EQ(quenor_watch_network(1), QUENOR_OK) << quenor_last_error();
  EXPECT_EQ(quenor_watch_network(0), QUENOR_OK);
}

}  // namespace
}  // namespace quenor::test
