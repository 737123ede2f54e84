// What the HTTP client on libcurl takes for an address, of a server or of a SOCKS5 proxy, and how
// it writes one down. Internal to that client. Pure functions; any thread.
#ifndef SERVICES_HTTP_CLIENT_CURL_ADDRESS_H_
#define SERVICES_HTTP_CLIENT_CURL_ADDRESS_H_

#include <string>

#include "quenor_base/platform/http_client.h"

QUENOR_NAMESPACE_BEGIN
namespace http_address {

// Empty when a request can be sent to `url`, else why not and what to do: nothing of the URL itself
// is in that.
std::string UrlProblem(const std::string& url);

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

// Whether a request to `url`, which has no problem, goes out without encryption.
bool IsUnencrypted(const std::string& url);

// Whether the host of `url`, which has no problem, is this machine.
bool IsLoopback(const std::string& url);

// A URL without user, password, query and fragment, as libcurl takes it apart: what may stand in a
// log. Printable ASCII: any other byte is written as %XX.
std::string LoggableUrl(const std::string& url);

// Empty when `config` has no proxy or one that can be meant, else why it cannot and what to do:
// nothing of the values is in that.
std::string ProxyProblem(const HttpClient::Config& config);

// "socks5h://HOST:PORT" of a proxy without a problem; empty when there is none.
std::string ProxyUrl(const HttpClient::Config& config);

// A user or password of the proxy as libcurl wants it: it decodes what looks percent-encoded.
std::string ProxyCredential(const std::string& text);

}  // namespace http_address
QUENOR_NAMESPACE_END

#endif  // SERVICES_HTTP_CLIENT_CURL_ADDRESS_H_
