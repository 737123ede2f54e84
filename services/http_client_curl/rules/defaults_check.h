// What the host may set for every HTTP client of the process: judged before it holds. Internal to
// the HTTP client. Any thread.
#ifndef SERVICES_HTTP_CLIENT_CURL_RULES_DEFAULTS_CHECK_H_
#define SERVICES_HTTP_CLIENT_CURL_RULES_DEFAULTS_CHECK_H_

#include <string>

#include "quenor_base/platform/http_client.h"

QUENOR_NAMESPACE_BEGIN

// By what the client shows who it is: a certificate, with those above it, and its key, as PEM.
struct ClientIdentity {
  std::string certificate;  // Empty: none.
  std::string key;
};

namespace http_defaults {

// Zero and empty values replaced by what they stand for.
HttpDefaults InForce(HttpDefaults defaults);

// Whether both can be read and the key is the certificate's own.
using IsPair = bool (*)(const ClientIdentity& identity);

// Empty when these can be used, else one line that names what cannot and says what to do. Reads the
// files that they name, and takes the client's certificate and key out of them, once and together;
// `identity` is undefined when there is a problem.
std::string Problem(const HttpDefaults& defaults, IsPair is_pair, ClientIdentity* identity);

}  // namespace http_defaults
QUENOR_NAMESPACE_END

#endif  // SERVICES_HTTP_CLIENT_CURL_RULES_DEFAULTS_CHECK_H_
