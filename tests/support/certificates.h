// A throw-away certificate authority, made anew by each test that needs one: nothing that it signs
// is good for anything after the test. Threads: one. Ends the process when OpenSSL fails.
#ifndef QUENOR_TESTS_SUPPORT_CERTIFICATES_H_
#define QUENOR_TESTS_SUPPORT_CERTIFICATES_H_

#include <memory>
#include <string>

namespace quenor::test {

// Paths of a PEM certificate and its unencrypted key.
struct Certificate {
  std::string certificate_file;
  std::string key_file;
  std::string pin;  // "sha256//BASE64" of the public key.
};

class CertificateAuthority {
 public:
  // Writes its files into `folder`, under names that begin with `name`.
  CertificateAuthority(const std::string& folder, const std::string& name);
  ~CertificateAuthority();
  CertificateAuthority(const CertificateAuthority&) = delete;
  CertificateAuthority& operator=(const CertificateAuthority&) = delete;

  const std::string& ca_file() const { return ca_file_; }

  // A certificate for a server (or client) whose subject alternative names are `names`, in
  // OpenSSL's notation: "DNS:localhost,IP:127.0.0.1". Valid from and to these seconds from now.
  Certificate Issue(const std::string& file_name, const std::string& names,
                    long valid_from_seconds = -3600, long valid_to_seconds = 3600);

 private:
  struct Key;
  const std::string folder_;
  const std::string name_;
  std::string ca_file_;
  std::unique_ptr<Key> key_;
  long last_serial_ = 1;
};

}  // namespace quenor::test

#endif  // QUENOR_TESTS_SUPPORT_CERTIFICATES_H_
