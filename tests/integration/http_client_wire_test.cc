// What goes over the wire and what a server can do to the client: cuts, floods, silence.
#include <poll.h>
#include <signal.h>

#include <future>
#include <thread>

#include "tests/integration/http_client_fixture.h"
#include "tests/integration/support/scripted_server.h"
#include "tests/integration/support/servers.h"
#include "tests/support/fakes/recording_log.h"

namespace quenor::test {
namespace {

using State = HttpClient::State;
using Connection = ScriptedServer::Connection;

class HttpClientWireTest : public HttpClientTest {
 protected:
  // Sends one request to a server that runs this script, in plain HTTP.
  Outcome Exchange(const ScriptedServer::Script& script, const HttpDefaults& defaults = {},
                   const std::string& body = "x") {
    ScriptedServer server(script);
    const auto client = MakeClient(defaults);
    return Send(client.get(), MakeRequest(server.Origin() + "/", body));
  }

  // What a server receives of this request, whose URL is filled in here.
  ReceivedRequest Receive(HttpClient::Request request, const HttpDefaults& defaults = {}) {
    ReceivedRequest received;
    ScriptedServer server([&](Connection& connection) {
      if (connection.ReadRequest(&received)) connection.Respond(200, "");
    });
    const auto client = MakeClient(defaults);
    request.url = server.Origin() + "/";
    EXPECT_EQ(Send(client.get(), request).status(), 200);
    return received;
  }
};

// Answers with exactly these bytes and closes.
ScriptedServer::Script Saying(const std::string& bytes) {
  return [bytes](Connection& connection) {
    ReceivedRequest request;
    if (connection.ReadRequest(&request)) connection.Write(bytes);
  };
}

// ---- Requests -----------------------------------------------------------------------------------

TEST_F(HttpClientWireTest, PostCarriesLengthTypeAgentAndNothingThatStalls) {
  const ReceivedRequest received = Receive(MakeRequest("", std::string(383 * 1024, 'x')));

  EXPECT_EQ(received.method, "POST");
  EXPECT_EQ(received.headers.at("content-length"), "392192");
  EXPECT_EQ(received.headers.at("content-type"), "application/octet-stream");
  EXPECT_EQ(received.headers.at("user-agent").substr(0, 7), "quenor/");
  EXPECT_EQ(received.headers.count("expect"), 0u);
  EXPECT_EQ(received.headers.count("accept-encoding"), 0u);
  EXPECT_EQ(received.headers.count("transfer-encoding"), 0u);
}

TEST_F(HttpClientWireTest, EmptyPostAnnouncesLengthZero) {
  EXPECT_EQ(Receive(MakeRequest("", "")).headers.at("content-length"), "0");
}

TEST_F(HttpClientWireTest, HeadersOfTheRequestReplaceTheClientsOwn) {
  HttpClient::Request request = MakeRequest("", "x");
  request.headers = {{"content-TYPE", "text/plain"}, {"USER-agent", "mine"}, {"X-Empty", ""}};

  const ReceivedRequest received = Receive(request);

  EXPECT_EQ(received.headers.at("content-type"), "text/plain");
  EXPECT_EQ(received.headers.at("user-agent"), "mine");
  EXPECT_EQ(received.headers.count("x-empty"), 1u);
}

TEST_F(HttpClientWireTest, HeadersOfOneRequestDoNotStayForTheNext) {
  ScriptedServer server([](Connection& connection) {
    ReceivedRequest request;
    while (connection.ReadRequest(&request)) {
      connection.Respond(200, request.headers["x-mine"] + "|" + request.method);
    }
  });
  const auto client = MakeClient(HttpDefaults());
  HttpClient::Request request = MakeRequest(server.Origin() + "/", "x", "PUT");
  request.headers = {{"X-Mine", "1"}};

  EXPECT_EQ(Send(client.get(), request).body(), "1|PUT");
  EXPECT_EQ(Send(client.get(), MakeRequest(server.Origin() + "/", "x")).body(), "|POST");
  EXPECT_EQ(Send(client.get(), MakeRequest(server.Origin() + "/", "", "GET")).body(), "|GET");
  EXPECT_EQ(Send(client.get(), MakeRequest(server.Origin() + "/", "x")).body(), "|POST");
}

TEST_F(HttpClientWireTest, GetSendsNoBodyAndHeadExpectsNone) {
  const ReceivedRequest get = Receive(MakeRequest("", "", "GET"));
  EXPECT_EQ(get.method, "GET");
  EXPECT_EQ(get.headers.count("content-length"), 0u);
  EXPECT_EQ(get.headers.count("content-type"), 0u);

  ScriptedServer server(Saying("HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n"));
  const auto client = MakeClient(HttpDefaults());
  const Outcome head = Send(client.get(), MakeRequest(server.Origin() + "/", "", "HEAD"));
  EXPECT_EQ(head.state, State::kCompleted);
  EXPECT_EQ(head.header("content-length"), "1000");
}

TEST_F(HttpClientWireTest, OtherMethodsAreSentAsTheyAre) {
  for (const char* method : {"PUT", "PATCH", "DELETE", "OPTIONS", "REPORT"}) {
    const ReceivedRequest received = Receive(MakeRequest("", "body", method));
    EXPECT_EQ(received.method, method);
    EXPECT_EQ(received.body, "body");
  }
  EXPECT_EQ(Receive(MakeRequest("", "", "DELETE")).headers.count("content-length"), 0u);
}

TEST_F(HttpClientWireTest, Ipv6LiteralIsReached) {
  ScriptedServer server(
      [](Connection& connection) {
        ReceivedRequest request;
        if (connection.ReadRequest(&request)) connection.Respond(200, request.headers["host"]);
      },
      &certificate_);
  const auto client = MakeClient();

  EXPECT_EQ(Send(client.get(), MakeRequest(server.Origin("[::1]") + "/", "x")).body(),
            "[::1]:" + std::to_string(server.port()));
}

TEST_F(HttpClientWireTest, ConnectionIsKeptForTheNextRequest) {
  ScriptedServer server(
      [](Connection& connection) {
        ReceivedRequest request;
        while (connection.ReadRequest(&request)) connection.Respond(200, "");
      },
      &certificate_);
  const auto client = MakeClient();

  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(Send(client.get(), MakeRequest(server.Origin() + "/", "x")).status(), 200);
  }

  EXPECT_EQ(server.accepted(), 1u);
}

TEST_F(HttpClientWireTest, AsManyConnectionsAsOneHostMayHaveAreKept) {
  constexpr size_t kConnections = 40;
  Barrier all(kConnections);  // No answer before a request has come on each of them.
  ScriptedServer server([&](Connection& connection) {
    ReceivedRequest request;
    while (connection.ReadRequest(&request)) {
      all.Meet();
      connection.Respond(200, "");
    }
  });
  HttpDefaults defaults;
  defaults.max_connections_per_host = kConnections;
  const auto client = MakeClient(defaults);
  Exchanges exchanges;

  for (size_t round = 1; round <= 3; ++round) {
    for (size_t i = 0; i < kConnections; ++i) {
      client->SendRequest(MakeRequest(server.Origin() + "/", "x"), exchanges.Note());
    }
    exchanges.WaitFor(round * kConnections);
  }

  EXPECT_EQ(server.accepted(), kConnections);
}

TEST_F(HttpClientWireTest, PlaceOfARequestThatTimedOutGoesToTheNextThatWaits) {
  ScriptedServer server([](Connection& connection) {
    ReceivedRequest request;
    while (connection.ReadRequest(&request)) {
      if (request.body == "hang" || request.body == "late") return connection.HoldUntilClosed();
      connection.Respond(200, request.body);
    }
  });
  HttpDefaults defaults;
  defaults.max_connections_per_host = 1;
  // Not theirs, which have one of their own.
  defaults.total_timeout_ms = 600000;
  defaults.low_speed_seconds = 600;
  const auto client = MakeClient(defaults);
  Exchanges exchanges;
  HttpClient::Request hanging = MakeRequest(server.Origin() + "/", "hang");
  hanging.timeout_ms = 50;

  HttpClient::Request late = MakeRequest(server.Origin() + "/", "late");
  late.timeout_ms = 20;  // Leaves the line before its turn, and the others in it.

  client->SendRequest(hanging, exchanges.Note());
  client->SendRequest(late, exchanges.Note());
  client->SendRequest(MakeRequest(server.Origin() + "/", "first"), exchanges.Note());
  client->SendRequest(MakeRequest(server.Origin() + "/", "second"), exchanges.Note());
  exchanges.WaitFor(4);

  const std::vector<Outcome> outcomes = exchanges.Take();
  EXPECT_EQ(outcomes[0].state, State::kTimedOut);
  EXPECT_EQ(outcomes[1].state, State::kTimedOut);
  EXPECT_EQ(outcomes[2].body(), "first");
  EXPECT_EQ(outcomes[3].body(), "second");
}

// ---- Responses ----------------------------------------------------------------------------------

TEST_F(HttpClientWireTest, HeaderNamesAreLoweredRepeatedOnesJoinedAndTrailersIncluded) {
  const Outcome outcome = Exchange(
      Saying("HTTP/1.1 200 OK\r\nX-Two: a\r\nTransfer-Encoding: chunked\r\nx-tWO:   b  \r\n"
             "Trailer: X-Late\r\n\r\n4\r\nbody\r\n0\r\nX-Late: yes\r\n\r\n"));

  EXPECT_EQ(outcome.state, State::kCompleted);
  EXPECT_EQ(outcome.body(), "body");
  EXPECT_EQ(outcome.header("x-two"), "a, b");
  EXPECT_EQ(outcome.header("x-late"), "yes");
}

TEST_F(HttpClientWireTest, InterimAnswersAreNotTheAnswer) {
  const Outcome outcome =
      Exchange(Saying("HTTP/1.1 103 Early Hints\r\nX-Early: 1\r\n\r\n"
                      "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok"));

  EXPECT_EQ(outcome.status(), 200);
  EXPECT_EQ(outcome.body(), "ok");
  EXPECT_EQ(outcome.header("x-early"), "");
}

TEST_F(HttpClientWireTest, ContentCodingIsNotUndone) {
  const std::string gzip_magic("\x1f\x8b\x08\x00not really", 14);
  const Outcome outcome = Exchange(Saying(
      "HTTP/1.1 200 OK\r\nContent-Encoding: gzip\r\nContent-Length: 14\r\n\r\n" + gzip_magic));

  EXPECT_EQ(outcome.state, State::kCompleted);
  EXPECT_TRUE(outcome.body() == gzip_magic);
}

TEST_F(HttpClientWireTest, AnswerCutAnywhereFailsWithoutResponse) {
  const std::string whole =
      "HTTP/1.1 200 OK\r\nContent-Length: 10\r\nX-Filler: abcdefgh\r\n\r\n0123456789";
  for (size_t size = 0; size < whole.size(); size += size < 20 ? 1 : 7) {
    const Outcome outcome = Exchange(Saying(whole.substr(0, size)));
    ASSERT_EQ(outcome.state, State::kFailed) << size;
    ASSERT_EQ(outcome.response, nullptr) << size;
    ASSERT_EQ(RecordingLog::Texts(2).back().find("No error"), std::string::npos) << size;
  }
  EXPECT_EQ(Exchange(Saying(whole)).body(), "0123456789");
}

TEST_F(HttpClientWireTest, AnswerCutAnywhereInsideTlsFailsWithoutResponse) {
  const std::string whole = "HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n0123456789";
  for (size_t size = 0; size < whole.size(); size += 9) {
    ScriptedServer server(Saying(whole.substr(0, size)), &certificate_);
    const auto client = MakeClient();
    const Outcome outcome = Send(client.get(), MakeRequest(server.Origin() + "/", "x"));
    EXPECT_EQ(outcome.state, State::kFailed) << size;
    EXPECT_EQ(outcome.response, nullptr) << size;
  }
}

TEST_F(HttpClientWireTest, WhatIsNoWholeAnswerFails) {
  for (const std::string& said :
       {std::string("HTTP/1.1 100 Continue\r\n\r\n"),
        std::string("HTTP/1.1 103 Early Hints\r\nX: y\r\n\r\n"),
        std::string("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n4\r\nbody\r\n"),
        std::string("220 smtp.example ESMTP\r\n"), std::string(300, '\0')}) {
    EXPECT_EQ(Exchange(Saying(said)).state, State::kFailed) << said;
  }
}

TEST_F(HttpClientWireTest, BodyWithoutAnnouncedLengthEndsWithTheConnection) {
  EXPECT_EQ(Exchange(Saying("HTTP/1.1 200 OK\r\n\r\n0123456789")).body(), "0123456789");
}

// ---- Limits -------------------------------------------------------------------------------------

TEST_F(HttpClientWireTest, AnnouncedBodyBeyondTheCapIsTooLarge) {
  HttpDefaults defaults;
  defaults.max_response_body_bytes = 1000;

  EXPECT_EQ(
      Exchange(Saying("HTTP/1.1 200 OK\r\nContent-Length: 1001\r\n\r\n" + std::string(1001, 'x')),
               defaults)
          .state,
      State::kTooLarge);
  EXPECT_EQ(
      Exchange(Saying("HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n" + std::string(1000, 'x')),
               defaults)
          .body()
          .size(),
      1000u);
}

TEST_F(HttpClientWireTest, AnswerWithoutEndIsTooLarge) {
  const std::string block(10000, 'x');
  const struct {
    std::string begin, again;
  } cases[] = {{"\r\n", block}, {"X: ", block}, {"", "X-Again: and again\r\n"}};
  for (const auto& one : cases) {
    const Outcome outcome = Exchange([&](Connection& connection) {
      ReceivedRequest request;
      if (!connection.ReadRequest(&request)) return;
      connection.Write("HTTP/1.1 200 OK\r\n" + one.begin);
      while (connection.Write(one.again)) {
      }
    });

    EXPECT_EQ(outcome.state, State::kTooLarge) << one.begin;
    EXPECT_EQ(outcome.response, nullptr) << one.begin;
  }
}

TEST_F(HttpClientWireTest, BodyThatDripsForEverTimesOut) {
  HttpDefaults defaults;
  defaults.total_timeout_ms = 100;

  const Outcome outcome = Exchange(
      [](Connection& connection) {
        ReceivedRequest request;
        if (!connection.ReadRequest(&request)) return;
        connection.Write("HTTP/1.1 200 OK\r\nContent-Length: 100000\r\n\r\n");
        while (connection.Write("x")) poll(nullptr, 0, 2);
      },
      defaults);

  EXPECT_EQ(outcome.state, State::kTimedOut);
  EXPECT_EQ(outcome.response, nullptr);
}

// ---- A server that goes away --------------------------------------------------------------------

TEST_F(HttpClientWireTest, ResetInMidUploadFailsAndRaisesNoSignal) {
  struct sigaction action;
  ASSERT_EQ(sigaction(SIGPIPE, nullptr, &action), 0);
  ASSERT_EQ(action.sa_handler, SIG_DFL);  // It would end this process.
  for (const Certificate* certificate :
       {static_cast<const Certificate*>(nullptr), const_cast<const Certificate*>(&certificate_)}) {
    ScriptedServer server(
        [](Connection& connection) {
          ReceivedRequest request;
          connection.ReadRequestHead(&request);
          connection.ResetNow();
        },
        certificate);
    const auto client = MakeClient();
    for (int i = 0; i < 20; ++i) {
      const auto request = MakeRequest(server.Origin() + "/", std::string(1 << 20, 'x'));
      EXPECT_EQ(Send(client.get(), request).state, State::kFailed);
    }
  }
}

TEST_F(HttpClientWireTest, ResetOfAnIdleConnectionRaisesNoSignal) {
  // Closing TLS writes to a connection that is no more.
  std::promise<void> answered;
  std::promise<void> reset;
  {
    ScriptedServer server(
        [&](Connection& connection) {
          ReceivedRequest request;
          if (connection.index() > 0) {
            if (connection.ReadRequest(&request)) connection.Respond(200, "second");
            return;
          }
          if (connection.ReadRequest(&request)) connection.Respond(200, "first");
          answered.get_future().wait();
          connection.ResetNow();
          reset.set_value();
        },
        &certificate_);
    const auto client = MakeClient();
    EXPECT_EQ(Send(client.get(), MakeRequest(server.Origin() + "/", "x")).body(), "first");
    answered.set_value();
    reset.get_future().wait();

    EXPECT_EQ(Send(client.get(), MakeRequest(server.Origin() + "/", "x")).body(), "second");
  }
}

TEST_F(HttpClientWireTest, NobodyListeningFailsAndSaysWhatToDo) {
  const auto client = MakeClient(HttpDefaults());

  const Outcome outcome = Send(
      client.get(), MakeRequest("http://127.0.0.1:" + std::to_string(UnusedPort()) + "/", "x"));

  EXPECT_EQ(outcome.state, State::kFailed);
  ASSERT_EQ(RecordingLog::Texts(2).size(), 1u);
  EXPECT_NE(RecordingLog::Texts(2)[0].find("check that the server runs"), std::string::npos);
}

TEST_F(HttpClientWireTest, ClientsComeAndGoOnManyThreads) {
  ScriptedServer server([](Connection& connection) {
    ReceivedRequest request;
    while (connection.ReadRequest(&request)) connection.Respond(200, "");
  });
  EXPECT_EQ(SetHttpDefaults(HttpDefaults()), "");
  Exchanges exchanges;
  constexpr int kThreads = 4;
  constexpr int kRounds = 50;

  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kRounds; ++i) {
        const auto client = HttpClientFactory::Create(HttpClient::Config());
        client->SendRequest(MakeRequest(server.Origin() + "/", "x"), exchanges.Note());
        if (i % 2 == 0) Send(client.get(), MakeRequest(server.Origin() + "/", "x"));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();

  exchanges.WaitFor(kThreads * kRounds);
  for (const Outcome& outcome : exchanges.Take()) {
    EXPECT_TRUE(outcome.state == State::kCompleted || outcome.state == State::kCancelled);
  }
}

}  // namespace
}  // namespace quenor::test
