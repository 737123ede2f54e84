// The configuration centre over a map and the process's environment.
#include <atomic>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>

#include "quenor_base/platform/base/fork.h"
#include "quenor_base/platform/base/lock.h"
#include "quenor_base/platform/base/thread_annotations.h"
#include "quenor_base/platform/config_center.h"
#include "quenor_base/platform/exception_barrier.h"
#include "quenor_base/platform/local_log.h"

QUENOR_NAMESPACE_BEGIN
namespace config {
namespace {

constexpr char kInCentre[] = "quenor's configuration centre";
constexpr char kLogSource[] = "services/config_center_std";

// "quenor.report.cache_option" -> "QUENOR_REPORT_CACHE_OPTION". By hand, not by toupper(): the
// host's locale has no say in it.
std::string EnvironmentName(const std::string& key) {
  std::string name = key;
  for (char& c : name) {
    if (c == '.') c = '_';
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  return name;
}

// The whole text as a decimal number of 64 bits: digits only.
base::Optional<uint64_t> ParseDecimal(const char* text) {
  uint64_t value = 0;
  const char* end = text + std::strlen(text);
  const std::from_chars_result result = std::from_chars(text, end, value);
  if (result.ec != std::errc() || result.ptr != end) return base::nullopt;
  return value;
}

}  // namespace

struct ConfigCenterImpl::State {
  base::Lock lock;
  const base::HeldAtFork held_at_fork{&lock};
  std::map<std::string, uint64_t> overrides QUENOR_GUARDED_BY(lock);
  std::set<std::string> complained QUENOR_GUARDED_BY(lock);  // Keys with an unreadable variable.

  // Any thread. The host's own value.
  base::Optional<uint64_t> Override(const std::string& key) {
    base::AutoLock hold(lock);
    const auto found = overrides.find(key);
    if (found == overrides.end()) return base::nullopt;
    return found->second;
  }

  // Any thread. The environment's value; a text that is no number is logged once per key.
  base::Optional<uint64_t> Environment(const std::string& key) {
    const std::string name = EnvironmentName(key);
    const char* text = std::getenv(name.c_str());
    if (text == nullptr) return base::nullopt;
    const base::Optional<uint64_t> value = ParseDecimal(text);
    if (!value) ComplainOnce(key, name, text);
    return value;
  }

 private:
  // Logs outside the lock: a sink may read its own settings here.
  void ComplainOnce(const std::string& key, const std::string& name, const char* text) {
    {
      base::AutoLock hold(lock);
      if (!complained.insert(key).second) return;
    }
    LocalLog(2, kLogSource, __LINE__,
             "config: %s=\"%s\" is skipped: it is not a decimal number from 0 to "
             "18446744073709551615; correct the variable or unset it",
             name.c_str(), text);
  }
};

const BaseConfigKeys& BaseCfg() {
  static std::atomic<BaseConfigKeys*> keys{nullptr};
  return *base::FindOrMake(&keys, [] {
    return new BaseConfigKeys{"quenor.report.cache_option", "quenor.report.cache_durability"};
  });
}

ConfigCenterImpl* ConfigCenterImpl::GetInstance() {
  struct Made {
    State state;
    ConfigCenterImpl center{&state};
  };
  static std::atomic<Made*> made{nullptr};
  return &base::FindOrMake(&made, [] { return new Made; })->center;
}

base::Optional<uint64_t> ConfigCenterImpl::GetValueWithPriority(
    const std::string& key, base::Optional<uint64_t> default_value) {
  base::Optional<uint64_t> value;
  base::EndOnException(kInCentre, [&] {
    value = state_->Override(key);
    if (!value) value = state_->Environment(key);
  });
  return value ? value : default_value;
}

void ConfigCenterImpl::SetHostOverride(const std::string& key, base::Optional<uint64_t> value) {
  base::EndOnException(kInCentre, [&] {
    base::AutoLock hold(state_->lock);
    if (value) {
      state_->overrides[key] = *value;
    } else {
      state_->overrides.erase(key);
    }
  });
}

const char* ConfigCenterImpl::ImplementationName() { return "std"; }

}  // namespace config
QUENOR_NAMESPACE_END
