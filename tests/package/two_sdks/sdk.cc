// An SDK that embeds the library: SDK_start(), SDK_refused() and so on are all that it exports.
#include <quenor_base/data_report/https/reliable_report_channel_https.h>
#include <quenor_base/platform/base/path_service.h>
#include <quenor_base/platform/config_center.h>
#include <quenor_base/platform/local_log.h>
#include <quenor_base/platform/report_events.h>
#include <quenor_base/platform/thread_manager.h>

#include <atomic>
#include <memory>
#include <string>

#define JOIN_(a, b) a##b
#define JOIN(a, b) JOIN_(a, b)
#define EXPORTED(name) extern "C" int JOIN(SDK, name)

namespace {

std::atomic<int> own_events{0}, foreign_events{0}, lines{0};
std::shared_ptr<quenor::ReliableReportChannelHttps> channel;
std::string channel_name;

struct Listener : quenor::ReportEventListener {
  void OnReportEvent(const quenor::ReportEvent& event) override {
    ++(event.channel_name == channel_name ? own_events : foreign_events);
  }
} listener;

}  // namespace

// `cache_option`: 1 for a plain cache file, 2 for a mapped one.
EXPORTED(_start)(const char* name, const char* folder, int cache_option) {
  channel_name = name;
  quenor::SetLogSink([](void*, int, const char*, int, const char*, size_t) { ++lines; }, nullptr);
  quenor::ReportEvents::SetListener(&listener);
  quenor::config::ConfigCenterImpl::GetInstance()->SetHostOverride(
      quenor::config::BaseCfg().cache_option, uint64_t(cache_option));
  if (!quenor::base::PathService::Override(quenor::base::DIR_RELIABLE_REPORT,
                                           quenor::base::FilePath(folder))) {
    return 1;
  }
  channel = std::make_shared<quenor::ReliableReportChannelHttps>(name, "", 0, true, false);
  channel->SendPacket(nullptr, 0, false, false);  // Refused: one line, two events.
  channel->Initialize();
  return 0;
}
EXPORTED(_own_events)() { return own_events; }
EXPORTED(_foreign_events)() { return foreign_events; }
EXPORTED(_lines)() { return lines; }
// True when it has drained.
EXPORTED(_stop)() {
  if (channel != nullptr) channel->Terminate();
  channel.reset();
  const bool drained =
      quenor::core::ThreadManager::WaitForDrain(quenor::base::TimeDelta::FromSeconds(60));
  quenor::ReportEvents::SetListener(nullptr);
  quenor::SetLogSink(nullptr, nullptr);
  return drained;
}
