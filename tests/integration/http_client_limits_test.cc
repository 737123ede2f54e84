// Each limit alone: that it is the one that ends the exchange, that its number is taken in its
// unit, and that the log names both.
#include <poll.h>

#include <chrono>
#include <functional>

#include "tests/integration/http_client_fixture.h"
#include "tests/integration/support/scripted_server.h"
#include "tests/support/fakes/recording_log.h"
#include "tests/support/patience.h"

namespace quenor::test {
namespace {

using State = HttpClient::State;
using Connection = ScriptedServer::Connection;

class HttpClientLimitsTest : public HttpClientTest {
 protected:
  struct Case {
    std::string reason;  // In the log.
    State state;
    int at_least_ms;  // It may not end earlier. The client counts whole milliseconds.
    std::function<void(HttpDefaults*)> set;
    ScriptedServer::Script server;
    uint32_t request_ms = 0;
    bool over_tls = false;  // To a server that speaks none.
    bool behind_another = false;
  };

  // The total limit is the net beneath the others: one that is taken in too large a unit is caught
  // there, and the reason is another.
  void Check(const Case& c) {
    SCOPED_TRACE(c.reason);
    ScriptedServer server(c.server);
    HttpDefaults defaults = TrustingDefaults();
    defaults.total_timeout_ms = 6000;
    c.set(&defaults);
    const auto client = MakeClient(defaults);
    RecordingLog::Clear();
    std::string url = server.Origin() + "/";
    if (c.over_tls) url.replace(0, 4, "https");
    HttpClient::Request request = MakeRequest(url, "x");
    Exchanges before;
    if (c.behind_another) client->SendRequest(request, before.Note());
    request.timeout_ms = c.request_ms;
    const auto begun = Now();

    const Outcome outcome = Send(client.get(), request);

    const auto took = Now() - begun;
    EXPECT_GE(took, std::chrono::milliseconds(c.at_least_ms));
    EXPECT_EQ(outcome.state, c.state);
    ASSERT_EQ(RecordingLog::Texts(2).size(), 1u);
    const std::string line = RecordingLog::Texts(2)[0];
    EXPECT_NE(line.find(": " + c.reason + "; "), std::string::npos) << line;
    const char* which = c.state == State::kTooLarge ? "raise the size limits" : "raise the time";
    EXPECT_NE(line.find(which), std::string::npos) << line;
  }

  static ScriptedServer::Script Saying(const std::string& bytes) {
    return [bytes](Connection& connection) {
      ReceivedRequest request;
      if (connection.ReadRequest(&request)) connection.Write(bytes);
      connection.HoldUntilClosed();
    };
  }
};

TEST_F(HttpClientLimitsTest, EachTimeLimitEndsWithItsOwnReason) {
  const auto silent = Saying("");
  const Case cases[] = {
      {"no connection within connect_timeout_ms (300 ms)", State::kTimedOut, 299,
       [](HttpDefaults* defaults) { defaults->connect_timeout_ms = 300; }, silent, 0, true},
      {"no whole response within total_timeout_ms (300 ms)", State::kTimedOut, 299,
       [](HttpDefaults* defaults) { defaults->total_timeout_ms = 300; }, silent},
      {"no whole response within the request's timeout_ms (300 ms)", State::kTimedOut, 299,
       [](HttpDefaults*) {}, silent, 300},
      {"no connection became free within the request's timeout_ms (300 ms)", State::kTimedOut, 299,
       [](HttpDefaults* defaults) { defaults->max_connections_per_host = 1; }, silent, 300, false,
       true},
      {"slower than low_speed_bytes_per_second (1000 bytes/s) for low_speed_seconds (2 s)",
       State::kTimedOut, 1000,
       [](HttpDefaults* defaults) {
         defaults->low_speed_bytes_per_second = 1000;
         defaults->low_speed_seconds = 2;
       },
       Saying("HTTP/1.1 200 OK\r\nContent-Length: 100000\r\n\r\n")},
  };
  for (const Case& c : cases) Check(c);
}

TEST_F(HttpClientLimitsTest, EachSizeLimitEndsWithItsOwnReasonAtItsByte) {
  const auto headers = [](size_t bytes) {
    const std::string first = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\nX: ";
    return Saying(first + std::string(bytes - first.size() - 4, 'x') + "\r\n\r\n");
  };
  const auto lines = [](size_t count) {
    std::string text = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n";
    for (size_t i = 3; i < count; ++i) text += "X:\r\n";
    return Saying(text + "\r\n");
  };
  const auto body = [](size_t bytes) {
    return Saying("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3e8\r\n" +
                  std::string(1000, 'x') + "\r\n" + (bytes > 1000 ? "1\r\nx\r\n" : "") +
                  "0\r\n\r\n");
  };
  const auto set = [](HttpDefaults* defaults) {
    defaults->max_response_body_bytes = 1000;
    defaults->max_response_header_bytes = 20000;
  };
  for (const auto& within : {headers(20000), lines(2048), body(1000)}) {
    ScriptedServer server(within);
    HttpDefaults defaults;
    set(&defaults);
    const auto client = MakeClient(defaults);
    EXPECT_EQ(Send(client.get(), MakeRequest(server.Origin() + "/", "x")).status(), 200);
  }
  Check({"the response's headers are larger than max_response_header_bytes (20000 bytes)",
         State::kTooLarge, 0, set, headers(20001)});
  Check({"the response has more than 2048 header lines", State::kTooLarge, 0, set, lines(2049)});
  Check({"the response's body is larger than max_response_body_bytes (1000 bytes)",
         State::kTooLarge, 0, set, body(1001)});
}

TEST_F(HttpClientLimitsTest, WhatIsAboveTheLowestSpeedIsNotTooSlow) {
  // 64 bytes, 20 times a second: a limit taken for eight times as much would end it.
  ScriptedServer server([](Connection& connection) {
    ReceivedRequest request;
    if (!connection.ReadRequest(&request)) return;
    connection.Write("HTTP/1.1 200 OK\r\nContent-Length: 1920\r\n\r\n");
    for (int i = 0; i < 30 && connection.Write(std::string(64, 'x')); ++i) poll(nullptr, 0, 50);
  });
  HttpDefaults defaults;
  defaults.low_speed_bytes_per_second = 200;
  defaults.low_speed_seconds = 1;
  const auto client = MakeClient(defaults);

  EXPECT_EQ(Send(client.get(), MakeRequest(server.Origin() + "/", "x")).body().size(), 1920u);
}

}  // namespace
}  // namespace quenor::test
