// Servers that send frames which are no answer as fast as they are read. libcurl would go on
// reading for ever; whoever needs the I/O thread meanwhile must get it.

#include <fstream>

#include "tests/integration/http_client_fixture.h"
#include "tests/integration/support/flood_server.h"
#include "tests/integration/support/scripted_server.h"
#include "tests/integration/support/servers.h"
#include "tests/support/forked.h"

namespace quenor::test {
namespace {

using Connection = ScriptedServer::Connection;
using State = HttpClient::State;

class HttpClientFloodTest : public HttpClientTest, public ::testing::WithParamInterface<Flood> {
 protected:
  static ScriptedServer::Script Answering() {
    return [](Connection& connection) {
      ReceivedRequest request;
      while (connection.ReadRequest(&request)) connection.Respond(200, "{}");
    };
  }
  std::unique_ptr<HttpClient> MakeHttp2Client() const {
    HttpClient::Config config;
    config.enable_http2 = true;
    return MakeClient(TrustingDefaults(), config);
  }
};

TEST_P(HttpClientFloodTest, EndsAloneAndHoldsNobodyUp) {
  FloodServer flooding(GetParam(), certificate_);
  ScriptedServer healthy(Answering());
  ScriptedServer silent([](Connection& connection) { connection.HoldUntilClosed(); });
  const auto client = MakeHttp2Client();
  Exchanges flooded, late;
  HttpClient::Request unanswered = MakeRequest(silent.Origin() + "/", "report");
  unanswered.timeout_ms = 1;
  ASSERT_GE(client->SendRequest(MakeRequest(flooding.Url(), "report"),
                                flooded.Note([&] { flooding.Tell(); })),
            1);
  flooding.WaitForFlood();

  ASSERT_GE(client->SendRequest(unanswered, late.Note()), 1);
  const Outcome beside = Send(client.get(), MakeRequest(healthy.Origin() + "/", "report"));
  late.WaitFor(1);
  flooded.WaitFor(1);

  EXPECT_EQ(State::kCompleted, beside.state);
  EXPECT_EQ(200, beside.status());
  EXPECT_EQ(State::kTimedOut, late.Take()[0].state);
  const State state = flooded.Take()[0].state;
  EXPECT_TRUE(state == State::kTooLarge || (GetParam().is_limited && state == State::kFailed))
      << static_cast<int>(state);
}

TEST_P(HttpClientFloodTest, LetsTheProcessFork) {
  FloodServer flooding(GetParam(), certificate_);
  const auto client = MakeHttp2Client();
  Exchanges flooded;
  ASSERT_GE(client->SendRequest(MakeRequest(flooding.Url(), "report"),
                                flooded.Note([&] { flooding.Tell(); })),
            1);
  flooding.WaitForFlood();

  EXPECT_EQ(0, ResultOfChild([] { return 0; }));

  flooded.WaitFor(1);
}

INSTANTIATE_TEST_SUITE_P(Frames, HttpClientFloodTest, ::testing::ValuesIn(Floods()),
                         [](const auto& test) { return std::string(test.param.name); });

class HttpClientSeveralFloodsTest : public HttpClientFloodTest {};

TEST_F(HttpClientSeveralFloodsTest, AreEndedOneByOne) {
  FloodServer first(Floods()[0], certificate_);
  FloodServer second(Floods()[1], certificate_);
  FloodServer third(Floods()[4], certificate_);
  ScriptedServer healthy(Answering());
  const auto client = MakeHttp2Client();
  Exchanges flooded;
  for (const FloodServer* server : {&first, &second, &third}) {
    ASSERT_GE(client->SendRequest(MakeRequest(server->Url(), "report"), flooded.Note()), 1);
  }

  const Outcome beside = Send(client.get(), MakeRequest(healthy.Origin() + "/", "report"));
  flooded.WaitFor(3);

  EXPECT_EQ(State::kCompleted, beside.state);
  for (const Outcome& outcome : flooded.Take()) EXPECT_EQ(State::kTooLarge, outcome.state);
}

class HttpClientLargeAnswerTest : public HttpClientTest,
                                  public ::testing::WithParamInterface<bool> {};

TEST_P(HttpClientLargeAnswerTest, IsNoFlood) {
  constexpr size_t kBytes = 64 << 20;
  NginxServer::Options options;
  options.certificate = &certificate_;
  options.http2 = GetParam();
  options.server_lines = "root " + folder_.path() + ";";
  std::ofstream(folder_.File("large")) << std::string(kBytes, 'x');
  NginxServer server(options);
  HttpDefaults defaults = TrustingDefaults();
  defaults.max_response_body_bytes = 2 * kBytes;
  HttpClient::Config config;
  config.enable_http2 = GetParam();
  const auto client = MakeClient(defaults, config);

  const Outcome outcome =
      Send(client.get(), MakeRequest(server.Origin() + "/large", std::string(), "GET"));

  EXPECT_EQ(State::kCompleted, outcome.state);
  EXPECT_EQ(kBytes, outcome.body().size());
}

INSTANTIATE_TEST_SUITE_P(Protocols, HttpClientLargeAnswerTest, ::testing::Bool(),
                         [](const auto& test) { return test.param ? "Http2" : "Http1"; });

}  // namespace
}  // namespace quenor::test
