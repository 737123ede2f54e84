// What one request leaves behind for the next: connections, handles and what they hold.
#include <malloc.h>

#include <atomic>
#include <future>
#include <random>

#include "tests/integration/http_client_fixture.h"
#include "tests/integration/support/local_port.h"
#include "tests/integration/support/scripted_server.h"
#include "tests/integration/support/servers.h"

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

// ---- A handle that is used again ----------------------------------------------------------------

// One way for an exchange to go, and how it ends each time, whatever went before it.
struct Kind {
  const char* name;
  std::string answer;  // Sent as it is; empty: nothing, until the client goes.
  bool closes;         // After the answer.
  State state;
  const char* method = "POST";
  size_t body_bytes = 1;
  std::string body = "";  // Of the response.
  std::string x = "";     // The response's header of that name.
};

TEST_F(HttpClientReuseTest, EachExchangeEndsAsItWouldOnAFreshHandle) {
  const std::string ok = "HTTP/1.1 200 OK\r\nContent-Length: ";
  const Kind kinds[] = {
      {"plain", ok + "2\r\nX: 1\r\n\r\nok", false, State::kCompleted, "POST", 1, "ok", "1"},
      {"large request", ok + "0\r\n\r\n", false, State::kCompleted, "POST", 200000},
      {"empty request", ok + "0\r\n\r\n", false, State::kCompleted, "POST", 0},
      {"get", ok + "1\r\nX: g\r\n\r\ng", false, State::kCompleted, "GET", 0, "g", "g"},
      {"head", ok + "900\r\n\r\n", false, State::kCompleted, "HEAD", 0},
      {"other method", ok + "0\r\n\r\n", false, State::kCompleted, "REPORT", 3},
      {"body at its limit", ok + "5000\r\n\r\n" + std::string(5000, 'b'), false, State::kCompleted,
       "POST", 1, std::string(5000, 'b')},
      {"body beyond", ok + "5001\r\n\r\n" + std::string(5001, 'b'), true, State::kTooLarge},
      {"headers near their limit", ok + "0\r\nX: " + std::string(800, 'h') + "\r\n\r\n", false,
       State::kCompleted, "POST", 1, "", std::string(800, 'h')},
      {"headers beyond", ok + "0\r\nX: " + std::string(1100, 'h') + "\r\n\r\n", true,
       State::kTooLarge},
      {"interim", "HTTP/1.1 103 Hints\r\nX: early\r\n\r\n" + ok + "2\r\n\r\nok", false,
       State::kCompleted, "POST", 1, "ok"},
      {"interim alone", "HTTP/1.1 103 Hints\r\n\r\n", true, State::kFailed},
      {"chunks and trailer",
       "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nok\r\n0\r\nX: late\r\n\r\n",
       false, State::kCompleted, "POST", 1, "ok", "late"},
      {"half a body", ok + "10\r\n\r\nhalf", true, State::kFailed},
      {"half a header", "HTTP/1.1 200 OK\r\nContent-Le", true, State::kFailed},
      {"no length", "HTTP/1.1 200 OK\r\n\r\nto the end", true, State::kCompleted, "POST", 1,
       "to the end"},
      {"closed", "", true, State::kFailed},
      {"silence", "", false, State::kTimedOut},
  };
  constexpr size_t kKinds = sizeof(kinds) / sizeof(kinds[0]);
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  ScriptedServer server([&](Connection& connection) {
    ReceivedRequest request;
    while (connection.ReadRequest(&request)) {
      const Kind& kind = kinds[std::stoul(request.headers.at("x-kind"))];
      // A request of another kind's shape answers nothing.
      if (request.method != kind.method || request.body.size() != kind.body_bytes) return;
      connection.Write(kind.answer);
      if (kind.closes) return;
      if (kind.answer.empty()) return connection.HoldUntilClosed();
    }
  });
  HttpDefaults defaults;
  defaults.max_response_body_bytes = 5000;
  defaults.max_response_header_bytes = 1000;
  const auto client = MakeClient(defaults);

  for (int i = 0; i < 400; ++i) {
    const size_t number = random() % kKinds;
    const Kind& kind = kinds[number];
    SCOPED_TRACE("exchange " + std::to_string(i) + ": " + kind.name);
    HttpClient::Request request =
        MakeRequest(server.Origin() + "/", std::string(kind.body_bytes, 'q'), kind.method);
    request.headers["X-Kind"] = std::to_string(number);
    if (kind.state == State::kTimedOut) request.timeout_ms = 20;

    const Outcome outcome = Send(client.get(), request);

    ASSERT_EQ(outcome.state, kind.state);
    ASSERT_EQ(outcome.body(), kind.body);
    ASSERT_EQ(outcome.header("x"), kind.x);
  }
}

TEST_F(HttpClientReuseTest, PlainPostsLeaveNothingThatAddsUp) {
  ScriptedServer server([](Connection& connection) {
    ReceivedRequest request;
    while (connection.ReadRequest(&request)) {
      connection.Respond(request.headers.count("x-own") != 0 ? 500 : 200, request.body);
    }
  });
  HttpDefaults defaults;
  defaults.max_response_body_bytes = 100;
  defaults.max_response_header_bytes = 100;
  const auto client = MakeClient(defaults);

  for (int i = 0; i < 2500; ++i) {
    HttpClient::Request request = MakeRequest(server.Origin() + "/", std::to_string(i));
    if (i % 100 == 50) request.headers["X-Own"] = "gone with the request";
    const Outcome outcome = Send(client.get(), request);
    ASSERT_EQ(outcome.status(), i % 100 == 50 ? 500 : 200) << i;
    ASSERT_EQ(outcome.body(), std::to_string(i));
  }
}

TEST_F(HttpClientReuseTest, BurstsLeaveNothingThatAddsUp) {
  ScriptedServer server([](Connection& connection) {
    ReceivedRequest request;
    while (connection.ReadRequest(&request)) connection.Respond(200, "");
  });
  const auto client = MakeClient(HttpDefaults());
  const auto burst = [&] {
    Exchanges exchanges;
    for (int i = 0; i < 300; ++i) {
      client->SendRequest(MakeRequest(server.Origin() + "/", "x"), exchanges.Note());
    }
    exchanges.WaitFor(300);
  };
  for (int i = 0; i < 3; ++i) burst();
  const size_t before = mallinfo2().uordblks;

  for (int i = 0; i < 5; ++i) burst();

  EXPECT_LT(mallinfo2().uordblks, before + (1 << 20));
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
