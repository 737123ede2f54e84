// What follows from a client's settings for an easy handle. Internal to the HTTP client on libcurl.
// Threads: the one that prepares the request.
#ifndef SERVICES_HTTP_CLIENT_CURL_EASY_OPTIONS_H_
#define SERVICES_HTTP_CLIENT_CURL_EASY_OPTIONS_H_

#include <curl/curl.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "quenor_base/platform/http_client.h"
#include "services/http_client_curl/settings.h"

#if LIBCURL_VERSION_NUM < 0x075700
#error "libcurl 7.87 or newer is needed"
#endif

QUENOR_NAMESPACE_BEGIN

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
void SetExchangeOptions(const ClientSettings& settings, EasyOptions* options);

// Any thread. Everything about where the connection goes and by whom the server must be trusted.
void SetProxyOptions(const ClientSettings& settings, EasyOptions* options);
void SetTlsOptions(const ClientSettings& settings, EasyOptions* options);

// Asked for once: libcurl writes its versions' text each time, with 5 KiB of its caller's stack.
bool HasHttp2();

// Of one request. Borrows the bytes until the exchange has ended.
void SetBody(const CopyOnWriteBuffer& body, EasyOptions* options);

// Between two requests: one on a shared HTTP/2 connection leaves its upload buffer behind.
void FreeUploadBuffer(CURL* easy);

// False, and the list as it was, without memory.
bool AppendText(const std::string& text, curl_slist** list);

// Appends the request's headers to the list and, unless they say otherwise, the content type of a
// body. "Expect" is taken away: libcurl would hold back a large body for a second. False without
// memory.
bool BuildHeaders(const std::map<std::string, std::string>& headers, bool sends_body,
                  curl_slist** list);

QUENOR_NAMESPACE_END

#endif  // SERVICES_HTTP_CLIENT_CURL_EASY_OPTIONS_H_
