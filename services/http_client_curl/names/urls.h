// Of a URL: what libcurl is given for it, and to which origin it belongs. Internal to the HTTP
// client. Pure functions that ask no locale; any thread.
#ifndef SERVICES_HTTP_CLIENT_CURL_NAMES_URLS_H_
#define SERVICES_HTTP_CLIENT_CURL_NAMES_URLS_H_

#include <string>

#include "quenor_base/platform/base/abi.h"

QUENOR_NAMESPACE_BEGIN
namespace http_address {

// Empty, or why the URL's host has no name in ASCII and what to do. `*ascii`: the URL with that
// name, and otherwise as it was; empty when it is ASCII by itself, which costs nothing. libcurl
// would convert by the locale's character set, which is the host application's.
std::string AsciiUrl(const std::string& url, std::string* ascii);

// "scheme://host:port" of a URL without a problem, so that those of one origin are equal: in small
// letters and ASCII, the port always there, an IPv6 address canonical with its zone, a dot at the
// host's end kept. Empty without memory.
std::string OriginOf(const std::string& url);

// The same of what a host application gives as an origin. Empty, or what is wrong and what to do;
// nothing of the text is in that.
std::string GivenOrigin(const std::string& text, std::string* origin);

}  // namespace http_address
QUENOR_NAMESPACE_END

#endif  // SERVICES_HTTP_CLIENT_CURL_NAMES_URLS_H_
