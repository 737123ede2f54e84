#include "collector/page/guard.h"

#include <arpa/inet.h>
#include <openssl/crypto.h>
#include <openssl/rand.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <utility>

#include "collector/fatal.h"

namespace quenor::collector {
namespace {

std::string LowerCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

// Of "one", "one:8390" and "[::1]:8390".
std::string WithoutPort(const std::string& host) {
  const size_t bracket = host.rfind(']');
  const size_t colon = host.rfind(':');
  const bool has_port =
      colon != std::string::npos && (bracket == std::string::npos || bracket < colon);
  return has_port ? host.substr(0, colon) : host;
}

bool IsAddress(const std::string& host) {
  in_addr v4{};
  in6_addr v6{};
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
    return ::inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), &v6) == 1;
  }
  return ::inet_pton(AF_INET, host.c_str(), &v4) == 1;
}

// The host and port of "https://one:8390"; empty for "null" and what else is no origin.
std::string AuthorityOf(const std::string& origin) {
  const size_t scheme = origin.find("://");
  return scheme == std::string::npos ? std::string() : origin.substr(scheme + 3);
}

std::string NewToken() {
  std::array<unsigned char, 16> bytes{};
  if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
    throw Fatal(kExitInternal, "cannot draw a random token; check /dev/urandom");
  }
  std::string token;
  for (const unsigned char byte : bytes) {
    char hex[3];
    std::snprintf(hex, sizeof(hex), "%02x", byte);
    token += hex;
  }
  return token;
}

}  // namespace

Guard::Guard(std::vector<std::string> names) : names_(std::move(names)), token_(NewToken()) {
  names_.push_back("localhost");
  for (std::string& name : names_) name = LowerCase(name);
}

std::string Guard::RefusalOf(const Asked& asked) const {
  const std::string host = LowerCase(WithoutPort(asked.host));
  const bool is_ours =
      IsAddress(host) || std::find(names_.begin(), names_.end(), host) != names_.end();
  if (is_ours) return std::string();
  return "it was asked for as \"" + host +
         "\"; open it by its address, or start it with --name and that name";
}

std::string Guard::RefusalOfEvents(const Asked& asked) const {
  if (!asked.fetch_site || *asked.fetch_site == "same-origin") return std::string();
  return "the events were asked for by another page (" + *asked.fetch_site + "); open this page";
}

std::string Guard::RefusalOfForm(const Asked& asked, const std::string& token) const {
  const std::string refusal = RefusalOf(asked);
  if (!refusal.empty()) return refusal;
  if (asked.origin && LowerCase(AuthorityOf(*asked.origin)) != LowerCase(asked.host)) {
    return "the form was sent by a page of another origin, \"" + *asked.origin +
           "\"; open this page and change it here";
  }
  if (asked.fetch_site && *asked.fetch_site != "same-origin") {
    return "the form was sent by another page (" + *asked.fetch_site +
           "); open this page and change it here";
  }
  const bool is_token = token.size() == token_.size() &&
                        CRYPTO_memcmp(token.data(), token_.data(), token_.size()) == 0;
  if (!is_token) {
    return "the form is not this page's, or of before it was started again; load the page anew";
  }
  return std::string();
}

}  // namespace quenor::collector
