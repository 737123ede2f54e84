// What the HTTP client on libcurl sets on an easy handle, as far as it is the same for every
// request of a client. Internal to that client. Threads: the one that prepares the request.
#ifndef SERVICES_HTTP_CLIENT_CURL_EASY_OPTIONS_H_
#define SERVICES_HTTP_CLIENT_CURL_EASY_OPTIONS_H_

#include <curl/curl.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "quenor_base/platform/http_client.h"
#include "services/http_client_curl/tls_openssl.h"

QUENOR_NAMESPACE_BEGIN

// The requests of one client to one server over HTTP/1.1, where each needs a connection for itself.
// libcurl gets no more of them than there may be connections: it would look at each one that waits
// whenever it does anything. Guarded by the engine's lock.
struct Line {
  std::string server;   // The URL up to its path.
  uint32_t inside = 0;  // How many libcurl has.
};

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
  std::vector<std::unique_ptr<Line>> lines;
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

// Any thread. Everything about where the connection goes and by whom the server must be trusted.
void SetProxyOptions(const ClientSettings& client, EasyOptions* options);
void SetTlsOptions(const ClientSettings& client, EasyOptions* options);

// Asked for once: libcurl writes its versions' text each time, with 5 KiB of its caller's stack.
bool HasHttp2();

// Appends the request's headers to the list and, unless they say otherwise, the content type of a
// body. "Expect" is taken away: libcurl would hold back a large body for a second. False without
// memory.
bool BuildHeaders(const std::map<std::string, std::string>& headers, bool sends_body,
                  curl_slist** list);

QUENOR_NAMESPACE_END

#endif  // SERVICES_HTTP_CLIENT_CURL_EASY_OPTIONS_H_
