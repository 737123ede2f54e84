#include "services/http_client_curl/failure_text.h"

#include <gtest/gtest.h>

QUENOR_NAMESPACE_BEGIN
namespace {

TEST(FailureCauseTest, OfABadCertificateIsTheCertificateWhateverFailedAfterwards) {
  const HttpFailure failure{HttpClient::State::kFailed, CURLE_PEER_FAILED_VERIFICATION,
                            /*verify_result=*/10, "Send failure: Broken pipe", false};

  EXPECT_STREQ("certificate has expired", FailureCause(failure));
}

TEST(FailureCauseTest, OfAWrongNameIsWhatTheClientSaid) {
  HttpFailure failure{HttpClient::State::kFailed, CURLE_PEER_FAILED_VERIFICATION,
                      /*verify_result=*/1, "no name matches", false};

  EXPECT_STREQ("no name matches", FailureCause(failure));

  failure.error = "";
  EXPECT_STREQ(curl_easy_strerror(CURLE_PEER_FAILED_VERIFICATION), FailureCause(failure));
}

}  // namespace
QUENOR_NAMESPACE_END
