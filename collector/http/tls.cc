#include "collector/http/tls.h"

#include <fcntl.h>
#include <openssl/err.h>
#include <unistd.h>

#include <cerrno>

#include "collector/fatal.h"
#include "collector/files.h"

namespace quenor::collector {
namespace {

// The oldest entry of OpenSSL's queue, which is the cause; later ones only say who passed it on.
std::string OpenSslCause() {
  const unsigned long code = ERR_peek_error();
  if (code == 0) return "unknown error";
  const char* reason = ERR_reason_error_string(code);
  return reason != nullptr ? reason : "error " + std::to_string(code);
}

// OpenSSL reports a missing file as "system lib"; the system's own words are better.
void RequireReadable(const std::string& path, const char* what, const char* option) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    throw Fatal(kExitNoInput, std::string("cannot read ") + what + " " + path + ": " +
                                  ErrnoText(errno) + "; give " + option + " a readable PEM file");
  }
  ::close(fd);
}

// Without this OpenSSL would ask for the passphrase on the terminal.
int NoPassphrase(char* /*buffer*/, int /*size*/, int /*writing*/, void* /*unused*/) { return -1; }

int SelectHttp11(SSL* /*ssl*/, const unsigned char** chosen, unsigned char* chosen_bytes,
                 const unsigned char* offered, unsigned int offered_bytes, void* /*unused*/) {
  static constexpr unsigned char kSpoken[] = "\x08http/1.1";
  unsigned char* match = nullptr;
  const int outcome = SSL_select_next_proto(&match, chosen_bytes, kSpoken, sizeof(kSpoken) - 1,
                                            offered, offered_bytes);
  *chosen = match;
  return outcome == OPENSSL_NPN_NEGOTIATED ? SSL_TLSEXT_ERR_OK : SSL_TLSEXT_ERR_NOACK;
}

int RefuseIfTold(SSL* ssl, int* alert, void* /*unused*/) {
  const int* const refusal = static_cast<const int*>(SSL_get_app_data(ssl));
  if (refusal == nullptr) return SSL_CLIENT_HELLO_SUCCESS;
  *alert = *refusal;
  return SSL_CLIENT_HELLO_ERROR;
}

}  // namespace

SslCtxPtr LoadTlsContext(const std::string& cert_path, const std::string& key_path) {
  RequireReadable(cert_path, "certificate", "--cert");
  RequireReadable(key_path, "private key", "--key");
  SslCtxPtr context(SSL_CTX_new(TLS_server_method()));
  if (!context || SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION) != 1) {
    throw Fatal(kExitInternal,
                "cannot set up TLS: " + OpenSslCause() + "; check the OpenSSL installation");
  }
  SSL_CTX_set_options(context.get(), SSL_OP_NO_RENEGOTIATION | SSL_OP_IGNORE_UNEXPECTED_EOF);
  SSL_CTX_set_mode(context.get(),
                   SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  SSL_CTX_set_default_passwd_cb(context.get(), NoPassphrase);
  SSL_CTX_set_alpn_select_cb(context.get(), SelectHttp11, nullptr);
  SSL_CTX_set_client_hello_cb(context.get(), RefuseIfTold, nullptr);

  if (SSL_CTX_use_certificate_chain_file(context.get(), cert_path.c_str()) != 1) {
    throw Fatal(kExitNoInput, "cannot use certificate " + cert_path +
                                  ": no PEM certificate in it that can be read (" + OpenSslCause() +
                                  ")" + "; give --cert a PEM certificate");
  }
  const bool is_key =
      SSL_CTX_use_PrivateKey_file(context.get(), key_path.c_str(), SSL_FILETYPE_PEM) == 1;
  // Loading a key compares it with a certificate of its own type only.
  if (is_key ? SSL_CTX_check_private_key(context.get()) != 1
             : ERR_GET_REASON(ERR_peek_last_error()) == X509_R_KEY_VALUES_MISMATCH) {
    throw Fatal(kExitNoInput, "private key " + key_path + " does not belong to certificate " +
                                  cert_path + "; give --cert and --key of the same pair");
  }
  if (!is_key) {
    throw Fatal(kExitNoInput, "cannot use private key " + key_path +
                                  ": no PEM key in it that can be read (" + OpenSslCause() + ")" +
                                  "; give --key a PEM private key without a passphrase");
  }
  return context;
}

}  // namespace quenor::collector
