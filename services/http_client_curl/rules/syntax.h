// What HTTP allows in a request, as far as it can be told from the text alone; URLs are judged in
// address.h. Internal to the HTTP client. Pure functions; any thread.
#ifndef SERVICES_HTTP_CLIENT_CURL_RULES_SYNTAX_H_
#define SERVICES_HTTP_CLIENT_CURL_RULES_SYNTAX_H_

#include <map>
#include <string>

#include "quenor_base/platform/http_client.h"

QUENOR_NAMESPACE_BEGIN
namespace http_syntax {

inline char LowerAscii(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; }
bool EqualsNoCase(const std::string& a, const char* b);

// What a method and the name of a header consist of.
bool IsToken(const std::string& text);
// What the value of a header consists of; empty is fine.
bool IsFieldValue(const std::string& text);

using Headers = std::map<std::string, std::string>;

// Empty when these can be sent, else which of them cannot and what to do; no value is in that.
std::string HeadersProblem(const Headers& headers);
// Those of both; of names that differ in capitals alone, too, `over` has its way.
Headers Merged(const Headers& under, const Headers& over);

// Empty when a request with this method, these headers and this body can be sent, else why not and
// what to do.
std::string RequestProblem(const HttpClient::Request& request);

// Whether the request goes out with a body. One may be sent with any method but HEAD; some announce
// one even when it is empty.
bool SendsBody(const HttpClient::Request& request);

}  // namespace http_syntax
QUENOR_NAMESPACE_END

#endif  // SERVICES_HTTP_CLIENT_CURL_RULES_SYNTAX_H_
