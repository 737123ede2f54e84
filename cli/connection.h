// How a command reaches the server: the options that all commands which connect have in common, so
// that one finds out what another will meet. Page: docs/guide/quenor-report.md.
#ifndef CLI_CONNECTION_H_
#define CLI_CONNECTION_H_

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "cli/options/addresses.h"
#include "quenor_base/platform/http_client.h"

namespace quenor::cli {

struct Connection {
  std::string ca_file;            // Both empty: the system's certificates.
  std::string ca_folder;          // Prepared by `openssl rehash`.
  std::vector<std::string> pins;  // "sha256//BASE64"; empty: any key that is certified.
  std::string client_certificate_file;
  std::string client_key_file;  // Empty: the key is in the certificate's file.
  bool http1 = false;
  std::string key_passphrase;  // Empty: the key is not encrypted.
  std::map<std::string, std::string> headers;
  std::optional<ProxyAddress> proxy;
  std::vector<std::string> no_proxy;    // What is reached without `proxy`.
  bool proxy_from_environment = false;  // Not together with `proxy`.
  std::vector<std::string> connect_to;
};

// What a client of these is made with.
HttpClient::Config ClientConfig(const Connection& connection);

// The main thread, before the process's first request. Makes these the process's settings. Throws
// Fatal with kExitUsage when one cannot be used; none is changed then.
void ApplyConnection(const Connection& connection);

}  // namespace quenor::cli

#endif  // CLI_CONNECTION_H_
