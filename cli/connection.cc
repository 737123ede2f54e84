#include "cli/connection.h"

#include "cli/advice.h"
#include "cli/fatal.h"
#include "cli/text.h"
#include "quenor_base/platform/socks5_proxy_config.h"

namespace quenor::cli {
namespace {

// The process's SOCKS5 proxy knows no exceptions.
bool IsProcesses(const Connection& connection) {
  return connection.proxy && connection.proxy->is_socks5() && connection.no_proxy.empty();
}

}  // namespace

HttpClient::Config ClientConfig(const Connection& connection) {
  HttpClient::Config config;
  config.enable_http2 = !connection.http1;
  if (IsProcesses(connection)) {
    const ProxyAddress& proxy = *connection.proxy;
    config.SetSocks5Proxy(proxy.host, proxy.port, proxy.user, proxy.password);
  }
  return config;
}

void ApplyConnection(const Connection& connection) {
  HttpDefaults defaults = GetHttpDefaults();
  defaults.ca_file = connection.ca_file;
  defaults.ca_folder = connection.ca_folder;
  defaults.pinned_public_keys = connection.pins;
  defaults.client_certificate_file = connection.client_certificate_file;
  defaults.client_key_file = connection.client_key_file;
  if (!connection.key_passphrase.empty()) {
    defaults.key_passphrase = [passphrase = connection.key_passphrase] { return passphrase; };
  }
  defaults.headers = connection.headers;
  defaults.proxy = HttpProxy();
  if (connection.proxy && !IsProcesses(connection)) {
    const ProxyAddress& proxy = *connection.proxy;
    defaults.proxy = {proxy.Url(), proxy.user, proxy.password, "", connection.no_proxy};
  }
  defaults.proxy_from_environment = connection.proxy_from_environment;
  defaults.connect_to = connection.connect_to;
  const std::string reason = SetHttpDefaults(defaults);
  if (!reason.empty()) throw Fatal(kExitUsage, Printable(InOptions(reason)));
  if (!IsProcesses(connection)) return;
  Socks5ProxyConfigHolder::Socks5ProxyConfig proxy;
  proxy.host = connection.proxy->host;
  proxy.port = connection.proxy->port;
  proxy.user = connection.proxy->user;
  proxy.password = connection.proxy->password;
  proxy.enabled = true;
  GetSocks5ProxyConfigHolder()->SetConfig(proxy);
}

}  // namespace quenor::cli
