#include "services/http_client_curl/tls_openssl.h"

#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <algorithm>
#include <atomic>
#include <cstring>
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

using Key = std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)>;

// Never asks the terminal. `passphrase` may be null.
int GivePassphrase(char* to, int capacity, int, void* passphrase) {
  if (passphrase == nullptr) return 0;
  const auto& text = *static_cast<const std::string*>(passphrase);
  if (text.size() > static_cast<size_t>(capacity)) return 0;
  std::memcpy(to, text.data(), text.size());
  return static_cast<int>(text.size());
}

Key ReadKey(const std::string& pem, const std::string* passphrase) {
  const Bio text = Open(pem);
  return Key(PEM_read_bio_PrivateKey(text.get(), nullptr, &GivePassphrase,
                                     const_cast<std::string*>(passphrase)),
             &EVP_PKEY_free);
}

using TakeSession = int (*)(SSL*, SSL_SESSION*);
std::atomic<TakeSession> libcurl_takes{nullptr};  // relaxed: a function, always the same.

// OpenSSL never resumes a session again with which a connection has ended without a goodbye, as
// libcurl ends those over HTTP/2. So what libcurl keeps is a copy of each new session, and each
// connection begins with a copy of what libcurl has kept.
int GiveCopy(SSL* tls, SSL_SESSION* session) {
  SSL_SESSION* const copy = SSL_SESSION_dup(session);
  const TakeSession take = libcurl_takes.load(std::memory_order_relaxed);
  if (copy != nullptr && take(tls, copy) == 0) SSL_SESSION_free(copy);
  return 0;  // The session itself is not kept.
}

void BeginWithCopy(const SSL* tls, int where, int) {
  SSL_SESSION* const kept = SSL_get_session(tls);
  if (where != SSL_CB_HANDSHAKE_START || kept == nullptr || SSL_is_init_finished(tls)) return;
  SSL_SESSION* const copy = SSL_SESSION_dup(kept);
  if (copy == nullptr) return;
  SSL_set_session(const_cast<SSL*>(tls), copy);
  SSL_SESSION_free(copy);
}

void KeepSessions(SSL_CTX* tls) {
  const TakeSession take = SSL_CTX_sess_get_new_cb(tls);
  if (take == nullptr) return;
  libcurl_takes.store(take, std::memory_order_relaxed);
  SSL_CTX_sess_set_new_cb(tls, &GiveCopy);
  SSL_CTX_set_info_callback(tls, &BeginWithCopy);
}

// For as long as it lives the host's thread may use OpenSSL as the host does, and then finds the
// errors that it had noted.
class OnHostsThread {
 public:
  OnHostsThread() {
    // As when libcurl starts: nothing of OpenSSL's is taken away at exit under a thread that uses
    // it.
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
    ERR_set_mark();
  }
  ~OnHostsThread() { ERR_pop_to_mark(); }
  OnHostsThread(const OnHostsThread&) = delete;
  OnHostsThread& operator=(const OnHostsThread&) = delete;
};

}  // namespace

bool IsPair(const ClientIdentity& identity) {
  const OnHostsThread here;
  const Bio certificate_text = Open(identity.certificate);
  const std::unique_ptr<X509, void (*)(X509*)> certificate(
      PEM_read_bio_X509(certificate_text.get(), nullptr, &GivePassphrase, nullptr), &X509_free);
  const Key key = ReadKey(identity.key, nullptr);
  return certificate != nullptr && key != nullptr &&
         X509_check_private_key(certificate.get(), key.get()) == 1;
}

bool Decrypt(std::string* key, const std::string& passphrase) {
  const OnHostsThread here;
  const Key opened = ReadKey(*key, &passphrase);
  const Bio plain(BIO_new(BIO_s_mem()), &BIO_free);
  if (opened == nullptr || plain == nullptr ||
      PEM_write_bio_PrivateKey(plain.get(), opened.get(), nullptr, nullptr, 0, nullptr, nullptr) !=
          1) {
    return false;
  }
  char* bytes = nullptr;
  const long size = BIO_get_mem_data(plain.get(), &bytes);
  key->assign(bytes, static_cast<size_t>(size));
  return true;
}

CURLcode Secure(CURL*, void* context, void*) {
  SSL_CTX* tls = static_cast<SSL_CTX*>(context);
  KeepSessions(tls);
  // A configuration may ask for more, not for less: with level 0 it could switch encryption off.
  SSL_CTX_set_security_level(tls, std::max(SSL_CTX_get_security_level(tls), kSecurityLevel));
  SSL_CTX_set_keylog_callback(tls, nullptr);  // libcurl's, where SSLKEYLOGFILE is set.
  return CURLE_OK;
}

}  // namespace http_tls
QUENOR_NAMESPACE_END
