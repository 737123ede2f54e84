#include "services/http_client_curl/rules/settings_check.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "services/http_client_curl/rules/connect_to.h"
#include "services/http_client_curl/rules/proxy.h"
#include "services/http_client_curl/rules/syntax.h"

QUENOR_NAMESPACE_BEGIN
namespace http_settings_check {
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

struct PemBlocks {
  int whole = 0;
  bool is_any_bad = false;        // Malformed, or cut off.
  bool is_any_encrypted = false;  // Which says nothing about its bytes.
};

// Those in a PEM text whose label ends in `label`.
PemBlocks FindPemBlocks(const std::string& text, const std::string& label) {
  PemBlocks blocks;
  size_t at = 0;
  while ((at = text.find("-----BEGIN ", at)) != std::string::npos) {
    const size_t name = at + std::strlen("-----BEGIN ");
    const size_t name_end = text.find("-----", name);
    if (name_end == std::string::npos) {
      blocks.is_any_bad = true;
      break;
    }
    const std::string found = text.substr(name, name_end - name);
    const size_t content = name_end + 5;
    const size_t end = text.find("-----END " + found + "-----", content);
    at = content;
    const bool wanted = found.size() >= label.size() &&
                        found.compare(found.size() - label.size(), label.size(), label) == 0;
    if (!wanted) continue;
    std::string base64 = end == std::string::npos ? "" : text.substr(content, end - content);
    if (found.find("ENCRYPTED") == 0 || base64.find("Proc-Type: 4,ENCRYPTED") < 3) {
      blocks.is_any_encrypted = true;
      continue;
    }
    base64.erase(std::remove_if(base64.begin(), base64.end(),
                                [](char c) { return c == '\n' || c == '\r' || c == ' '; }),
                 base64.end());
    std::string der;
    const bool is_good =
        DecodeBase64(base64, &der) && (found.find("TRUSTED") == 0 || IsDerSequence(der));
    if (is_good) {
      ++blocks.whole;
    } else {
      blocks.is_any_bad = true;
    }
  }
  return blocks;
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

// What the host gave as a file or as a text.
struct Pem {
  const char* file_field;
  const std::string& file;
  const char* text_field;
  const std::string& text;

  bool is_given() const { return !file.empty() || !text.empty(); }
  std::string Name() const {
    return text.empty() ? std::string(file_field) + " '" + file + "'" : std::string(text_field);
  }
};

// Empty when it is there; `*blocks` are those with the label.
std::string ReadProblem(const Pem& pem, const std::string& label, std::string* text,
                        PemBlocks* blocks) {
  if (!pem.file.empty() && !pem.text.empty()) {
    return std::string(pem.file_field) + " and " + pem.text_field + " are both set; give one";
  }
  *text = pem.text;
  const std::string reason = pem.file.empty() ? std::string() : ReadPem(pem.file, text);
  if (!reason.empty()) {
    return pem.Name() + " cannot be read: " + reason +
           "; give a PEM file that this process may read";
  }
  *blocks = FindPemBlocks(*text, label);
  return std::string();
}

// Reads and checks what is to hold certificates; nothing is fine.
std::string CertificateProblem(const Pem& pem, std::string* text) {
  if (!pem.is_given()) return std::string();
  PemBlocks blocks;
  std::string problem = ReadProblem(pem, "CERTIFICATE", text, &blocks);
  if (!problem.empty() || (blocks.whole > 0 && !blocks.is_any_bad)) return problem;
  return pem.Name() + (blocks.is_any_bad ? " holds a malformed" : " holds no") +
         " CERTIFICATE block; give PEM with one";
}

std::string KeyProblem(const Pem& pem, const HttpSettings& settings, const KeyCalls& keys,
                       std::string* text) {
  PemBlocks blocks;
  std::string problem = ReadProblem(pem, "PRIVATE KEY", text, &blocks);
  if (!problem.empty()) return problem;
  if (blocks.is_any_encrypted && settings.key_passphrase != nullptr) {
    if (keys.decrypt(text, settings.key_passphrase())) return std::string();
    return pem.Name() + " holds a key that key_passphrase does not open; give its passphrase";
  }
  if (blocks.is_any_encrypted) {
    return pem.Name() + " holds an encrypted PRIVATE KEY; set key_passphrase";
  }
  if (blocks.whole > 0 && !blocks.is_any_bad) return std::string();
  return pem.Name() + (blocks.is_any_bad ? " holds a malformed" : " holds no") +
         " PRIVATE KEY block; give PEM with one";
}

std::string FolderProblem(const std::string& path) {
  if (path.empty()) return std::string();
  struct stat status;
  int error = stat(path.c_str(), &status) != 0 ? errno : 0;
  if (error == 0 && !S_ISDIR(status.st_mode)) error = ENOTDIR;
  if (error == 0 && access(path.c_str(), R_OK | X_OK) != 0) error = errno;
  if (error == 0) return std::string();
  return "ca_folder '" + path + "' cannot be used: " + std::strerror(error) +
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
  return "pinned_public_keys: '" + pin +
         "' is no pin; give sha256// and the base64 of the key's 32-byte SHA-256";
}

std::string IdentityProblem(const HttpSettings& settings, const KeyCalls& keys,
                            ClientIdentity* identity) {
  const Pem certificate{"client_certificate_file", settings.client_certificate_file,
                        "client_certificate_pem", settings.client_certificate_pem};
  const Pem apart{"client_key_file", settings.client_key_file, "client_key_pem",
                  settings.client_key_pem};
  if (!certificate.is_given()) {
    return !apart.is_given() ? std::string()
                             : apart.Name() +
                                   " has no certificate; set client_certificate_file or "
                                   "client_certificate_pem, too";
  }
  std::string problem = CertificateProblem(certificate, &identity->certificate);
  if (!problem.empty()) return problem;
  const Pem& key = apart.is_given() ? apart : certificate;
  problem = KeyProblem(key, settings, keys, &identity->key);
  if (!problem.empty() || keys.is_pair(*identity)) return problem;
  return "the key in " + key.Name() + " is not that of the certificate in " + certificate.Name() +
         "; give the key that the certificate was made for";
}

}  // namespace

HttpSettings InForce(HttpSettings settings) {
  const HttpSettings fresh;
  const auto fill = [](uint32_t* value, uint32_t otherwise) {
    if (*value == 0) *value = otherwise;
  };
  fill(&settings.connect_timeout_ms, fresh.connect_timeout_ms);
  fill(&settings.total_timeout_ms, fresh.total_timeout_ms);
  fill(&settings.low_speed_bytes_per_second, fresh.low_speed_bytes_per_second);
  fill(&settings.low_speed_seconds, fresh.low_speed_seconds);
  fill(&settings.max_response_body_bytes, fresh.max_response_body_bytes);
  fill(&settings.max_response_header_bytes, fresh.max_response_header_bytes);
  fill(&settings.max_connections_per_host, fresh.max_connections_per_host);
  if (settings.user_agent.empty()) settings.user_agent = "quenor/" QUENOR_VERSION;
  return settings;
}

std::string Problem(const HttpSettings& settings, const KeyCalls& keys, ClientIdentity* identity) {
  std::string authorities;
  std::string problem =
      CertificateProblem({"ca_file", settings.ca_file, "ca_pem", settings.ca_pem}, &authorities);
  if (problem.empty()) problem = FolderProblem(settings.ca_folder);
  if (problem.empty()) problem = http_proxy::Problem(settings.proxy);
  if (problem.empty()) {
    problem = CertificateProblem({"proxy.ca_file", settings.proxy.ca_file, "", ""}, &authorities);
  }
  for (const std::string& pin : settings.pinned_public_keys) {
    if (problem.empty()) problem = PinProblem(pin);
  }
  for (const std::string& entry : settings.connect_to) {
    std::string text;
    if (problem.empty()) problem = http_names::ConnectTo(entry, &text);
  }
  if (problem.empty()) problem = IdentityProblem(settings, keys, identity);
  if (problem.empty() && !http_syntax::IsFieldValue(settings.user_agent)) {
    problem = "user_agent holds a control character; take it out";
  }
  if (problem.empty()) problem = http_syntax::HeadersProblem(settings.headers);
  if (problem.empty() && settings.max_response_header_bytes > kMaxHeaderLimit) {
    problem = "max_response_header_bytes is " + std::to_string(settings.max_response_header_bytes) +
              "; give at most " + std::to_string(kMaxHeaderLimit);
  }
  return problem;
}

}  // namespace http_settings_check
QUENOR_NAMESPACE_END
