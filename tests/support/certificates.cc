#include "tests/support/certificates.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <vector>

#include "quenor_base/platform/base/check.h"

namespace quenor::test {

struct CertificateAuthority::Key {
  EVP_PKEY* key = nullptr;
  X509* certificate = nullptr;
  ~Key() {
    X509_free(certificate);
    EVP_PKEY_free(key);
  }
};

namespace {

EVP_PKEY* NewKey() {
  EVP_PKEY* key = EVP_EC_gen("P-256");
  QUENOR_CHECK(key != nullptr, "no EC key");
  return key;
}

X509* NewCertificate(EVP_PKEY* key, const std::string& common_name, long serial, long from_seconds,
                     long to_seconds) {
  X509* certificate = X509_new();
  X509_set_version(certificate, 2);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate), serial);
  X509_gmtime_adj(X509_getm_notBefore(certificate), from_seconds);
  X509_gmtime_adj(X509_getm_notAfter(certificate), to_seconds);
  X509_set_pubkey(certificate, key);
  X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>(common_name.c_str()), -1, -1,
                             0);
  return certificate;
}

void AddExtension(X509* certificate, X509* issuer, int nid, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str());
  QUENOR_CHECK(extension != nullptr, "a certificate's extension was refused");
  X509_add_ext(certificate, extension, -1);
  X509_EXTENSION_free(extension);
}

void WriteCertificate(const std::string& path, X509* certificate) {
  std::FILE* file = std::fopen(path.c_str(), "we");
  QUENOR_CHECK(file != nullptr && PEM_write_X509(file, certificate) == 1, "no certificate file");
  std::fclose(file);
}

void WriteKey(const std::string& path, EVP_PKEY* key) {
  std::FILE* file = std::fopen(path.c_str(), "we");
  QUENOR_CHECK(file != nullptr, "no key file");
  QUENOR_CHECK(PEM_write_PrivateKey(file, key, nullptr, nullptr, 0, nullptr, nullptr) == 1,
               "no key in its file");
  std::fclose(file);
}

std::string PinOf(EVP_PKEY* key) {
  unsigned char* der = nullptr;
  const int size = i2d_PUBKEY(key, &der);
  QUENOR_CHECK(size > 0, "no public key");
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int digest_size = 0;
  EVP_Digest(der, static_cast<size_t>(size), digest, &digest_size, EVP_sha256(), nullptr);
  OPENSSL_free(der);
  std::vector<unsigned char> text(64);
  EVP_EncodeBlock(text.data(), digest, static_cast<int>(digest_size));
  return std::string("sha256//") + reinterpret_cast<const char*>(text.data());
}

}  // namespace

CertificateAuthority::CertificateAuthority(const std::string& folder, const std::string& name)
    : folder_(folder), name_(name), ca_file_(folder + "/" + name + ".pem"), key_(new Key) {
  key_->key = NewKey();
  key_->certificate = NewCertificate(key_->key, name, 1, -7200, 7200);
  X509_set_issuer_name(key_->certificate, X509_get_subject_name(key_->certificate));
  AddExtension(key_->certificate, key_->certificate, NID_basic_constraints, "critical,CA:TRUE");
  AddExtension(key_->certificate, key_->certificate, NID_key_usage, "critical,keyCertSign");
  X509_sign(key_->certificate, key_->key, EVP_sha256());
  WriteCertificate(ca_file_, key_->certificate);
}

CertificateAuthority::~CertificateAuthority() = default;

Certificate CertificateAuthority::Issue(const std::string& file_name, const std::string& names,
                                        long valid_from_seconds, long valid_to_seconds) {
  Certificate paths;
  paths.certificate_file = folder_ + "/" + name_ + "-" + file_name + ".pem";
  paths.key_file = folder_ + "/" + name_ + "-" + file_name + ".key";
  EVP_PKEY* key = NewKey();
  X509* certificate =
      NewCertificate(key, file_name, ++last_serial_, valid_from_seconds, valid_to_seconds);
  X509_set_issuer_name(certificate, X509_get_subject_name(key_->certificate));
  AddExtension(certificate, key_->certificate, NID_subject_alt_name, names);
  X509_sign(certificate, key_->key, EVP_sha256());
  WriteCertificate(paths.certificate_file, certificate);
  WriteKey(paths.key_file, key);
  paths.pin = PinOf(key);
  X509_free(certificate);
  EVP_PKEY_free(key);
  return paths;
}

}  // namespace quenor::test
