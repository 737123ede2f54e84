// SharedSettings: what all reporters of a process have in common. The first Reporter::Create() that
// succeeds fixes it; what it leaves open stays as the host has set it otherwise, and later ones may
// repeat what is fixed or leave it open. Threads: plain data; FixSharedSettings() on any.
#ifndef QUENOR_BASE_REPORTER_SHARED_SETTINGS_H_
#define QUENOR_BASE_REPORTER_SHARED_SETTINGS_H_

#include <cstdint>
#include <optional>
#include <string>

#include "quenor_base/platform/http_client.h"
#include "quenor_base/platform/socks5_proxy_config.h"

QUENOR_NAMESPACE_BEGIN

struct SharedSettings {
  // Where messages that are to be kept are kept. The numbers are the configuration's.
  enum class Cache : uint64_t {
    kNone = 0,    // In memory only.
    kFile = 1,    // A plain file for each reporter, which one process at a time may have open.
    kMapped = 2,  // A memory-mapped file for each, which several processes may share: the default.
  };
  // What a save survives besides the end of the process.
  enum class Durability : uint64_t {
    kProcess = 0,  // Nothing more: the default.
    kStarted = 1,  // Writing to the disk is started, and not awaited.
    kOnDisk = 2,   // A loss of power: it is on the disk before the message is sent on.
  };
  std::optional<Cache> cache;
  // Absolute; made when it is not there. Default: $XDG_STATE_HOME/quenor or ~/.local/state/quenor.
  std::optional<std::string> folder;
  std::optional<Durability> durability;
  std::optional<Socks5ProxyConfigHolder::Socks5ProxyConfig> socks5_proxy;
  std::optional<HttpDefaults> http;  // TLS, time and size limits.
};

// Any thread; one at a time goes on. Puts what is set into force, or finds that it is in force
// already. Empty, or one line that names the setting, and what to do; nothing is fixed then.
std::string FixSharedSettings(const SharedSettings& settings);

QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_REPORTER_SHARED_SETTINGS_H_
