// The TLS side of the server: one context made from a certificate and its key.
// Threads: LoadTlsContext before the server starts; the context is then shared by all workers.
#ifndef COLLECTOR_HTTP_TLS_H_
#define COLLECTOR_HTTP_TLS_H_

#include <openssl/ssl.h>

#include <memory>
#include <string>

namespace quenor::collector {

struct SslCtxDeleter {
  void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
};
using SslCtxPtr = std::unique_ptr<SSL_CTX, SslCtxDeleter>;

struct SslDeleter {
  void operator()(SSL* ssl) const { SSL_free(ssl); }
};
using SslPtr = std::unique_ptr<SSL, SslDeleter>;

// TLS 1.2 or newer, HTTP/1.1 by ALPN. Both files are PEM; the certificate may be followed by its
// chain. A connection whose SSL has an int as its app data refuses the peer's hello with the fatal
// alert of that number. Throws Fatal, naming the file, when one cannot be read or the two do not
// belong together.
SslCtxPtr LoadTlsContext(const std::string& cert_path, const std::string& key_path);

}  // namespace quenor::collector

#endif  // COLLECTOR_HTTP_TLS_H_
