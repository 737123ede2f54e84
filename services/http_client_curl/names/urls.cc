#include "services/http_client_curl/names/urls.h"

#include <curl/curl.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "services/http_client_curl/address.h"
#include "services/http_client_curl/names/hosts.h"
#include "services/http_client_curl/rules/syntax.h"

QUENOR_NAMESPACE_BEGIN
namespace http_address {
namespace {

class ParsedUrl {
 public:
  explicit ParsedUrl(const std::string& url) : url_(curl_url(), &curl_url_cleanup) {
    is_good_ =
        url_ != nullptr && curl_url_set(url_.get(), CURLUPART_URL, url.c_str(), 0) == CURLUE_OK;
  }
  bool is_good() const { return is_good_; }
  // Empty when the URL has none.
  std::string Part(CURLUPart which, unsigned flags = 0) const {
    char* text = nullptr;
    curl_url_get(url_.get(), which, &text, flags);
    const std::string part = text != nullptr ? text : "";
    curl_free(text);
    return part;
  }

 private:
  std::unique_ptr<CURLU, void (*)(CURLU*)> url_;
  bool is_good_;
};

bool IsHexDigit(char c) { return std::strchr("0123456789abcdefABCDEF", c) != nullptr && c != '\0'; }

// Whether a byte beyond ASCII stands in it, or percent-encoded: libcurl decodes those of a host.
bool IsAscii(const std::string& url) {
  for (size_t i = 0; i < url.size(); ++i) {
    if (static_cast<unsigned char>(url[i]) > 0x7f) return false;
    const bool may_be_encoded = url[i] == '%' && i + 2 < url.size() && url[i + 1] > '7';
    if (may_be_encoded && IsHexDigit(url[i + 1]) && IsHexDigit(url[i + 2])) return false;
  }
  return true;
}

}  // namespace

std::string AsciiUrl(const std::string& url, std::string* ascii) {
  ascii->clear();
  if (IsAscii(url)) return std::string();
  const ParsedUrl parsed(url);
  if (!parsed.is_good()) return std::string();  // UrlProblem() says why.
  const std::string host = parsed.Part(CURLUPART_HOST);
  std::string name;
  std::string problem = http_names::AsciiName(host, &name);
  if (!problem.empty() || name == host) return problem;
  // Where it stands: libcurl takes one to three slashes, and the user ends at the last '@'.
  const size_t begin = url.find_first_not_of('/', url.find(':') + 1);
  const size_t end = std::min(url.find_first_of("/?#", begin), url.size());
  const size_t at = url.substr(begin, end - begin).rfind('@');
  const size_t host_begin = at == std::string::npos ? begin : begin + at + 1;
  const size_t host_end = std::min(url.find(':', host_begin), end);
  *ascii = url;
  ascii->replace(host_begin, host_end - host_begin, name);
  const ParsedUrl result(*ascii);
  const std::string now = result.is_good() ? result.Part(CURLUPART_HOST) : std::string();
  if (http_syntax::EqualsNoCase(now, name.c_str()) || http_names::IsIpv4(now)) return problem;
  ascii->clear();
  return "its host stands where none is looked for; give https://HOST[:PORT]/PATH";
}

std::string OriginOf(const std::string& url) {
  std::string ascii;
  if (!AsciiUrl(url, &ascii).empty()) return std::string();
  const ParsedUrl parsed(ascii.empty() ? url : ascii);
  if (!parsed.is_good()) return std::string();
  std::string host = parsed.Part(CURLUPART_HOST);
  for (char& c : host) c = http_syntax::LowerAscii(c);
  if (host.size() > 2 && host.front() == '[') {
    const std::string zone = parsed.Part(CURLUPART_ZONEID);
    host = host.substr(1, host.size() - 2) + (zone.empty() ? "" : "%" + zone);
    host = "[" + http_names::CanonicalIpv6(host) + "]";
  }
  return parsed.Part(CURLUPART_SCHEME) + "://" + host + ":" +
         parsed.Part(CURLUPART_PORT, CURLU_DEFAULT_PORT);
}

std::string GivenOrigin(const std::string& text, std::string* origin) {
  const std::string hint = "; give https://HOST[:PORT]";
  std::string problem = UrlProblem(text);
  if (!problem.empty()) return "the origin: " + problem;
  const ParsedUrl parsed(text);
  if (!parsed.is_good()) return "the origin: out of memory; use less of it";
  // In the text, as libcurl drops an empty query, say.
  if (text.find('@') != std::string::npos || !parsed.Part(CURLUPART_USER).empty()) {
    return "the origin has a user; leave it out" + hint;
  }
  if (text.find_first_of("?#") != std::string::npos) {
    return "the origin has a query or fragment; leave it out" + hint;
  }
  if (parsed.Part(CURLUPART_PATH) != "/") return "the origin has a path; leave it out" + hint;
  *origin = OriginOf(text);
  return origin->empty() ? "the origin: out of memory; use less of it" : std::string();
}

}  // namespace http_address
QUENOR_NAMESPACE_END
