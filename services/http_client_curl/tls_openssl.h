// What the HTTP client on libcurl asks of OpenSSL itself. Internal to that client. Any thread.
#ifndef SERVICES_HTTP_CLIENT_CURL_TLS_OPENSSL_H_
#define SERVICES_HTTP_CLIENT_CURL_TLS_OPENSSL_H_

#include <curl/curl.h>

#include <string>

#include "services/http_client_curl/rules/settings_check.h"

QUENOR_NAMESPACE_BEGIN
namespace http_tls {

// Whether OpenSSL reads both and the key is the certificate's own. Never asks for a password.
bool IsPair(const ClientIdentity& identity);

// Takes the encryption away from the first private key in a PEM text, and all else with it. False,
// and nothing changed, when the passphrase does not open it.
bool Decrypt(std::string* key, const std::string& passphrase);

// A CURLOPT_SSL_CTX_FUNCTION, called for each connection: what the environment or OpenSSL's
// configuration may have set gives way to our own.
CURLcode Secure(CURL* easy, void* context, void* user);

}  // namespace http_tls
QUENOR_NAMESPACE_END

#endif  // SERVICES_HTTP_CLIENT_CURL_TLS_OPENSSL_H_
