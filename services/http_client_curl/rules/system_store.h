// Where systems keep the certificates that they trust, for when libcurl's own place holds none: a
// library that was built on one system and runs on another. Internal to the HTTP client. Any
// thread.
#ifndef SERVICES_HTTP_CLIENT_CURL_RULES_SYSTEM_STORE_H_
#define SERVICES_HTTP_CLIENT_CURL_RULES_SYSTEM_STORE_H_

#include <string>

#include "quenor_base/platform/base/abi.h"

QUENOR_NAMESPACE_BEGIN
namespace http_system_store {

// One of both, or, where nothing was found, neither.
struct Store {
  std::string bundle;  // Path of a PEM file.
  std::string pem;     // All certificates of a folder of files.

  bool is_found() const { return !bundle.empty() || !pem.empty(); }
};

// Whether the file can be read and is not empty.
bool IsBundle(const std::string& path);

// Whether files in it are named as OpenSSL looks for them.
bool IsHashedFolder(const std::string& path);

// The first place below `root` that holds some; `root` is empty but in tests. Reads no more than
// 8 MiB.
Store Find(const std::string& root);

}  // namespace http_system_store
QUENOR_NAMESPACE_END

#endif  // SERVICES_HTTP_CLIENT_CURL_RULES_SYSTEM_STORE_H_
