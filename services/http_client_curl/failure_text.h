// Why an exchange failed, and what the log says of it. Internal to the HTTP client on libcurl. Pure
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

// How an exchange ended, as far as it says why and what to do about it.
struct HttpFailure {
  HttpClient::State state = HttpClient::State::kFailed;
  CURLcode code = CURLE_OK;
  HttpLimit limit = HttpLimit::kNone;
  long verify_result = 0;  // As CURLINFO_SSL_VERIFYRESULT gives it.
  const char* error = "";  // Our words or libcurl's; may be empty.
  const char* proxy = "";  // Its URL; empty: none, or it was passed by, as an exception says.
  bool under_way = false;  // The request had a connection to the server.
  long os_error = 0;       // As CURLINFO_OS_ERRNO, and so on.
  long proxy_error = 0;
  long connect_status = 0;  // Of the proxy's answer to CONNECT; 0: none.
  int status = 0;           // Of the response; 0: none.
};

// Any thread. kNone for a response with status 200.
HttpReason ReasonOf(const HttpFailure& failure);

// Any thread. Static text, or what `error` points to.
const char* FailureCause(const HttpFailure& failure);
const char* FailureAdvice(const HttpFailure& failure);

QUENOR_NAMESPACE_END

#endif  // SERVICES_HTTP_CLIENT_CURL_FAILURE_TEXT_H_
