#include "tests/collector/support/test_cert.h"

#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <memory>
#include <stdexcept>

namespace quenor::collector::test {
namespace {

void Require(bool done, const char* what) {
  if (!done) throw std::runtime_error(std::string("test certificate: cannot ") + what);
}

void AddExtension(X509* cert, int nid, const char* value) {
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, nullptr, nid, value);
  Require(extension != nullptr && X509_add_ext(cert, extension, -1) == 1, value);
  X509_EXTENSION_free(extension);
}

}  // namespace

void MakeCertificate(const std::string& cert_path, const std::string& key_path) {
  const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(EVP_EC_gen("P-256"), EVP_PKEY_free);
  const std::unique_ptr<X509, decltype(&X509_free)> cert(X509_new(), X509_free);
  Require(key && cert, "make a key");
  X509_set_version(cert.get(), X509_VERSION_3);
  ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), 1);
  X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600);
  X509_gmtime_adj(X509_getm_notAfter(cert.get()), 24 * 3600);
  X509_NAME* const name = X509_get_subject_name(cert.get());
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>("localhost"), -1, -1, 0);
  X509_set_issuer_name(cert.get(), name);
  AddExtension(cert.get(), NID_subject_alt_name, "DNS:localhost,IP:127.0.0.1");
  AddExtension(cert.get(), NID_basic_constraints, "critical,CA:TRUE");
  Require(X509_set_pubkey(cert.get(), key.get()) == 1, "set the key");
  Require(X509_sign(cert.get(), key.get(), EVP_sha256()) > 0, "sign");

  using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;
  const File cert_file(std::fopen(cert_path.c_str(), "w"), std::fclose);
  Require(cert_file && PEM_write_X509(cert_file.get(), cert.get()) == 1, "write the certificate");
  const File key_file(std::fopen(key_path.c_str(), "w"), std::fclose);
  Require(key_file && PEM_write_PrivateKey(key_file.get(), key.get(), nullptr, nullptr, 0, nullptr,
                                           nullptr) == 1,
          "write the key");
}

}  // namespace quenor::collector::test
