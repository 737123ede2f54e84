// The process-wide SOCKS5 proxy settings, read whenever a channel creates an HTTP client.
#ifndef QUENOR_BASE_PLATFORM_SOCKS5_PROXY_CONFIG_H_
#define QUENOR_BASE_PLATFORM_SOCKS5_PROXY_CONFIG_H_

#include <cstdint>
#include <string>

#include "quenor_base/platform/base/abi.h"

QUENOR_NAMESPACE_BEGIN

class Socks5ProxyConfigHolder {
 public:
  struct Socks5ProxyConfig {
    std::string host;
    uint16_t port = 0;
    std::string user;
    std::string password;
    bool enabled = false;
  };

  Socks5ProxyConfigHolder(const Socks5ProxyConfigHolder&) = delete;
  Socks5ProxyConfigHolder& operator=(const Socks5ProxyConfigHolder&) = delete;

  // Any thread. The settings, by value. Disabled until the host sets some.
  Socks5ProxyConfig GetConfig() const;

  // Any thread. Replaces the settings whole; clients that exist keep what they were made with.
  void SetConfig(const Socks5ProxyConfig& config);

  // Any thread. Names the implementation that is linked.
  static const char* ImplementationName();

 private:
  friend Socks5ProxyConfigHolder* GetSocks5ProxyConfigHolder();
  struct State;
  explicit Socks5ProxyConfigHolder(State* state) : state_(state) {}
  State* state_;  // Lives for the process.
};

// Any thread. The process's holder; never null, never destroyed.
Socks5ProxyConfigHolder* GetSocks5ProxyConfigHolder();

QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_PLATFORM_SOCKS5_PROXY_CONFIG_H_
