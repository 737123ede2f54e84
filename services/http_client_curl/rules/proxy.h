// Which proxies can be meant: the host's, and those that the environment names. Internal to the
// HTTP client. Pure functions; any thread.
#ifndef SERVICES_HTTP_CLIENT_CURL_RULES_PROXY_H_
#define SERVICES_HTTP_CLIENT_CURL_RULES_PROXY_H_

#include <string>

#include "quenor_base/platform/http_settings.h"

QUENOR_NAMESPACE_BEGIN
namespace http_proxy {

// Empty when the proxy can be used, or is none, else one line that names the field that cannot and
// says what to do: nothing of URL, user and password is in that. The file is judged elsewhere.
std::string Problem(const HttpProxy& proxy);

// The URL of one without a problem, as libcurl wants it: a host beyond ASCII as name servers know
// it. Empty: none.
std::string AsciiUrl(const HttpProxy& proxy);

// What goes past it, as libcurl reads that.
std::string Exceptions(const HttpProxy& proxy);

// The same for a request to `url`, of the proxy's `exceptions`. libcurl compares an IPv6 address as
// a text, and knows no network of them: "*" where one of the proxy's holds the URL's.
std::string ExceptionsFor(const std::string& url, const HttpProxy& proxy,
                          const std::string& exceptions);

// For the URLs of either scheme; one without a URL: none.
struct OfEnvironment {
  HttpProxy http;
  HttpProxy https;

  const HttpProxy& For(bool is_encrypted) const { return is_encrypted ? https : http; }
  bool operator==(const OfEnvironment& other) const;
};
// What `lookup`, getenv(), knows. Empty, or which variable names what is no proxy, and what to do;
// `*found` is then undefined.
std::string ReadEnvironment(const char* (*lookup)(const char* name), OfEnvironment* found);

}  // namespace http_proxy
QUENOR_NAMESPACE_END

#endif  // SERVICES_HTTP_CLIENT_CURL_RULES_PROXY_H_
