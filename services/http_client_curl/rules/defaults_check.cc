#include "services/http_client_curl/rules/defaults_check.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "services/http_client_curl/rules/syntax.h"

QUENOR_NAMESPACE_BEGIN
namespace http_defaults {
namespace {

constexpr size_t kMaxPemBytes = 16 << 20;
constexpr uint32_t kMaxHeaderLimit = 256 << 10;  // libcurl itself gives up at 300 KiB.

// Standard base64 with its padding. False when `text` is anything else.
bool DecodeBase64(const std::string& text, std::string* bytes) {
  static const char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  bytes->clear();
  if (text.empty() || text.size() % 4 != 0) return false;
  size_t padding = 0;
  while (padding < 2 && text[text.size() - 1 - padding] == '=') ++padding;
  uint32_t bits = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    uint32_t value = 0;
    if (i < text.size() - padding) {
      const char* found = text[i] == '\0' ? nullptr : std::strchr(kAlphabet, text[i]);
      if (found == nullptr) return false;
      value = static_cast<uint32_t>(found - kAlphabet);
    }
    bits = (bits << 6) | value;
    if (i % 4 != 3) continue;
    for (int shift = 16; shift >= 0; shift -= 8) bytes->push_back(static_cast<char>(bits >> shift));
  }
  bytes->resize(bytes->size() - padding);
  return true;
}

// One DER SEQUENCE and nothing after it: what every certificate and private key is.
bool IsDerSequence(const std::string& bytes) {
  if (bytes.size() < 2 || static_cast<uint8_t>(bytes[0]) != 0x30) return false;
  const uint8_t first = static_cast<uint8_t>(bytes[1]);
  if (first < 0x80) return bytes.size() == 2u + first;
  const size_t length_bytes = first & 0x7f;
  if (length_bytes == 0 || length_bytes > 4 || bytes.size() < 2 + length_bytes) return false;
  uint64_t length = 0;
  for (size_t i = 0; i < length_bytes; ++i) {
    length = (length << 8) | static_cast<uint8_t>(bytes[2 + i]);
  }
  return bytes.size() == 2 + length_bytes + length;
}

// Counts the blocks in a PEM text whose label ends in `label`. Answers -1 when one of them is
// malformed, encrypted or cut off.
int CountPemBlocks(const std::string& text, const std::string& label) {
  int count = 0;
  size_t at = 0;
  while ((at = text.find("-----BEGIN ", at)) != std::string::npos) {
    const size_t name = at + std::strlen("-----BEGIN ");
    const size_t name_end = text.find("-----", name);
    if (name_end == std::string::npos) return -1;
    const std::string found = text.substr(name, name_end - name);
    const size_t content = name_end + 5;
    const size_t end = text.find("-----END " + found + "-----", content);
    at = content;
    const bool wanted = found.size() >= label.size() &&
                        found.compare(found.size() - label.size(), label.size(), label) == 0;
    if (!wanted) continue;
    if (end == std::string::npos) return -1;
    std::string base64 = text.substr(content, end - content);
    base64.erase(std::remove_if(base64.begin(), base64.end(),
                                [](char c) { return c == '\n' || c == '\r' || c == ' '; }),
                 base64.end());
    std::string der;
    if (found.find("ENCRYPTED") == 0 || !DecodeBase64(base64, &der)) return -1;
    if (found.find("TRUSTED") != 0 && !IsDerSequence(der)) return -1;
    ++count;
  }
  return count;
}

// Reads a file that the host named. Answers why it cannot be read, or an empty string.
std::string ReadPem(const std::string& path, std::string* text) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::strerror(errno);
  std::string reason;
  char chunk[16384];
  ssize_t size;
  while ((size = read(fd, chunk, sizeof(chunk))) != 0) {
    if (size < 0 && errno == EINTR) continue;
    if (size < 0) {
      reason = std::strerror(errno);
      break;
    }
    text->append(chunk, static_cast<size_t>(size));
    if (text->size() > kMaxPemBytes) {
      reason = "it is larger than 16 MiB";
      break;
    }
  }
  close(fd);
  return reason;
}

// Reads and checks one PEM file that is to hold `label` blocks; an empty path is fine.
std::string PemProblem(const char* field, const std::string& path, const std::string& label,
                       std::string* pem) {
  if (path.empty()) return std::string();
  const std::string object = std::string("http defaults: ") + field + " '" + path + "' ";
  const std::string reason = ReadPem(path, pem);
  if (!reason.empty()) {
    return object + "cannot be read: " + reason + "; give a PEM file that this process may read";
  }
  const int blocks = CountPemBlocks(*pem, label);
  if (blocks > 0) return std::string();
  return object + (blocks < 0 ? "holds a malformed or encrypted " : "holds no ") + label +
         " block; give an unencrypted PEM file with one";
}

std::string FolderProblem(const std::string& path) {
  if (path.empty()) return std::string();
  struct stat status;
  int error = stat(path.c_str(), &status) != 0 ? errno : 0;
  if (error == 0 && !S_ISDIR(status.st_mode)) error = ENOTDIR;
  if (error == 0 && access(path.c_str(), R_OK | X_OK) != 0) error = errno;
  if (error == 0) return std::string();
  return "http defaults: ca_folder '" + path + "' cannot be used: " + std::strerror(error) +
         "; give a folder of CA certificates that `openssl rehash` has prepared";
}

std::string PinProblem(const std::string& pin) {
  constexpr char kPrefix[] = "sha256//";
  std::string bytes;
  const size_t prefix = sizeof(kPrefix) - 1;
  if (pin.compare(0, prefix, kPrefix) == 0 && DecodeBase64(pin.substr(prefix), &bytes) &&
      bytes.size() == 32) {
    return std::string();
  }
  return "http defaults: pinned_public_keys: '" + pin +
         "' is no pin; give sha256// and the base64 of the key's 32-byte SHA-256";
}

std::string IdentityProblem(const HttpDefaults& defaults, IsPair is_pair,
                            ClientIdentity* identity) {
  const std::string& certificate = defaults.client_certificate_file;
  const std::string& key = defaults.client_key_file;
  if (certificate.empty() && !key.empty()) {
    return "http defaults: client_key_file '" + key +
           "' has no certificate; set client_certificate_file too";
  }
  if (certificate.empty()) return std::string();
  std::string problem =
      PemProblem("client_certificate_file", certificate, "CERTIFICATE", &identity->certificate);
  if (!problem.empty()) return problem;
  const bool is_apart = !key.empty();
  problem = PemProblem(is_apart ? "client_key_file" : "client_certificate_file",
                       is_apart ? key : certificate, "PRIVATE KEY", &identity->key);
  if (!problem.empty() || is_pair(*identity)) return problem;
  return "http defaults: the key in '" + (is_apart ? key : certificate) +
         "' is not that of the certificate in '" + certificate +
         "'; give the key that the certificate was made for";
}

}  // namespace

HttpDefaults InForce(HttpDefaults defaults) {
  const HttpDefaults fresh;
  const auto fill = [](uint32_t* value, uint32_t otherwise) {
    if (*value == 0) *value = otherwise;
  };
  fill(&defaults.connect_timeout_ms, fresh.connect_timeout_ms);
  fill(&defaults.total_timeout_ms, fresh.total_timeout_ms);
  fill(&defaults.low_speed_bytes_per_second, fresh.low_speed_bytes_per_second);
  fill(&defaults.low_speed_seconds, fresh.low_speed_seconds);
  fill(&defaults.max_response_body_bytes, fresh.max_response_body_bytes);
  fill(&defaults.max_response_header_bytes, fresh.max_response_header_bytes);
  fill(&defaults.max_connections_per_host, fresh.max_connections_per_host);
  if (defaults.user_agent.empty()) defaults.user_agent = "quenor/" QUENOR_VERSION;
  return defaults;
}

std::string Problem(const HttpDefaults& defaults, IsPair is_pair, ClientIdentity* identity) {
  std::string authorities;
  std::string problem = PemProblem("ca_file", defaults.ca_file, "CERTIFICATE", &authorities);
  if (problem.empty()) problem = FolderProblem(defaults.ca_folder);
  for (const std::string& pin : defaults.pinned_public_keys) {
    if (problem.empty()) problem = PinProblem(pin);
  }
  if (problem.empty()) problem = IdentityProblem(defaults, is_pair, identity);
  if (problem.empty() && !http_syntax::IsFieldValue(defaults.user_agent)) {
    problem = "http defaults: user_agent holds a control character; take it out";
  }
  if (problem.empty() && defaults.max_response_header_bytes > kMaxHeaderLimit) {
    problem = "http defaults: max_response_header_bytes is " +
              std::to_string(defaults.max_response_header_bytes) + "; give at most " +
              std::to_string(kMaxHeaderLimit);
  }
  return problem;
}

}  // namespace http_defaults
QUENOR_NAMESPACE_END
