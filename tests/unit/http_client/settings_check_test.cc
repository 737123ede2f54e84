// What is refused of what the host sets for all HTTP clients, with which words, and what zero
// stands for. Whether a key belongs to a certificate is told by the test.
#include "services/http_client_curl/rules/settings_check.h"

#include <gtest/gtest.h>

#include <string>

#include "services/http_client_curl/rules/syntax.h"
#include "tests/support/temp_folder.h"

QUENOR_NAMESPACE_BEGIN
namespace http_settings_check {
namespace {

std::string Block(const std::string& label, const std::string& base64) {
  return "-----BEGIN " + label + "-----\n" + base64 + "\n-----END " + label + "-----\n";
}
// The shortest that has the form of one.
const std::string kCertificate = Block("CERTIFICATE", "MAA=");
const std::string kKey = Block("PRIVATE KEY", "MAA=");

bool Matches(const ClientIdentity& identity) { return identity.certificate != identity.key; }
bool Opens(std::string* key, const std::string& passphrase) {
  *key = "opened";
  return passphrase == "sesame";
}
constexpr KeyCalls kKeys = {&Matches, &Opens};

class SettingsCheckTest : public ::testing::Test {
 protected:
  std::string Write(const std::string& name, const std::string& content) {
    EXPECT_TRUE(test::WriteWholeFile(folder_.File(name), content));
    return folder_.File(name);
  }
  // Of what stands in `defaults_`; a refusal is one line with an advice.
  std::string Answer() {
    identity_ = ClientIdentity();
    const std::string problem = Problem(defaults_, kKeys, &identity_);
    EXPECT_EQ(problem.find('\n'), std::string::npos) << problem;
    EXPECT_EQ(problem.empty(), problem.find("; ") == std::string::npos) << problem;
    return problem;
  }
  bool AnswerNames(const std::string& what) { return Answer().find(what) != std::string::npos; }

  test::TempFolder folder_;
  HttpDefaults defaults_;
  ClientIdentity identity_;
};

TEST_F(SettingsCheckTest, CaFileMustHoldWholeCertificates) {
  for (const std::string& content :
       {std::string(), std::string("hello"), kCertificate.substr(0, 30), kKey,
        Block("CERTIFICATE", "M!A="), Block("CERTIFICATE", "AAAA"),
        // A byte behind the SEQUENCE; no base64; an alphabet of another kind.
        Block("CERTIFICATE", "MAAA"), Block("TRUSTED CERTIFICATE", "AAAAA"),
        Block("TRUSTED CERTIFICATE", "AA_A"), kCertificate + kCertificate.substr(0, 30)}) {
    defaults_.ca_file = Write("bad.pem", content);
    EXPECT_TRUE(AnswerNames("ca_file '" + defaults_.ca_file)) << content;
  }
  defaults_.ca_file = Write("bundle.pem", "# one\n" + kCertificate + "\n# two\r\n" + kCertificate);
  EXPECT_EQ(Answer(), "");
  defaults_.ca_file = folder_.File("absent.pem");
  EXPECT_TRUE(AnswerNames("cannot be read: No such file or directory"));
}

TEST_F(SettingsCheckTest, CaFolderMustBeOne) {
  for (const std::string& bad : {folder_.File("absent"), Write("file", "x")}) {
    defaults_.ca_folder = bad;
    EXPECT_TRUE(AnswerNames("ca_folder '" + bad));
  }
  defaults_.ca_folder = folder_.path();
  EXPECT_EQ(Answer(), "");
}

TEST_F(SettingsCheckTest, PinsMustBeSha256OfAKey) {
  const std::string zeros(42, 'A');
  const std::string good = "sha256//" + zeros + "A=";
  for (const std::string& pin :
       {std::string(), std::string("sha256//"), std::string("sha256//AAAA"),
        "sha1//" + zeros + "A=", zeros + "A=", "sha256//" + zeros + "==", "sha256//" + zeros + ";=",
        good + "\n"}) {
    defaults_.pinned_public_keys = {good, pin};
    const std::string problem = Problem(defaults_, kKeys, &identity_);
    EXPECT_NE(problem.find("pinned_public_keys"), std::string::npos) << pin;
  }
  defaults_.pinned_public_keys = {good};
  EXPECT_EQ(Answer(), "");
}

TEST_F(SettingsCheckTest, CertificateAndKeyAreTakenTogether) {
  defaults_.client_key_file = Write("key", kKey);
  EXPECT_TRUE(
      AnswerNames("client_key_file '" + defaults_.client_key_file + "' has no certificate"));

  defaults_.client_certificate_file = Write("certificate", kCertificate);
  EXPECT_EQ(Answer(), "");
  EXPECT_EQ(identity_.certificate, kCertificate);
  EXPECT_EQ(identity_.key, kKey);

  defaults_.client_key_file.clear();
  EXPECT_TRUE(AnswerNames("client_certificate_file '" + defaults_.client_certificate_file));
  defaults_.client_certificate_file = Write("both", kCertificate + kKey);
  EXPECT_TRUE(AnswerNames("is not that of the certificate in"));  // As the test decides.

  for (const char* locked : {"ENCRYPTED PRIVATE KEY", "RSA PRIVATE KEY"}) {
    defaults_.client_key_file = Write("locked", Block(locked, "Proc-Type: 4,ENCRYPTED\n\nMAA="));
    defaults_.key_passphrase = nullptr;
    EXPECT_TRUE(AnswerNames("holds an encrypted PRIVATE KEY; set key_passphrase")) << locked;
    defaults_.key_passphrase = [] { return "mellon"; };
    EXPECT_TRUE(AnswerNames("a key that key_passphrase does not open")) << locked;
    defaults_.key_passphrase = [] { return "sesame"; };
    EXPECT_EQ(Answer(), "");
    EXPECT_EQ(identity_.key, "opened");
  }
}

TEST_F(SettingsCheckTest, TextsInMemoryStandForFiles) {
  defaults_.ca_pem = kCertificate;
  defaults_.client_certificate_pem = kCertificate;
  defaults_.client_key_pem = kKey;
  EXPECT_EQ(Answer(), "");
  EXPECT_EQ(identity_.certificate, kCertificate);
  EXPECT_EQ(identity_.key, kKey);
  const struct {
    std::string HttpSettings::*field;
    std::string value, said;
  } rows[] = {
      {&HttpSettings::ca_pem, "hello", "ca_pem holds no CERTIFICATE block"},
      {&HttpSettings::ca_pem, kCertificate.substr(0, 30), "ca_pem holds a malformed CERTIFICATE"},
      {&HttpSettings::ca_file, Write("ca", kCertificate), "ca_file and ca_pem are both set"},
      {&HttpSettings::client_certificate_pem, "", "client_key_pem has no certificate"},
      {&HttpSettings::client_certificate_pem, kKey, "client_certificate_pem holds no CERTIFICATE"},
      {&HttpSettings::client_key_pem, "", "client_certificate_pem holds no PRIVATE KEY block"},
      {&HttpSettings::client_key_pem, kCertificate, "client_key_pem holds no PRIVATE KEY block"},
      {&HttpSettings::client_key_file, Write("k", kKey), "client_key_file and client_key_pem are"},
  };
  const HttpSettings good = defaults_;
  for (const auto& row : rows) {
    defaults_ = good;
    defaults_.*row.field = row.value;
    EXPECT_TRUE(AnswerNames(row.said)) << row.said;
  }
}

TEST_F(SettingsCheckTest, HeadersThatHttpForbidsAreRefused) {
  for (const auto& [name, value] :
       http_syntax::Headers{{"A", "x\r\nB: y"}, {"A b", "x"}, {"", "x"}, {"content-Length", "1"}}) {
    defaults_.headers = {{"Authorization", "Bearer secret"}, {name, value}};
    EXPECT_TRUE(AnswerNames("headers: "));
    EXPECT_FALSE(AnswerNames("secret"));
  }
}

TEST_F(SettingsCheckTest, ValuesThatTheLibraryCannotTakeAreRefused) {
  defaults_.user_agent = "x\r\nY: z";
  EXPECT_TRUE(AnswerNames("user_agent"));
  defaults_.user_agent = "x";
  defaults_.max_response_header_bytes = 256 << 10;
  EXPECT_EQ(Answer(), "");
  ++defaults_.max_response_header_bytes;
  EXPECT_TRUE(AnswerNames("max_response_header_bytes is 262145; give at most 262144"));
}

TEST_F(SettingsCheckTest, ZeroTakesTheDefaultAndAValueStays) {
  const HttpDefaults fresh;
  for (uint32_t HttpDefaults::*field :
       {&HttpDefaults::connect_timeout_ms, &HttpDefaults::total_timeout_ms,
        &HttpDefaults::low_speed_bytes_per_second, &HttpDefaults::low_speed_seconds,
        &HttpDefaults::max_response_body_bytes, &HttpDefaults::max_response_header_bytes,
        &HttpDefaults::max_connections_per_host}) {
    defaults_.*field = 0;
    EXPECT_EQ(InForce(defaults_).*field, fresh.*field);
    defaults_.*field = 7;
    EXPECT_EQ(InForce(defaults_).*field, 7u);
  }
  EXPECT_EQ(InForce(defaults_).user_agent.substr(0, 7), "quenor/");
}

}  // namespace
}  // namespace http_settings_check
QUENOR_NAMESPACE_END
