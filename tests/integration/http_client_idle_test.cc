// Rest cannot be seen without waiting for it: these few seconds are real. http_client_program
// rests.
#include "tests/integration/http_client_fixture.h"
#include "tests/integration/support/child_process.h"

namespace quenor::test {
namespace {

class HttpClientIdleTest : public HttpClientTest {
 protected:
  // Runs the program against nginx, whose connection stays open, and answers its exit code.
  int Rest(bool http2) {
    NginxServer::Options options;
    options.certificate = &certificate_;
    options.http2 = http2;
    options.server_lines = "location / { return 200 '{}'; }";
    NginxServer server(options);
    std::vector<std::string> environment;
    if (http2) environment.push_back("QUENOR_TEST_HTTP2=1");
    ChildProcess child(
        {QUENOR_HTTP_CLIENT_PROGRAM, "idle", server.Origin() + "/", authority_.ca_file()},
        folder_.File("output"), environment);
    return child.Wait();
  }
};

TEST_F(HttpClientIdleTest, KeptHttp11ConnectionNeverWakesTheThread) {
  EXPECT_EQ(Rest(false), 0) << ReadWholeFile(folder_.File("output"));
}

TEST_F(HttpClientIdleTest, KeptHttp2ConnectionNeverWakesTheThread) {
  EXPECT_EQ(Rest(true), 0) << ReadWholeFile(folder_.File("output"));
}

}  // namespace
}  // namespace quenor::test
