// The configuration centre: one number per key, from the source with the highest priority.
// Threads: any. Process-wide, never destroyed.
#ifndef QUENOR_BASE_PLATFORM_CONFIG_CENTER_H_
#define QUENOR_BASE_PLATFORM_CONFIG_CENTER_H_

#include <cstdint>
#include <string>

#include "quenor_base/platform/base/optional.h"

QUENOR_NAMESPACE_BEGIN
namespace config {

// The keys that the SDK's base reads.
struct BaseConfigKeys {
  // "quenor.report.cache_option". Report cache: 0 none, 1 plain file, 2 memory-mapped file (what
  // the channel takes when no source has the key). Read once per process, at a channel's first use.
  std::string cache_option;
  // "quenor.report.cache_durability". What a save in the report cache survives besides the end of
  // the process: 0 nothing more (default), 1 writing to the disk is started and not awaited, 2 a
  // loss of power too: it is on the disk before the save returns.
  std::string cache_durability;
};

// Any thread. The key table; never destroyed.
const BaseConfigKeys& BaseCfg();

class ConfigCenterImpl {
 public:
  ConfigCenterImpl(const ConfigCenterImpl&) = delete;
  ConfigCenterImpl& operator=(const ConfigCenterImpl&) = delete;

  // Any thread. Never null.
  static ConfigCenterImpl* GetInstance();

  // Any thread. The value of the first source that has the key: the host's override, the process's
  // environment (the key in upper case, "." as "_"; a decimal number of 64 bits, anything else is
  // logged once per key and skipped); else `default_value`. Reads the environment each time: the
  // host must not change it on another thread meanwhile.
  base::Optional<uint64_t> GetValueWithPriority(const std::string& key,
                                                base::Optional<uint64_t> default_value);

  // Any thread. The host's own value for a key; an empty optional takes it back.
  void SetHostOverride(const std::string& key, base::Optional<uint64_t> value);

  // Any thread. Names the implementation that is linked.
  static const char* ImplementationName();

 private:
  struct State;
  explicit ConfigCenterImpl(State* state) : state_(state) {}
  State* state_;  // Lives for the process.
};

}  // namespace config
QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_PLATFORM_CONFIG_CENTER_H_
