// Names as a host application writes them, over TLS: the certificate is for the name in ASCII, and
// no locale is set.
#include "tests/integration/http_client_fixture.h"
#include "tests/integration/support/servers.h"

namespace quenor::test {
namespace {

constexpr char kName[] =
    "b\xc3\xbc"
    "cher.example";

class HttpNamesTest : public HttpClientTest {
 protected:
  HttpNamesTest() : certificate_of_name_(authority_.Issue("idn", "DNS:xn--bcher-kva.example")) {
    NginxServer::Options options;
    options.certificate = &certificate_of_name_;
    options.server_lines = "location / { add_header x-host $http_host; return 200 ''; }";
    server_ = std::make_unique<NginxServer>(options);
  }
  std::string Port() const { return ":" + std::to_string(server_->port()); }

  const Certificate certificate_of_name_;
  std::unique_ptr<NginxServer> server_;
};

TEST_F(HttpNamesTest, HostBeyondAsciiIsReachedByItsPinAndTrusted) {
  HttpDefaults defaults = TrustingDefaults();
  defaults.connect_to = {kName + Port() + ":127.0.0.1"};
  const auto client = MakeClient(defaults);

  const Outcome outcome = Send(client.get(), MakeRequest("https://" + (kName + Port()), "x"));

  EXPECT_EQ(outcome.status(), 200);
  EXPECT_EQ(outcome.header("x-host"), "xn--bcher-kva.example" + Port());
}

TEST_F(HttpNamesTest, SettingsOfAnOriginHoldHoweverItsNameIsWritten) {
  const auto client = MakeClient(HttpDefaults());
  HttpSettings settings = TrustingDefaults();
  settings.connect_to = {"XN--bcher-kva.example" + Port() + ":127.0.0.1"};
  ASSERT_EQ(SetHttpSettings("https://" + (kName + Port()), settings), "");

  const Outcome outcome = Send(client.get(), MakeRequest("https://B\xc3\x9c"
                                                         "CHER.example" +
                                                             Port(),
                                                         "x"));

  EXPECT_TRUE(ResetHttpSettings("https://xn--bcher-kva.example" + Port() + "/"));
  EXPECT_EQ(outcome.status(), 200);
}

TEST_F(HttpNamesTest, PinToAnotherPortIsTheServersToo) {
  HttpDefaults defaults = TrustingDefaults();
  defaults.connect_to = {std::string(kName) + ":443:127.0.0.1" + Port()};
  const auto client = MakeClient(defaults);

  EXPECT_EQ(Send(client.get(), MakeRequest(std::string("https://") + kName, "x")).status(), 200);
}

}  // namespace
}  // namespace quenor::test
