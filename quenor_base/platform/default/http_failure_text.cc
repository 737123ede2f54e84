#include "quenor_base/platform/default/http_failure_text.h"

#include <cstring>

namespace quenor {
namespace {

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
    case 1:   // libcurl's start value: the chain was not looked at, or the name was wrong.
    case 62:  // Another host's.
      return "use the name that the certificate is for, or give the server one for this name";
    default:
      return "check the server's certificate chain";
  }
}

}  // namespace

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
  if (failure.state == HttpClient::State::kTooLarge) return "the response is too large";
  constexpr char kPrefix[] = "SSL certificate problem: ";
  if (std::strncmp(failure.error, kPrefix, sizeof(kPrefix) - 1) == 0) {
    return failure.error + sizeof(kPrefix) - 1;
  }
  return failure.error[0] != '\0' ? failure.error : curl_easy_strerror(failure.code);
}

}  // namespace quenor
