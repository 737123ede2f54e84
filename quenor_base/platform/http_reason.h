// Why an exchange brought no answer that counts: one word for each thing that somebody can mend.
#ifndef QUENOR_BASE_PLATFORM_HTTP_REASON_H_
#define QUENOR_BASE_PLATFORM_HTTP_REASON_H_

#include <cstdint>

#include "quenor_base/platform/base/abi.h"

QUENOR_NAMESPACE_BEGIN

enum class HttpReason : int32_t {
  kNone = 0,
  kNameNotFound,      // The server's name has no address, or nobody could be asked.
  kRefused,           // The server's machine refuses the connection.
  kUnreachable,       // No way there, or the connection broke before it stood.
  kConnectTimeout,    // connect_timeout_ms.
  kTotalTimeout,      // total_timeout_ms, or the request's own limit.
  kTooSlow,           // low_speed_bytes_per_second for low_speed_seconds.
  kTlsExpired,        // The server's certificate, or one above it, is not valid now.
  kTlsWrongHost,      // The certificate is for another name.
  kTlsUntrusted,      // It leads to no authority that is trusted.
  kTlsPin,            // Its key is none of those that are pinned.
  kTlsOther,          // Any other failure of TLS.
  kProxyUnreachable,  // The proxy's name has no address, or it cannot be connected to.
  kProxyCredentials,  // The proxy needs a user and password, or others.
  kProxyRefused,      // The proxy will not, or cannot, connect to the server.
  kProtocol,          // What came is no HTTP response, or not a whole one.
  kTooLarge,          // A size limit.
  kCancelled,         // The client was destroyed, or the process ends.
  kHttpStatus,        // A whole response, with a status other than 200.
  kOther,             // Memory, descriptors, or what nothing above names.
};
constexpr int32_t kHttpReasons = static_cast<int32_t>(HttpReason::kOther) + 1;

// Any thread. Static text: "none", "name_not_found", ...; for numbers that are none of these, too.
const char* HttpReasonName(HttpReason reason);

QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_PLATFORM_HTTP_REASON_H_
