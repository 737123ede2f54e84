#include "tests/collector/support/raw_tls.h"

#include <openssl/err.h>

#include <cerrno>
#include <stdexcept>

namespace quenor::collector::test {

RawTlsClient::RawTlsClient(int port, int version)
    : tcp_(port), context_(SSL_CTX_new(TLS_client_method())) {
  if (!context_) throw std::runtime_error("cannot set up TLS");
  SSL_CTX_set_min_proto_version(context_.get(), version);
  SSL_CTX_set_max_proto_version(context_.get(), version);
  ssl_.reset(SSL_new(context_.get()));
  if (!ssl_ || SSL_set_fd(ssl_.get(), tcp_.fd()) != 1)
    throw std::runtime_error("cannot set up TLS");
  SSL_set_app_data(ssl_.get(), &alert_);
  SSL_set_info_callback(ssl_.get(), [](const SSL* ssl, int where, int what) {
    const bool is_fatal = (what >> 8) == SSL3_AL_FATAL;
    if (where == SSL_CB_READ_ALERT && is_fatal)
      *static_cast<int*>(SSL_get_app_data(ssl)) = what & 255;
  });
  const int code = SSL_connect(ssl_.get());
  if (code != 1) Ended(code);
}

void RawTlsClient::Send(const std::string& bytes) {
  if (SSL_write(ssl_.get(), bytes.data(), static_cast<int>(bytes.size())) <= 0) {
    throw std::runtime_error("server does not take the request");
  }
}

std::string RawTlsClient::ReadAll() {
  std::string all;
  char step[4096];
  for (;;) {
    ERR_clear_error();
    errno = 0;
    const int got = SSL_read(ssl_.get(), step, sizeof(step));
    if (got <= 0) {
      Ended(got);
      return all;
    }
    all.append(step, static_cast<size_t>(got));
  }
}

void RawTlsClient::Ended(int code) {
  const int error = SSL_get_error(ssl_.get(), code);
  if (alert_ != 0) {
    end_ = End::kAlert;
  } else if (error == SSL_ERROR_ZERO_RETURN) {
    end_ = End::kFarewell;
  } else if (error == SSL_ERROR_SYSCALL && errno == ECONNRESET) {
    end_ = End::kReset;
  } else {
    end_ = End::kCut;
  }
  ERR_clear_error();
}

}  // namespace quenor::collector::test
