#include "services/http_client_curl/address.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <netinet/in.h>

#include <memory>

#include "services/http_client_curl/names/hosts.h"
#include "services/http_client_curl/names/urls.h"
#include "services/http_client_curl/rules/syntax.h"

QUENOR_NAMESPACE_BEGIN
namespace http_address {
namespace {

constexpr size_t kMaxCredentialBytes = 255;  // What SOCKS5 takes.

using ParsedUrl = std::unique_ptr<CURLU, void (*)(CURLU*)>;

// Null when memory is short.
ParsedUrl NewUrl() { return ParsedUrl(curl_url(), &curl_url_cleanup); }

// With its host in ASCII, if it has a name there. Null: libcurl cannot read it.
ParsedUrl Parse(const std::string& url) {
  std::string ascii;
  (void)AsciiUrl(url, &ascii);
  ParsedUrl parsed = NewUrl();
  const char* const text = (ascii.empty() ? url : ascii).c_str();
  if (parsed != nullptr && curl_url_set(parsed.get(), CURLUPART_URL, text, 0) != CURLUE_OK) {
    parsed.reset();
  }
  return parsed;
}

struct Part {
  CURLUcode code;
  std::string text;  // Empty unless CURLUE_OK.
};

Part PartOf(const ParsedUrl& url, CURLUPart which) {
  char* text = nullptr;
  Part part{curl_url_get(url.get(), which, &text, 0), std::string()};
  if (part.code == CURLUE_OK) part.text = text;
  curl_free(text);
  return part;
}

// Whether libcurl would find a NUL in this part of the URL, if it has it, when it decodes it.
bool HoldsNul(const ParsedUrl& url, CURLUPart which) {
  return PartOf(url, which).text.find("%00") != std::string::npos;
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
