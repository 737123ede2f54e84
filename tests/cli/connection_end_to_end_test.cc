// What quenor-report send demands of a server, and shows it, against servers over TLS.
#include <gtest/gtest.h>

#include <string>

#include "tests/cli/reporting.h"
#include "tests/integration/support/servers.h"
#include "tests/support/certificates.h"
#include "tests/support/process.h"

namespace quenor::test {
namespace {

// nginx that answers 200 to everyone, or only to those with a certificate of the test's authority.
class SendConnectionTest : public ::testing::Test {
 protected:
  SendConnectionTest()
      : authority_(folder_.path(), "ca"),
        server_(authority_.Issue("server", "DNS:localhost")),
        client_(authority_.Issue("client", "DNS:client")) {}

  std::unique_ptr<NginxServer> Serve(bool wants_certificate) const {
    NginxServer::Options options;
    options.certificate = &server_;
    options.server_lines = "location / { return 200; }";
    if (wants_certificate) {
      options.server_lines +=
          "ssl_verify_client on; ssl_client_certificate " + authority_.ca_file() + ";";
    }
    return std::make_unique<NginxServer>(options);
  }

  // Sends one line, without patience.
  Result Send(const NginxServer& nginx, const Arguments& more) const {
    Arguments arguments = {QUENOR_REPORT_PATH,   "send",         "--url",
                           nginx.Origin() + "/", "--cache",      "none",
                           "--send-now",         "--max-resend", "1"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return RunWhole(arguments, "a\n");
  }

  TempFolder folder_;
  CertificateAuthority authority_;
  const Certificate server_;
  const Certificate client_;
};

TEST_F(SendConnectionTest, DeliversOnlyToAServerWithAPinnedKey) {
  const auto nginx = Serve(/*wants_certificate=*/false);

  const Result pinned =
      Send(*nginx, {"--cacert", authority_.ca_file(), "--pin", client_.pin, "--pin", server_.pin});
  const Result other = Send(*nginx, {"--cacert", authority_.ca_file(), "--pin", client_.pin});

  EXPECT_EQ(0, pinned.exit_code) << pinned.err;
  EXPECT_EQ(69, other.exit_code) << other.out;
  EXPECT_EQ(0, Field(other.out, "delivered")) << other.out;
}

TEST_F(SendConnectionTest, APinDoesNotReplaceTheAuthority) {
  const CertificateAuthority stranger(folder_.path(), "stranger");
  const auto nginx = Serve(/*wants_certificate=*/false);

  const Result result = Send(*nginx, {"--cacert", stranger.ca_file(), "--pin", server_.pin});

  EXPECT_EQ(69, result.exit_code) << result.out;
}

TEST_F(SendConnectionTest, TrustsAFolderOfAuthorities) {
  const auto nginx = Serve(/*wants_certificate=*/false);
  const Result hashed = RunWhole({"openssl", "rehash", folder_.path()}, "");
  ASSERT_EQ(0, hashed.exit_code) << hashed.err;

  const Result result = Send(*nginx, {"--capath", folder_.path()});

  EXPECT_EQ(0, result.exit_code) << result.err;
}

TEST_F(SendConnectionTest, ShowsItsClientCertificate) {
  const auto nginx = Serve(/*wants_certificate=*/true);
  const Arguments trust = {"--cacert", authority_.ca_file()};
  Arguments shown = trust;
  shown.insert(shown.end(),
               {"--client-cert", client_.certificate_file, "--client-key", client_.key_file});

  EXPECT_EQ(69, Send(*nginx, trust).exit_code);
  EXPECT_EQ(0, Send(*nginx, shown).exit_code);
}

TEST_F(SendConnectionTest, UnusableSettingsAreNamedInOneLine) {
  const auto nginx = Serve(/*wants_certificate=*/false);
  for (const Arguments& more :
       {Arguments{"--pin", "sha256//short"}, Arguments{"--capath", "/nowhere/cas"},
        Arguments{"--client-cert", "/nowhere/client.pem"},
        Arguments{"--client-cert", client_.certificate_file, "--client-key", "/nowhere/key"}}) {
    const Result result = Send(*nginx, more);

    EXPECT_EQ(64, result.exit_code) << result.out;
    EXPECT_TRUE(Mentions(result.err, more.back())) << result.err;
    EXPECT_EQ(1u, CountIn(result.err, "\n")) << result.err;
  }
}

}  // namespace
}  // namespace quenor::test
