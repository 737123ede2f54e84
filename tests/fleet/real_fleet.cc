// real_fleet URL CHANNELS EVERY_SECONDS SECONDS [CERTIFICATE]: so many channels of the shipped
// library in real time, each with a report every so often at a phase of its own, and no resend
// limit. Prints "started", and in the end of each second what was sent, acknowledged, lost and
// waits, and how many channels have been told an interval. After so many seconds no more is handed
// over, and it ends when nothing waits any more. Its reports are "r-000000017 xxx...".
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "quenor_base/data_report/https/cache_option.h"
#include "quenor_base/data_report/https/reliable_report_channel_https.h"
#include "quenor_base/platform/base/monotonic_time.h"
#include "quenor_base/platform/config_center.h"
#include "quenor_base/platform/http_settings.h"
#include "quenor_base/platform/report_events.h"
#include "quenor_base/platform/thread_manager.h"

namespace quenor {
namespace {

using Time = base::MonotonicTime;
using std::chrono::microseconds;
using std::chrono::seconds;

struct Counts {
  uint64_t handed_over = 0;
  uint64_t sent = 0;
  uint64_t acknowledged = 0;
  uint64_t lost = 0;
  size_t told = 0;
};

class Counter final : public ReportEventListener {
 public:
  Counts Read() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return {handed_over_, sent_, acknowledged_, lost_, told_.size()};
  }

 private:
  void OnReportEvent(const ReportEvent& event) override {
    switch (event.kind) {
      case ReportEventKind::kHandedOver:
        ++handed_over_;
        break;
      case ReportEventKind::kSent:
        ++sent_;
        break;
      case ReportEventKind::kAcknowledged:
        ++acknowledged_;
        break;
      case ReportEventKind::kDropped:
      case ReportEventKind::kRefused:
        ++lost_;
        break;
      case ReportEventKind::kRetuned:
        if (event.send_interval_ms != 0) Tell(event.channel_name);
        break;
      default:
        break;
    }
  }

  void Tell(const std::string& channel_name) {
    const std::lock_guard<std::mutex> lock(mutex_);
    told_.insert(channel_name);
  }

  std::atomic<uint64_t> handed_over_{0}, sent_{0}, acknowledged_{0}, lost_{0};
  std::mutex mutex_;
  std::set<std::string> told_;
};

struct Owner {
  std::shared_ptr<ReliableReportChannelHttps> channel;
  Time next;
};

// Whose report is due first stands in front.
bool IsLater(const Owner& a, const Owner& b) { return a.next > b.next; }

std::vector<Owner> MakeOwners(const char* url, int channels, microseconds every) {
  std::mt19937_64 random(1);
  std::vector<Owner> owners;
  for (int i = 0; i < channels; ++i) {
    auto channel = std::make_shared<ReliableReportChannelHttps>(std::to_string(i), url, 0u,
                                                                /*http2=*/false, false);
    channel->Initialize();
    channel->SetMaxResendCount(std::numeric_limits<uint32_t>::max());
    owners.push_back({std::move(channel), Time()});
  }
  const Time begin = base::MonotonicNow();
  for (Owner& owner : owners) {
    owner.next = begin + microseconds(random() % static_cast<uint64_t>(every.count()));
  }
  std::make_heap(owners.begin(), owners.end(), IsLater);
  return owners;
}

// Hands over what is due until then.
void ReportUntil(Time until, microseconds every, std::vector<Owner>* owners) {
  static int number = 0;
  char report[200];
  while (owners->front().next < until) {
    std::this_thread::sleep_until(owners->front().next);
    std::pop_heap(owners->begin(), owners->end(), IsLater);
    const int length = std::snprintf(report, sizeof report, "r-%09d ", ++number);
    std::fill(report + length, report + sizeof report, 'x');
    owners->back().channel->SendPacket(reinterpret_cast<const uint8_t*>(report), sizeof report,
                                       /*need_cache=*/false, false);
    owners->back().next += every;
    std::push_heap(owners->begin(), owners->end(), IsLater);
  }
}

// Whether something still waits.
bool Print(int second, const Counts& now, const Counts& last) {
  const uint64_t waiting = now.handed_over - now.acknowledged - now.lost;
  std::printf("%d %llu %llu %llu %llu %zu\n", second,
              static_cast<unsigned long long>(now.sent - last.sent),
              static_cast<unsigned long long>(now.acknowledged - last.acknowledged),
              static_cast<unsigned long long>(now.lost), static_cast<unsigned long long>(waiting),
              now.told);
  std::fflush(stdout);
  return waiting != 0;
}

int Main(int argc, char** argv) {
  if (argc != 5 && argc != 6) return 64;
  if (argc == 6) {
    HttpDefaults defaults = GetHttpDefaults();
    defaults.ca_file = argv[5];
    if (!SetHttpDefaults(defaults).empty()) return 64;
  }
  config::ConfigCenterImpl::GetInstance()->SetHostOverride(config::BaseCfg().cache_option,
                                                           static_cast<uint64_t>(kCacheNone));
  Counter counter;
  ReportEvents::SetListener(&counter);
  const microseconds every(static_cast<int64_t>(std::atof(argv[3]) * 1e6));
  std::vector<Owner> owners = MakeOwners(argv[1], std::atoi(argv[2]), every);
  std::printf("started\n");
  std::fflush(stdout);
  const Time begin = base::MonotonicNow();
  const int length = std::atoi(argv[4]);
  Counts last;
  for (int second = 1;; ++second) {
    const Time end = begin + seconds(second);
    if (second <= length) ReportUntil(end, every, &owners);
    std::this_thread::sleep_until(end);
    const Counts now = counter.Read();
    if (!Print(second, now, last) && second >= length) break;
    last = now;
  }
  for (const Owner& owner : owners) owner.channel->Terminate();
  owners.clear();
  const bool drained = core::ThreadManager::WaitForDrain(base::TimeDelta::FromSeconds(60));
  ReportEvents::SetListener(nullptr);
  return drained ? 0 : 1;
}

}  // namespace
}  // namespace quenor

int main(int argc, char** argv) { return quenor::Main(argc, argv); }
