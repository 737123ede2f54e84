// Rest and patience cannot be seen without waiting: these few seconds are real.
#include "tests/integration/http_client_fixture.h"
#include "tests/integration/support/scripted_server.h"
#include "tests/integration/support/servers.h"

namespace quenor::test {
namespace {

using Connection = ScriptedServer::Connection;

class HttpClientIdleTest : public HttpClientTest {
 protected:
  // Runs the program in this mode against nginx and answers its exit code.
  int Run(const std::string& mode, bool http2, const std::string& location) {
    NginxServer::Options options;
    options.certificate = &certificate_;
    options.http2 = http2;
    options.server_lines = "location / { " + location + " }";
    NginxServer server(options);
    std::vector<std::string> environment;
    if (http2) environment.push_back("QUENOR_TEST_HTTP2=1");
    ChildProcess child(
        {QUENOR_HTTP_CLIENT_PROGRAM, mode, server.Origin() + "/", authority_.ca_file()},
        folder_.File("output"), environment);
    return child.Wait(2 * kPatience);
  }
  std::string Output() const { return ReadWholeFile(folder_.File("output")); }
};

TEST_F(HttpClientIdleTest, KeptHttp11ConnectionNeverWakesTheThread) {
  EXPECT_EQ(Run("idle", false, "return 200 '{}';"), 0) << Output();
}

TEST_F(HttpClientIdleTest, KeptHttp2ConnectionNeverWakesTheThread) {
  EXPECT_EQ(Run("idle", true, "return 200 '{}';"), 0) << Output();
}

TEST_F(HttpClientIdleTest, ServerThatStopsReadingCostsNoProcessorTime) {
  for (bool http2 : {false, true}) {
    ScriptedServer upstream([](Connection& connection) {
      ReceivedRequest request;
      connection.ReadRequestHead(&request);
      connection.WaitForEnd();
    });
    EXPECT_EQ(Run("stalled", http2,
                  "proxy_request_buffering off; proxy_http_version 1.1; proxy_pass " +
                      upstream.Origin() + ";"),
              0)
        << Output();
  }
}

}  // namespace
}  // namespace quenor::test
