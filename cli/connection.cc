#include "cli/connection.h"

#include "cli/advice.h"
#include "cli/fatal.h"
#include "cli/text.h"
#include "quenor_base/platform/http_client.h"
#include "quenor_base/platform/socks5_proxy_config.h"

namespace quenor::cli {

void ApplyConnection(const Connection& connection) {
  HttpDefaults defaults = GetHttpDefaults();
  defaults.ca_file = connection.ca_file;
  defaults.ca_folder = connection.ca_folder;
  defaults.pinned_public_keys = connection.pins;
  defaults.client_certificate_file = connection.client_certificate_file;
  defaults.client_key_file = connection.client_key_file;
  const std::string reason = SetHttpDefaults(defaults);
  if (!reason.empty()) throw Fatal(kExitUsage, Printable(InOptions(reason)));
  if (!connection.socks5) return;
  Socks5ProxyConfigHolder::Socks5ProxyConfig proxy;
  proxy.host = connection.socks5->host;
  proxy.port = connection.socks5->port;
  proxy.user = connection.socks5->user;
  proxy.password = connection.socks5->password;
  proxy.enabled = true;
  GetSocks5ProxyConfigHolder()->SetConfig(proxy);
}

}  // namespace quenor::cli
