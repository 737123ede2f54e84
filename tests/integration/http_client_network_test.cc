// What becomes of connections and requests when the network is another one.
#include <future>

#include "quenor_base/platform/network_change.h"
#include "tests/integration/http_client_fixture.h"
#include "tests/integration/support/scripted_server.h"

namespace quenor::test {
namespace {

using Connection = ScriptedServer::Connection;

// One thing that happens once.
class Gate {
 public:
  void Open() { opened_.set_value(); }
  bool Wait() { return future_.wait_for(kPatience) == std::future_status::ready; }

 private:
  std::promise<void> opened_;
  std::future<void> future_ = opened_.get_future();
};

class HttpClientNetworkTest : public HttpClientTest {};

TEST_F(HttpClientNetworkTest, IdleConnectionsAreClosed) {
  ScriptedServer server([](Connection& connection) {
    ReceivedRequest request;
    while (connection.ReadRequest(&request)) connection.Respond(200, "{}");
  });
  const auto client = MakeClient();
  const HttpClient::Request request = MakeRequest(server.Origin() + "/", "x");
  EXPECT_EQ(Send(client.get(), request).status(), 200);
  EXPECT_EQ(Send(client.get(), request).status(), 200);
  EXPECT_EQ(server.accepted(), 1u);

  NetworkChanged();

  server.WaitForClosed(1);
  EXPECT_EQ(Send(client.get(), request).status(), 200);
  EXPECT_EQ(server.accepted(), 2u);
}

// Here a proxy that does not answer keeps it from its connection.
TEST_F(HttpClientNetworkTest, WhatHasNoConnectionIsTriedAtOnce) {
  Gate asked;
  ScriptedServer proxy([&](Connection& connection) {
    ReceivedRequest request;
    if (!connection.ReadRequest(&request)) return;
    if (connection.index() == 0) {
      asked.Open();
      connection.HoldUntilClosed();
      return;
    }
    connection.Write("HTTP/1.1 200 OK\r\n\r\n");
    if (connection.ReadRequest(&request)) connection.Respond(200, request.body);
  });
  HttpDefaults defaults;
  defaults.proxy.url = proxy.Origin();
  const auto client = MakeClient(defaults);
  Exchanges exchanges;
  const auto request = MakeRequest("http://collector.test/", "report");
  EXPECT_GE(client->SendRequest(request, exchanges.Note()), 1);
  ASSERT_TRUE(asked.Wait());

  NetworkChanged();

  exchanges.WaitFor(1);
  const std::vector<Outcome> outcomes = exchanges.Take();
  EXPECT_EQ(outcomes[0].body(), "report");
  EXPECT_EQ(proxy.accepted(), 2u);
}

TEST_F(HttpClientNetworkTest, WhatIsUnderWayGoesOn) {
  Gate arrived;
  Gate may_answer;
  ScriptedServer server([&](Connection& connection) {
    ReceivedRequest request;
    if (!connection.ReadRequest(&request)) return;
    arrived.Open();
    if (may_answer.Wait()) connection.Respond(200, "{}");
  });
  const auto client = MakeClient();
  Exchanges exchanges;
  const auto request = MakeRequest(server.Origin() + "/", "x");
  EXPECT_GE(client->SendRequest(request, exchanges.Note()), 1);
  ASSERT_TRUE(arrived.Wait());

  NetworkChanged();
  // Behind the change: the thread has acted on it when this has come back.
  EXPECT_EQ(Send(client.get(), MakeRequest("http://127.0.0.1:1/", "x")).status(), 0);
  may_answer.Open();

  exchanges.WaitFor(1);
  EXPECT_EQ(exchanges.Take()[0].status(), 200);
  EXPECT_EQ(server.accepted(), 1u);
}

TEST_F(HttpClientNetworkTest, MayBeWatchedAtAnyTime) {
  ScriptedServer server([](Connection& connection) {
    ReceivedRequest request;
    while (connection.ReadRequest(&request)) connection.Respond(200, "{}");
  });
  const auto client = MakeClient();
  for (const bool on : {true, true, false, true, false, false}) {
    EXPECT_EQ(WatchNetwork(on), "");
    EXPECT_EQ(Send(client.get(), MakeRequest(server.Origin() + "/", "x")).status(), 200);
  }
  EXPECT_EQ(server.accepted(), 1u);  // Nothing has changed.
}

}  // namespace
}  // namespace quenor::test
