// The TLS handshake of "quenor-report doctor": OpenSSL with the HTTP client's settings, and what
// the server showed, whether it was accepted or not. Verification decides as it does for a report:
// a server that fails it gets no client certificate and not a byte more. Threads: one. Page:
// docs/guide/quenor-report.md.
#ifndef CLI_DOCTOR_TLS_H_
#define CLI_DOCTOR_TLS_H_

#include <openssl/x509.h>

#include <string>

#include "cli/connection.h"
#include "cli/doctor/step.h"

namespace quenor::cli {

// The CA certificates in force; either may be empty.
struct CaSource {
  std::string file;
  std::string folder;
};

// "sha256//BASE64" of the certificate's public key, as --pin takes it; empty without memory.
std::string PinOf(const X509* certificate);

// Whether the certificate is for `host`, a name or an address, by the HTTP client's rules: the
// subject's common name counts only where there are no alternative names.
bool IsFor(X509* certificate, const std::string& host);

// The step "tls" on the connected `fd`, which does not block and is borrowed. `host` is the URL's,
// without brackets.
Step CheckTls(int fd, const std::string& host, const Connection& connection, const CaSource& ca,
              uint32_t timeout_ms);

}  // namespace quenor::cli

#endif  // CLI_DOCTOR_TLS_H_
