#include "services/http_client_curl/address.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "services/http_client_curl/rules/hosts.h"
#include "services/http_client_curl/rules/syntax.h"

QUENOR_NAMESPACE_BEGIN
namespace http_address {
namespace {

constexpr size_t kMaxCredentialBytes = 255;  // What SOCKS5 takes.

using ParsedUrl = std::unique_ptr<CURLU, void (*)(CURLU*)>;

// Null when memory is short.
ParsedUrl NewUrl() { return ParsedUrl(curl_url(), &curl_url_cleanup); }

// Null: libcurl cannot read it.
ParsedUrl ParseAsItIs(const std::string& url) {
  ParsedUrl parsed = NewUrl();
  if (parsed != nullptr && curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK) {
    parsed.reset();
  }
  return parsed;
}

// With its host in ASCII, if it has a name there.
ParsedUrl Parse(const std::string& url) {
  std::string ascii;
  (void)AsciiUrl(url, &ascii);
  return ParseAsItIs(ascii.empty() ? url : ascii);
}

struct Part {
  CURLUcode code;
  std::string text;  // Empty unless CURLUE_OK.
};

Part PartOf(const ParsedUrl& url, CURLUPart which, unsigned flags = 0) {
  char* text = nullptr;
  Part part{curl_url_get(url.get(), which, &text, flags), std::string()};
  if (part.code == CURLUE_OK) part.text = text;
  curl_free(text);
  return part;
}

// Whether libcurl would find a NUL in this part of the URL, if it has it, when it decodes it.
bool HoldsNul(const ParsedUrl& url, CURLUPart which) {
  return PartOf(url, which).text.find("%00") != std::string::npos;
}

bool IsHexDigit(char c) { return std::strchr("0123456789abcdefABCDEF", c) != nullptr && c != '\0'; }

// Whether a byte beyond ASCII stands in it, or percent-encoded: libcurl decodes those of a host.
bool IsAscii(const std::string& url) {
  for (size_t i = 0; i < url.size(); ++i) {
    if (static_cast<unsigned char>(url[i]) > 0x7f) return false;
    const bool may_be_encoded = url[i] == '%' && i + 2 < url.size() && url[i + 1] > '7';
    if (may_be_encoded && IsHexDigit(url[i + 1]) && IsHexDigit(url[i + 2])) return false;
  }
  return true;
}

// A host that can stand in "socks5h://HOST:PORT" and mean nothing else.
bool IsProxyHost(const std::string& host) {
  if (host.find_first_of(":[") == std::string::npos) {
    std::string ascii;
    return http_names::AsciiName(host, &ascii).empty() && !ascii.empty() &&
           http_names::ConsistsOf(ascii, ".-_");
  }
  // libcurl's C string would end at a NUL.
  if (host.find('\0') != std::string::npos) return false;
  const bool bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
  return http_names::IsIpv6(bracketed ? host.substr(1, host.size() - 2) : host);
}

bool IsCredential(const std::string& text) {
  return text.size() <= kMaxCredentialBytes && text.find('\0') == std::string::npos;
}

}  // namespace

std::string UrlProblem(const std::string& url) {
  const std::string what = "the URL (" + std::to_string(url.size()) + " bytes) cannot be used: ";
  const std::string hint = "; give https://HOST[:PORT]/PATH";
  if (url.find('\0') != std::string::npos) return what + "it holds a NUL" + hint;
  const ParsedUrl parsed = NewUrl();
  if (parsed == nullptr) return what + "out of memory";
  std::string ascii;
  const std::string foreign = AsciiUrl(url, &ascii);
  if (!foreign.empty()) return what + foreign;
  const char* const text = (ascii.empty() ? url : ascii).c_str();
  CURLUcode code = curl_url_set(parsed.get(), CURLUPART_URL, text, 0);
  const Part scheme = code == CURLUE_OK ? PartOf(parsed, CURLUPART_SCHEME) : Part{code, {}};
  const Part host = scheme.code == CURLUE_OK ? PartOf(parsed, CURLUPART_HOST) : scheme;
  if (host.code != CURLUE_OK) return what + curl_url_strerror(host.code) + hint;
  if (host.text.empty() || (scheme.text != "https" && scheme.text != "http")) {
    return what + "it is neither https nor http" + hint;
  }
  if (HoldsNul(parsed, CURLUPART_USER) || HoldsNul(parsed, CURLUPART_PASSWORD)) {
    return what + "its user or password holds %00" + hint;
  }
  if (!http_names::IsZone(PartOf(parsed, CURLUPART_ZONEID).text)) {
    return what + "its zone is no interface's name" + hint;
  }
  return std::string();
}

std::string AsciiUrl(const std::string& url, std::string* ascii) {
  ascii->clear();
  if (IsAscii(url)) return std::string();
  const ParsedUrl parsed = ParseAsItIs(url);
  if (parsed == nullptr) return std::string();  // UrlProblem() says why.
  const std::string host = PartOf(parsed, CURLUPART_HOST).text;
  std::string name;
  std::string problem = http_names::AsciiName(host, &name);
  if (!problem.empty() || name == host) return problem;
  // Where it stands: libcurl takes one to three slashes, and the user ends at the last '@'.
  const size_t begin = url.find_first_not_of('/', url.find(':') + 1);
  const size_t end = std::min(url.find_first_of("/?#", begin), url.size());
  const size_t at = url.substr(begin, end - begin).rfind('@');
  const size_t host_begin = at == std::string::npos ? begin : begin + at + 1;
  const size_t host_end = std::min(url.find(':', host_begin), end);
  *ascii = url;
  ascii->replace(host_begin, host_end - host_begin, name);
  const ParsedUrl result = ParseAsItIs(*ascii);
  const std::string now = result != nullptr ? PartOf(result, CURLUPART_HOST).text : std::string();
  if (http_syntax::EqualsNoCase(now, name.c_str()) || http_names::IsIpv4(now)) return problem;
  ascii->clear();
  return "its host stands where none is looked for; give https://HOST[:PORT]/PATH";
}

std::string OriginOf(const std::string& url) {
  const ParsedUrl parsed = Parse(url);
  if (parsed == nullptr) return std::string();
  std::string host = PartOf(parsed, CURLUPART_HOST).text;
  for (char& c : host) c = http_syntax::LowerAscii(c);
  if (host.size() > 2 && host.front() == '[') {
    const std::string zone = PartOf(parsed, CURLUPART_ZONEID).text;
    host = host.substr(1, host.size() - 2) + (zone.empty() ? "" : "%" + zone);
    host = "[" + http_names::CanonicalIpv6(host) + "]";
  }
  return PartOf(parsed, CURLUPART_SCHEME).text + "://" + host + ":" +
         PartOf(parsed, CURLUPART_PORT, CURLU_DEFAULT_PORT).text;
}

std::string GivenOrigin(const std::string& text, std::string* origin) {
  const std::string hint = "; give https://HOST[:PORT]";
  std::string problem = UrlProblem(text);
  if (!problem.empty()) return "the origin: " + problem;
  const ParsedUrl parsed = ParseAsItIs(text);
  if (parsed == nullptr) return "the origin: out of memory; use less of it";
  // In the text, as libcurl drops an empty query, say.
  if (text.find('@') != std::string::npos || !PartOf(parsed, CURLUPART_USER).text.empty()) {
    return "the origin has a user; leave it out" + hint;
  }
  if (text.find_first_of("?#") != std::string::npos) {
    return "the origin has a query or fragment; leave it out" + hint;
  }
  if (PartOf(parsed, CURLUPART_PATH).text != "/")
    return "the origin has a path; leave it out" + hint;
  *origin = OriginOf(text);
  return origin->empty() ? "the origin: out of memory; use less of it" : std::string();
}

bool IsUnencrypted(const std::string& url) {
  return !http_syntax::EqualsNoCase(url.substr(0, 6), "https:");
}

bool IsLoopback(const std::string& url) {
  const ParsedUrl parsed = Parse(url);
  if (parsed == nullptr) return false;
  const std::string host = PartOf(parsed, CURLUPART_HOST).text;
  in_addr v4;
  if (inet_pton(AF_INET, host.c_str(), &v4) == 1) return ntohl(v4.s_addr) >> 24 == 127;
  return host == "localhost" || host == "[::1]";
}

std::string LoggableUrl(const std::string& url) {
  const ParsedUrl parsed = Parse(url);
  if (parsed == nullptr) return "(no URL)";
  for (const CURLUPart secret : {CURLUPART_USER, CURLUPART_PASSWORD, CURLUPART_OPTIONS,
                                 CURLUPART_QUERY, CURLUPART_FRAGMENT}) {
    if (curl_url_set(parsed.get(), secret, nullptr, 0) != CURLUE_OK) return "(no URL)";
  }
  std::string loggable;
  for (const char c : PartOf(parsed, CURLUPART_URL).text) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    const auto byte = static_cast<unsigned char>(c);
    if (byte > 0x20 && byte < 0x7f) {
      loggable += c;
    } else {
      loggable.append({'%', kDigits[byte >> 4], kDigits[byte & 15]});
    }
  }
  return loggable;
}

std::string ProxyProblem(const HttpClient::Config& config) {
  if (!config.use_socks5) return std::string();
  if (!IsProxyHost(config.socks5_host) || config.socks5_port == 0) {
    return "the SOCKS5 proxy's host or port is empty or malformed; give a host name or an address, "
           "and a port, or disable the proxy";
  }
  if (!IsCredential(config.socks5_user) || !IsCredential(config.socks5_password)) {
    return "the SOCKS5 proxy's user or password is longer than 255 bytes or holds a NUL; give one "
           "that SOCKS5 can carry";
  }
  return std::string();
}

std::string ProxyUrl(const HttpClient::Config& config) {
  if (!config.use_socks5) return std::string();
  std::string host = config.socks5_host;
  if (host.find_first_of(":[") == std::string::npos) {
    (void)http_names::AsciiName(config.socks5_host, &host);
  }
  if (host.find(':') != std::string::npos && host[0] != '[') host = "[" + host + "]";
  return "socks5h://" + host + ":" + std::to_string(config.socks5_port);
}

std::string ProxyCredential(const std::string& text) {
  std::string encoded;
  for (const char c : text) encoded += c == '%' ? std::string("%25") : std::string(1, c);
  return encoded;
}

}  // namespace http_address
QUENOR_NAMESPACE_END
