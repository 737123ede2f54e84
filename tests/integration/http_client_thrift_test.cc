// Caps of bytes, with real servers: what is over one is answered below 1 and goes later.
#include <netinet/in.h>
#include <sys/socket.h>
#include <time.h>

#include <atomic>
#include <thread>

#include "quenor_base/platform/http_thrift.h"
#include "services/http_client_curl/thrift/spending.h"
#include "tests/integration/http_client_fixture.h"
#include "tests/integration/support/scripted_server.h"
#include "tests/integration/support/servers.h"
#include "tests/support/fakes/recording_log.h"
#include "tests/support/forked.h"

// The program is linked with --wrap=clock_gettime: the clock of the caps can be put ahead.
namespace {
std::atomic<int64_t> g_ahead_seconds{0};
}
extern "C" {
int __real_clock_gettime(clockid_t clock, timespec* now);
int __wrap_clock_gettime(clockid_t clock, timespec* now) {
  const int result = __real_clock_gettime(clock, now);
  if (clock == CLOCK_BOOTTIME) now->tv_sec += g_ahead_seconds.load();
  return result;
}
}

namespace quenor::test {
namespace {

constexpr int64_t kDaySeconds = 24 * 3600;
constexpr uint64_t kHandshakeBytes = 4096;

void AnswerEach(ScriptedServer::Connection& connection) {
  ReceivedRequest request;
  while (connection.ReadRequest(&request)) connection.Respond(200, "{}");
}

class HttpClientThriftTest : public HttpClientTest {
 protected:
  // A day and an hour later than any other test.
  HttpClientThriftTest() {
    g_ahead_seconds += 2 * kDaySeconds;
    before_ = GetHttpSpent();
  }
  ~HttpClientThriftTest() override { EXPECT_EQ(SetHttpThrift({}), ""); }

  // A day's cap that leaves so much.
  static void LeaveForDay(uint64_t bytes) {
    EXPECT_EQ(SetHttpThrift({0, GetHttpSpent().bytes_within_day + bytes}), "");
  }
  HttpSpent Spent() const {
    const HttpSpent now = GetHttpSpent();
    return {now.bytes - before_.bytes, now.bytes_within_day - before_.bytes_within_day,
            now.exchanges - before_.exchanges, now.connections - before_.connections,
            now.held_back - before_.held_back};
  }

  HttpSpent before_;
};

TEST_F(HttpClientThriftTest, OverTheCapIsAnsweredBelow1AndGoesLater) {
  const ScriptedServer server(&AnswerEach, &certificate_);
  int asked = 0;
  HttpDefaults defaults = TrustingDefaults();
  defaults.fresh_headers = [&asked] {
    ++asked;
    return std::map<std::string, std::string>{{"X-Token", "fresh"}};
  };
  const auto client = MakeClient(defaults);
  const std::string url = server.Origin() + "/";
  LeaveForDay(20 << 10);
  EXPECT_EQ(Send(client.get(), MakeRequest(url, std::string(10000, 'x'))).status(), 200);
  EXPECT_EQ(Spent().held_back, 0u);
  EXPECT_GE(Spent().bytes, 10000 + kHandshakeBytes);
  EXPECT_LE(Spent().bytes, 10000 + kHandshakeBytes + 400);
  const auto held = std::make_shared<int>();
  const HttpClient::Request more = MakeRequest(url, std::string(10000, 'y'));
  const int64_t id = client->SendRequest(
      more, [held](HttpClient::State, const HttpClient::Request&,
                   std::unique_ptr<HttpClient::Response>) { ADD_FAILURE() << "it was taken"; });
  EXPECT_LT(id, 1);
  EXPECT_EQ(held.use_count(), 1);  // The callback is destroyed.
  EXPECT_LT(Send(client.get(), more).id, 1);
  EXPECT_EQ(Spent().held_back, 2u);
  EXPECT_EQ(Send(client.get(), MakeRequest(url, "small")).status(), 200);
  const std::vector<std::string> lines = RecordingLog::Texts(1);
  ASSERT_EQ(lines.size(), 1u);  // Within a minute.
  EXPECT_EQ(lines[0].find("http: requests are held back: HttpThrift::bytes_per_day is "), 0u);

  g_ahead_seconds += kDaySeconds;  // The hour in which it went is not over by 24.
  EXPECT_LT(Send(client.get(), more).id, 1);
  g_ahead_seconds += 3600;
  EXPECT_EQ(Send(client.get(), more).status(), 200);
  EXPECT_EQ(Spent().exchanges, 3u);
  EXPECT_EQ(asked, 3);  // Not for those that were held back.
  EXPECT_EQ(Spent().connections, 1u);
  EXPECT_GT(Spent().bytes, 20000 + kHandshakeBytes);
  EXPECT_LT(Spent().bytes_within_day, 10400u);
}

TEST_F(HttpClientThriftTest, ALargeRequestGoesAndTheSecondsAfterItArePaidFor) {
  const ScriptedServer server(&AnswerEach);
  const auto client = MakeClient();
  const std::string url = server.Origin() + "/";
  ASSERT_EQ(SetHttpThrift({1, 0}), "");
  EXPECT_EQ(GetHttpThrift().bytes_per_second, 1u);
  EXPECT_EQ(Send(client.get(), MakeRequest(url, std::string(100000, 'x'))).status(), 200);
  EXPECT_LT(Send(client.get(), MakeRequest(url, "x")).id, 1);  // For a day.
  EXPECT_NE(SetHttpThrift({0, 1}), "");
  EXPECT_LT(Send(client.get(), MakeRequest(url, "x")).id, 1);  // Nothing has changed.
  g_ahead_seconds += 100000;
  EXPECT_EQ(Send(client.get(), MakeRequest(url, std::string(16384, 'x'))).status(), 200);
  EXPECT_LT(Send(client.get(), MakeRequest(url, "x")).id, 1);
  ASSERT_EQ(SetHttpThrift({}), "");
  EXPECT_EQ(Send(client.get(), MakeRequest(url, "x")).status(), 200);
  EXPECT_EQ(Spent().held_back, 3u);
  EXPECT_EQ(Spent().connections, 1u);
  EXPECT_LT(Spent().bytes, 118000u);  // No TLS, no handshake.
}

// Whatever part of a body goes out with the head, and whatever it goes over.
TEST_F(HttpClientThriftTest, BodiesAreCountedOnce) {
  for (const bool http2 : {false, true}) {
    NginxServer::Options options;
    options.certificate = &certificate_;
    options.http2 = http2;
    options.server_lines = "location / { return 200 'twelve bytes'; }";
    const NginxServer server(options);
    HttpClient::Config config;
    config.enable_http2 = http2;
    const auto client = MakeClient(TrustingDefaults(), config);
    ASSERT_EQ(Send(client.get(), MakeRequest(server.Origin() + "/", "x")).status(), 200);
    for (const size_t size : {0u, 100u, 15000u, 17000u, 60000u, 70000u, 500000u}) {
      if (http2 && size > 65535) continue;  // Answered, and not read.
      const HttpSpent before = GetHttpSpent();
      const auto request = MakeRequest(server.Origin() + "/", std::string(size, 'x'));
      ASSERT_EQ(Send(client.get(), request).status(), 200);
      const HttpSpent after = GetHttpSpent();
      EXPECT_EQ(after.connections, before.connections) << size;
      EXPECT_GE(after.bytes - before.bytes, size + 200) << http2;
      EXPECT_LE(after.bytes - before.bytes, size + 600) << http2;
    }
  }
}

// What is taken arrives, what is held back does not, and the sums are right.
TEST_F(HttpClientThriftTest, ManyThreadsAndCapsThatChange) {
  std::atomic<uint64_t> arrived{0};
  const ScriptedServer server([&](ScriptedServer::Connection& connection) {
    ReceivedRequest request;
    while (connection.ReadRequest(&request)) {
      ++arrived;
      connection.Respond(200, "{}");
    }
  });
  const auto client = MakeClient();
  const std::string url = server.Origin() + "/";
  std::atomic<uint64_t> taken{0};
  std::atomic<uint64_t> held{0};
  Exchanges exchanges;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 200; ++i) {
        if (t == 0 && i % 20 == 0) LeaveForDay(i % 40 == 0 ? 20000 : 1000000);
        const auto request = MakeRequest(url, std::string(1000, 'x'));
        ++(client->SendRequest(request, exchanges.Note()) >= 1 ? taken : held);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  exchanges.WaitFor(taken);

  for (const Outcome& outcome : exchanges.Take()) EXPECT_EQ(outcome.status(), 200);
  EXPECT_EQ(arrived, taken);
  EXPECT_EQ(Spent().exchanges, taken);
  EXPECT_EQ(Spent().held_back, held);
  EXPECT_EQ(Spent().bytes, Spent().bytes_within_day);
  EXPECT_GT(Spent().bytes, taken * 1000);
  EXPECT_LT(Spent().bytes, taken * 1400);
}

TEST_F(HttpClientThriftTest, WhatNeverWentIsGivenBack) {
  const auto client = MakeClient();
  LeaveForDay(20 << 10);
  const std::string nobody = "https://127.0.0.1:" + std::to_string(UnusedPort()) + "/";
  for (int i = 0; i < 5; ++i) {
    HttpClient::Request request = MakeRequest(nobody, std::string(20000, 'x'));
    EXPECT_GE(Send(client.get(), request).id, 1) << i;
    request.headers["Bad"] = "line\nbreak";  // Refused, and not on charge either.
    EXPECT_LT(Send(client.get(), request).id, 1);
  }
  EXPECT_EQ(Spent().bytes_within_day, 0u);
  EXPECT_EQ(Spent().held_back, 0u);
  EXPECT_EQ(Spent().connections, 0u);
  EXPECT_EQ(Spent().exchanges, 5u);
}

TEST_F(HttpClientThriftTest, AChildHasTheCapsAndHasSpentNothing) {
  const ScriptedServer server(&AnswerEach);
  const auto client = MakeClient();
  const std::string url = server.Origin() + "/";
  ASSERT_EQ(SetHttpThrift({1, 0}), "");
  EXPECT_EQ(Send(client.get(), MakeRequest(url, std::string(100000, 'x'))).status(), 200);
  const HttpSpent spent = GetHttpSpent();

  const int ended = ResultOfChild([&] {
    if (GetHttpSpent().bytes != 0 || GetHttpSpent().bytes_within_day != 0) return 1;
    const auto childs = HttpClientFactory::Create({});
    // Not by a request that goes: the thread sanitizer bears no thread of a child's here.
    if (!HttpSpending::Get().Take(100000).empty()) return 2;
    if (Send(childs.get(), MakeRequest(url, "x")).id >= 1) return 3;
    return GetHttpSpent().bytes_within_day == 100000 && GetHttpSpent().held_back == 1 ? 0 : 4;
  });

  EXPECT_EQ(ended, 0);
  EXPECT_EQ(GetHttpSpent().bytes, spent.bytes);
  EXPECT_EQ(GetHttpSpent().held_back, spent.held_back);
}

// A probe of a connection at rest would wake a phone's radio; one that has rested for 50 s is not
// used again, and a first probe comes after 60.
TEST_F(HttpClientThriftTest, ConnectionsAreNotProbed) {
  const ScriptedServer server(&AnswerEach);
  const auto client = MakeClient();
  ASSERT_EQ(Send(client.get(), MakeRequest(server.Origin() + "/", "x")).status(), 200);
  int connections = 0;
  for (int fd = 0; fd < 1024; ++fd) {
    sockaddr_in peer{};
    socklen_t size = sizeof(peer);
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &size) != 0) continue;
    if (peer.sin_family != AF_INET || ntohs(peer.sin_port) != server.port()) continue;
    ++connections;
    int is_on = -1;
    size = sizeof(is_on);
    EXPECT_EQ(getsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &is_on, &size), 0);
    EXPECT_EQ(is_on, 0);
  }
  EXPECT_EQ(connections, 1);
}

}  // namespace
}  // namespace quenor::test
