#include "services/http_client_curl/rules/proxy.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <tuple>

#include "services/http_client_curl/rules/hosts.h"
#include "services/http_client_curl/rules/syntax.h"

QUENOR_NAMESPACE_BEGIN
namespace http_proxy {
namespace {

constexpr char kDigits[] = "0123456789";
constexpr size_t kMaxSocks5Bytes = 255;

bool IsHost(const std::string& host) {
  std::string ignored;
  return http_names::NormalHost(host, &ignored).empty();
}

// SCHEME://HOST:PORT; no colon stands in HOST but in brackets.
struct Url {
  explicit Url(const std::string& text) {
    const size_t colon = text.find("://");
    if (colon == std::string::npos) return;
    scheme = text.substr(0, colon);
    const std::string place = text.substr(colon + 3);
    const size_t bracket = place.find(']');
    const size_t at = place.find(':', bracket == std::string::npos ? 0 : bracket);
    host = place.substr(0, at);
    if (at != std::string::npos) port = place.substr(at + 1);
  }
  bool IsUsable() const {
    return (scheme == "http" || scheme == "https" || scheme == "socks5h") && IsHost(host) &&
           http_names::IsPort(port);
  }
  std::string scheme, host, port;
};

std::string CredentialProblem(const HttpProxy& proxy, const std::string& scheme) {
  if (proxy.user.empty() && !proxy.password.empty()) {
    return "proxy.password has no user; set proxy.user, too";
  }
  const bool is_socks5 = scheme == "socks5h";
  for (const bool is_user : {true, false}) {
    const std::string& text = is_user ? proxy.user : proxy.password;
    const std::string field = is_user ? "proxy.user" : "proxy.password";
    if (text.find_first_of(std::string("\0\r\n", 3)) != std::string::npos) {
      return field + " holds a NUL or a line break; take it out";
    }
    if (is_socks5 && text.size() > kMaxSocks5Bytes) {
      return field + " is longer than 255 bytes; give one that SOCKS5 can carry";
    }
  }
  if (!is_socks5 && proxy.user.find(':') != std::string::npos) {
    return "proxy.user holds a colon, which a proxy would take for its end; give one without";
  }
  return std::string();
}

// "%41" as "A"; what is not of that form stays.
std::string Decoded(const std::string& text) {
  std::string decoded;
  for (size_t i = 0; i < text.size(); ++i) {
    const std::string digits = text[i] == '%' ? text.substr(i + 1, 2) : std::string();
    if (digits.size() == 2 &&
        digits.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos) {
      decoded += static_cast<char>(std::strtol(digits.c_str(), nullptr, 16));
      i += 2;
    } else {
      decoded += text[i];
    }
  }
  return decoded;
}

// [SCHEME://][USER[:PASSWORD]@]HOST[:PORT][/], as other tools take it.
HttpProxy FromText(const std::string& text) {
  HttpProxy proxy;
  const size_t colon = text.find("://");
  std::string scheme = colon == std::string::npos ? "http" : text.substr(0, colon);
  for (char& c : scheme) c = http_syntax::LowerAscii(c);
  if (scheme == "socks5") scheme = "socks5h";  // No name is asked for past a proxy.
  std::string place = colon == std::string::npos ? text : text.substr(colon + 3);
  const size_t at = place.rfind('@');
  if (at != std::string::npos) {
    const std::string login = place.substr(0, at);
    const size_t end = login.find(':');
    proxy.user = Decoded(login.substr(0, end));
    if (end != std::string::npos) proxy.password = Decoded(login.substr(end + 1));
    place.erase(0, at + 1);
  }
  if (!place.empty() && place.back() == '/') place.pop_back();
  proxy.url = scheme + "://" + place;
  if (Url(proxy.url).port.empty()) proxy.url += scheme == "https" ? ":443" : ":1080";
  return proxy;
}

// The first of these variables that is set; null: none of them.
const char* FirstOf(const char* (*lookup)(const char*), std::initializer_list<const char*> names,
                    std::string* name) {
  for (const char* candidate : names) {
    const char* value = lookup(candidate);
    *name = candidate;
    if (value != nullptr && value[0] != '\0') return value;
  }
  return nullptr;
}

// Without the brackets that it may stand in.
std::string Bare(const std::string& text) {
  const bool is_bracketed = text.size() > 2 && text.front() == '[' && text.back() == ']';
  return is_bracketed ? text.substr(1, text.size() - 2) : text;
}

// "ADDRESS/BITS", or an address, which is a network of one.
struct Network {
  explicit Network(const std::string& text) {
    const std::string bare = Bare(text);
    const size_t slash = bare.find('/');
    const std::string address = bare.substr(0, slash);
    if (inet_pton(AF_INET6, address.c_str(), bytes) == 1) {
      max_bits = 128;
    } else if (inet_pton(AF_INET, address.c_str(), bytes) == 1) {
      max_bits = 32;
    }
    bits = max_bits;
    if (slash == std::string::npos) return;
    const std::string digits = bare.substr(slash + 1);
    const bool is_number =
        !digits.empty() && digits.size() <= 3 && digits.find_first_not_of(kDigits) == digits.npos;
    bits = is_number ? std::atoi(digits.c_str()) : -1;
  }
  bool IsGood() const { return max_bits > 0 && bits >= 0 && bits <= max_bits; }
  bool Holds(const in6_addr& address) const {
    if (!IsGood() || max_bits != 128) return false;
    const size_t whole = static_cast<size_t>(bits) / 8;
    if (std::memcmp(bytes, address.s6_addr, whole) != 0) return false;
    const int rest = bits % 8;
    return rest == 0 || ((bytes[whole] ^ address.s6_addr[whole]) >> (8 - rest)) == 0;
  }

  uint8_t bytes[16] = {};
  int max_bits = 0;  // 0: no address.
  int bits = 0;
};

// The host of a URL, without brackets and zone, when it is an IPv6 address.
bool FindIpv6(const std::string& url, in6_addr* address) {
  const size_t begin = url.find("://");
  if (begin == std::string::npos) return false;
  const std::string authority =
      url.substr(begin + 3, url.find_first_of("/?#", begin + 3) - begin - 3);
  const size_t at = authority.rfind('@');
  const std::string place = at == std::string::npos ? authority : authority.substr(at + 1);
  if (place.empty() || place.front() != '[') return false;
  const std::string host = place.substr(1, place.find_first_of("]%") - 1);
  return inet_pton(AF_INET6, host.c_str(), address) == 1;
}

auto Fields(const HttpProxy& proxy) {
  return std::tie(proxy.url, proxy.user, proxy.password, proxy.except);
}

}  // namespace

std::string Problem(const HttpProxy& proxy) {
  if (proxy.url.empty()) return std::string();
  const Url url(proxy.url);
  if (!url.IsUsable()) {
    return "proxy.url is no proxy; give http://HOST:PORT, https://HOST:PORT or "
           "socks5h://HOST:PORT, "
           "without user, path and query";
  }
  for (const std::string& text : proxy.except) {
    const bool is_network = text.find('/') != std::string::npos;
    if (text.empty() || !http_names::ConsistsOf(text, ".-_:[]/*") ||
        (is_network && !Network(text).IsGood())) {
      return "proxy.except holds what is no host; give names, addresses and networks, each by "
             "itself";
    }
  }
  return CredentialProblem(proxy, url.scheme);
}

std::string AsciiUrl(const HttpProxy& proxy) {
  const Url url(proxy.url);
  std::string host;
  if (!url.IsUsable() || !http_names::NormalHost(url.host, &host).empty()) return std::string();
  return url.scheme + "://" + host + ":" + url.port;
}

std::string Exceptions(const HttpProxy& proxy) {
  std::string joined;
  for (const std::string& text : proxy.except) {
    if (text == "*") return text;  // Among others it would mean nothing.
    joined += (joined.empty() ? "" : ",") + Bare(text);
  }
  return joined;
}

std::string ExceptionsFor(const std::string& url, const HttpProxy& proxy,
                          const std::string& exceptions) {
  in6_addr address;
  if (proxy.except.empty() || !FindIpv6(url, &address)) return exceptions;
  const auto holds = [&](const std::string& text) { return Network(text).Holds(address); };
  return std::any_of(proxy.except.begin(), proxy.except.end(), holds) ? "*" : exceptions;
}

bool OfEnvironment::operator==(const OfEnvironment& other) const {
  return Fields(http) == Fields(other.http) && Fields(https) == Fields(other.https);
}

std::string ReadEnvironment(const char* (*lookup)(const char* name), OfEnvironment* found) {
  std::string name;
  const char* const no_proxy = FirstOf(lookup, {"no_proxy", "NO_PROXY"}, &name);
  std::string exceptions = no_proxy == nullptr ? "" : no_proxy;
  for (const bool is_encrypted : {true, false}) {
    // What a web server is told in HTTP_PROXY comes from its clients.
    const char* const text =
        is_encrypted
            ? FirstOf(lookup, {"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"}, &name)
            : FirstOf(lookup, {"http_proxy", "all_proxy", "ALL_PROXY"}, &name);
    if (text == nullptr) continue;
    HttpProxy proxy = FromText(text);
    for (size_t at = 0; at < exceptions.size();) {
      const size_t end = std::min(exceptions.find_first_of(", \t", at), exceptions.size());
      if (end > at) proxy.except.push_back(exceptions.substr(at, end - at));
      at = end + 1;
    }
    const std::string problem = Problem(proxy);
    if (!problem.empty()) {
      return "proxy_from_environment: of " + name + " (with no_proxy): " + problem;
    }
    (is_encrypted ? found->https : found->http) = proxy;
  }
  return std::string();
}

}  // namespace http_proxy
QUENOR_NAMESPACE_END
