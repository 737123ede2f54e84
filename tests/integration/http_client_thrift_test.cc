// Caps of bytes, with real servers: what is over one is answered below 1 and goes later.
#include <netinet/in.h>
#include <sys/socket.h>

#include "quenor_base/platform/http_thrift.h"
#include "tests/integration/http_client_fixture.h"
#include "tests/integration/support/scripted_server.h"
#include "tests/integration/support/servers.h"
#include "tests/support/fakes/recording_log.h"
#include "tests/support/forked.h"

namespace quenor::test {
namespace {

constexpr uint64_t kHandshakeBytes = 4096;

void AnswerEach(ScriptedServer::Connection& connection) {
  ReceivedRequest request;
  while (connection.ReadRequest(&request)) connection.Respond(200, "{}");
}

class HttpClientThriftTest : public HttpClientTest {
 protected:
  HttpClientThriftTest() : before_(GetHttpSpent()) {}
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

  const HttpSpent before_;
};

TEST_F(HttpClientThriftTest, OverTheCapIsAnsweredBelow1AndGoesLater) {
  const ScriptedServer server(&AnswerEach, &certificate_);
  const auto client = MakeClient();
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

  LeaveForDay(20 << 10);
  EXPECT_EQ(Send(client.get(), more).status(), 200);
  EXPECT_EQ(Spent().exchanges, 3u);
  EXPECT_EQ(Spent().connections, 1u);
  EXPECT_EQ(Spent().bytes, Spent().bytes_within_day);
}

// The bucket is paid off by its debt, and the clock is the system's: no request of this test may
// wait for it.
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
  ASSERT_EQ(SetHttpThrift({}), "");
  EXPECT_EQ(Send(client.get(), MakeRequest(url, "x")).status(), 200);
  EXPECT_EQ(Spent().held_back, 2u);
  EXPECT_EQ(Spent().connections, 1u);
  EXPECT_LT(Spent().bytes, 101000u);  // No TLS, no handshake.
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
    if (Send(childs.get(), MakeRequest(url, std::string(100000, 'x'))).status() != 200) return 2;
    if (Send(childs.get(), MakeRequest(url, "x")).id >= 1) return 3;
    return GetHttpSpent().exchanges == 1 && GetHttpSpent().held_back == 1 ? 0 : 4;
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
