// The addresses on the command line, checked before anything starts: the channel itself would keep
// trying an unusable one for ever. Pure functions; any thread.
#ifndef CLI_OPTIONS_ADDRESSES_H_
#define CLI_OPTIONS_ADDRESSES_H_

#include <cstddef>
#include <cstdint>
#include <string>

namespace quenor::cli {

constexpr size_t kMaxCredentialBytes = 255;  // What SOCKS5 takes.

struct Socks5Address {
  std::string host;  // Without the brackets of an IPv6 literal.
  uint16_t port = 0;
  std::string user;  // Empty: no authentication.
  std::string password;
};

// Throws Fatal with kExitUsage unless `url` is http:// or https:// with a host, a port in range if
// it has one, and no blank or control byte. Never prints a password that the URL holds.
void CheckUrl(const std::string& url);

// Parses "[socks5h://][user:password@]host:port"; user and password percent-decoded, an IPv6 host
// in brackets. Throws Fatal with kExitUsage, never printing the password.
Socks5Address ParseSocks5(const std::string& text);

}  // namespace quenor::cli

#endif  // CLI_OPTIONS_ADDRESSES_H_
