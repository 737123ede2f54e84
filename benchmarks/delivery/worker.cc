#include "benchmarks/delivery/worker.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <mutex>
#include <tuple>
#include <vector>

#include "benchmarks/support/area.h"
#include "quenor_base/data_report/https/reliable_report_channel_https.h"
#include "quenor_base/platform/base/path_service.h"
#include "quenor_base/platform/config_center.h"
#include "quenor_base/platform/http_client.h"
#include "quenor_base/platform/report_events.h"
#include "quenor_base/platform/thread_manager.h"

namespace quenor::bench {
namespace {

constexpr size_t kMessageBytes = 1024;
constexpr int kJobsFd = 3;
constexpr int kFiguresFd = 4;

double CpuSeconds() {
  timespec spent;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &spent);
  return static_cast<double>(spent.tv_sec) + static_cast<double>(spent.tv_nsec) * 1e-9;
}

// Of a process that the counter was loaded into.
double Allocations() {
  static const auto count =
      reinterpret_cast<uint64_t (*)()>(dlsym(RTLD_DEFAULT, "QuenorBenchHeapAllocations"));
  return count == nullptr ? 0 : static_cast<double>(count());
}

double Switches() {
  rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_nvcsw + usage.ru_nivcsw);
}

// Where the threads of this process run: all on its first processor, or where the system puts them.
// Those that start later follow the one that starts them.
void Place(bool on_one_processor) {
  static cpu_set_t all;
  static bool has_all = sched_getaffinity(0, sizeof(all), &all) == 0;
  Require(has_all, "the processors are not known");
  cpu_set_t chosen = all;
  if (on_one_processor) {
    int first = 0;
    while (!CPU_ISSET(first, &all)) ++first;
    CPU_ZERO(&chosen);
    CPU_SET(first, &chosen);
  }
  for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
    const pid_t id = std::atoi(thread.path().filename().c_str());
    Require(sched_setaffinity(id, sizeof(chosen), &chosen) == 0, "a thread cannot be placed");
  }
}

// A channel that is given the next message whenever one was acknowledged.
class ChannelDeliverer : public Deliverer, private ReportEventListener {
 public:
  ChannelDeliverer(std::string url, std::string ca_file, bool cached)
      : url_(std::move(url)), ca_file_(std::move(ca_file)), cached_(cached) {
    ReportEvents::SetListener(this);
  }
  ~ChannelDeliverer() override {
    ReportEvents::SetListener(nullptr);
    for (const auto& channel : channels_) channel.second->Terminate();
    channels_.clear();
    Require(core::ThreadManager::WaitForDrain(base::TimeDelta::FromSeconds(60)),
            "a channel does not end");
  }

  bool Deliver(const Job& job) override {
    ReliableReportChannelHttps* channel = ChannelFor(job);
    {
      std::lock_guard<std::mutex> hold(mutex_);
      channel_ = channel;
      to_send_ = job.messages - job.in_flight;
      to_answer_ = job.messages;
      failed_ = false;
    }
    for (int i = 0; i < job.in_flight; ++i) Send(channel);
    std::unique_lock<std::mutex> hold(mutex_);
    changed_.wait(hold, [this] { return to_answer_ == 0 || failed_; });
    return !failed_;
  }

 private:
  void Send(ReliableReportChannelHttps* channel) {
    channel->SendPacket(message_.data(), kMessageBytes, cached_, true);
  }

  // Channels stay, as a host's do: with their connections.
  ReliableReportChannelHttps* ChannelFor(const Job& job) {
    auto& channel = channels_[std::make_tuple(job.http2, job.connections)];
    if (channel != nullptr) return channel.get();
    HttpDefaults defaults;
    defaults.ca_file = ca_file_;
    defaults.max_connections_per_host = static_cast<uint32_t>(job.connections);
    const std::string problem = SetHttpDefaults(defaults);
    Require(problem.empty(), problem.c_str());
    channel = std::make_shared<ReliableReportChannelHttps>(
        "delivery-" + std::to_string(channels_.size()), url_, 0, job.http2, false);
    channel->Initialize();
    return channel.get();
  }

  void OnReportEvent(const ReportEvent& event) override {
    switch (event.kind) {
      case ReportEventKind::kAcknowledged:
        break;
      case ReportEventKind::kFailed:
      case ReportEventKind::kDropped:
      case ReportEventKind::kRefused:
        return Fail();
      default:
        return;
    }
    ReliableReportChannelHttps* next = nullptr;
    {
      std::lock_guard<std::mutex> hold(mutex_);
      if (to_send_ > 0) {
        --to_send_;
        next = channel_;
      }
      if (--to_answer_ == 0) changed_.notify_one();
    }
    if (next != nullptr) Send(next);
  }

  void Fail() {
    std::lock_guard<std::mutex> hold(mutex_);
    failed_ = true;
    changed_.notify_one();
  }

  const std::string url_;
  const std::string ca_file_;
  const bool cached_;
  const std::vector<uint8_t> message_ = std::vector<uint8_t>(kMessageBytes, 0x5a);
  std::map<std::tuple<bool, int>, std::shared_ptr<ReliableReportChannelHttps>> channels_;
  std::mutex mutex_;
  std::condition_variable changed_;
  // Guarded by `mutex_`.
  ReliableReportChannelHttps* channel_ = nullptr;
  int to_send_ = 0;
  int to_answer_ = 0;
  bool failed_ = false;
};

}  // namespace

std::unique_ptr<Deliverer> MakeDeliverer(const std::string& kind, const std::string& url,
                                         const std::string& ca_file, const std::string& folder) {
  if (kind == "libcurl") return MakeLibcurl(false, url, ca_file);
  if (kind == "libcurl-2") return MakeLibcurl(true, url, ca_file);
  const bool cached = kind == "channel-cached";
  Require(cached || kind == "channel", "no such contender");
  config::ConfigCenterImpl::GetInstance()->SetHostOverride(config::BaseCfg().cache_option,
                                                           uint64_t{cached ? 2u : 0u});
  Require(base::PathService::Override(base::DIR_RELIABLE_REPORT, base::FilePath(folder)),
          "the cache has no folder");
  return std::make_unique<ChannelDeliverer>(url, ca_file, cached);
}

Figures Measured(Deliverer* deliverer, const Job& job) {
  Place(job.on_one_processor);
  const double cpu = CpuSeconds();
  const double switches = Switches();
  const double allocations = Allocations();
  const double begin_ns = NowNs();
  Require(deliverer->Deliver(job), "a message was not delivered");
  return {(NowNs() - begin_ns) * 1e-9, CpuSeconds() - cpu, Switches() - switches,
          Allocations() - allocations};
}

Worker::Worker(const std::string& kind, const Nginx& server) {
  int jobs[2];
  int figures[2];
  Require(pipe2(jobs, O_CLOEXEC) == 0 && pipe2(figures, O_CLOEXEC) == 0, "no pipe");
  process_ = std::make_unique<Process>(
      std::vector<std::string>{"/proc/self/exe", kWorkerFlag, kind, server.url(), server.ca_file(),
                               server.folder().path()},
      std::vector<std::pair<int, int>>{{jobs[0], kJobsFd}, {figures[1], kFiguresFd}},
      std::vector<std::string>{"LD_PRELOAD=" QUENOR_BENCH_HEAP_COUNT});
  close(jobs[0]);
  close(figures[1]);
  to_worker_ = jobs[1];
  from_worker_ = figures[0];
}

Worker::~Worker() {
  close(to_worker_);  // The worker ends.
  close(from_worker_);
  process_->Wait();
}

Figures Worker::Run(const Job& job) {
  Figures figures;
  Require(write(to_worker_, &job, sizeof(job)) == sizeof(job), "a contender has ended");
  Require(read(from_worker_, &figures, sizeof(figures)) == sizeof(figures),
          "a contender has ended");
  return figures;
}

int WorkerMain(char** arguments) {
  const std::unique_ptr<Deliverer> deliverer =
      MakeDeliverer(arguments[0], arguments[1], arguments[2], arguments[3]);
  Job job;
  while (read(kJobsFd, &job, sizeof(job)) == sizeof(job)) {
    const Figures figures = Measured(deliverer.get(), job);
    if (write(kFiguresFd, &figures, sizeof(figures)) != sizeof(figures)) return 1;
  }
  _exit(0);  // Channels that rest have nothing to save.
}

}  // namespace quenor::bench
