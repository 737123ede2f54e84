// HttpSettings::connect_to: where a host and port are connected to instead of being looked up.
// Internal to the HTTP client. Pure functions; any thread.
#ifndef SERVICES_HTTP_CLIENT_CURL_RULES_CONNECT_TO_H_
#define SERVICES_HTTP_CLIENT_CURL_RULES_CONNECT_TO_H_

#include <string>

#include "quenor_base/platform/base/abi.h"

QUENOR_NAMESPACE_BEGIN
namespace http_names {

// "HOST:PORT:ADDRESS" or "HOST:PORT:ADDRESS:PORT". Empty and `*text`, an entry of
// CURLOPT_CONNECT_TO; or what is wrong with it and what to do, naming the field.
std::string ConnectTo(const std::string& entry, std::string* text);

}  // namespace http_names
QUENOR_NAMESPACE_END

#endif  // SERVICES_HTTP_CLIENT_CURL_RULES_CONNECT_TO_H_
