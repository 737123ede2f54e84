// SetHttpDefaults() as the host calls it; what is refused is told by settings_check_test.cc.
#include "tests/integration/http_client_fixture.h"

namespace quenor::test {
namespace {

using HttpDefaultsTest = HttpClientTest;

TEST_F(HttpDefaultsTest, KeyIsTheCertificatesOwnAndMayStandInItsFile) {
  HttpDefaults defaults;
  defaults.client_certificate_file = certificate_.certificate_file;
  defaults.client_key_file = certificate_.key_file;
  EXPECT_EQ(SetHttpDefaults(defaults), "");

  const std::string both =
      ReadWholeFile(defaults.client_certificate_file) + ReadWholeFile(defaults.client_key_file);
  ASSERT_TRUE(WriteWholeFile(folder_.File("both.pem"), both));
  defaults.client_certificate_file = folder_.File("both.pem");
  defaults.client_key_file.clear();
  EXPECT_EQ(SetHttpDefaults(defaults), "");
}

TEST_F(HttpDefaultsTest, RefusalNamesTheFilesAndChangesNothing) {
  ASSERT_EQ(SetHttpDefaults(TrustingDefaults()), "");
  HttpDefaults defaults;
  defaults.client_certificate_file = certificate_.certificate_file;
  defaults.client_key_file = authority_.Issue("other", "DNS:other").key_file;

  const std::string reason = SetHttpDefaults(defaults);

  EXPECT_NE(reason.find(defaults.client_key_file), std::string::npos) << reason;
  EXPECT_NE(reason.find(defaults.client_certificate_file), std::string::npos) << reason;
  EXPECT_EQ(GetHttpDefaults().ca_file, authority_.ca_file());
}

TEST_F(HttpDefaultsTest, ZeroTakesTheDefault) {
  HttpDefaults zero;
  zero.total_timeout_ms = 0;
  ASSERT_EQ(SetHttpDefaults(zero), "");

  EXPECT_EQ(GetHttpDefaults().total_timeout_ms, HttpDefaults().total_timeout_ms);
  EXPECT_EQ(GetHttpDefaults().user_agent.substr(0, 7), "quenor/");
}

TEST(HttpClientFactoryTest, NameTellsLibrariesAndVersions) {
  const std::string name = HttpClientFactory::ImplementationName();

  EXPECT_EQ(name.substr(0, 8), "libcurl ");
  EXPECT_NE(name.find("OpenSSL/"), std::string::npos) << name;
  EXPECT_NE(name.find("nghttp2/"), std::string::npos) << name;
}

}  // namespace
}  // namespace quenor::test
