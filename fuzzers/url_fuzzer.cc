// An address of a server: what the HTTP client accepts is what libcurl would connect to, what it
// writes down of that tells no secret, and what quenor-report accepts the client accepts too.
#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
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

// A URL as libcurl takes it apart. A part that is missing is an empty text.
struct Url {
  CURLUcode code = CURLUE_OK;
  std::string scheme, user, password, host, zone, port, path;
  bool has_user = false;
  bool has_query = false;
  bool has_fragment = false;
};

class Parser {
 public:
  Parser(const std::string& url, unsigned flags) : handle_(curl_url(), &curl_url_cleanup) {
    FUZZ_CHECK(handle_ != nullptr);
    parsed_.code = curl_url_set(handle_.get(), CURLUPART_URL, url.c_str(), flags);
    if (parsed_.code != CURLUE_OK) return;
    FUZZ_CHECK(Get(CURLUPART_SCHEME, &parsed_.scheme));
    Get(CURLUPART_HOST, &parsed_.host);
    Get(CURLUPART_ZONEID, &parsed_.zone);
    FUZZ_CHECK(Get(CURLUPART_PORT, &parsed_.port, CURLU_DEFAULT_PORT) || IsOther());
    FUZZ_CHECK(Get(CURLUPART_PATH, &parsed_.path));
    parsed_.has_user = Get(CURLUPART_USER, &parsed_.user);
    parsed_.has_user = Get(CURLUPART_PASSWORD, &parsed_.password) || parsed_.has_user;
    std::string ignored;
    parsed_.has_query = Get(CURLUPART_QUERY, &ignored);
    parsed_.has_fragment = Get(CURLUPART_FRAGMENT, &ignored);
  }
  const Url& parsed() const { return parsed_; }

 private:
  bool IsOther() const { return parsed_.scheme != "http" && parsed_.scheme != "https"; }
  bool Get(CURLUPart part, std::string* out, unsigned flags = 0) {
    char* text = nullptr;
    const bool has = curl_url_get(handle_.get(), part, &text, flags) == CURLUE_OK;
    if (has) *out = text;
    curl_free(text);
    return has;
  }

  const std::unique_ptr<CURLU, void (*)(CURLU*)> handle_;
  Url parsed_;
};

Url Parse(const std::string& url, unsigned flags = 0) { return Parser(url, flags).parsed(); }

// What a transfer parses its URL with.
constexpr unsigned kTransferFlags = CURLU_GUESS_SCHEME | CURLU_NON_SUPPORT_SCHEME;

curl_socket_t OpenNone(void* opened, curlsocktype, curl_sockaddr*) {
  ++*static_cast<int*>(opened);
  return CURL_SOCKET_BAD;
}

// Whether a transfer gets as far as opening a socket. It is turned to an address that needs no
// look-up, and gets none.
bool WouldConnect(const std::string& url) {
  struct Transfer {
    Transfer() : easy(curl_easy_init()), place(curl_slist_append(nullptr, "::127.0.0.1:9")) {
      FUZZ_CHECK(easy != nullptr && place != nullptr);
      curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
      curl_easy_setopt(easy, CURLOPT_PROXY, "");
      curl_easy_setopt(easy, CURLOPT_CONNECT_TO, place);
      curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
      curl_easy_setopt(easy, CURLOPT_OPENSOCKETFUNCTION, OpenNone);
      curl_easy_setopt(easy, CURLOPT_OPENSOCKETDATA, &opened);
    }
    ~Transfer() {
      curl_easy_cleanup(easy);
      curl_slist_free_all(place);
    }
    CURL* easy;
    curl_slist* place;
    int opened = 0;
  };
  static Transfer transfer;
  transfer.opened = 0;
  curl_easy_setopt(transfer.easy, CURLOPT_URL, url.c_str());
  const CURLcode code = curl_easy_perform(transfer.easy);
  return code == CURLE_COULDNT_CONNECT && transfer.opened == 1;
}

bool IsAscii(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return (c & 0x80) == 0; });
}

// As the log writes a text: what is not printable ASCII becomes %XX.
std::string Escaped(const std::string& text) {
  std::string escaped;
  for (const char c : text) {
    const unsigned byte = static_cast<unsigned char>(c);
    char number[4];
    std::snprintf(number, sizeof number, "%%%02X", byte);
    escaped += std::isgraph(static_cast<int>(byte)) != 0 ? std::string(1, c) : number;
  }
  return escaped;
}

// Between the slashes stands nothing but host and port, behind them nothing but the path.
void CheckByHand(const std::string& shown, const Url& url) {
  const size_t begin = shown.find("://") + 3;
  const size_t end = shown.find('/', begin);
  FUZZ_CHECK(shown.compare(0, begin, url.scheme + "://") == 0 && end != std::string::npos);
  FUZZ_CHECK(shown.substr(begin, end - begin).find('@') == std::string::npos);
  FUZZ_CHECK(shown.substr(end) == Escaped(url.path));
}

// What may be shown of a URL, made of its parts.
void CheckShown(const std::string& shown, const Url& url) {
  FUZZ_CHECK(shown.find_first_of("?#") == std::string::npos);
  FUZZ_CHECK(Escaped(shown) == shown);
  CheckByHand(shown, url);
  const Url again = Parse(shown);
  FUZZ_CHECK(again.code == CURLUE_OK && again.scheme == url.scheme);
  FUZZ_CHECK(Canonical(Decoded(again.host)) == Canonical(Decoded(url.host)));
  FUZZ_CHECK(again.zone == url.zone && again.port == url.port && again.path == Escaped(url.path));
  FUZZ_CHECK(!again.has_user && !again.has_query && !again.has_fragment);
}

void CheckAccepted(const std::string& text) {
  std::string ascii;
  FUZZ_CHECK(http_address::AsciiUrl(text, &ascii).empty());
  const std::string& sent = ascii.empty() ? text : ascii;
  const Url url = Parse(sent, kTransferFlags);
  FUZZ_CHECK(url.code == CURLUE_OK && (url.scheme == "http" || url.scheme == "https"));
  FUZZ_CHECK(!url.host.empty());
  FUZZ_CHECK(WouldConnect(sent) && IsAscii(url.host));
  CheckShown(http_address::LoggableUrl(text), url);
}

// Empty when quenor-report accepts the URL, else its message.
std::string Objection(const std::string& url) {
  try {
    cli::CheckUrl(url);
    return "";
  } catch (const cli::Fatal& fatal) {
    return fatal.what();
  }
}

// Nothing between a scheme and the last '@' may be shown: a mark that is put there stays hidden.
void CheckHides(const std::string& text) {
  constexpr char kMark[] = "zQxJw";
  const size_t at = text.rfind('@');
  if (at == std::string::npos || text.find(kMark) != std::string::npos) return;
  const std::string marked = text.substr(0, at) + kMark + text.substr(at);
  const std::string message = Objection(marked);
  FUZZ_CHECK(message.find(kMark) == std::string::npos);
}

const std::vector<std::string>& Words() {
  static const auto* const words = new std::vector<std::string>{"http://",
                                                                "https://",
                                                                "HTTPS://",
                                                                "https:/",
                                                                "https:///",
                                                                "https:",
                                                                "ftp://",
                                                                "file:///",
                                                                "//",
                                                                "/",
                                                                "\\",
                                                                ":",
                                                                "@",
                                                                "?",
                                                                "#",
                                                                "%",
                                                                "%40",
                                                                "%2f",
                                                                "%00",
                                                                "%01",
                                                                "%7f",
                                                                "%0a",
                                                                "%ff",
                                                                "%C3%A4",
                                                                "user:password@",
                                                                "user@",
                                                                ":@",
                                                                "@@",
                                                                "host",
                                                                "collector.example",
                                                                "127.0.0.1",
                                                                "0x7f.1",
                                                                "1",
                                                                "[::1]",
                                                                "[fe80::1%25eth0]",
                                                                "[fe80::1%eth0]",
                                                                "[",
                                                                "]",
                                                                "[::",
                                                                ":0",
                                                                ":1",
                                                                ":443",
                                                                ":65535",
                                                                ":65536",
                                                                ":00080",
                                                                ":-1",
                                                                "..",
                                                                "/../",
                                                                "/./",
                                                                "/%2e%2e/",
                                                                ";",
                                                                "&",
                                                                "=",
                                                                "+",
                                                                " ",
                                                                "\t",
                                                                "\r\n",
                                                                "\x1b[2J",
                                                                "\x7f",
                                                                "\xC3\xA4",
                                                                "\xC2\x9B",
                                                                "\xFF",
                                                                "xn--",
                                                                "_",
                                                                "~",
                                                                "localhost",
                                                                "?token=t",
                                                                "#fragment",
                                                                "a.b-c",
                                                                std::string(1, '\0'),
                                                                std::string(254, 'a')};
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
  MutateText(&bytes, 0, Words(), random);
  return PutBack(bytes, data, max_size);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace quenor::fuzz;
  const std::string text(reinterpret_cast<const char*>(data), size);
  const std::string problem = quenor::http_address::UrlProblem(text);
  const bool has_nul = text.find('\0') != std::string::npos;
  FUZZ_CHECK(!has_nul || !problem.empty());
  if (problem.empty()) CheckAccepted(text);
  // Also of what is refused nothing may be shown that a log must not hold.
  const Url url = Parse(text.c_str());
  const std::string shown = quenor::http_address::LoggableUrl(text);
  FUZZ_CHECK(Escaped(shown) == shown || shown == "(no URL)");
  FUZZ_CHECK((shown == "(no URL)") == (url.code != CURLUE_OK));

  const std::string objection = Objection(text);
  FUZZ_CHECK(!objection.empty() || problem.empty());
  for (const char c : objection) {
    FUZZ_CHECK(static_cast<unsigned char>(c) >= 0x20 && c != 0x7f);
  }
  CheckHides(text);
  return 0;
}
