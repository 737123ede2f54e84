// The way to the server, for "quenor-report doctor": by libcurl, with the HTTP client's own
// settings and options, and judged as that does. Threads: one. Page: docs/guide/quenor-report.md.
#ifndef CLI_DOCTOR_PROXY_H_
#define CLI_DOCTOR_PROXY_H_

#include <cstdint>
#include <memory>
#include <optional>

#include "cli/connection.h"
#include "cli/doctor/net.h"
#include "cli/doctor/step.h"
#include "services/http_client_curl/settings.h"

namespace quenor::cli {

// What the client has for URLs of a scheme. ApplyConnection() has been called.
std::shared_ptr<const ClientSettings> SettingsInForce(const Connection& connection, bool is_tls);

struct Route {
  bool is_proxied = false;
  std::optional<Endpoint> pinned;  // Where --connect-to says that the server is.
};

// Which way the client goes to `target`. Asks libcurl, which sends nothing.
Route RouteTo(const Place& target, const ClientSettings& settings);

// The step "proxy": a new connection to the proxy, authentication and the request to connect to
// `target`. When it has not failed, `socket`, which does not block, leads there; it is none where
// TLS with the proxy is around it.
Step AskProxy(const ClientSettings& settings, const Place& target, uint32_t timeout_ms,
              Socket* socket);

// The step "tls" behind an https:// proxy, by libcurl alone: it is inside the TLS with that.
Step CheckTlsInTls(const ClientSettings& settings, const Place& target, uint32_t timeout_ms);

}  // namespace quenor::cli

#endif  // CLI_DOCTOR_PROXY_H_
