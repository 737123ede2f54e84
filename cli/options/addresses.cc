#include "cli/options/addresses.h"

#include <arpa/inet.h>

#include <algorithm>

#include "cli/fatal.h"
#include "cli/text.h"

namespace quenor::cli {
namespace {

constexpr size_t kMaxHostBytes = 253;  // What DNS and SOCKS5 take.
constexpr size_t kMaxZoneBytes = 15;   // What the HTTP client takes.

bool IsAsciiAlnum(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

std::string LowerCase(std::string text) {
  for (char& c : text) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  return text;
}

// Whether the first `size` bytes of `text` can be a scheme and no user with a password.
bool IsScheme(const std::string& text, size_t size) {
  return std::all_of(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(size),
                     [](char c) { return IsAsciiAlnum(c) || c == '+' || c == '.' || c == '-'; });
}

// `text` for a message: what stands between a scheme and the last '@' is replaced, as it may be a
// password; one may hold '/', '?' and '#' that were meant to be encoded.
std::string WithoutCredentials(const std::string& text) {
  const size_t at = text.rfind('@');
  if (at == std::string::npos) return Printable(text);
  const size_t scheme_end = text.find("://");
  const bool has_scheme = scheme_end < at && IsScheme(text, scheme_end);
  return Printable((has_scheme ? text.substr(0, scheme_end + 3) : "") + "***" + text.substr(at));
}

// A host and perhaps a port, split but not judged.
struct Authority {
  std::string host;
  bool bracketed = false;
  bool has_port = false;
  std::string port;
};

// An IPv6 address, perhaps with "%ZONE" or "%25ZONE" behind it.
bool IsIpv6(const std::string& text) {
  const size_t percent = text.find('%');
  in6_addr ignored;
  if (::inet_pton(AF_INET6, text.substr(0, percent).c_str(), &ignored) != 1) return false;
  if (percent == std::string::npos) return true;
  std::string zone = text.substr(percent + 1);
  if (zone.size() > 2 && zone.compare(0, 2, "25") == 0) zone.erase(0, 2);
  return !zone.empty() && zone.size() <= kMaxZoneBytes &&
         std::all_of(zone.begin(), zone.end(), [](char c) {
           return IsAsciiAlnum(c) || c == '.' || c == '-' || c == '_' || c == '~';
         });
}

// False when brackets or colons stand where none may.
bool SplitAuthority(const std::string& text, Authority* out) {
  size_t host_end;
  if (!text.empty() && text.front() == '[') {
    const size_t close = text.find(']');
    if (close == std::string::npos) return false;
    out->bracketed = true;
    out->host = text.substr(1, close - 1);
    host_end = close + 1;
  } else {
    host_end = text.find(':');
    if (host_end == std::string::npos) host_end = text.size();
    out->host = text.substr(0, host_end);
  }
  if (host_end == text.size()) return true;
  if (text[host_end] != ':') return false;
  out->has_port = true;
  out->port = text.substr(host_end + 1);
  return out->port.find(':') == std::string::npos;
}

// Empty when the host can be used, else the reason.
std::string JudgeHost(const Authority& authority) {
  const std::string& host = authority.host;
  if (host.empty()) return "it has no host";
  if (authority.bracketed) {
    return IsIpv6(host) ? "" : "what stands in brackets is no IPv6 address";
  }
  if (host.size() > kMaxHostBytes) return "its host is longer than 253 bytes";
  for (const char c : host) {
    if (static_cast<unsigned char>(c) >= 0x80) {
      return "its host is not ASCII; write an international name in its xn-- form";
    }
    if (!IsAsciiAlnum(c) && c != '.' && c != '-' && c != '_') {
      return std::string("its host holds '") + c + "'";
    }
  }
  return "";
}

// 0 when it is no port.
uint16_t ParsePort(const std::string& digits) {
  if (digits.empty() || digits.size() > 5) return 0;
  uint32_t port = 0;
  for (const char c : digits) {
    if (c < '0' || c > '9') return 0;
    port = port * 10 + static_cast<uint32_t>(c - '0');
  }
  return port <= 65535 ? static_cast<uint16_t>(port) : 0;
}

// Empty when no byte of `text` is a blank or a control byte, else the reason.
std::string JudgeBytes(const std::string& text) {
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte == ' ') return "it holds a blank; write it as %20";
    if (byte < 0x20 || byte == 0x7f) return "it holds a control byte";
  }
  return "";
}

std::string JudgeUrl(const std::string& url, size_t scheme_end, size_t authority_end) {
  if (url.empty()) return "it is empty";
  if (const std::string reason = JudgeBytes(url); !reason.empty()) return reason;
  if (scheme_end == std::string::npos) return "it has no scheme";
  const std::string scheme = LowerCase(url.substr(0, scheme_end));
  if (scheme != "https" && scheme != "http") return "its scheme is neither https nor http";
  std::string text = url.substr(scheme_end + 3, authority_end - scheme_end - 3);
  if (const size_t at = text.rfind('@'); at != std::string::npos) {
    const std::string credentials = text.substr(0, at);
    if (credentials.find('@') != std::string::npos) {
      return "its user or password holds an @; write it as %40";
    }
    if (credentials.find("%00") != std::string::npos) return "its user or password holds %00";
    text = text.substr(at + 1);
  }
  Authority authority;
  if (!SplitAuthority(text, &authority)) return "its host and port cannot be told apart";
  if (const std::string reason = JudgeHost(authority); !reason.empty()) return reason;
  if (authority.has_port && ParsePort(authority.port) == 0) {
    return "its port is not a number from 1 to 65535";
  }
  return "";
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// False for a '%' without two digits behind it, and for %00, which nothing beneath can carry.
bool PercentDecode(const std::string& text, std::string* out) {
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      *out += text[i];
      continue;
    }
    if (i + 2 >= text.size()) return false;
    const int high = HexDigit(text[i + 1]);
    const int low = HexDigit(text[i + 2]);
    if (high < 0 || low < 0 || high + low == 0) return false;
    *out += static_cast<char>(high * 16 + low);
    i += 2;
  }
  return true;
}

// Empty when user and password were taken from "user[:password]", else the reason.
std::string ParseCredentials(const std::string& text, ProxyAddress* out) {
  const size_t colon = text.find(':');
  const std::string password = colon == std::string::npos ? "" : text.substr(colon + 1);
  if (!PercentDecode(text.substr(0, colon), &out->user) ||
      !PercentDecode(password, &out->password)) {
    return "a % in user or password must be followed by two hexadecimal digits other than 00";
  }
  if (out->user.empty()) return "it has an @ but no user before it";
  const bool are_short =
      out->user.size() <= kMaxCredentialBytes && out->password.size() <= kMaxCredentialBytes;
  if (!are_short && out->is_socks5()) return "user and password may have 255 bytes each";
  return "";
}

// What follows the scheme, if there was one that is known.
std::string JudgeProxy(const std::string& text, const char* other_scheme, ProxyAddress* out) {
  if (const std::string reason = JudgeBytes(text); !reason.empty()) return reason;
  if (const size_t end = text.find("://"); end != std::string::npos && IsScheme(text, end)) {
    return other_scheme;
  }
  const size_t at = text.rfind('@');
  if (at != std::string::npos) {
    const std::string reason = ParseCredentials(text.substr(0, at), out);
    if (!reason.empty()) return reason;
  }
  Authority authority;
  if (!SplitAuthority(at == std::string::npos ? text : text.substr(at + 1), &authority)) {
    return "its host and port cannot be told apart";
  }
  if (const std::string reason = JudgeHost(authority); !reason.empty()) return reason;
  if (!authority.has_port) return "it has no port";
  out->port = ParsePort(authority.port);
  if (out->port == 0) return "its port is not a number from 1 to 65535";
  out->host = authority.host;
  return "";
}

// Takes a scheme away that the text begins with.
bool TakeScheme(const std::string& scheme, std::string* text) {
  const std::string begin = scheme + "://";
  if (LowerCase(text->substr(0, begin.size())) != begin) return false;
  text->erase(0, begin.size());
  return true;
}

}  // namespace

std::string ProxyAddress::Url() const {
  const bool is_ipv6 = host.find(':') != std::string::npos;
  return scheme + "://" + (is_ipv6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

void CheckUrl(const std::string& url) {
  const size_t scheme_end = url.find("://");
  const size_t begin = scheme_end == std::string::npos ? 0 : scheme_end + 3;
  const size_t end = std::min(url.find_first_of("/?#", begin), url.size());
  const std::string reason = JudgeUrl(url, scheme_end, end);
  if (reason.empty()) return;
  throw Fatal(kExitUsage, "cannot use the URL \"" + WithoutCredentials(url) + "\": " + reason +
                              "; give --url a whole one, as in https://collector.example/reports");
}

ProxyAddress ParseSocks5(const std::string& text) {
  ProxyAddress address;
  std::string rest = text;
  TakeScheme(address.scheme, &rest);
  const std::string reason = JudgeProxy(
      rest, "its scheme is not socks5h; only SOCKS5 proxies that resolve names themselves are used",
      &address);
  if (reason.empty()) return address;
  throw Fatal(kExitUsage, "cannot use the proxy address \"" + WithoutCredentials(text) +
                              "\": " + reason +
                              "; give --socks5 [user:password@]host:port, as in 127.0.0.1:1080 or "
                              "[::1]:1080");
}

ProxyAddress ParseProxy(const std::string& text) {
  ProxyAddress address;
  std::string rest = text;
  for (const char* const scheme : {"http", "https", "socks5h"}) {
    if (!TakeScheme(scheme, &rest)) continue;
    address.scheme = scheme;
    break;
  }
  const bool has_slash = !rest.empty() && rest.back() == '/';
  if (!address.is_socks5() && has_slash) rest.pop_back();
  const std::string reason =
      JudgeProxy(rest, "its scheme is none of http, https and socks5h", &address);
  if (reason.empty()) return address;
  throw Fatal(kExitUsage, "cannot use the proxy address \"" + WithoutCredentials(text) +
                              "\": " + reason +
                              "; give --proxy [SCHEME://][user:password@]host:port, as in "
                              "http://proxy.example:3128");
}

}  // namespace quenor::cli
