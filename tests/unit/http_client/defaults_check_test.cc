// What is refused of what the host sets for all HTTP clients, with which words, and what zero
// stands for. Whether a key belongs to a certificate is told by the test.
#include "services/http_client_curl/rules/defaults_check.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/temp_folder.h"

QUENOR_NAMESPACE_BEGIN
namespace http_defaults {
namespace {

std::string Block(const std::string& label, const std::string& base64) {
  return "-----BEGIN " + label + "-----\n" + base64 + "\n-----END " + label + "-----\n";
}
// The shortest that has the form of one.
const std::string kCertificate = Block("CERTIFICATE", "MAA=");
const std::string kKey = Block("PRIVATE KEY", "MAA=");

bool Matches(const ClientIdentity& identity) { return identity.certificate != identity.key; }

class DefaultsCheckTest : public ::testing::Test {
 protected:
  std::string Write(const std::string& name, const std::string& content) {
    EXPECT_TRUE(test::WriteWholeFile(folder_.File(name), content));
    return folder_.File(name);
  }
  // Of what stands in `defaults_`; a refusal is one line with an advice.
  std::string Answer() {
    identity_ = ClientIdentity();
    const std::string problem = Problem(defaults_, &Matches, &identity_);
    EXPECT_EQ(problem.find('\n'), std::string::npos) << problem;
    EXPECT_EQ(problem.empty(), problem.find("; ") == std::string::npos) << problem;
    return problem;
  }
  bool AnswerNames(const std::string& what) { return Answer().find(what) != std::string::npos; }

  test::TempFolder folder_;
  HttpDefaults defaults_;
  ClientIdentity identity_;
};

TEST_F(DefaultsCheckTest, CaFileMustHoldWholeCertificates) {
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

TEST_F(DefaultsCheckTest, CaFolderMustBeOne) {
  for (const std::string& bad : {folder_.File("absent"), Write("file", "x")}) {
    defaults_.ca_folder = bad;
    EXPECT_TRUE(AnswerNames("ca_folder '" + bad));
  }
  defaults_.ca_folder = folder_.path();
  EXPECT_EQ(Answer(), "");
}

TEST_F(DefaultsCheckTest, PinsMustBeSha256OfAKey) {
  const std::string zeros(42, 'A');
  const std::string good = "sha256//" + zeros + "A=";
  for (const std::string& pin :
       {std::string(), std::string("sha256//"), std::string("sha256//AAAA"),
        "sha1//" + zeros + "A=", zeros + "A=", "sha256//" + zeros + "==", "sha256//" + zeros + ";=",
        good + "\n"}) {
    defaults_.pinned_public_keys = {good, pin};
    const std::string problem = Problem(defaults_, &Matches, &identity_);
    EXPECT_NE(problem.find("pinned_public_keys"), std::string::npos) << pin;
  }
  defaults_.pinned_public_keys = {good};
  EXPECT_EQ(Answer(), "");
}

TEST_F(DefaultsCheckTest, CertificateAndKeyAreTakenTogether) {
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
    EXPECT_TRUE(AnswerNames("malformed or encrypted PRIVATE KEY")) << locked;
  }
}

TEST_F(DefaultsCheckTest, ValuesThatTheLibraryCannotTakeAreRefused) {
  defaults_.user_agent = "x\r\nY: z";
  EXPECT_TRUE(AnswerNames("user_agent"));
  defaults_.user_agent = "x";
  defaults_.max_response_header_bytes = 256 << 10;
  EXPECT_EQ(Answer(), "");
  ++defaults_.max_response_header_bytes;
  EXPECT_TRUE(AnswerNames("max_response_header_bytes is 262145; give at most 262144"));
}

TEST_F(DefaultsCheckTest, ZeroTakesTheDefaultAndAValueStays) {
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
}  // namespace http_defaults
QUENOR_NAMESPACE_END
