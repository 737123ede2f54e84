#include "services/http_client_curl/rules/hosts.h"

#include <arpa/inet.h>
#include <idn2.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstring>

#include "services/http_client_curl/rules/syntax.h"

QUENOR_NAMESPACE_BEGIN
namespace http_names {
namespace {

constexpr size_t kMaxZoneBytes = 15;   // What libcurl takes.
constexpr size_t kMaxNameBytes = 254;  // With the dot at its end.

bool IsAscii(const std::string& text) {
  return std::none_of(text.begin(), text.end(),
                      [](char c) { return static_cast<unsigned char>(c) > 0x7f; });
}

bool IsAlnum(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// A URL writes the '%' before a zone as "%25".
std::string ZoneBehind(const std::string& text, size_t percent) {
  std::string zone = text.substr(percent + 1);
  if (zone.size() > 2 && zone.compare(0, 2, "25") == 0) zone.erase(0, 2);
  return zone;
}

std::string Lower(std::string text) {
  for (char& c : text) c = http_syntax::LowerAscii(c);
  return text;
}

}  // namespace

bool ConsistsOf(const std::string& text, const char* others) {
  for (const char c : text) {
    if (!IsAlnum(c) && (c == '\0' || std::strchr(others, c) == nullptr)) return false;
  }
  return true;
}

bool IsZone(const std::string& text) { return ConsistsOf(text, ".-_~"); }

bool IsIpv6(const std::string& text) {
  if (text.find('\0') != std::string::npos) return false;
  const size_t percent = text.find('%');
  in6_addr ignored;
  if (inet_pton(AF_INET6, text.substr(0, percent).c_str(), &ignored) != 1) return false;
  if (percent == std::string::npos) return true;
  const std::string zone = ZoneBehind(text, percent);
  return !zone.empty() && zone.size() <= kMaxZoneBytes && IsZone(zone);
}

bool IsIpv4(const std::string& text) {
  in_addr ignored;
  return text.find('\0') == std::string::npos && inet_pton(AF_INET, text.c_str(), &ignored) == 1;
}

std::string CanonicalIpv6(const std::string& text) {
  const size_t percent = text.find('%');
  in6_addr address;
  char canonical[INET6_ADDRSTRLEN] = "";
  if (inet_pton(AF_INET6, text.substr(0, percent).c_str(), &address) == 1) {
    inet_ntop(AF_INET6, &address, canonical, sizeof(canonical));
  }
  if (percent == std::string::npos) return canonical;
  const std::string zone = ZoneBehind(text, percent);
  return std::string(canonical) + '%' + zone;
}

std::string AsciiName(const std::string& name, std::string* ascii) {
  *ascii = name;
  if (IsAscii(name)) return std::string();
  const char* const hint = "; give a name that name servers know, in UTF-8 or as \"xn--...\"";
  if (name.find('\0') != std::string::npos) return std::string("its host holds a NUL") + hint;
  char* converted = nullptr;
  const int code = idn2_lookup_u8(reinterpret_cast<const uint8_t*>(name.c_str()),
                                  reinterpret_cast<uint8_t**>(&converted),
                                  IDN2_NFC_INPUT | IDN2_NONTRANSITIONAL);
  if (code == IDN2_OK) *ascii = converted;
  idn2_free(converted);
  if (code == IDN2_MALLOC) return "out of memory; use less of it";
  // A letter may stand for several: none of those must end a host, or begin another.
  if (code == IDN2_OK && !ascii->empty() && ConsistsOf(*ascii, ".-_")) return std::string();
  const char* const reason = code == IDN2_OK ? "IDN2_DISALLOWED" : idn2_strerror_name(code);
  return std::string("its host is no international name (") +
         (reason != nullptr ? reason : "unknown error") + ")" + hint;
}

std::string NormalHost(const std::string& text, std::string* normal) {
  if (text.size() > 2 && text.front() == '[' && text.back() == ']') {
    const std::string address = text.substr(1, text.size() - 2);
    if (!IsIpv6(address))
      return "its host in brackets is no IPv6 address; give one, as [2001:db8::1]";
    *normal = "[" + CanonicalIpv6(address) + "]";
    return std::string();
  }
  if (IsIpv6(text)) return "its IPv6 address stands without brackets; give [ADDRESS]";
  std::string ascii;
  std::string problem = AsciiName(text, &ascii);
  if (!problem.empty()) return problem;
  if (ascii.empty() || ascii == "." || ascii.size() > kMaxNameBytes || !ConsistsOf(ascii, ".-_")) {
    return "its host is empty or malformed; give a name or an address";
  }
  *normal = Lower(std::move(ascii));
  return std::string();
}

bool IsPort(const std::string& text) {
  if (text.empty() || text.size() > 5 || text[0] == '0') return false;
  if (text.find_first_not_of("0123456789") != std::string::npos) return false;
  return std::stoul(text) <= 65535;
}

}  // namespace http_names
QUENOR_NAMESPACE_END
