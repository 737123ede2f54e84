#include "services/http_client_curl/failure_text.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <set>
#include <string>

QUENOR_NAMESPACE_BEGIN
namespace {

TEST(FailureCauseTest, OfABadCertificateIsTheCertificateWhateverFailedAfterwards) {
  HttpFailure failure;
  failure.code = CURLE_PEER_FAILED_VERIFICATION;
  failure.verify_result = 10;
  failure.error = "Send failure: Broken pipe";

  EXPECT_STREQ("certificate has expired", FailureCause(failure));
}

TEST(FailureCauseTest, OfAWrongNameIsWhatTheClientSaid) {
  HttpFailure failure;
  failure.code = CURLE_PEER_FAILED_VERIFICATION;
  failure.verify_result = 1;
  failure.error = "no name matches";

  EXPECT_STREQ("no name matches", FailureCause(failure));

  failure.error = "";
  EXPECT_STREQ(curl_easy_strerror(CURLE_PEER_FAILED_VERIFICATION), FailureCause(failure));
}

TEST(FailureReasonTest, FollowsFromTheFirstThatEndedIt) {
  using Limit = HttpLimit;
  using Reason = HttpReason;
  constexpr auto kFailed = HttpClient::State::kFailed;
  constexpr auto kNone = HttpLimit::kNone;
  constexpr char kSocks[] = "socks5h://p:1";
  constexpr char kTlsProxy[] = "https://p:1";
  constexpr char kAlert[] = "OpenSSL SSL_read: error:0A00045C:SSL routines::alert, errno 0";
  const struct {
    Reason reason;
    HttpFailure failure;
  } cases[] = {
      {Reason::kNone,
       {HttpClient::State::kCompleted, CURLE_OK, kNone, 0, "", "", true, 0, 0, 0, 200}},
      {Reason::kHttpStatus,
       {HttpClient::State::kCompleted, CURLE_OK, kNone, 0, "", "", true, 0, 0, 0, 204}},
      {Reason::kCancelled, {HttpClient::State::kCancelled, CURLE_RECV_ERROR, Limit::kTotal}},
      {Reason::kConnectTimeout, {kFailed, CURLE_OPERATION_TIMEDOUT, Limit::kConnect}},
      {Reason::kTooSlow, {kFailed, CURLE_OPERATION_TIMEDOUT, Limit::kLowSpeed}},
      {Reason::kTotalTimeout, {kFailed, CURLE_OPERATION_TIMEDOUT, Limit::kTotal}},
      {Reason::kTotalTimeout, {kFailed, CURLE_OPERATION_TIMEDOUT, Limit::kWait}},
      {Reason::kTooLarge, {kFailed, CURLE_WRITE_ERROR, Limit::kBody}},
      {Reason::kTooLarge, {kFailed, CURLE_WRITE_ERROR, Limit::kHeaders}},
      {Reason::kTooLarge, {kFailed, CURLE_RECV_ERROR, Limit::kFlood}},
      {Reason::kNameNotFound, {kFailed, CURLE_COULDNT_RESOLVE_HOST}},
      {Reason::kRefused, {kFailed, CURLE_COULDNT_CONNECT, kNone, 0, "", "", false, ECONNREFUSED}},
      {Reason::kUnreachable,
       {kFailed, CURLE_COULDNT_CONNECT, kNone, 0, "", "", false, ENETUNREACH}},
      {Reason::kUnreachable, {kFailed, CURLE_COULDNT_CONNECT, kNone, 0, "", "", false, ECONNRESET}},
      {Reason::kOther, {kFailed, CURLE_COULDNT_CONNECT}},
      {Reason::kOther, {kFailed, CURLE_OUT_OF_MEMORY}},
      {Reason::kTlsExpired, {kFailed, CURLE_PEER_FAILED_VERIFICATION, kNone, 9}},
      {Reason::kTlsExpired, {kFailed, CURLE_PEER_FAILED_VERIFICATION, kNone, 10}},
      {Reason::kTlsWrongHost, {kFailed, CURLE_PEER_FAILED_VERIFICATION, kNone, 1}},
      {Reason::kTlsUntrusted, {kFailed, CURLE_PEER_FAILED_VERIFICATION, kNone, 18}},
      {Reason::kTlsUntrusted, {kFailed, CURLE_PEER_FAILED_VERIFICATION, kNone, 20}},
      {Reason::kTlsOther, {kFailed, CURLE_PEER_FAILED_VERIFICATION, kNone, 66}},
      {Reason::kTlsPin, {kFailed, CURLE_SSL_PINNEDPUBKEYNOTMATCH}},
      {Reason::kTlsOther, {kFailed, CURLE_SSL_CONNECT_ERROR}},
      {Reason::kTlsOther, {kFailed, CURLE_RECV_ERROR, kNone, 0, kAlert, "", true}},
      {Reason::kProxyUnreachable, {kFailed, CURLE_COULDNT_RESOLVE_PROXY, kNone, 0, "", kSocks}},
      {Reason::kProxyUnreachable, {kFailed, CURLE_COULDNT_RESOLVE_HOST, kNone, 0, "", kSocks}},
      {Reason::kProxyUnreachable,
       {kFailed, CURLE_COULDNT_CONNECT, kNone, 0, "", kSocks, false, ECONNREFUSED}},
      {Reason::kProxyUnreachable, {kFailed, CURLE_SSL_CONNECT_ERROR, kNone, 0, "", kTlsProxy}},
      {Reason::kTlsOther,
       {kFailed, CURLE_SSL_CONNECT_ERROR, kNone, 0, "", kTlsProxy, false, 0, 0, 200}},
      {Reason::kProxyCredentials,
       {kFailed, CURLE_PROXY, kNone, 0, "", kSocks, false, 0, CURLPX_USER_REJECTED}},
      {Reason::kProxyCredentials,
       {kFailed, CURLE_PROXY, kNone, 0, "", kSocks, false, 0, CURLPX_NO_AUTH}},
      {Reason::kProxyRefused,
       {kFailed, CURLE_PROXY, kNone, 0, "", kSocks, false, 0, CURLPX_REPLY_NOT_ALLOWED}},
      {Reason::kProxyCredentials,
       {kFailed, CURLE_RECV_ERROR, kNone, 0, "", "http://p:1", false, 0, 0, 407}},
      {Reason::kProxyCredentials,
       {kFailed, CURLE_RECV_ERROR, kNone, 0, "", "http://p:1", false, 0, 0, 401}},
      {Reason::kProxyRefused,
       {kFailed, CURLE_RECV_ERROR, kNone, 0, "", "http://p:1", false, 0, 0, 403}},
      {Reason::kProxyRefused, {kFailed, CURLE_RECV_ERROR, kNone, 0, "", "http://p:1"}},
      {Reason::kProtocol, {kFailed, CURLE_RECV_ERROR, kNone, 0, "", kSocks, true}},
      {Reason::kProtocol, {kFailed, CURLE_GOT_NOTHING, kNone, 0, "", "", true}},
      {Reason::kProtocol, {kFailed, CURLE_UNSUPPORTED_PROTOCOL, kNone, 0, "", "", true}},
  };
  for (const auto& test : cases) {
    EXPECT_STREQ(HttpReasonName(test.reason), HttpReasonName(ReasonOf(test.failure)))
        << "code " << test.failure.code << ", verification " << test.failure.verify_result
        << ", proxy " << test.failure.proxy << " answered " << test.failure.connect_status;
  }
}

TEST(FailureReasonTest, EachHasANameOfItsOwnAndNoNumberHasNone) {
  std::set<std::string> names;
  for (int32_t i = 0; i < kHttpReasons; ++i) names.insert(HttpReasonName(HttpReason{i}));

  EXPECT_EQ(static_cast<size_t>(kHttpReasons), names.size());
  EXPECT_STREQ("other", HttpReasonName(HttpReason{kHttpReasons}));
  EXPECT_STREQ("other", HttpReasonName(HttpReason{-1}));
}

}  // namespace
QUENOR_NAMESPACE_END
