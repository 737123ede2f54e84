#include "quenor_base/data_report/https/cache_option.h"

#include <atomic>
#include <cstdint>

#include "quenor_base/platform/base/fork.h"
#include "quenor_base/platform/base/optional.h"
#include "quenor_base/platform/base/path_service.h"
#include "quenor_base/platform/config_center.h"
#include "quenor_base/platform/local_log.h"

QUENOR_NAMESPACE_BEGIN
namespace {

// The channel's, on whose behalf this is.
constexpr char kSourcePath[] = "quenor_base/data_report/https/reliable_report_channel_https";

}  // namespace

// A fork waits for the first use: the child would wait for ever for the static.
int GetCacheOption() {
  static std::atomic<bool> is_read{false};
  const base::FirstUse first_use(&is_read);
  static const int32_t cache_option = [] {
    const base::Optional<uint64_t> value =
        config::ConfigCenterImpl::GetInstance()->GetValueWithPriority(
            config::BaseCfg().cache_option, uint64_t{kCacheMmap});
    return static_cast<int32_t>(static_cast<uint32_t>(value.value_or(kCacheMmap)));
  }();
  return cache_option;
}

base::FilePath GetCacheFolerPath(const std::string& folder_name) {
  base::FilePath folder;
  if (!base::PathService::Get(base::DIR_RELIABLE_REPORT, &folder)) {
    LocalLog(2, kSourcePath, __LINE__, "PathService::Get base::DIR_RELIABLE_REPORT failed!");
    return base::FilePath();
  }
  folder = folder.AppendASCII(folder_name);
  if (!base::PathExists(folder) && !base::CreateDirectory(folder)) {
    LocalLog(2, kSourcePath, __LINE__, "CreateDirectory failed! path=%s",
             folder.AsUTF8Unsafe().c_str());
    return base::FilePath();
  }
  return folder;
}

QUENOR_NAMESPACE_END
