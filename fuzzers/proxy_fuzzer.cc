// A SOCKS5 proxy: what the HTTP client accepts means to libcurl exactly this host, this port, this
// user and this password; and what quenor-report takes from its command line is all of that.
// The input: a bit that chooses, then a text for quenor-report; or port, host, user and password.
#include <curl/curl.h>
#include <idn2.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "cli/fatal.h"
#include "cli/options/addresses.h"
#include "fuzzers/address_text.h"
#include "fuzzers/fuzz_support.h"
#include "services/http_client_curl/address.h"

namespace quenor::fuzz {
namespace {

std::string Part(CURLU* url, CURLUPart part, unsigned flags = 0) {
  char* text = nullptr;
  curl_url_get(url, part, &text, flags);
  const std::string result = text == nullptr ? "" : text;
  curl_free(text);
  return result;
}

std::string WithoutBrackets(const std::string& host) {
  if (host.empty() || host.front() != '[') return host;
  FUZZ_CHECK(host.size() > 2 && host.back() == ']');
  return host.substr(1, host.size() - 2);
}

// The zone of an address, which may begin with an encoded percent sign.
std::string ZoneOf(const std::string& host) {
  const size_t percent = host.find('%');
  if (percent == std::string::npos) return "";
  std::string zone = host.substr(percent + 1);
  if (zone.size() > 2 && zone.compare(0, 2, "25") == 0) zone.erase(0, 2);
  return zone;
}

// As a name server is asked for it.
std::string OnTheWire(const std::string& host) {
  if (std::none_of(host.begin(), host.end(), [](char c) { return (c & 0x80) != 0; })) return host;
  char* ascii = nullptr;
  FUZZ_CHECK(idn2_to_ascii_8z(host.c_str(), &ascii, IDN2_NFC_INPUT | IDN2_NONTRANSITIONAL) ==
             IDN2_OK);
  const std::string result = ascii;
  idn2_free(ascii);
  return result;
}

// Of a proxy that the client accepts.
void CheckMeans(const HttpClient::Config& config) {
  const std::string text = http_address::ProxyUrl(config);
  const std::unique_ptr<CURLU, void (*)(CURLU*)> url(curl_url(), &curl_url_cleanup);
  FUZZ_CHECK(text.find('\0') == std::string::npos);
  // With these flags libcurl parses its proxy.
  FUZZ_CHECK(curl_url_set(url.get(), CURLUPART_URL, text.c_str(),
                          CURLU_NON_SUPPORT_SCHEME | CURLU_GUESS_SCHEME) == CURLUE_OK);
  FUZZ_CHECK(Part(url.get(), CURLUPART_SCHEME) == "socks5h");
  FUZZ_CHECK(Part(url.get(), CURLUPART_PORT) == std::to_string(config.socks5_port));
  const std::string host = WithoutBrackets(Part(url.get(), CURLUPART_HOST, CURLU_URLDECODE));
  const std::string wanted = WithoutBrackets(config.socks5_host);
  FUZZ_CHECK(!host.empty() &&
             Canonical(host) == Canonical(OnTheWire(wanted.substr(0, wanted.find('%')))));
  FUZZ_CHECK(Part(url.get(), CURLUPART_ZONEID) == ZoneOf(wanted));
  for (const CURLUPart none : {CURLUPART_USER, CURLUPART_PASSWORD, CURLUPART_OPTIONS,
                               CURLUPART_QUERY, CURLUPART_FRAGMENT}) {
    char* part = nullptr;
    FUZZ_CHECK(curl_url_get(url.get(), none, &part, 0) != CURLUE_OK);
  }
  const std::string path = Part(url.get(), CURLUPART_PATH);
  FUZZ_CHECK(path.empty() || path == "/");
  for (const std::string& credential : {config.socks5_user, config.socks5_password}) {
    const std::string given = http_address::ProxyCredential(credential);
    FUZZ_CHECK(given.find('\0') == std::string::npos && Decoded(given) == credential);
    FUZZ_CHECK(credential.size() <= 255);
  }
}

// Whether the client accepts the proxy; what it says tells nothing.
bool Check(const HttpClient::Config& config) {
  const std::string problem = http_address::ProxyProblem(config);
  FUZZ_CHECK((HttpClientFactory::Create(config) != nullptr) == problem.empty());
  if (problem.empty()) CheckMeans(config);
  return problem.empty();
}

// --- The command line
// -----------------------------------------------------------------------------

// Empty and the address when quenor-report accepts the text, else its message.
std::string Parse(const std::string& text, cli::ProxyAddress* out, bool any_scheme = false) {
  try {
    *out = any_scheme ? cli::ParseProxy(text) : cli::ParseSocks5(text);
    return "";
  } catch (const cli::Fatal& fatal) {
    return fatal.what();
  }
}

std::string Encoded(const std::string& text) {
  std::string encoded;
  for (const char c : text) {
    char number[4];
    std::snprintf(number, sizeof number, "%%%02x", static_cast<unsigned char>(c));
    encoded += number;
  }
  return encoded;
}

void CheckTakesAgain(const cli::ProxyAddress& address, const std::string& scheme) {
  std::string text = scheme;
  if (!address.user.empty()) text += Encoded(address.user) + ':' + Encoded(address.password) + '@';
  const bool is_v6 = address.host.find(':') != std::string::npos;
  text += is_v6 ? '[' + address.host + ']' : address.host;
  text += ':' + std::to_string(address.port);
  cli::ProxyAddress again;
  FUZZ_CHECK(Parse(text, &again).empty());
  FUZZ_CHECK(again.host == address.host && again.port == address.port &&
             again.user == address.user && again.password == address.password);
}

// What stands before the last '@' may be a password: a mark that is put there stays hidden.
void CheckHides(const std::string& text) {
  constexpr char kMark[] = "zQxJw";
  const size_t at = text.rfind('@');
  if (at == std::string::npos || text.find(kMark) != std::string::npos) return;
  cli::ProxyAddress ignored;
  for (const bool any_scheme : {false, true}) {
    const std::string message =
        Parse(text.substr(0, at) + kMark + text.substr(at), &ignored, any_scheme);
    FUZZ_CHECK(message.find(kMark) == std::string::npos);
  }
}

void CheckText(const std::string& text) {
  cli::ProxyAddress address;
  const std::string message = Parse(text, &address);
  CheckHides(text);
  cli::ProxyAddress any;
  if (Parse(text, &any, /*any_scheme=*/true).empty()) {
    FUZZ_CHECK(!any.host.empty() && any.port > 0 && any.Url().find('@') == std::string::npos);
  }
  for (const char c : message) {
    FUZZ_CHECK(static_cast<unsigned char>(c) >= 0x20 && c != 0x7f);
  }
  if (!message.empty()) return;
  FUZZ_CHECK(!address.host.empty() && address.port > 0);
  FUZZ_CHECK(!address.user.empty() || address.password.empty());
  CheckTakesAgain(address, "");
  CheckTakesAgain(address, "socks5h://");
  HttpClient::Config config;
  config.SetSocks5Proxy(address.host, address.port, address.user, address.password);
  FUZZ_CHECK(Check(config));
}

// Of names: libcurl's own letters, digits, dots. Of any text: nothing beyond those may pass.
void CheckConfig(const std::string& fields) {
  HttpClient::Config config;
  std::vector<std::string> texts(1);
  for (size_t i = 2; i < fields.size(); ++i) {
    // The last one takes all that is left.
    if (fields[i] == '\n' && texts.size() < 3) {
      texts.emplace_back();
    } else {
      texts.back() += fields[i];
    }
  }
  texts.resize(3);
  uint16_t port = 0;
  if (fields.size() >= sizeof port) std::memcpy(&port, fields.data(), sizeof port);
  config.SetSocks5Proxy(texts[0], port, texts[1], texts[2]);
  const bool accepted = Check(config);
  const bool is_name = !texts[0].empty() && texts[0].size() < 254 &&
                       std::all_of(texts[0].begin(), texts[0].end(), [](unsigned char c) {
                         return c < 0x80 && (std::isalnum(c) != 0 || c == '.' || c == '-');
                       });
  const auto fits = [](const std::string& text) {
    return text.size() <= 255 && text.find('\0') == std::string::npos;
  };
  FUZZ_CHECK(accepted || !is_name || port == 0 || !fits(texts[1]) || !fits(texts[2]));
}

const std::vector<std::string>& Words() {
  static const auto* const words = new std::vector<std::string>{"socks5h://",
                                                                "SOCKS5H://",
                                                                "socks5://",
                                                                "http://",
                                                                "://",
                                                                "user:password@",
                                                                "user@",
                                                                ":",
                                                                "@",
                                                                "/",
                                                                "\\",
                                                                "?",
                                                                "#",
                                                                "%",
                                                                "%25",
                                                                "%00",
                                                                "%40",
                                                                "%41",
                                                                "%zz",
                                                                "[",
                                                                "]",
                                                                "[::1]",
                                                                "::1",
                                                                "[fe80::1%25eth0]",
                                                                "fe80::1%eth0",
                                                                "::ffff:1.2.3.4",
                                                                "127.0.0.1",
                                                                "0x7f.1",
                                                                "1",
                                                                "..",
                                                                "localhost",
                                                                "proxy.example",
                                                                ":1080",
                                                                ":0",
                                                                ":65535",
                                                                ":65536",
                                                                ":00001",
                                                                " ",
                                                                "\n",
                                                                "\t",
                                                                "\x1b",
                                                                "\x7f",
                                                                "\xC3\xA4",
                                                                "\xFF",
                                                                "_",
                                                                "-",
                                                                "~",
                                                                "+",
                                                                ";",
                                                                std::string(1, '\0'),
                                                                std::string(255, 'x')};
  return *words;
}

}  // namespace
}  // namespace quenor::fuzz

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t max_size,
                                          unsigned seed) {
  using namespace quenor::fuzz;
  Random random(seed);
  if (OneIn(random, 4)) return LLVMFuzzerMutate(data, size, max_size);
  Bytes bytes(data, data + size);
  // The first byte chooses; of a configuration the port follows.
  MutateText(&bytes, OneIn(random, 8) ? 0 : size > 0 && data[0] % 2 == 0 ? 1 : 3, Words(), random);
  return PutBack(bytes, data, max_size);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace quenor::fuzz;
  if (size == 0) return 0;
  const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
  if (data[0] % 2 == 0) {
    CheckText(text);
  } else {
    CheckConfig(text);
  }
  return 0;
}
