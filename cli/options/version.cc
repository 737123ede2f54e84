#include "cli/options/version.h"

#include "quenor_base/platform/base/json_reader.h"
#include "quenor_base/platform/base/path_service.h"
#include "quenor_base/platform/base/timer.h"
#include "quenor_base/platform/config_center.h"
#include "quenor_base/platform/http_client.h"
#include "quenor_base/platform/local_log.h"
#include "quenor_base/platform/multi_process_safety_mmap_file.h"
#include "quenor_base/platform/reliable_report_cache_file.h"
#include "quenor_base/platform/report_events.h"
#include "quenor_base/platform/socks5_proxy_config.h"
#include "quenor_base/platform/thread_manager.h"
#include "quenor_base/platform/throtter.h"

namespace quenor::cli {

std::string VersionText() {
  const struct {
    const char* service;
    const char* implementation;
  } services[] = {
      {"http_client", HttpClientFactory::ImplementationName()},
      {"json", base::JSONReader::ImplementationName()},
      {"timer", base::internal::TimerBase::ImplementationName()},
      {"dispatch_queue", core::ThreadManager::ImplementationName()},
      {"config_center", config::ConfigCenterImpl::ImplementationName()},
      {"mmap_file", MultiProcessSafetyMmapFile::ImplementationName()},
      {"cache_file", ReliableReportCacheFile::ImplementationName()},
      {"path_service", base::PathService::ImplementationName()},
      {"report_events", ReportEvents::ImplementationName()},
      {"proxy_config", Socks5ProxyConfigHolder::ImplementationName()},
      {"throtter", Throtter::ImplementationName()},
      {"log", LocalLogImplementationName()},
  };
  std::string text = "quenor-report " QUENOR_VERSION;
  for (const auto& line : services) {
    text += std::string("\n") + line.service + ": " + line.implementation;
  }
  return text;
}

}  // namespace quenor::cli
