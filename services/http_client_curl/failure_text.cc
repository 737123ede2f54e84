#include "services/http_client_curl/failure_text.h"

#include <openssl/x509.h>

#include <cerrno>
#include <cstring>

QUENOR_NAMESPACE_BEGIN
namespace {

// libcurl's start value: the chain was not looked at, or the name was wrong.
constexpr long kNotLookedAt = 1;

HttpReason ReasonOfLimit(HttpLimit limit) {
  switch (limit) {
    case HttpLimit::kConnect:
      return HttpReason::kConnectTimeout;
    case HttpLimit::kLowSpeed:
      return HttpReason::kTooSlow;
    case HttpLimit::kTotal:
    case HttpLimit::kWait:
      return HttpReason::kTotalTimeout;
    default:
      return HttpReason::kTooLarge;
  }
}

// X509_V_ERR_... values.
HttpReason ReasonOfCertificate(long verify_result) {
  switch (verify_result) {
    case X509_V_ERR_CERT_NOT_YET_VALID:
    case X509_V_ERR_CERT_HAS_EXPIRED:
      return HttpReason::kTlsExpired;
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
      return HttpReason::kTlsUntrusted;
    case X509_V_OK:
    case kNotLookedAt:
    case X509_V_ERR_HOSTNAME_MISMATCH:
      return HttpReason::kTlsWrongHost;
    default:
      return HttpReason::kTlsOther;
  }
}

HttpReason ReasonOfSocks(long error) {
  switch (error) {
    case CURLPX_NO_AUTH:
    case CURLPX_GSSAPI:
    case CURLPX_GSSAPI_PERMSG:
    case CURLPX_UNKNOWN_MODE:
    case CURLPX_USER_REJECTED:
    case CURLPX_LONG_USER:
    case CURLPX_LONG_PASSWD:
      return HttpReason::kProxyCredentials;
    default:
      return HttpReason::kProxyRefused;
  }
}

// Of a connection that stood and broke, or brought nonsense.
HttpReason ReasonOfBreak(const HttpFailure& failure) {
  const bool is_before_server = failure.proxy[0] != '\0' && !failure.under_way;
  // OpenSSL's words. In TLS 1.3 the server judges the client's certificate once both may send.
  if (std::strstr(failure.error, "SSL routines") != nullptr) return HttpReason::kTlsOther;
  return is_before_server ? HttpReason::kProxyRefused : HttpReason::kProtocol;
}

bool IsOfTls(CURLcode code) {
  switch (code) {
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_ENGINE_NOTFOUND:
    case CURLE_SSL_ENGINE_SETFAILED:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_ENGINE_INITFAILED:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_SHUTDOWN_FAILED:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_INVALIDCERTSTATUS:
    case CURLE_SSL_CLIENTCERT:
      return true;
    default:
      return false;
  }
}

HttpReason ReasonOfTls(const HttpFailure& failure) {
  // With the proxy, as that has not answered yet.
  if (std::strncmp(failure.proxy, "https:", 6) == 0 && failure.connect_status == 0) {
    return HttpReason::kProxyUnreachable;
  }
  if (failure.code == CURLE_SSL_PINNEDPUBKEYNOTMATCH) return HttpReason::kTlsPin;
  return failure.code == CURLE_PEER_FAILED_VERIFICATION ? ReasonOfCertificate(failure.verify_result)
                                                        : HttpReason::kTlsOther;
}

HttpReason ReasonOfCode(const HttpFailure& failure) {
  const bool is_proxied = failure.proxy[0] != '\0';
  if (IsOfTls(failure.code)) return ReasonOfTls(failure);
  switch (failure.code) {
    case CURLE_COULDNT_RESOLVE_HOST: {  // A SOCKS proxy's, too; that looks up the server's.
      const bool is_socks = std::strncmp(failure.proxy, "socks", 5) == 0;
      return is_socks ? HttpReason::kProxyUnreachable : HttpReason::kNameNotFound;
    }
    case CURLE_COULDNT_RESOLVE_PROXY:
      return HttpReason::kProxyUnreachable;
    case CURLE_PROXY:
      return ReasonOfSocks(failure.proxy_error);
    case CURLE_COULDNT_CONNECT:
      if (failure.os_error == 0) return HttpReason::kOther;  // There was no socket.
      if (is_proxied) return HttpReason::kProxyUnreachable;
      return failure.os_error == ECONNREFUSED ? HttpReason::kRefused : HttpReason::kUnreachable;
    case CURLE_UNSUPPORTED_PROTOCOL:
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_PARTIAL_FILE:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
    case CURLE_GOT_NOTHING:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_BAD_CONTENT_ENCODING:
      return ReasonOfBreak(failure);
    default:
      return HttpReason::kOther;
  }
}

const char* AdviceOnTls(CURLcode code) {
  switch (code) {
    case CURLE_PEER_FAILED_VERIFICATION:
      return "check the server's certificate chain";
    case CURLE_SSL_CACERT_BADFILE:
      return "check HttpDefaults::ca_file and ca_folder";
    case CURLE_SSL_CERTPROBLEM:
      return "check HttpDefaults::client_certificate_file and client_key_file";
    case CURLE_SSL_CONNECT_ERROR:
      return "check that the server speaks TLS 1.2 or newer on this port";
    default:
      return "check the network and the server";
  }
}

std::string Ms(const char* name, uint32_t ms) {
  return std::string(name) + " (" + std::to_string(ms) + " ms)";
}

}  // namespace

std::string LimitText(HttpLimit limit, const HttpDefaults& defaults, uint32_t request_ms) {
  const std::string total = request_ms > 0 ? Ms("the request's timeout_ms", request_ms)
                                           : Ms("total_timeout_ms", defaults.total_timeout_ms);
  const auto larger = [](const char* what, const char* name, uint32_t bytes) {
    return std::string(what) + " larger than " + name + " (" + std::to_string(bytes) + " bytes)";
  };
  switch (limit) {
    case HttpLimit::kConnect:
      return "no connection within " + Ms("connect_timeout_ms", defaults.connect_timeout_ms);
    case HttpLimit::kLowSpeed:
      return "slower than low_speed_bytes_per_second (" +
             std::to_string(defaults.low_speed_bytes_per_second) +
             " bytes/s) for low_speed_seconds (" + std::to_string(defaults.low_speed_seconds) +
             " s)";
    case HttpLimit::kTotal:
      return "no whole response within " + total;
    case HttpLimit::kWait:
      return "no connection became free within " + total;
    case HttpLimit::kBody:
      return larger("the response's body is", "max_response_body_bytes",
                    defaults.max_response_body_bytes);
    case HttpLimit::kHeaders:
      return larger("the response's headers are", "max_response_header_bytes",
                    defaults.max_response_header_bytes);
    case HttpLimit::kHeaderLines:
      return "the response has more than " + std::to_string(kMaxHeaderLines) + " header lines";
    case HttpLimit::kFlood:
      return "the server sends without end";
    case HttpLimit::kNone:
      break;
  }
  return std::string();
}

HttpReason ReasonOf(const HttpFailure& failure) {
  if (failure.state == HttpClient::State::kCancelled) return HttpReason::kCancelled;
  if (failure.state == HttpClient::State::kCompleted) {
    return failure.status == 200 ? HttpReason::kNone : HttpReason::kHttpStatus;
  }
  if (failure.limit != HttpLimit::kNone) return ReasonOfLimit(failure.limit);
  const bool refused_connect = failure.connect_status != 0 && failure.connect_status / 100 != 2;
  if (!refused_connect) return ReasonOfCode(failure);
  // Some answer wrong credentials as a server would: 401.
  const bool wants_login = failure.connect_status == 407 || failure.connect_status == 401;
  return wants_login ? HttpReason::kProxyCredentials : HttpReason::kProxyRefused;
}

const char* FailureAdvice(const HttpFailure& failure) {
  switch (ReasonOf(failure)) {
    case HttpReason::kTlsExpired:
      return failure.verify_result == X509_V_ERR_CERT_NOT_YET_VALID
                 ? "check this machine's clock"
                 : "renew the server's certificate or check this machine's clock";
    case HttpReason::kTlsUntrusted:
      return "name the authority's certificate in HttpDefaults::ca_file, or look for something "
             "that intercepts TLS";
    case HttpReason::kTlsWrongHost:
      return "use the name that the certificate is for, or give the server one for this name";
    case HttpReason::kTlsPin:
      return "add the server's key to HttpDefaults::pinned_public_keys, or look for something that "
             "intercepts TLS";
    case HttpReason::kTlsOther:
      return AdviceOnTls(failure.code);
    case HttpReason::kNameNotFound:
      return "check the host name and this machine's DNS";
    case HttpReason::kProxyUnreachable:
      return failure.code == CURLE_COULDNT_CONNECT ? "check that the proxy runs and may be reached"
                                                   : "check the proxy's name and certificate";
    case HttpReason::kProxyCredentials:
      return "check the proxy's user and password";
    case HttpReason::kProxyRefused:
      return "check the proxy's kind and rules, and that it can reach the server";
    case HttpReason::kRefused:
    case HttpReason::kUnreachable:
      return "check that the server runs and may be reached from here";
    case HttpReason::kConnectTimeout:
    case HttpReason::kTotalTimeout:
    case HttpReason::kTooSlow:
      return "check the network and the server, or raise the time limits of HttpDefaults";
    case HttpReason::kTooLarge:
      return "check what answers at this address, or raise the size limits of HttpDefaults";
    default:
      return "check the network and the server";
  }
}

const char* FailureCause(const HttpFailure& failure) {
  // Not libcurl's text: it may speak of what failed after that, as the alert did that nobody read.
  if (failure.code == CURLE_PEER_FAILED_VERIFICATION && failure.verify_result > kNotLookedAt) {
    return X509_verify_cert_error_string(failure.verify_result);
  }
  return failure.error[0] != '\0' ? failure.error : curl_easy_strerror(failure.code);
}

QUENOR_NAMESPACE_END
