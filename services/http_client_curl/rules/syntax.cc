#include "services/http_client_curl/rules/syntax.h"

#include <algorithm>
#include <cstring>

QUENOR_NAMESPACE_BEGIN
namespace http_syntax {
namespace {

// Those that the client alone may send.
constexpr const char* kOwnHeaders[] = {"content-length", "transfer-encoding"};

}  // namespace

bool EqualsNoCase(const std::string& a, const char* b) {
  size_t i = 0;
  for (; i < a.size() && b[i] != '\0'; ++i) {
    if (LowerAscii(a[i]) != LowerAscii(b[i])) return false;
  }
  return i == a.size() && b[i] == '\0';
}

bool IsToken(const std::string& text) {
  for (char c : text) {
    const bool alnum = (c >= '0' && c <= '9') || (LowerAscii(c) >= 'a' && LowerAscii(c) <= 'z');
    if (!alnum && (c == '\0' || std::strchr("!#$%&'*+-.^_`|~", c) == nullptr)) return false;
  }
  return !text.empty();
}

bool IsFieldValue(const std::string& text) {
  for (char c : text) {
    if (static_cast<unsigned char>(c) < 0x20 && c != '\t') return false;
    if (c == 0x7f) return false;
  }
  return true;
}

std::string HeadersProblem(const Headers& headers) {
  for (const auto& [name, value] : headers) {
    if (!IsToken(name)) {
      return "headers: a name holds a character that HTTP forbids; take it out";
    }
    if (!IsFieldValue(value)) {
      return "headers: the value of " + name + " holds a character that HTTP forbids; take it out";
    }
    for (const char* own : kOwnHeaders) {
      if (EqualsNoCase(name, own)) return "headers: " + name + " is the client's own; take it out";
    }
  }
  return std::string();
}

Headers Merged(const Headers& under, const Headers& over) {
  Headers merged = over;
  for (const auto& header : under) {
    const auto replaces = [&](const auto& other) {
      return EqualsNoCase(other.first, header.first.c_str());
    };
    if (std::none_of(over.begin(), over.end(), replaces)) merged.insert(header);
  }
  return merged;
}

std::string RequestProblem(const HttpClient::Request& request) {
  if (!IsToken(request.method) || request.method == "CONNECT") {
    return "the method is none that can be sent; give POST, GET, ...";
  }
  if (request.method == "HEAD" && request.body.size() > 0) {
    return "HEAD has no body; leave it empty";
  }
  return HeadersProblem(request.headers);
}

bool SendsBody(const HttpClient::Request& request) {
  return request.body.size() > 0 || request.method == "POST" || request.method == "PUT" ||
         request.method == "PATCH";
}

}  // namespace http_syntax
QUENOR_NAMESPACE_END
