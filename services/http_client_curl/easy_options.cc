#include "services/http_client_curl/easy_options.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>

#include "services/http_client_curl/address.h"
#include "services/http_client_curl/rules/syntax.h"

QUENOR_NAMESPACE_BEGIN
namespace {

using http_syntax::EqualsNoCase;

constexpr long kSystemCaCacheSeconds = 3600;
constexpr long kNameCacheSeconds = 5;  // A server that has moved is found with the next attempts.
// A connection that was idle for less is looked at before it is used again, whether its server has
// closed it. Past this it is replaced: many a balancer forgets it after 60 s without a word.
constexpr long kIdleReuseSeconds = 50;
constexpr long kMaxUploadBuffer = 64 << 10;

// libcurl allocates its upload buffer whole, however little goes through it.
long UploadBufferBytes(uint32_t body_bytes) {
  constexpr long kHeadBytes = 4096;  // Sent from the same buffer, together with a small body.
  return std::min<long>(kMaxUploadBuffer, kHeadBytes + static_cast<long>(body_bytes));
}

// The system's certificates: the bundle alone where libcurl knows one that can be read, because
// only a bundle without a folder is parsed once and not for every connection.
void SetSystemCa(EasyOptions* options) {
  char* bundle = nullptr;
  if (curl_easy_getinfo(options->easy(), CURLINFO_CAINFO, &bundle) != CURLE_OK) return;
  if (bundle == nullptr || access(bundle, R_OK) != 0) return;
  options->Set(CURLOPT_CAPATH, nullptr);
  options->Set(CURLOPT_CA_CACHE_TIMEOUT, kSystemCaCacheSeconds);
}

void SetPem(CURLoption option, const std::string& pem, EasyOptions* options) {
  curl_blob blob{const_cast<char*>(pem.data()), pem.size(), CURL_BLOB_COPY};
  options->Set(option, pem.empty() ? nullptr : &blob);
}

bool AppendHeader(curl_slist** list, const std::string& line) {
  curl_slist* longer = curl_slist_append(*list, line.c_str());
  if (longer == nullptr) return false;
  *list = longer;
  return true;
}

}  // namespace

void SetExchangeOptions(const ClientSettings& client, EasyOptions* options) {
  const HttpDefaults& defaults = client.defaults;
  options->Set(CURLOPT_NOSIGNAL, 1L);
  options->Set(CURLOPT_QUICK_EXIT, 1L);  // A cancelled request does not wait for its name lookup.
  options->Set(CURLOPT_PROTOCOLS_STR, "http,https");
  options->Set(CURLOPT_FOLLOWLOCATION, 0L);
  options->Set(CURLOPT_ACCEPT_ENCODING, nullptr);
  options->Set(CURLOPT_HTTP_CONTENT_DECODING, 0L);
  options->Set(CURLOPT_TCP_NODELAY, 1L);
  options->Set(CURLOPT_TCP_KEEPALIVE, 1L);
  options->Set(CURLOPT_MAXAGE_CONN, kIdleReuseSeconds);
  options->Set(CURLOPT_DNS_CACHE_TIMEOUT, kNameCacheSeconds);
  options->Set(CURLOPT_USERAGENT, defaults.user_agent.c_str());
  options->Set(CURLOPT_CONNECTTIMEOUT_MS,
               static_cast<long>(std::min<uint32_t>(defaults.connect_timeout_ms, INT_MAX)));
  options->Set(CURLOPT_LOW_SPEED_LIMIT, static_cast<long>(defaults.low_speed_bytes_per_second));
  options->Set(CURLOPT_LOW_SPEED_TIME, static_cast<long>(defaults.low_speed_seconds));
  options->Set(CURLOPT_PIPEWAIT, client.http2 ? 1L : 0L);
  options->Set(CURLOPT_HTTP_VERSION,
               static_cast<long>(client.http2 ? CURL_HTTP_VERSION_2TLS : CURL_HTTP_VERSION_1_1));
}

void SetBody(const CopyOnWriteBuffer& body, EasyOptions* options) {
  const char* bytes = body.cdata<char>();
  options->Set(CURLOPT_POSTFIELDS, bytes == nullptr ? "" : bytes);
  options->Set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
  options->Set(CURLOPT_UPLOAD_BUFFERSIZE, UploadBufferBytes(body.size()));
}

void FreeUploadBuffer(CURL* easy) {
  curl_easy_setopt(easy, CURLOPT_UPLOAD_BUFFERSIZE, kMaxUploadBuffer);  // Any size frees it.
}

void SetProxyOptions(const ClientSettings& client, EasyOptions* options) {
  // Empty, not null: null would ask the environment.
  options->Set(CURLOPT_PROXY, client.proxy.c_str());
  options->Set(CURLOPT_NOPROXY, "");
  if (client.proxy.empty()) return;
  options->Set(CURLOPT_SOCKS5_AUTH, static_cast<long>(CURLAUTH_BASIC));
  if (client.config.socks5_user.empty()) return;
  const std::string user = http_address::ProxyCredential(client.config.socks5_user);
  const std::string password = http_address::ProxyCredential(client.config.socks5_password);
  options->Set(CURLOPT_PROXYUSERNAME, user.c_str());
  options->Set(CURLOPT_PROXYPASSWORD, password.c_str());
}

void SetTlsOptions(const ClientSettings& client, EasyOptions* options) {
  const HttpDefaults& defaults = client.defaults;
  options->Set(CURLOPT_SSL_VERIFYPEER, 1L);
  options->Set(CURLOPT_SSL_VERIFYHOST, 2L);
  options->Set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  if (defaults.ca_file.empty() && defaults.ca_folder.empty()) {
    SetSystemCa(options);
  } else {
    // Both, so that neither of libcurl's own defaults stays beside what was given. Not cached: the
    // host may replace the file's content.
    options->SetText(CURLOPT_CAINFO, defaults.ca_file);
    options->SetText(CURLOPT_CAPATH, defaults.ca_folder);
    options->Set(CURLOPT_CA_CACHE_TIMEOUT, 0L);
  }
  options->SetText(CURLOPT_PINNEDPUBLICKEY, client.pins);
  SetPem(CURLOPT_SSLCERT_BLOB, client.identity->certificate, options);
  SetPem(CURLOPT_SSLKEY_BLOB, client.identity->key, options);
  options->Set(CURLOPT_SSL_CTX_FUNCTION, &http_tls::Secure);
}

bool HasHttp2() {
  static std::atomic<int> known{0};
  int features = known.load(std::memory_order_relaxed);  // relaxed: whoever asks finds the same.
  if (features == 0) {
    features = curl_version_info(CURLVERSION_NOW)->features;
    known.store(features, std::memory_order_relaxed);
  }
  return (features & CURL_VERSION_HTTP2) != 0;
}

bool BuildHeaders(const std::map<std::string, std::string>& headers, bool sends_body,
                  curl_slist** list) {
  bool has_type = false;
  bool has_expect = false;
  for (const auto& [name, value] : headers) {
    has_type = has_type || EqualsNoCase(name, "content-type");
    has_expect = has_expect || EqualsNoCase(name, "expect");
    // libcurl reads "Name:" as "do not send Name", and "Name;" as an empty value.
    if (!AppendHeader(list, value.empty() ? name + ";" : name + ": " + value)) return false;
  }
  if (!sends_body) return true;
  if (!has_type && !AppendHeader(list, "Content-Type: application/octet-stream")) return false;
  return has_expect || AppendHeader(list, "Expect:");
}

QUENOR_NAMESPACE_END
