// A TLS client that sends exactly the bytes it is given and tells how the connection ended.
#ifndef TESTS_COLLECTOR_SUPPORT_RAW_TLS_H_
#define TESTS_COLLECTOR_SUPPORT_RAW_TLS_H_

#include <openssl/ssl.h>

#include <string>

#include "collector/http/tls.h"
#include "tests/collector/support/raw_http.h"

namespace quenor::collector::test {

class RawTlsClient {
 public:
  enum class End { kOpen, kFarewell, kCut, kReset, kAlert };

  // Connects to 127.0.0.1 and shakes hands; `version` as TLS1_3_VERSION. Verifies nothing.
  explicit RawTlsClient(int port, int version = TLS1_3_VERSION);

  // False: the server has refused the handshake; end() and alert() say how.
  bool is_up() const { return end_ == End::kOpen; }
  void Send(const std::string& bytes);
  std::string ReadAll();

  End end() const { return end_; }
  int alert() const { return alert_; }  // The number of the fatal alert received; 0: none.

 private:
  void Ended(int code);

  RawClient tcp_;
  SslCtxPtr context_;
  SslPtr ssl_;
  End end_ = End::kOpen;
  int alert_ = 0;
};

}  // namespace quenor::collector::test

#endif  // TESTS_COLLECTOR_SUPPORT_RAW_TLS_H_
