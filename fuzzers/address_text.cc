#include "fuzzers/address_text.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <netinet/in.h>

#include "fuzzers/fuzz_support.h"

namespace quenor::fuzz {

std::string Decoded(const std::string& text) {
  int size = 0;
  char* const decoded = curl_easy_unescape(nullptr, text.c_str(), 0, &size);
  FUZZ_CHECK(decoded != nullptr);
  const std::string result(decoded, size);
  curl_free(decoded);
  return result;
}

std::string Canonical(const std::string& host) {
  in6_addr v6;
  in_addr v4;
  char text[INET6_ADDRSTRLEN] = {};
  if (inet_pton(AF_INET6, host.c_str(), &v6) == 1)
    return inet_ntop(AF_INET6, &v6, text, sizeof text);
  // Also the short and the hexadecimal spellings, which every resolver takes for addresses.
  if (inet_aton(host.c_str(), &v4) == 1) return inet_ntop(AF_INET, &v4, text, sizeof text);
  return host;
}

}  // namespace quenor::fuzz
