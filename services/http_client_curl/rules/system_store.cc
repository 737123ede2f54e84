#include "services/http_client_curl/rules/system_store.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

QUENOR_NAMESPACE_BEGIN
namespace http_system_store {
namespace {

constexpr size_t kMaxFileBytes = 64 << 10;  // One certificate and what is written about it.
constexpr size_t kMaxFolderBytes = 8 << 20;

constexpr const char* kBundles[] = {
    "/etc/ssl/certs/ca-certificates.crt",                 // Debian, Alpine
    "/etc/pki/tls/certs/ca-bundle.crt",                   // Fedora
    "/etc/pki/ca-trust/extracted/pem/tls-ca-bundle.pem",  // Fedora
    "/etc/ssl/ca-bundle.pem",                             // SUSE
    "/etc/ssl/cert.pem",                                  // Alpine, BSD
    "/usr/local/share/certs/ca-root-nss.crt",             // BSD
};

// Of single files, named after hashes of another kind than those that OpenSSL looks for.
constexpr const char* kFolders[] = {
    "/apex/com.android.conscrypt/cacerts",  // Android 14
    "/system/etc/security/cacerts",         // Android
};

// Empty, too, when it cannot be read or is larger than one is.
std::string ReadSmallFile(const std::string& path) {
  std::string text;
  // Not to wait for whoever writes into a pipe of that name.
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return text;
  struct stat status;
  if (fstat(fd, &status) == 0 && S_ISREG(status.st_mode)) {
    char chunk[8192];
    ssize_t size;
    while ((size = read(fd, chunk, sizeof(chunk))) != 0) {
      if (size < 0 && errno == EINTR) continue;
      if (size > 0) text.append(chunk, static_cast<size_t>(size));
      if (size < 0 || text.size() > kMaxFileBytes) {
        text.clear();
        break;
      }
    }
  }
  close(fd);
  return text;
}

// The certificates in a text, without what stands between them.
std::string CertificatesOf(const std::string& text) {
  constexpr char kBegin[] = "-----BEGIN CERTIFICATE-----";
  constexpr char kEnd[] = "-----END CERTIFICATE-----";
  std::string found;
  size_t begin = 0;
  while ((begin = text.find(kBegin, begin)) != std::string::npos) {
    const size_t end = text.find(kEnd, begin);
    if (end == std::string::npos) break;
    found += text.substr(begin, end + sizeof(kEnd) - 1 - begin) + '\n';
    begin = end;
  }
  return found;
}

std::vector<std::string> NamesIn(const std::string& path) {
  std::vector<std::string> names;
  DIR* const folder = opendir(path.c_str());
  if (folder == nullptr) return names;
  while (const dirent* const entry = readdir(folder)) names.emplace_back(entry->d_name);
  closedir(folder);
  std::sort(names.begin(), names.end());
  return names;
}

std::string ReadFolder(const std::string& path) {
  std::string pem;
  for (const std::string& name : NamesIn(path)) {
    const std::string found = CertificatesOf(ReadSmallFile(path + '/' + name));
    if (pem.size() + found.size() <= kMaxFolderBytes) pem += found;
  }
  return pem;
}

}  // namespace

bool IsBundle(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0 &&
         access(path.c_str(), R_OK) == 0;
}

bool IsHashedFolder(const std::string& path) {
  const std::vector<std::string> names = NamesIn(path);
  return std::any_of(names.begin(), names.end(), [](const std::string& name) {
    return name.size() == 10 && name.compare(8, 2, ".0") == 0;  // 1a2b3c4d.0
  });
}

Store Find(const std::string& root) {
  Store store;
  for (const char* const place : kBundles) {
    store.bundle = root + place;
    if (IsBundle(store.bundle)) return store;
  }
  store.bundle.clear();
  for (const char* const place : kFolders) {
    store.pem = ReadFolder(root + place);
    if (!store.pem.empty()) return store;
  }
  return store;
}

}  // namespace http_system_store
QUENOR_NAMESPACE_END
