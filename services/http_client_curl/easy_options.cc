#include "services/http_client_curl/easy_options.h"

#include <algorithm>
#include <atomic>
#include <climits>

#include "services/http_client_curl/address.h"
#include "services/http_client_curl/rules/syntax.h"
#include "services/http_client_curl/system_ca.h"
#include "services/http_client_curl/tls_openssl.h"

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

void SetPem(CURLoption option, const std::string& pem, EasyOptions* options) {
  curl_blob blob{const_cast<char*>(pem.data()), pem.size(), CURL_BLOB_COPY};
  options->Set(option, pem.empty() ? nullptr : &blob);
}

// By which options libcurl is told whom to trust.
struct TrustOptions {
  CURLoption file, folder, text;
};
constexpr TrustOptions kOfServer = {CURLOPT_CAINFO, CURLOPT_CAPATH, CURLOPT_CAINFO_BLOB};
constexpr TrustOptions kOfProxy = {CURLOPT_PROXY_CAINFO, CURLOPT_PROXY_CAPATH,
                                   CURLOPT_PROXY_CAINFO_BLOB};

// The system's certificates: the bundle alone where one can be read, because only a bundle without
// a folder is parsed once and not for every connection.
void SetSystemCa(const TrustOptions& of, EasyOptions* options) {
  char* bundle = nullptr;
  char* folder = nullptr;
  if (curl_easy_getinfo(options->easy(), CURLINFO_CAINFO, &bundle) != CURLE_OK) return;
  if (curl_easy_getinfo(options->easy(), CURLINFO_CAPATH, &folder) != CURLE_OK) return;
  const http_system_store::Store* const store = SystemCa::Get().Find(bundle, folder);
  if (store == nullptr) return;
  options->SetText(of.file, store->bundle);
  options->Set(of.folder, nullptr);
  if (store->pem.empty()) return;
  curl_blob blob{const_cast<char*>(store->pem.data()), store->pem.size(), CURL_BLOB_NOCOPY};
  options->Set(of.text, &blob);
}

// True when they are the system's.
bool SetAuthorities(const ClientSettings& settings, const TrustOptions& of, EasyOptions* options) {
  const HttpSettings& values = settings.values();
  const bool is_proxys = of.file == kOfProxy.file && !settings.proxy.ca_file.empty();
  const std::string& file = is_proxys ? settings.proxy.ca_file : values.ca_file;
  if (!is_proxys && file.empty() && values.ca_folder.empty() && values.ca_pem.empty()) {
    SetSystemCa(of, options);
    return true;
  }
  // All of them, so that none of libcurl's own defaults stays beside what was given.
  options->SetText(of.file, file);
  options->SetText(of.folder, is_proxys ? std::string() : values.ca_folder);
  if (!is_proxys) SetPem(of.text, values.ca_pem, options);
  return false;
}

}  // namespace

void SetExchangeOptions(const ClientSettings& settings, EasyOptions* options) {
  const HttpSettings& values = settings.values();
  options->Set(CURLOPT_NOSIGNAL, 1L);
  options->Set(CURLOPT_QUICK_EXIT, 1L);  // A cancelled request does not wait for its name lookup.
  options->Set(CURLOPT_PROTOCOLS_STR, "http,https");
  options->Set(CURLOPT_FOLLOWLOCATION, 0L);
  options->Set(CURLOPT_ACCEPT_ENCODING, nullptr);
  options->Set(CURLOPT_HTTP_CONTENT_DECODING, 0L);
  options->Set(CURLOPT_TCP_NODELAY, 1L);
  options->Set(CURLOPT_TCP_KEEPALIVE, 0L);
  options->Set(CURLOPT_MAXAGE_CONN, kIdleReuseSeconds);
  options->Set(CURLOPT_FORBID_REUSE, values.keep_idle_connections ? 0L : 1L);
  options->Set(CURLOPT_CONNECT_TO, settings.connect_to);
  options->Set(CURLOPT_DNS_CACHE_TIMEOUT, kNameCacheSeconds);
  options->Set(CURLOPT_USERAGENT, values.user_agent.c_str());
  options->Set(CURLOPT_CONNECTTIMEOUT_MS,
               static_cast<long>(std::min<uint32_t>(values.connect_timeout_ms, INT_MAX)));
  options->Set(CURLOPT_LOW_SPEED_LIMIT, static_cast<long>(values.low_speed_bytes_per_second));
  options->Set(CURLOPT_LOW_SPEED_TIME, static_cast<long>(values.low_speed_seconds));
  options->Set(CURLOPT_PIPEWAIT, settings.http2 ? 1L : 0L);
  options->Set(CURLOPT_HTTP_VERSION,
               static_cast<long>(settings.http2 ? CURL_HTTP_VERSION_2TLS : CURL_HTTP_VERSION_1_1));
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

// By CONNECT whatever the scheme: the request goes out as it would without a proxy, and what a
// proxy answers is never taken for the server's.
void SetProxyOptions(const ClientSettings& settings, EasyOptions* options) {
  const HttpProxy& proxy = settings.proxy;
  // Empty, not null: null would ask the environment.
  options->Set(CURLOPT_PROXY, proxy.url.c_str());
  options->Set(CURLOPT_NOPROXY, settings.proxy_exceptions.c_str());
  if (proxy.url.empty()) return;
  options->Set(CURLOPT_SOCKS5_AUTH, static_cast<long>(CURLAUTH_BASIC));
  options->Set(CURLOPT_HTTPPROXYTUNNEL, 1L);
  options->Set(CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  options->Set(CURLOPT_PROXYAUTH, static_cast<long>(CURLAUTH_BASIC | CURLAUTH_DIGEST));
  options->Set(CURLOPT_PROXY_SSL_VERIFYPEER, 1L);
  options->Set(CURLOPT_PROXY_SSL_VERIFYHOST, 2L);
  options->Set(CURLOPT_PROXY_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  if (proxy.user.empty()) return;
  const std::string user = http_address::ProxyCredential(proxy.user);
  const std::string password = http_address::ProxyCredential(proxy.password);
  options->Set(CURLOPT_PROXYUSERNAME, user.c_str());
  options->Set(CURLOPT_PROXYPASSWORD, password.c_str());
}

void SetTlsOptions(const ClientSettings& settings, EasyOptions* options) {
  options->Set(CURLOPT_SSL_VERIFYPEER, 1L);
  options->Set(CURLOPT_SSL_VERIFYHOST, 2L);
  options->Set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  const bool are_systems = SetAuthorities(settings, kOfServer, options);
  const bool are_systems_of_proxy = SetAuthorities(settings, kOfProxy, options);
  // The host may replace the content of its files.
  options->Set(CURLOPT_CA_CACHE_TIMEOUT,
               are_systems && are_systems_of_proxy ? kSystemCaCacheSeconds : 0L);
  options->SetText(CURLOPT_PINNEDPUBLICKEY, settings.set->pins);
  SetPem(CURLOPT_SSLCERT_BLOB, settings.set->identity.certificate, options);
  SetPem(CURLOPT_SSLKEY_BLOB, settings.set->identity.key, options);
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

bool AppendText(const std::string& text, curl_slist** list) {
  curl_slist* const longer = curl_slist_append(*list, text.c_str());
  if (longer != nullptr) *list = longer;
  return longer != nullptr;
}

bool BuildHeaders(const std::map<std::string, std::string>& headers, bool sends_body,
                  curl_slist** list) {
  bool has_type = false;
  bool has_expect = false;
  for (const auto& [name, value] : headers) {
    has_type = has_type || EqualsNoCase(name, "content-type");
    has_expect = has_expect || EqualsNoCase(name, "expect");
    // libcurl reads "Name:" as "do not send Name", and "Name;" as an empty value.
    if (!AppendText(value.empty() ? name + ";" : name + ": " + value, list)) return false;
  }
  if (!sends_body) return true;
  if (!has_type && !AppendText("Content-Type: application/octet-stream", list)) return false;
  return has_expect || AppendText("Expect:", list);
}

QUENOR_NAMESPACE_END
