#include "cli/doctor/tls.h"

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <vector>

#include "cli/doctor/net.h"
#include "cli/fatal.h"
#include "cli/text.h"
#include "quenor_base/platform/base/monotonic_time.h"

namespace quenor::cli {
namespace {

constexpr int kFewDays = 14;

template <typename T, void (*Free)(T*)>
struct Freer {
  void operator()(T* object) const { Free(object); }
};
using X509Ptr = std::unique_ptr<X509, Freer<X509, X509_free>>;
using ContextPtr = std::unique_ptr<SSL_CTX, Freer<SSL_CTX, SSL_CTX_free>>;
using SslPtr = std::unique_ptr<SSL, Freer<SSL, SSL_free>>;
using BioPtr = std::unique_ptr<BIO, Freer<BIO, BIO_free_all>>;
using NamesPtr = std::unique_ptr<GENERAL_NAMES, Freer<GENERAL_NAMES, GENERAL_NAMES_free>>;

// What OpenSSL's callbacks saw.
struct Seen {
  std::vector<X509Ptr> chain;  // As the server sent it, its own certificate first.
  int verify_error = X509_V_OK;
  int verify_depth = 0;
  bool asked_for_certificate = false;
  bool got_ticket = false;  // In TLS 1.3: the server has taken all that it was shown.
};

Seen* SeenOf(const SSL* ssl) {
  return static_cast<Seen*>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(ssl)));
}

// ---- Texts --------------------------------------------------------------------------------------

std::string ErrorText(unsigned long code) {
  const char* const reason = ERR_reason_error_string(code);
  return reason != nullptr ? reason : "error " + std::to_string(ERR_GET_REASON(code));
}

std::string NameText(const X509_NAME* name) {
  const BioPtr bio(BIO_new(BIO_s_mem()));
  if (bio == nullptr || X509_NAME_print_ex(bio.get(), name, 0, XN_FLAG_RFC2253) < 0) return "";
  char* bytes = nullptr;
  const long size = BIO_get_mem_data(bio.get(), &bytes);
  return size > 0 ? std::string(bytes, static_cast<size_t>(size)) : "(empty)";
}

// Of a certificate anyone may have made: ASCII only.
std::string AsciiText(const ASN1_STRING* text) {
  std::string ascii;
  for (int i = 0; i < ASN1_STRING_length(text); ++i) {
    const unsigned char byte = ASN1_STRING_get0_data(text)[i];
    char escaped[8];
    std::snprintf(escaped, sizeof(escaped), byte < 0x20 || byte >= 0x7f ? "\\x%02x" : "%c", byte);
    ascii += escaped;
  }
  return ascii;
}

std::string AddressText(const ASN1_OCTET_STRING* address) {
  const int family = ASN1_STRING_length(address) == 4 ? AF_INET : AF_INET6;
  if (family == AF_INET6 && ASN1_STRING_length(address) != 16) return "malformed";
  char text[INET6_ADDRSTRLEN];
  return ::inet_ntop(family, ASN1_STRING_get0_data(address), text, sizeof(text));
}

NamesPtr AlternativeNames(const X509* certificate) {
  return NamesPtr(static_cast<GENERAL_NAMES*>(
      X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr)));
}

std::string AlternativeNamesText(const X509* certificate) {
  const NamesPtr names = AlternativeNames(certificate);
  std::string text;
  for (int i = 0; i < sk_GENERAL_NAME_num(names.get()); ++i) {
    const GENERAL_NAME* const name = sk_GENERAL_NAME_value(names.get(), i);
    if (!text.empty()) text += ", ";
    if (name->type == GEN_DNS) {
      text += AsciiText(name->d.dNSName);
    } else if (name->type == GEN_IPADD) {
      text += AddressText(name->d.iPAddress);
    } else {
      text += "(of another kind)";
    }
  }
  return text;
}

std::string TimeText(const std::tm& utc) {
  char text[64];
  return std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S UTC", &utc) > 0 ? text : "";
}

std::string TimeText(const ASN1_TIME* time) {
  std::tm utc{};
  return ASN1_TIME_to_tm(time, &utc) == 1 ? TimeText(utc) : "malformed";
}

std::string NowText() {
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  ::gmtime_r(&now, &utc);
  return TimeText(utc);
}

// How long from `from` (null: now) to `to`, whole days and what is left of one; both below 0 for
// the past.
struct Span {
  int days = 0;
  int seconds = 0;

  bool IsPast() const { return days < 0 || seconds < 0; }
  double InDays() const { return days + seconds / 86400.0; }
};

Span Between(const ASN1_TIME* from, const ASN1_TIME* to) {
  Span span;
  return ASN1_TIME_diff(&span.days, &span.seconds, from, to) == 1 ? span : Span();
}

std::string DaysText(const X509* certificate) {
  if (!Between(nullptr, X509_get0_notBefore(certificate)).IsPast()) return "not yet";
  const Span left = Between(nullptr, X509_get0_notAfter(certificate));
  const std::string days = left.days == 0
                               ? std::string("less than a day")
                               : CountOf(static_cast<uint64_t>(std::abs(left.days)), "day");
  return left.IsPast() ? "expired " + days + " ago" : days + " left";
}

// Short-lived certificates are renewed late; a third of their time is enough for them.
bool ExpiresSoon(const X509* certificate) {
  const ASN1_TIME* const until = X509_get0_notAfter(certificate);
  const double left_days = Between(nullptr, until).InDays();
  const double whole_days = Between(X509_get0_notBefore(certificate), until).InDays();
  return left_days < std::min<double>(kFewDays, whole_days / 3);
}

void AddCertificate(size_t number, const X509* certificate, Step* step) {
  const std::string prefix = "certificate " + std::to_string(number) + " ";
  step->Add(prefix + "subject", NameText(X509_get_subject_name(certificate)));
  step->Add(prefix + "issuer", NameText(X509_get_issuer_name(certificate)));
  const std::string names = AlternativeNamesText(certificate);
  if (number == 1) step->Add(prefix + "names", names.empty() ? "none" : names);
  const ASN1_TIME* const until = X509_get0_notAfter(certificate);
  step->Add(prefix + "valid", "from " + TimeText(X509_get0_notBefore(certificate)) + " to " +
                                  TimeText(until) + " (" + DaysText(certificate) + ")");
}

// ---- Setting up ---------------------------------------------------------------------------------

int OnVerify(X509_STORE_CTX* store, void* user) {
  auto* const seen = static_cast<Seen*>(user);
  STACK_OF(X509)* const sent = X509_STORE_CTX_get0_untrusted(store);
  for (int i = 0; i < sk_X509_num(sent); ++i) {
    X509* const certificate = sk_X509_value(sent, i);
    X509_up_ref(certificate);
    seen->chain.emplace_back(certificate);
  }
  const int verified = X509_verify_cert(store);
  seen->verify_error = X509_STORE_CTX_get_error(store);
  seen->verify_depth = X509_STORE_CTX_get_error_depth(store);
  return verified > 0 ? 1 : 0;
}

int OnCertificateRequest(SSL*, void* user) {
  static_cast<Seen*>(user)->asked_for_certificate = true;
  return 1;
}

int OnTicket(SSL* ssl, SSL_SESSION*) {
  SeenOf(ssl)->got_ticket = true;
  return 0;
}

// Without this OpenSSL would ask for the passphrase on the terminal.
int OnPassphrase(char* to, int size, int, void* given) {
  const auto& passphrase = *static_cast<const std::string*>(given);
  if (passphrase.empty() || passphrase.size() > static_cast<size_t>(size)) return -1;
  return static_cast<int>(passphrase.copy(to, passphrase.size()));
}

bool UseClientCertificate(SSL_CTX* context, const Connection& connection) {
  const std::string& certificate = connection.client_certificate_file;
  const std::string& key =
      connection.client_key_file.empty() ? certificate : connection.client_key_file;
  return certificate.empty() ||
         (SSL_CTX_use_certificate_chain_file(context, certificate.c_str()) == 1 &&
          SSL_CTX_use_PrivateKey_file(context, key.c_str(), SSL_FILETYPE_PEM) == 1 &&
          SSL_CTX_check_private_key(context) == 1);
}

// Null when a file cannot be used; the step says which.
ContextPtr MakeContext(const Connection& connection, const CaSource& ca, Seen* seen, Step* step) {
  ContextPtr context(SSL_CTX_new(TLS_client_method()));
  if (context == nullptr || SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION) != 1) {
    throw Fatal(kExitInternal, "cannot set up TLS: " + ErrorText(ERR_peek_error()) +
                                   "; check the OpenSSL installation");
  }
  SSL_CTX_set_default_passwd_cb(context.get(), &OnPassphrase);
  SSL_CTX_set_default_passwd_cb_userdata(context.get(),
                                         const_cast<std::string*>(&connection.key_passphrase));
  SSL_CTX_set_app_data(context.get(), seen);
  SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
  SSL_CTX_set_cert_verify_callback(context.get(), &OnVerify, seen);
  SSL_CTX_set_cert_cb(context.get(), &OnCertificateRequest, seen);
  SSL_CTX_set_session_cache_mode(context.get(), SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL);
  SSL_CTX_sess_set_new_cb(context.get(), &OnTicket);
  // As the HTTP client: whatever is in the CA file is trusted, an intermediate or a server's own
  // certificate too.
  X509_STORE_set_flags(SSL_CTX_get_cert_store(context.get()),
                       X509_V_FLAG_TRUSTED_FIRST | X509_V_FLAG_PARTIAL_CHAIN);
  if ((!ca.file.empty() && SSL_CTX_load_verify_file(context.get(), ca.file.c_str()) != 1) ||
      (!ca.folder.empty() && SSL_CTX_load_verify_dir(context.get(), ca.folder.c_str()) != 1)) {
    step->Fail("bad_ca", "cannot load the CA certificates: " + ErrorText(ERR_peek_error()),
               "replace the file of CA certificates by a sound one");
    return nullptr;
  }
  if (!UseClientCertificate(context.get(), connection)) {
    step->Fail("bad_client_cert",
               "cannot use the client certificate: " + ErrorText(ERR_peek_error()),
               "give --client-cert and --client-key a certificate and the key that belongs to it");
    return nullptr;
  }
  return context;
}

bool IsAddress(const std::string& host) {
  char ignored[sizeof(in6_addr)];
  return ::inet_pton(AF_INET, host.c_str(), ignored) == 1 ||
         ::inet_pton(AF_INET6, host.c_str(), ignored) == 1;
}

std::string WithoutLastDot(const std::string& host) {
  return !host.empty() && host.back() == '.' ? host.substr(0, host.size() - 1) : host;
}

SslPtr MakeSsl(SSL_CTX* context, int fd, const std::string& host, bool http1) {
  static constexpr unsigned char kBoth[] = "\2h2\10http/1.1";
  const unsigned char* const protocols = http1 ? kBoth + 3 : kBoth;
  const auto size = static_cast<unsigned int>(sizeof(kBoth) - 1 - (http1 ? 3 : 0));
  SslPtr ssl(SSL_new(context));
  if (ssl == nullptr || SSL_set_fd(ssl.get(), fd) != 1 ||
      SSL_set_alpn_protos(ssl.get(), protocols, size) != 0 ||
      (!IsAddress(host) && SSL_set_tlsext_host_name(ssl.get(), host.c_str()) != 1)) {
    throw Fatal(kExitInternal, "cannot set up TLS: " + ErrorText(ERR_peek_error()));
  }
  return ssl;
}

// ---- The handshake ------------------------------------------------------------------------------

enum class Outcome { kDone, kTimedOut, kFailed };

// Repeats `step`, which answers as SSL_connect() does, until it is done.
template <typename F>
Outcome Drive(SSL* ssl, const Deadline& deadline, F step) {
  for (;;) {
    ERR_clear_error();
    const int result = step();
    if (result == 1) return Outcome::kDone;
    const int error = SSL_get_error(ssl, result);
    if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE) return Outcome::kFailed;
    const short events = error == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT;
    if (!Await(SSL_get_fd(ssl), events, deadline)) return Outcome::kTimedOut;
  }
}

// In TLS 1.3 the client is done before the server has judged the client's certificate (or that
// there is none): what it sends next tells.
Outcome AwaitVerdict(SSL* ssl, const Seen& seen, const Deadline& deadline) {
  if (!seen.asked_for_certificate || SSL_version(ssl) < TLS1_3_VERSION) return Outcome::kDone;
  return Drive(ssl, deadline, [&] {
    char byte;
    const int result = SSL_peek(ssl, &byte, 1);
    return seen.got_ticket || result > 0 ? 1 : result;
  });
}

void AddHandshake(SSL* ssl, Step* step) {
  const SSL_CIPHER* cipher = SSL_get_current_cipher(ssl);
  if (cipher == nullptr) cipher = SSL_get_pending_cipher(ssl);
  const unsigned char* protocol = nullptr;
  unsigned int size = 0;
  SSL_get0_alpn_selected(ssl, &protocol, &size);
  const std::string chosen(reinterpret_cast<const char*>(protocol), size);
  step->Add("version", SSL_get_version(ssl));
  step->Add("cipher", cipher != nullptr ? SSL_CIPHER_get_name(cipher) : "none yet");
  step->Add("protocol", chosen.empty() ? "http/1.1 (the server chose none)" : chosen);
}

// ---- What to say --------------------------------------------------------------------------------

void FailUntrusted(const Seen& seen, Step* step) {
  const X509* const last = seen.chain.back().get();
  const bool lone =
      seen.chain.size() == 1 && seen.verify_error != X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN;
  step->Fail(
      "wrong_ca",
      std::string("the certificate leads to no trusted CA: ") +
          X509_verify_cert_error_string(seen.verify_error),
      "name the certificate of its CA (" + NameText(X509_get_issuer_name(last)) +
          ") with --cacert" +
          (lone ? ", or let the server send the intermediate certificates that are missing" : "") +
          "; if you do not know that CA, look for something that intercepts TLS");
}

void FailVerification(const Seen& seen, Step* step) {
  const std::string words = X509_verify_cert_error_string(seen.verify_error);
  const std::string whose =
      seen.verify_depth == 0 ? "the server's certificate" : "a CA certificate of the chain";
  switch (seen.verify_error) {
    case X509_V_ERR_CERT_NOT_YET_VALID:
      step->Add("this machine's clock", NowText());
      step->Fail("not_yet_valid", whose + " is not yet valid",
                 "set this machine's clock, if it is wrong; else the server needs a certificate "
                 "that is valid now");
      return;
    case X509_V_ERR_CERT_HAS_EXPIRED:
      step->Add("this machine's clock", NowText());
      step->Fail("expired", whose + " has expired",
                 "renew it, unless this machine's clock is wrong; then set the clock");
      return;
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
      step->Fail("self_signed", "the server's certificate is signed by itself",
                 "if it is the one that you expect, give it to --cacert; else look for something "
                 "that intercepts TLS");
      return;
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
      FailUntrusted(seen, step);
      return;
    case X509_V_ERR_EE_KEY_TOO_SMALL:
    case X509_V_ERR_CA_KEY_TOO_SMALL:
    case X509_V_ERR_CA_MD_TOO_WEAK:
      step->Fail("too_weak", whose + " is too weak: " + words,
                 "give the server a certificate with a longer key and SHA-256");
      return;
    default:
      step->Fail("bad_chain", whose + " was refused: " + words,
                 "correct the server's certificate chain");
  }
}

void FailClientCertificate(const Connection& connection, const std::string& words, Step* step) {
  if (connection.client_certificate_file.empty()) {
    step->Fail("client_cert_required", "the server wants a client certificate: " + words,
               "give --client-cert and --client-key");
  } else {
    step->Fail("client_cert_refused", "the server refused the client certificate: " + words,
               "give --client-cert one that is valid and that a CA of the server's has signed");
  }
}

// True when the reason is the server's alert about the client's certificate.
bool IsAboutClientCertificate(int reason) {
  switch (reason) {
    case SSL_R_TLSV13_ALERT_CERTIFICATE_REQUIRED:
    case SSL_R_SSLV3_ALERT_HANDSHAKE_FAILURE:
    case SSL_R_SSLV3_ALERT_BAD_CERTIFICATE:
    case SSL_R_SSLV3_ALERT_UNSUPPORTED_CERTIFICATE:
    case SSL_R_SSLV3_ALERT_CERTIFICATE_REVOKED:
    case SSL_R_SSLV3_ALERT_CERTIFICATE_EXPIRED:
    case SSL_R_SSLV3_ALERT_CERTIFICATE_UNKNOWN:
    case SSL_R_TLSV1_ALERT_UNKNOWN_CA:
    case SSL_R_TLSV1_ALERT_ACCESS_DENIED:
      return true;
    default:
      return false;
  }
}

void FailHandshake(const Connection& connection, const Seen& seen, Step* step) {
  const unsigned long code = ERR_peek_error();
  const int reason = ERR_GET_LIB(code) == ERR_LIB_SSL ? ERR_GET_REASON(code) : 0;
  const std::string words = ErrorText(code);
  if (seen.verify_error != X509_V_OK) {
    FailVerification(seen, step);
  } else if (seen.asked_for_certificate && IsAboutClientCertificate(reason)) {
    FailClientCertificate(connection, words, step);
  } else if (code == 0 || reason == SSL_R_UNEXPECTED_EOF_WHILE_READING) {
    step->Fail("closed", "the connection was closed within the handshake",
               "check that this port speaks TLS, and that no firewall or proxy between cuts TLS "
               "connections to this name; the server's log says more");
  } else if (reason == SSL_R_WRONG_VERSION_NUMBER || reason == SSL_R_HTTP_REQUEST ||
             reason == SSL_R_PACKET_LENGTH_TOO_LONG || reason == SSL_R_UNEXPECTED_MESSAGE) {
    step->Fail("not_tls", "what answers does not speak TLS: " + words,
               "give the port that speaks TLS; plain HTTP needs an http:// URL, and everyone "
               "between could read the reports");
  } else if (reason == SSL_R_UNSUPPORTED_PROTOCOL || reason == SSL_R_TLSV1_ALERT_PROTOCOL_VERSION) {
    step->Fail("tls_too_old", "the server speaks no TLS version from 1.2 on: " + words,
               "let the server speak TLS 1.2 or 1.3");
  } else if (reason == SSL_R_TLSV1_UNRECOGNIZED_NAME) {
    step->Fail("name_refused", "the server does not know the host name: " + words,
               "use a name that the server has a certificate for, or add this one to it");
  } else if (reason == SSL_R_SSLV3_ALERT_HANDSHAKE_FAILURE ||
             reason == SSL_R_TLSV1_ALERT_INSUFFICIENT_SECURITY) {
    step->Fail("no_common_cipher", "the server found nothing in common with us: " + words,
               "let the server allow the usual ciphers and curves of TLS 1.2 and 1.3");
  } else {
    step->Fail("tls_failed", "the handshake failed: " + words,
               "look into the server's log for this connection");
  }
}

void JudgePins(const Connection& connection, const std::string& pin, Step* step) {
  step->Add("pin", pin);
  if (connection.pins.empty()) {
    step->Add("pinned", "no keys are");
    return;
  }
  const bool matches = std::count(connection.pins.begin(), connection.pins.end(), pin) > 0;
  step->Add("pinned", matches ? "this key is" : "other keys are");
  if (matches || step->result == Step::Result::kFailed) return;
  step->Fail("pin_mismatch", "the server's public key is none of those pinned",
             "if its key was changed on purpose, add --pin " + pin +
                 "; else look for something that intercepts TLS");
}

void JudgeHost(X509* leaf, const std::string& host, Step* step) {
  const bool is_for = IsFor(leaf, host);
  step->Add("host name",
            "\"" + host + (is_for ? "\" is in the certificate" : "\" is not in the certificate"));
  if (is_for || step->result == Step::Result::kFailed) return;
  step->Fail("wrong_host", "the certificate is not for \"" + host + "\"",
             "use a name of the certificate in --url, or give the server a certificate for this "
             "name");
}

// Failures first, in the HTTP client's order; then what is only to be said.
void Judge(SSL* ssl, const std::string& host, const Connection& connection, const Seen& seen,
           Outcome verdict, Step* step) {
  X509* const leaf = seen.chain.front().get();
  AddHandshake(ssl, step);
  for (size_t i = 0; i < seen.chain.size(); ++i) AddCertificate(i + 1, seen.chain[i].get(), step);
  step->Add("verification", X509_verify_cert_error_string(seen.verify_error));
  JudgeHost(leaf, host, step);
  JudgePins(connection, PinOf(leaf), step);
  if (seen.asked_for_certificate) {
    const bool given = !connection.client_certificate_file.empty();
    step->Add("client certificate", std::string("the server asked for one; ") +
                                        (given ? "the one given was shown" : "none is given"));
    if (!given) {
      step->Warn("client_cert_asked",
                 "if the server answers 400 or 403 to reports, give "
                 "--client-cert and --client-key; --probe tells");
    } else if (verdict == Outcome::kTimedOut) {
      step->Warn("client_cert_asked",
                 "the server has not said what it thinks of the client "
                 "certificate; --probe tells");
    }
  }
  if (ExpiresSoon(leaf)) {
    step->Warn("expires_soon", "renew the server's certificate");
  }
}

}  // namespace

std::string PinOf(const X509* certificate) {
  unsigned char* der = nullptr;
  const int size = i2d_X509_PUBKEY(X509_get_X509_PUBKEY(certificate), &der);
  if (size <= 0) return "";
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int digest_size = 0;
  const bool digested =
      EVP_Digest(der, static_cast<size_t>(size), digest, &digest_size, EVP_sha256(), nullptr) == 1;
  OPENSSL_free(der);
  if (!digested) return "";
  unsigned char base64[2 * EVP_MAX_MD_SIZE];
  const int length = EVP_EncodeBlock(base64, digest, static_cast<int>(digest_size));
  return "sha256//" +
         std::string(reinterpret_cast<const char*>(base64), static_cast<size_t>(length));
}

bool IsFor(X509* certificate, const std::string& given_host) {
  const std::string host = WithoutLastDot(given_host);
  const NamesPtr names = AlternativeNames(certificate);
  bool has_names = false;
  for (int i = 0; i < sk_GENERAL_NAME_num(names.get()); ++i) {
    const int type = sk_GENERAL_NAME_value(names.get(), i)->type;
    has_names = has_names || type == GEN_DNS || type == GEN_IPADD;
  }
  if (has_names && IsAddress(host)) return X509_check_ip_asc(certificate, host.c_str(), 0) == 1;
  const unsigned int flags =
      X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS | (has_names ? X509_CHECK_FLAG_NEVER_CHECK_SUBJECT : 0);
  return X509_check_host(certificate, host.c_str(), host.size(), flags, nullptr) == 1;
}

Step CheckTls(int fd, const std::string& given_host, const Connection& connection,
              const CaSource& ca, uint32_t timeout_ms) {
  Step step("tls");
  Seen seen;
  const std::string host = WithoutLastDot(given_host);
  ERR_clear_error();
  const ContextPtr context = MakeContext(connection, ca, &seen, &step);
  if (context == nullptr) return step;
  const SslPtr ssl = MakeSsl(context.get(), fd, host, connection.http1);
  // Only now: to load the system's certificates takes longer than many a handshake.
  const auto begin = base::MonotonicNow();
  const Deadline deadline(timeout_ms);
  Outcome outcome = Drive(ssl.get(), deadline, [&] { return SSL_connect(ssl.get()); });
  const std::chrono::duration<double, std::milli> taken_ms = base::MonotonicNow() - begin;
  char handshake[32];
  std::snprintf(handshake, sizeof(handshake), "%.1f ms", taken_ms.count());
  step.Add("handshake", handshake);
  Outcome verdict = Outcome::kDone;
  if (outcome == Outcome::kDone) {
    step.summary = std::string(SSL_get_version(ssl.get())) + ", the server is who it should be";
    verdict = AwaitVerdict(ssl.get(), seen, deadline);
    if (verdict == Outcome::kFailed) outcome = verdict;
  }
  if (outcome == Outcome::kFailed) FailHandshake(connection, seen, &step);
  if (outcome == Outcome::kTimedOut) {
    step.Fail("timeout", "no answer in time within the handshake",
              "check that this port speaks TLS and that the server is not overloaded; a slow one "
              "needs a larger --timeout");
  }
  if (outcome == Outcome::kDone) SSL_shutdown(ssl.get());  // Says goodbye; waits for nothing.
  if (!seen.chain.empty()) Judge(ssl.get(), host, connection, seen, verdict, &step);
  ERR_clear_error();
  return step;
}

}  // namespace quenor::cli
