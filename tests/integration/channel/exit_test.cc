// The process ends while its first request makes libcurl and OpenSSL ready, or soon after:
// exit_program is the process. QUENOR_NETWORK_FULL=1: a thousand runs with each delay.
#include <cstdlib>
#include <iostream>
#include <tuple>

#include "tests/integration/channel/channel_fixture.h"
#include "tests/integration/support/servers.h"

namespace quenor::test {
namespace {

// Who owns the channel, and whether over TLS.
using Case = std::tuple<std::string, bool>;

class ExitAfterFirstSendTest : public ChannelOverNetworkTest,
                               public ::testing::WithParamInterface<Case> {
 protected:
  // With each delay.
  static const char* Runs() {
    const char* const full = std::getenv("QUENOR_NETWORK_FULL");
    return full != nullptr && *full == '1' ? "1000" : "4";
  }
};

TEST_P(ExitAfterFirstSendTest, NeitherCrashesNorHangs) {
  const auto& [owner, tls] = GetParam();
  const Certificate certificate = GoodCertificate();
  NginxServer::Options options;
  options.certificate = tls ? &certificate : nullptr;
  options.server_lines = "location / { return 200 '{}'; }";
  NginxServer server(options);

  // The leak check of each run would take longer than the run.
  ChildProcess program(
      {QUENOR_EXIT_PROGRAM, server.Origin() + "/", authority_.ca_file(), owner, Runs()},
      folder_.File("seen"), {"ASAN_OPTIONS=detect_leaks=0"});

  const int code = program.Wait(std::chrono::seconds(2900));  // Thousands of them at full length.
  const std::string seen = ReadWholeFile(folder_.File("seen"));
  std::cout << seen;
  EXPECT_EQ(0, code) << seen;
}

INSTANTIATE_TEST_SUITE_P(All, ExitAfterFirstSendTest,
                         ::testing::Combine(::testing::Values("static", "leaked", "thread"),
                                            ::testing::Bool()),
                         [](const auto& test) {
                           return std::get<0>(test.param) +
                                  (std::get<1>(test.param) ? "Https" : "Http");
                         });

}  // namespace
}  // namespace quenor::test
