#include "collector/reports/digest.h"

#include <openssl/evp.h>

#include <stdexcept>

namespace quenor::collector {

std::string Sha256Hex(std::string_view bytes) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int digest_bytes = 0;
  if (EVP_Digest(bytes.data(), bytes.size(), digest, &digest_bytes, EVP_sha256(), nullptr) != 1) {
    throw std::runtime_error("sha256: OpenSSL cannot compute the digest");
  }
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(digest_bytes * 2);
  for (unsigned int i = 0; i < digest_bytes; ++i) {
    hex.push_back(kDigits[digest[i] >> 4]);
    hex.push_back(kDigits[digest[i] & 15]);
  }
  return hex;
}

}  // namespace quenor::collector
