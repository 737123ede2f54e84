// What the host may set for the HTTP client: judged before it holds. Internal to the HTTP client.
// Any thread.
#ifndef SERVICES_HTTP_CLIENT_CURL_RULES_SETTINGS_CHECK_H_
#define SERVICES_HTTP_CLIENT_CURL_RULES_SETTINGS_CHECK_H_

#include <string>

#include "quenor_base/platform/http_settings.h"

QUENOR_NAMESPACE_BEGIN

// By what the client shows who it is: a certificate, with those above it, and its key, as PEM.
struct ClientIdentity {
  std::string certificate;  // Empty: none.
  std::string key;          // Not encrypted.
};

namespace http_settings_check {

// Zero and empty values replaced by what they stand for.
HttpSettings InForce(HttpSettings settings);

// What only OpenSSL can tell.
struct KeyCalls {
  // Whether both can be read and the key is the certificate's own.
  bool (*is_pair)(const ClientIdentity& identity);
  // `*key` without its encryption; false when the passphrase is not that of the key.
  bool (*decrypt)(std::string* key, const std::string& passphrase);
};

// Empty when these can be used, else one line that names the field that cannot and says what to do.
// Reads the files that they name, and takes the client's certificate and key out of them, once and
// together; `identity` is undefined when there is a problem.
std::string Problem(const HttpSettings& settings, const KeyCalls& keys, ClientIdentity* identity);

}  // namespace http_settings_check
QUENOR_NAMESPACE_END

#endif  // SERVICES_HTTP_CLIENT_CURL_RULES_SETTINGS_CHECK_H_
