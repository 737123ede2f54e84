// What HTTP allows in a header. Pure functions; any thread.
#ifndef SERVICES_HTTP_CLIENT_CURL_RULES_SYNTAX_H_
#define SERVICES_HTTP_CLIENT_CURL_RULES_SYNTAX_H_

#include <cstring>
#include <string>

#include "quenor_base/platform/base/abi.h"

QUENOR_NAMESPACE_BEGIN
namespace http_header_text {

inline char LowerAscii(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; }

inline bool EqualsNoCase(const std::string& a, const char* b) {
  size_t i = 0;
  for (; i < a.size() && b[i] != '\0'; ++i) {
    if (LowerAscii(a[i]) != LowerAscii(b[i])) return false;
  }
  return i == a.size() && b[i] == '\0';
}

inline bool IsToken(const std::string& text) {
  for (char c : text) {
    const bool alnum = (c >= '0' && c <= '9') || (LowerAscii(c) >= 'a' && LowerAscii(c) <= 'z');
    if (!alnum && (c == '\0' || std::strchr("!#$%&'*+-.^_`|~", c) == nullptr)) return false;
  }
  return !text.empty();
}

inline bool IsFieldValue(const std::string& text) {
  for (char c : text) {
    if (static_cast<unsigned char>(c) < 0x20 && c != '\t') return false;
    if (c == 0x7f) return false;
  }
  return true;
}

}  // namespace http_header_text
QUENOR_NAMESPACE_END

#endif  // SERVICES_HTTP_CLIENT_CURL_RULES_SYNTAX_H_
