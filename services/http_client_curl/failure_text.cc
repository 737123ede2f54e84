#include "services/http_client_curl/failure_text.h"

#include <openssl/x509.h>

QUENOR_NAMESPACE_BEGIN
namespace {

// libcurl's start value: the chain was not looked at, or the name was wrong.
constexpr long kNotLookedAt = 1;

// X509_V_ERR_… values, which stay the same for ever.
const char* CertificateAdvice(long verify_result) {
  switch (verify_result) {
    case 9:  // Not yet valid.
      return "check this machine's clock";
    case 10:  // Expired.
      return "renew the server's certificate or check this machine's clock";
    case 2:
    case 18:
    case 19:
    case 20:
    case 21:  // No way to a trusted authority.
      return "name the authority's certificate in HttpDefaults::ca_file, or look for something "
             "that "
             "intercepts TLS";
    case kNotLookedAt:
    case 62:  // Another host's.
      return "use the name that the certificate is for, or give the server one for this name";
    default:
      return "check the server's certificate chain";
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

const char* FailureAdvice(const HttpFailure& failure) {
  switch (failure.code) {
    case CURLE_PEER_FAILED_VERIFICATION:
      return CertificateAdvice(failure.verify_result);
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
      return "add the server's key to HttpDefaults::pinned_public_keys, or look for something that "
             "intercepts TLS";
    case CURLE_SSL_CACERT_BADFILE:
      return "check HttpDefaults::ca_file and ca_folder";
    case CURLE_SSL_CERTPROBLEM:
      return "check HttpDefaults::client_certificate_file and client_key_file";
    case CURLE_SSL_CONNECT_ERROR:
      return "check that the server speaks TLS 1.2 or newer on this port";
    case CURLE_COULDNT_RESOLVE_HOST:
      return "check the host name and this machine's DNS";
    case CURLE_COULDNT_RESOLVE_PROXY:
      return "check the SOCKS5 proxy's host name";
    case CURLE_PROXY:
      return "check the SOCKS5 proxy's user, password and rules";
    case CURLE_COULDNT_CONNECT:
      return failure.is_proxied ? "check that the SOCKS5 proxy runs and may be reached"
                                : "check that the server runs and may be reached from here";
    case CURLE_OPERATION_TIMEDOUT:
      return "check the network and the server, or raise the time limits of HttpDefaults";
    default:
      return failure.state == HttpClient::State::kTooLarge
                 ? "check what answers at this address, or raise the size limits of HttpDefaults"
                 : "check the network and the server";
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
