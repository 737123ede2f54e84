// The way through a SOCKS5 proxy, for "quenor-report doctor": by libcurl, as the HTTP client goes
// it. Threads: one. Page: docs/guide/quenor-report.md.
#ifndef CLI_DOCTOR_SOCKS5_H_
#define CLI_DOCTOR_SOCKS5_H_

#include <cstdint>

#include "cli/doctor/net.h"
#include "cli/doctor/step.h"
#include "cli/options/addresses.h"

namespace quenor::cli {

// The step "proxy": a new connection to the proxy, greeting, authentication and the request to
// connect to `target`. When it has not failed, `socket`, which does not block, leads there.
Step AskProxy(const Socks5Address& proxy, const Place& target, uint32_t timeout_ms, Socket* socket);

}  // namespace quenor::cli

#endif  // CLI_DOCTOR_SOCKS5_H_
