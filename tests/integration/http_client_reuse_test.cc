// What one request leaves behind for the next: connections, handles and what they hold.
#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>

#include "tests/integration/http_client_fixture.h"
#include "tests/integration/support/child_process.h"
#include "tests/integration/support/local_port.h"
#include "tests/integration/support/scripted_server.h"

namespace quenor::test {
namespace {

using State = HttpClient::State;
using Connection = ScriptedServer::Connection;

class HttpClientReuseTest : public HttpClientTest {
 protected:
  // nginx that passes each request on, with the port that it came from, and waits for long.
  NginxServer::Options PassingOn(const ScriptedServer& upstream, bool http2) const {
    NginxServer::Options options;
    options.certificate = &certificate_;
    options.http2 = http2;
    options.server_lines = "location / { proxy_set_header X-Port $remote_port; proxy_pass " +
                           upstream.Origin() + "; }";
    return options;
  }
};

// Lets its callers go on in groups of this size.
class Barrier {
 public:
  explicit Barrier(size_t size) : size_(size) {}
  void Meet() {
    std::unique_lock<std::mutex> hold(mutex_);
    const size_t all = (arrived_++ / size_ + 1) * size_;
    changed_.notify_all();
    changed_.wait(hold, [&] { return arrived_ >= all; });
  }

 private:
  const size_t size_;
  std::mutex mutex_;
  std::condition_variable changed_;
  size_t arrived_ = 0;
};

// ---- One request is sent once -------------------------------------------------------------------

TEST_F(HttpClientReuseTest, RequestThatWentOutIsNotSentAgainByTheClient) {
  struct Case {
    const char* method;
    size_t body_bytes;
  };
  for (const Certificate* certificate :
       {static_cast<const Certificate*>(nullptr), const_cast<const Certificate*>(&certificate_)}) {
    for (const Case& c :
         {Case{"POST", 6}, Case{"POST", 0}, Case{"GET", 0}, Case{"POST", 4 << 20}}) {
      SCOPED_TRACE(std::string(c.method) + " " + std::to_string(c.body_bytes));
      constexpr size_t kConnections = 6;
      Barrier warm(kConnections);
      std::atomic<int> received{0};
      ScriptedServer server(
          [&](Connection& connection) {
            ReceivedRequest request;
            while (connection.ReadRequestHead(&request)) {
              if (request.target != "/warm") {
                ++received;
                return;
              }
              warm.Meet();
              connection.Respond(200, "");
            }
          },
          certificate);
      const auto client = MakeClient();
      Exchanges exchanges;
      for (size_t i = 0; i < kConnections; ++i) {
        client->SendRequest(MakeRequest(server.Origin() + "/warm", "", "GET"), exchanges.Note());
      }
      exchanges.WaitFor(kConnections);

      const std::string body(c.body_bytes, 'x');
      const Outcome outcome =
          Send(client.get(), MakeRequest(server.Origin() + "/once", body, c.method));

      EXPECT_EQ(outcome.state, State::kFailed);
      EXPECT_EQ(received, 1);
      EXPECT_EQ(server.accepted(), kConnections);
    }
  }
}

TEST_F(HttpClientReuseTest, KeptConnectionThatTheServerClosedIsReplaced) {
  for (const Certificate* certificate :
       {static_cast<const Certificate*>(nullptr), const_cast<const Certificate*>(&certificate_)}) {
    ScriptedServer server(
        [](Connection& connection) {
          ReceivedRequest request;
          if (connection.ReadRequest(&request)) connection.Respond(200, "");
        },
        certificate);
    const auto client = MakeClient();

    for (size_t i = 1; i <= 5; ++i) {
      EXPECT_EQ(Send(client.get(), MakeRequest(server.Origin() + "/", "x")).status(), 200);
      server.WaitForClosed(i);
    }
  }
}

// ---- A bad connection and its neighbours --------------------------------------------------------

TEST_F(HttpClientReuseTest, CutOfABadConnectionSparesAnotherFromTheSameLocalPort) {
  for (const bool http2 : {false, true}) {
    std::promise<uint16_t> good_port;
    std::promise<std::string> bad_port;
    std::promise<void> bad_ended;
    ScriptedServer good([&](Connection& connection) {
      ReceivedRequest request;
      if (!connection.ReadRequest(&request)) return;
      good_port.set_value(connection.peer_port());
      bad_ended.get_future().wait();
      connection.Respond(200, "");
    });
    ScriptedServer upstream([&](Connection& connection) {
      ReceivedRequest request;
      if (connection.ReadRequest(&request)) bad_port.set_value(request.headers["x-port"]);
      connection.HoldUntilClosed();
    });
    NginxServer bad(PassingOn(upstream, http2));
    HttpClient::Config config;
    config.enable_http2 = http2;
    const auto client = MakeClient(TrustingDefaults(), config);
    Exchanges exchanges;
    ConnectFrom(UnusedPort());
    client->SendRequest(MakeRequest(good.Origin() + "/", "x"), exchanges.Note());
    const uint16_t port = good_port.get_future().get();
    HttpClient::Request request = MakeRequest(bad.Origin() + "/", "x");
    request.timeout_ms = 300;

    EXPECT_EQ(Send(client.get(), request).state, State::kTimedOut);
    ConnectFrom(0);
    bad_ended.set_value();
    exchanges.WaitFor(1);

    EXPECT_EQ(bad_port.get_future().get(), std::to_string(port));
    EXPECT_EQ(exchanges.Take()[0].status(), 200) << (http2 ? "HTTP/2" : "HTTP/1.1");
  }
}

TEST_F(HttpClientReuseTest, SlowAnswerOutlivesTheTimeLimitOfALaterRequestOnItsConnection) {
  std::promise<void> slow_came;
  std::promise<void> late_ended;
  ScriptedServer upstream([&](Connection& connection) {
    ReceivedRequest request;
    if (!connection.ReadRequest(&request)) return;
    if (request.target != "/slow") return connection.HoldUntilClosed();
    slow_came.set_value();
    late_ended.get_future().wait();
    connection.Respond(200, "");
  });
  NginxServer server(PassingOn(upstream, true));
  HttpClient::Config config;
  config.enable_http2 = true;
  const auto client = MakeClient(TrustingDefaults(), config);
  Exchanges exchanges;
  client->SendRequest(MakeRequest(server.Origin() + "/slow", "x"), exchanges.Note());
  slow_came.get_future().wait();
  HttpClient::Request late = MakeRequest(server.Origin() + "/late", "x");
  late.timeout_ms = 300;

  EXPECT_EQ(Send(client.get(), late).state, State::kTimedOut);
  late_ended.set_value();
  exchanges.WaitFor(1);

  EXPECT_EQ(exchanges.Take()[0].status(), 200);
}

TEST_F(HttpClientReuseTest, ConnectionThatTheServerClosesIsClosedWithoutAnotherRequest) {
  for (const Certificate* certificate :
       {static_cast<const Certificate*>(nullptr), const_cast<const Certificate*>(&certificate_)}) {
    for (const bool at_once : {true, false}) {
      std::promise<void> answered;
      ScriptedServer server(
          [&](Connection& connection) {
            ReceivedRequest request;
            if (!connection.ReadRequest(&request)) return;
            connection.Respond(200, "");
            if (!at_once) answered.get_future().wait();
            connection.CloseSending();
            connection.HoldUntilClosed();
          },
          certificate);
      const auto client = MakeClient();
      EXPECT_EQ(Send(client.get(), MakeRequest(server.Origin() + "/", "x")).status(), 200);
      answered.set_value();

      server.WaitForClosed(1);
    }
  }
}

}  // namespace
}  // namespace quenor::test
