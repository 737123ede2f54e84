// What needs the I/O thread wakes it: a missing wake shows as delay only, until something else
// comes to pass. Here nothing else does but the time limit of an exchange that hangs meanwhile.
#include <poll.h>

#include <functional>

#include "tests/integration/http_client_fixture.h"
#include "tests/integration/support/scripted_server.h"

namespace quenor::test {
namespace {

using State = HttpClient::State;
using Connection = ScriptedServer::Connection;

class HttpClientWakeTest : public HttpClientTest {
 protected:
  HttpClientWakeTest()
      : hanging_([](Connection& connection) { connection.HoldUntilClosed(); }),
        answering_([](Connection& connection) {
          ReceivedRequest request;
          while (connection.ReadRequest(&request)) connection.Respond(200, "");
        }) {
    defaults_.max_connections_per_host = 1;
    defaults_.total_timeout_ms = defaults_.connect_timeout_ms = 8000;
  }

  // The thread looks once more 10 ms after an exchange has ended. On a slow machine this test then
  // sees less; it does not fail.
  static void Rest() { poll(nullptr, 0, 40); }
  HttpClient::Request Hanging(uint32_t timeout_ms = 0) const {
    // In its handshake, where libcurl looks at nothing but the time limit; later it looks each
    // second at the speed.
    HttpClient::Request request =
        MakeRequest("https://127.0.0.1:" + std::to_string(hanging_.port()) + "/", "x");
    request.timeout_ms = timeout_ms;
    return request;
  }
  State StateOfAnswer() {
    return Send(client_.get(), MakeRequest(answering_.Origin() + "/", "x")).state;
  }
  // Destroys a client `count` of whose requests hang, and answers how the last of them ended.
  State StateAfterDestruction(size_t count) {
    Exchanges exchanges;
    auto doomed = MakeClient(defaults_);
    for (size_t i = 0; i < count; ++i) doomed->SendRequest(Hanging(), exchanges.Note());
    EXPECT_EQ(StateOfAnswer(), State::kCompleted);  // The thread has taken them.
    Rest();
    doomed.reset();
    exchanges.WaitFor(count);
    return exchanges.Take().back().state;
  }

  ScriptedServer hanging_;
  ScriptedServer answering_;
  HttpDefaults defaults_;
  std::unique_ptr<HttpClient> client_;
};

TEST_F(HttpClientWakeTest, WhateverNeedsTheThreadWakesItWhileAnExchangeHangs) {
  client_ = MakeClient(defaults_);
  Exchanges hangs;
  client_->SendRequest(Hanging(), hangs.Note());
  const std::pair<const char*, std::function<bool()>> needs[] = {
      {"a request", [&] { return StateOfAnswer() == State::kCompleted; }},
      {"an earlier limit in the line",
       [&] { return Send(client_.get(), Hanging(30)).state == State::kTimedOut; }},
      {"an earlier limit under way",
       [&] {
         const auto other = MakeClient(defaults_);
         return Send(other.get(), Hanging(30)).state == State::kTimedOut;
       }},
      {"a destroyed client", [&] { return StateAfterDestruction(1) == State::kCancelled; }},
      {"a destroyed client's line", [&] { return StateAfterDestruction(2) == State::kCancelled; }},
  };
  for (int round = 0; round < 2; ++round) {
    for (const auto& [name, need] : needs) {
      SCOPED_TRACE(name);

      Rest();
      EXPECT_TRUE(need());

      // What the limit of the one that hangs has set off has been told by the next answer.
      EXPECT_EQ(StateOfAnswer(), State::kCompleted);
      ASSERT_EQ(hangs.count(), 0u);
    }
  }
}

}  // namespace
}  // namespace quenor::test
