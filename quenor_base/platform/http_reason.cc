#include "quenor_base/platform/http_reason.h"

QUENOR_NAMESPACE_BEGIN
namespace {

constexpr const char* kNames[] = {
    "none",          "name_not_found", "refused",           "unreachable",       "connect_timeout",
    "total_timeout", "too_slow",       "tls_expired",       "tls_wrong_host",    "tls_untrusted",
    "tls_pin",       "tls_other",      "proxy_unreachable", "proxy_credentials", "proxy_refused",
    "protocol",      "too_large",      "cancelled",         "http_status",       "other",
};
static_assert(sizeof(kNames) / sizeof(kNames[0]) == kHttpReasons, "a name for each");

}  // namespace

const char* HttpReasonName(HttpReason reason) {
  const auto number = static_cast<int32_t>(reason);
  return kNames[number >= 0 && number < kHttpReasons ? number : kHttpReasons - 1];
}

QUENOR_NAMESPACE_END
