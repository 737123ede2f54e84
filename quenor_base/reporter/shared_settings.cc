#include "quenor_base/reporter/shared_settings.h"

#include <mutex>
#include <tuple>

#include "quenor_base/platform/base/file_path.h"
#include "quenor_base/platform/base/fork.h"
#include "quenor_base/platform/base/path_service.h"
#include "quenor_base/platform/config_center.h"

QUENOR_NAMESPACE_BEGIN
namespace {

using Proxy = Socks5ProxyConfigHolder::Socks5ProxyConfig;

// A forked child begins with what its parent had fixed; its own may differ.
struct Fixed {
  explicit Fixed(Fixed*) {}
  std::mutex mutex;
  bool is_fixed = false;
  SharedSettings settings;  // Guarded by `mutex`.
};

Fixed& GetFixed() {
  static base::OnePerProcess<Fixed> fixed;
  return fixed.Get();
}

auto Parts(const Proxy& proxy) {
  return std::tie(proxy.enabled, proxy.host, proxy.port, proxy.user, proxy.password);
}

template <typename T>
bool AreEqual(const T& a, const T& b) {
  return a == b;
}
bool AreEqual(const Proxy& a, const Proxy& b) { return Parts(a) == Parts(b); }

template <typename T>
bool Differs(const std::optional<T>& fixed, const std::optional<T>& wanted) {
  return wanted && !(fixed && AreEqual(*fixed, *wanted));
}

// The name of a setting that is fixed, and not to what is wanted; null: there is none.
const char* FirstDifference(const SharedSettings& fixed, const SharedSettings& wanted) {
  return Differs(fixed.cache, wanted.cache)                 ? "cache"
         : Differs(fixed.folder, wanted.folder)             ? "folder"
         : Differs(fixed.durability, wanted.durability)     ? "durability"
         : Differs(fixed.socks5_proxy, wanted.socks5_proxy) ? "socks5_proxy"
         : Differs(fixed.http, wanted.http)                 ? "http"
                                                            : nullptr;
}

template <typename T>
void Configure(const std::string& key, const std::optional<T>& value) {
  if (!value) return;
  config::ConfigCenterImpl::GetInstance()->SetHostOverride(key, static_cast<uint64_t>(*value));
}

std::string WhatIsWrongWith(const SharedSettings& settings) {
  if (settings.cache && *settings.cache > SharedSettings::Cache::kMapped) {
    return "cache: there is no such kind; give none, file or mapped";
  }
  if (settings.durability && *settings.durability > SharedSettings::Durability::kOnDisk) {
    return "durability: there is no such one; give process, started or on disk";
  }
  return "";
}

// Those first that can be refused; nothing stays of what was.
std::string PutIntoForce(const SharedSettings& settings) {
  std::string wrong = WhatIsWrongWith(settings);
  if (!wrong.empty()) return wrong;
  const HttpDefaults before = GetHttpDefaults();
  if (settings.http) wrong = SetHttpDefaults(*settings.http);
  if (!wrong.empty()) return wrong;
  if (settings.folder &&
      !base::PathService::Override(base::DIR_RELIABLE_REPORT, base::FilePath(*settings.folder))) {
    if (settings.http) (void)SetHttpDefaults(before);
    return "folder: " + *settings.folder +
           " is no absolute path of a folder that can be had; give one";
  }
  Configure(config::BaseCfg().cache_option, settings.cache);
  Configure(config::BaseCfg().cache_durability, settings.durability);
  if (settings.socks5_proxy) GetSocks5ProxyConfigHolder()->SetConfig(*settings.socks5_proxy);
  return "";
}

}  // namespace

std::string FixSharedSettings(const SharedSettings& settings) {
  Fixed& fixed = GetFixed();
  std::lock_guard<std::mutex> hold(fixed.mutex);
  if (!fixed.is_fixed) {
    std::string wrong = PutIntoForce(settings);
    if (!wrong.empty()) return wrong;
    fixed.settings = settings;
    fixed.is_fixed = true;
    return "";
  }
  const char* const different = FirstDifference(fixed.settings, settings);
  if (different == nullptr) return "";
  return std::string(different) +
         ": another reporter of this process has fixed it to something else; all reporters of a "
         "process share it: set it alike everywhere, or only with the first one";
}

QUENOR_NAMESPACE_END
