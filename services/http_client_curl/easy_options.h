// The settings of a client, and what it sets on an easy handle because of them. Internal to the
// HTTP client on libcurl. Threads: the one that prepares the request.
#ifndef SERVICES_HTTP_CLIENT_CURL_EASY_OPTIONS_H_
#define SERVICES_HTTP_CLIENT_CURL_EASY_OPTIONS_H_

#include <curl/curl.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "quenor_base/platform/http_client.h"
#include "services/http_client_curl/rules/lines.h"
#include "services/http_client_curl/tls_openssl.h"

#if LIBCURL_VERSION_NUM < 0x075700
#error "libcurl 7.87 or newer is needed"
#endif

QUENOR_NAMESPACE_BEGIN

// What a client's requests share with it; it lives as long as the last of them.
struct ClientSettings {
  ClientSettings(HttpClient::Config config_in, HttpDefaults defaults_in)
      : config(std::move(config_in)), defaults(std::move(defaults_in)) {}
  ~ClientSettings() { curl_slist_free_all(body_headers); }
  ClientSettings(const ClientSettings&) = delete;
  ClientSettings& operator=(const ClientSettings&) = delete;

  const HttpClient::Config config;
  const HttpDefaults defaults;
  std::string proxy;                               // "socks5h://HOST:PORT"; empty: direct.
  std::string pins;                                // As CURLOPT_PINNEDPUBLICKEY wants them.
  std::shared_ptr<const ClientIdentity> identity;  // Never null.
  curl_slist* body_headers = nullptr;  // Of a request with a body and no headers of its own.
  int64_t serial = 0;                  // Tells settings apart for ever, as an address cannot.
  bool http2 = false;                  // Offered, and libcurl has it.
  // Guarded by the engine's lock: where requests went, and in which lines they are.
  const void* used_io = nullptr;
  http_lines::ClientLines lines;
  // release in the destructor of the client, acquire on the I/O thread: what the owner did before
  // is seen by the callbacks.
  std::atomic<bool> closed{false};
};

// Gathers whether every option was taken.
class EasyOptions {
 public:
  explicit EasyOptions(CURL* easy) : easy_(easy) {}
  template <typename T>
  void Set(CURLoption option, T value) {
    if (curl_easy_setopt(easy_, option, value) != CURLE_OK) all_taken_ = false;
  }
  // An empty text takes the option's value away.
  void SetText(CURLoption option, const std::string& value) {
    Set(option, value.empty() ? nullptr : value.c_str());
  }
  CURL* easy() const { return easy_; }
  bool all_taken() const { return all_taken_; }

 private:
  CURL* easy_;
  bool all_taken_ = true;
};

// Any thread. Everything about how an exchange goes on the wire and what limits it.
void SetExchangeOptions(const ClientSettings& client, EasyOptions* options);

// Any thread. Everything about where the connection goes and by whom the server must be trusted.
void SetProxyOptions(const ClientSettings& client, EasyOptions* options);
void SetTlsOptions(const ClientSettings& client, EasyOptions* options);

// Asked for once: libcurl writes its versions' text each time, with 5 KiB of its caller's stack.
bool HasHttp2();

// Of one request. Borrows the bytes until the exchange has ended.
void SetBody(const CopyOnWriteBuffer& body, EasyOptions* options);

// Between two requests: one on a shared HTTP/2 connection leaves its upload buffer behind.
void FreeUploadBuffer(CURL* easy);

// Appends the request's headers to the list and, unless they say otherwise, the content type of a
// body. "Expect" is taken away: libcurl would hold back a large body for a second. False without
// memory.
bool BuildHeaders(const std::map<std::string, std::string>& headers, bool sends_body,
                  curl_slist** list);

QUENOR_NAMESPACE_END

#endif  // SERVICES_HTTP_CLIENT_CURL_EASY_OPTIONS_H_
