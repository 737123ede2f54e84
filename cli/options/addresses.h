// The addresses on the command line, checked before anything starts: the channel itself would keep
// trying an unusable one for ever. Pure functions; any thread.
#ifndef CLI_OPTIONS_ADDRESSES_H_
#define CLI_OPTIONS_ADDRESSES_H_

#include <cstddef>
#include <cstdint>
#include <string>

namespace quenor::cli {

constexpr size_t kMaxCredentialBytes = 255;  // What SOCKS5 takes.

struct ProxyAddress {
  std::string host;  // Without the brackets of an IPv6 literal.
  uint16_t port = 0;
  std::string user;  // Empty: no authentication.
  std::string password;
  std::string scheme = "socks5h";  // Or "http", "https".

  bool is_socks5() const { return scheme == "socks5h"; }
  std::string Url() const;  // Without user and password.
};

// Throws Fatal with kExitUsage unless `url` is http:// or https:// with a host, a port in range if
// it has one, and no blank or control byte. Never prints a password that the URL holds.
void CheckUrl(const std::string& url);

// Parses "[socks5h://][user:password@]host:port"; user and password percent-decoded, an IPv6 host
// in brackets. Throws Fatal with kExitUsage, never printing the password.
ProxyAddress ParseSocks5(const std::string& text);

// The same with "http://" and "https://", too, behind which a slash may stand at the end; without a
// scheme it is SOCKS5.
ProxyAddress ParseProxy(const std::string& text);

}  // namespace quenor::cli

#endif  // CLI_OPTIONS_ADDRESSES_H_
