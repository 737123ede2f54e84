#include "cli/advice.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <string>

#include "cli/connection.h"
#include "cli/fatal.h"
#include "services/http_client_curl/failure_text.h"
#include "tests/support/temp_folder.h"

namespace quenor::cli {
namespace {

// Names of C++, which mean nothing to someone with a command line.
void ExpectNoField(const std::string& line) {
  for (const char* name : {"HttpDefaults", "http defaults", "::", "ca_file", "ca_folder",
                           "pinned_public_keys", "client_certificate_file", "client_key_file"}) {
    EXPECT_EQ(std::string::npos, line.find(name)) << line;
  }
}

TEST(AdviceTest, NoFailureOfTheHttpClientIsExplainedWithItsFields) {
  for (int code = 0; code < CURL_LAST; ++code) {
    for (long verify_result = 0; verify_result < 80; ++verify_result) {
      for (const auto state : {HttpClient::State::kFailed, HttpClient::State::kTooLarge}) {
        HttpFailure failure;
        failure.state = state;
        failure.code = static_cast<CURLcode>(code);
        failure.verify_result = verify_result;
        const std::string advice = FailureAdvice(failure);
        const std::string said = InOptions(advice);
        ExpectNoField(said);
        EXPECT_FALSE(said.empty()) << advice;
      }
    }
  }
}

TEST(AdviceTest, NamesTheOptionThatSetsTheField) {
  EXPECT_EQ("name the authority's certificate in --cacert, or look",
            InOptions("name the authority's certificate in HttpDefaults::ca_file, or look"));
  EXPECT_EQ("check --cacert and --capath", InOptions("check HttpDefaults::ca_file and ca_folder"));
  EXPECT_EQ("check --client-cert and --client-key",
            InOptions("check HttpDefaults::client_certificate_file and client_key_file"));
  EXPECT_EQ("check the network", InOptions("check the network, or raise the time limits of "
                                           "HttpDefaults"));
}

TEST(AdviceTest, LeavesFilesAndOtherWordsAlone) {
  for (const char* line : {"cannot open /etc/ca_file: gone", "'HttpDefaults::ca_file' is a file",
                           "my_ca_file", "ca_files", "", "it's the server's"}) {
    EXPECT_EQ(line, InOptions(line));
  }
}

TEST(AdviceTest, AFieldIsAWordOfItsOwn) {
  for (const char c : std::string("09azAZ_/-.")) {
    EXPECT_EQ(c + std::string("ca_file"), InOptions(c + std::string("ca_file")));
    EXPECT_EQ(std::string("ca_file") + c, InOptions(std::string("ca_file") + c));
  }
  for (const char c : std::string(":@[`{ ,")) {
    EXPECT_EQ(c + std::string("--cacert") + c, InOptions(c + std::string("ca_file") + c));
  }
}

TEST(AdviceTest, SettingsThatCannotBeUsedAreNamedByTheirOptions) {
  const test::TempFolder folder;
  const std::string no_pem = folder.File("ca_file");
  ASSERT_TRUE(test::WriteWholeFile(no_pem, "x"));
  Connection wrong[9];
  wrong[0].ca_file = no_pem;
  wrong[1].ca_folder = no_pem;
  wrong[2].pins = {"sha256//x"};
  wrong[3].client_certificate_file = no_pem;
  wrong[4].client_key_file = "key.pem";
  wrong[5].headers = {{"A", "b\r\nC: d"}};
  wrong[6].connect_to = {"h:1"};
  wrong[7].proxy = ProxyAddress{"h", 1, "a:b", "", "http"};
  wrong[8].proxy = ProxyAddress{"h", 1, "", ""};
  wrong[8].no_proxy = {"a b"};
  const char* const options[] = {"--cacert",     "--capath", "--pin",        "--client-cert",
                                 "--client-key", "--header", "--connect-to", "the user of --proxy",
                                 "--no-proxy"};

  for (int i = 0; i < 9; ++i) {
    try {
      ApplyConnection(wrong[i]);
      ADD_FAILURE() << options[i];
    } catch (const Fatal& fatal) {
      const std::string line = fatal.what();
      EXPECT_EQ(0u, line.find(options[i])) << line;
      EXPECT_EQ(i < 4 && i != 2, line.find("'" + no_pem + "'") != std::string::npos) << line;
      EXPECT_EQ(std::string::npos, line.find("client_")) << line;
    }
  }
}

}  // namespace
}  // namespace quenor::cli
