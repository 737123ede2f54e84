// Names as a host application writes them, over TLS: the certificate is for the name in ASCII, and
// no locale is set.
#include <algorithm>
#include <filesystem>

#include "services/http_client_curl/system_ca.h"
#include "tests/integration/http_client_fixture.h"
#include "tests/integration/support/servers.h"
#include "tests/support/fakes/recording_log.h"

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

// A tree below which the system's certificates are looked for, with one file in it.
class HttpSystemCaTest : public HttpClientTest {
 protected:
  HttpSystemCaTest() {
    NginxServer::Options options;
    options.certificate = &certificate_;
    options.server_lines = "location / { return 200 ''; }";
    server_ = std::make_unique<NginxServer>(options);
  }
  ~HttpSystemCaTest() override { SystemCa::Get().SetRoot(""); }

  // Of a request that trusts what stands at `place`; nothing, where that is empty.
  Outcome SendTrusting(const std::string& place, const std::string& pem) {
    const TempFolder root;
    const std::filesystem::path file = root.path() + place;
    std::filesystem::create_directories(file.parent_path());
    EXPECT_TRUE(place.empty() || WriteWholeFile(file, pem));
    SystemCa::Get().SetRoot(root.path());
    const auto client = MakeClient(HttpDefaults());
    return Send(client.get(), MakeRequest(server_->Origin(), "x"));
  }

  std::unique_ptr<NginxServer> server_;
};

TEST_F(HttpSystemCaTest, ServerIsTrustedByWhicheverStoreTheSystemHas) {
  const std::string pem = ReadWholeFile(authority_.ca_file());
  const CertificateAuthority stranger(folder_.path(), "stranger");
  for (const char* const place :
       {"/etc/ssl/certs/ca-certificates.crt", "/etc/pki/tls/certs/ca-bundle.crt",
        "/etc/ssl/cert.pem", "/system/etc/security/cacerts/0b7c536a.0"}) {
    EXPECT_EQ(SendTrusting(place, pem).status(), 200) << place;
    EXPECT_EQ(SendTrusting(place, ReadWholeFile(stranger.ca_file())).status(), 0) << place;
  }
}

TEST_F(HttpSystemCaTest, SystemWithoutAStoreIsToldOfOnce) {
  RecordingLog::Clear();

  EXPECT_EQ(SendTrusting("", "").status(), 0);
  const auto client = MakeClient(HttpDefaults());
  EXPECT_EQ(Send(client.get(), MakeRequest(server_->Origin(), "x")).status(), 0);

  const std::vector<std::string> texts = RecordingLog::Texts(2);
  EXPECT_EQ(std::count_if(texts.begin(), texts.end(),
                          [](const std::string& text) {
                            return text.find("CA certificates are in none of the places") !=
                                   std::string::npos;
                          }),
            1);
}

}  // namespace
}  // namespace quenor::test
