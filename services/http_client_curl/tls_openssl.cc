#include "services/http_client_curl/tls_openssl.h"

#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <algorithm>
#include <memory>

QUENOR_NAMESPACE_BEGIN
namespace http_tls {
namespace {

// 112 bits in ciphers, keys and signatures, and no cipher without encryption or authentication.
constexpr int kSecurityLevel = 2;

using Bio = std::unique_ptr<BIO, int (*)(BIO*)>;

Bio Open(const std::string& text) {
  return Bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())), &BIO_free);
}

int NoPassword(char*, int, int, void*) { return 0; }

}  // namespace

bool IsPair(const ClientIdentity& identity) {
  // As when libcurl starts: nothing of OpenSSL's is taken away at exit under a thread that uses it.
  OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
  ERR_set_mark();  // The thread is the host's, and so are the errors that it has noted.
  const Bio certificate_text = Open(identity.certificate);
  const Bio key_text = Open(identity.key);
  const std::unique_ptr<X509, void (*)(X509*)> certificate(
      PEM_read_bio_X509(certificate_text.get(), nullptr, &NoPassword, nullptr), &X509_free);
  const std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> key(
      PEM_read_bio_PrivateKey(key_text.get(), nullptr, &NoPassword, nullptr), &EVP_PKEY_free);
  const bool is_pair = certificate != nullptr && key != nullptr &&
                       X509_check_private_key(certificate.get(), key.get()) == 1;
  ERR_pop_to_mark();
  return is_pair;
}

CURLcode Secure(CURL*, void* context, void*) {
  SSL_CTX* tls = static_cast<SSL_CTX*>(context);
  // A configuration may ask for more, not for less: with level 0 it could switch encryption off.
  SSL_CTX_set_security_level(tls, std::max(SSL_CTX_get_security_level(tls), kSecurityLevel));
  SSL_CTX_set_keylog_callback(tls, nullptr);  // libcurl's, where SSLKEYLOGFILE is set.
  return CURLE_OK;
}

}  // namespace http_tls
QUENOR_NAMESPACE_END
