// What the log says of an exchange that failed. Internal to the HTTP client on libcurl. Pure
// functions; any thread.
#ifndef SERVICES_HTTP_CLIENT_CURL_FAILURE_TEXT_H_
#define SERVICES_HTTP_CLIENT_CURL_FAILURE_TEXT_H_

#include <curl/curl.h>

#include <cstdint>
#include <string>

#include "quenor_base/platform/http_client.h"

QUENOR_NAMESPACE_BEGIN

// Which of our limits ended an exchange.
enum class HttpLimit {
  kNone,
  kConnect,
  kLowSpeed,
  kTotal,
  kWait,  // As kTotal, in the line for a connection.
  kBody,
  kHeaders,
  kHeaderLines,
  kFlood,
};

constexpr uint32_t kMaxHeaderLines = 2048;  // libcurl compares each with each when asked for them.

// One line that names the limit, as HttpDefaults does, with its value and unit. `request_ms` is the
// request's own time limit; 0: none.
std::string LimitText(HttpLimit limit, const HttpDefaults& defaults, uint32_t request_ms);

// How an exchange failed, as far as it says what to do about it.
struct HttpFailure {
  HttpClient::State state = HttpClient::State::kFailed;
  CURLcode code = CURLE_OK;
  long verify_result = 0;  // As CURLINFO_SSL_VERIFYRESULT gives it.
  const char* error = "";  // Our words or libcurl's; may be empty.
  bool is_proxied = false;
};

// Any thread. Static text, or what `error` points to.
const char* FailureCause(const HttpFailure& failure);
const char* FailureAdvice(const HttpFailure& failure);

QUENOR_NAMESPACE_END

#endif  // SERVICES_HTTP_CLIENT_CURL_FAILURE_TEXT_H_
