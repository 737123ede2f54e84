// What a host may set for the HTTP client beside the requests themselves: for the whole process,
// and for one origin (a scheme, a host and a port), where it holds instead. What is set is one set:
// of no request a part is sent by one and a part by another, and no connection, TLS session or
// answer of a name server is shared between two. A bad value is refused when it is set, and then
// nothing has changed.
#ifndef QUENOR_BASE_PLATFORM_HTTP_SETTINGS_H_
#define QUENOR_BASE_PLATFORM_HTTP_SETTINGS_H_

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "quenor_base/platform/base/abi.h"

QUENOR_NAMESPACE_BEGIN

// A proxy, which every connection goes through by CONNECT (or SOCKS5), whatever the URL's scheme:
// the proxy sees the server's name and port, and of http:// all. Never bypassed: what it does not
// let through fails. The process's SOCKS5 proxy wins where both are set.
struct HttpProxy {
  // "http://HOST:PORT"; "https://HOST:PORT", TLS up to the proxy; "socks5h://HOST:PORT". Without a
  // user, path or query. Empty: none.
  std::string url;
  std::string user;  // Basic or Digest, as the proxy asks for it. Empty: none.
  std::string password;
  std::string ca_file;  // Of an https:// proxy; empty: as for the server.
  // What is reached without it: a name, which stands for all that end in ".NAME", too; an address;
  // a network, as "10.0.0.0/8" or "fd00::/8"; "*", everything.
  std::vector<std::string> except;
};

struct HttpSettings {
  std::string ca_file;    // PEM bundle that replaces the system's; empty: the system's.
  std::string ca_folder;  // Hashed folder of CA certificates, likewise.
  // "sha256//BASE64" of accepted public keys (SubjectPublicKeyInfo), checked beside the
  // certificate; empty: no pinning. Give a spare, so that a key can be changed.
  std::vector<std::string> pinned_public_keys;
  // PEM; empty: none. Both are loaded when they are set, and must belong together.
  std::string client_certificate_file;
  std::string client_key_file;          // Empty: in the certificate's file.
  std::string user_agent;               // Empty: "quenor/VERSION".
  uint32_t connect_timeout_ms = 15000;  // Resolve, connect, proxy and TLS. 0 is not "for ever":
                                        // it takes the default, here and below.
  uint32_t total_timeout_ms = 50000;    // Below the channel's 60-second idle clean-up.
  uint32_t low_speed_bytes_per_second = 64;  // Slower than this ...
  uint32_t low_speed_seconds = 20;           // ... for this long is a failure.
  uint32_t max_response_body_bytes = 1 << 20;
  uint32_t max_response_header_bytes = 64 << 10;  // At most 256 KiB.
  // Requests beyond wait their turn, which counts in their time limit. Over HTTP/1.1 each client
  // keeps to its own; over HTTP/2 the largest of those that have requests under way holds for all.
  uint32_t max_connections_per_host = 6;
  // Refuses URLs with http://, which are sent without encryption. False: they are taken, and the
  // first that leaves the machine is warned of in the log.
  bool require_tls = false;

  // The same in memory, instead of the file of that name.
  std::string ca_pem;
  std::string client_certificate_pem;
  std::string client_key_pem;  // Empty: in the certificate's file, or text.
  // Asked once, inside the call that sets it, when the key is encrypted. Null: such a key is
  // refused.
  std::function<std::string()> key_passphrase;

  // Sent with every request, beside its own; one that the request has, too, is sent as that says.
  std::map<std::string, std::string> headers;
  // Headers that change, as a token that expires does: asked for each request, before it is sent,
  // on the thread that sends it, and must not block. They win over `headers`. What HTTP forbids has
  // SendRequest() answer below 1, as an empty optional does: there are none now. Null: none.
  std::function<std::optional<std::map<std::string, std::string>>()> fresh_headers;

  // False: a connection is closed after its exchange.
  bool keep_idle_connections = true;

  HttpProxy proxy;
  // The proxies that the environment names, as other tools read them: "https_proxy", "http_proxy",
  // "all_proxy" and "no_proxy", in small letters or capitals ("HTTP_PROXY" aside). Read when this
  // is set, not later. `proxy` wins over them.
  bool proxy_from_environment = false;

  // "HOST:PORT:ADDRESS" or "HOST:PORT:ADDRESS:OTHER_PORT": HOST:PORT is connected to there, and
  // nobody is asked for its name; an IPv6 address stands in brackets. For tests, and where no name
  // server knows better.
  std::vector<std::string> connect_to;
};

// Whether they come to the same; never, where one has a function.
inline bool operator==(const HttpSettings& a, const HttpSettings& b) {
  const auto values = [](const HttpSettings& s) {
    return std::tie(s.ca_file, s.ca_folder, s.pinned_public_keys, s.client_certificate_file,
                    s.client_key_file, s.user_agent, s.connect_timeout_ms, s.total_timeout_ms,
                    s.low_speed_bytes_per_second, s.low_speed_seconds, s.max_response_body_bytes,
                    s.max_response_header_bytes, s.max_connections_per_host, s.require_tls,
                    s.ca_pem, s.client_certificate_pem, s.client_key_pem, s.headers,
                    s.keep_idle_connections, s.proxy.url, s.proxy.user, s.proxy.password,
                    s.proxy.ca_file, s.proxy.except, s.proxy_from_environment, s.connect_to);
  };
  const auto has_function = [](const HttpSettings& s) {
    return s.key_passphrase != nullptr || s.fresh_headers != nullptr;
  };
  return values(a) == values(b) && !has_function(a) && !has_function(b);
}

// What holds for every client of the process. The host sets it before the first request; a later
// change takes effect with the next client made.
using HttpDefaults = HttpSettings;

// Any thread. Answers an empty string, or, when a value cannot be used (a CA file that cannot be
// read, a malformed pin), one line that names it and says what to do; nothing is changed then.
[[nodiscard]] std::string SetHttpDefaults(const HttpDefaults& defaults);

// Any thread. The values in force.
HttpDefaults GetHttpDefaults();

// Any thread. From the next request on, whichever client sends it, `settings` hold for the origin
// ("https://HOST", "http://HOST:PORT"), all of them: what is left as it is takes the values above,
// not the process's. To change little, begin with GetHttpDefaults(). Requests under way end as they
// began. Answers as SetHttpDefaults() does.
[[nodiscard]] std::string SetHttpSettings(const std::string& origin, const HttpSettings& settings);

// Any thread. From the next request on the process's hold for the origin again. False: it had none
// of its own.
bool ResetHttpSettings(const std::string& origin);

QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_PLATFORM_HTTP_SETTINGS_H_
