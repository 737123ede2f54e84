// Counts what a hand-over does. A program of its own, so that what it interposes costs the measured
// one nothing: quenor_bench_hand_over_probe WORD [SIZE] prints one figure.
//   allocations SIZE   the most on the caller's thread in one SendPacket
//   bodies SIZE        allocations of SIZE bytes or more per message, on all threads, from the call
//                      until the message is in the store: 1 when the body is moved there
//   wakes              wake-ups per message, one every 50 us
//   wakes_awake        wake-ups by 100 messages while the queue's thread is at work
//   wakes_idle         times that the queue's thread woke in a second without messages
//   instructions SIZE  1000 calls between the marks that callgrind counts from; prints nothing
#include <dirent.h>
#include <dlfcn.h>
#include <valgrind/callgrind.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "quenor_base/data_report/https/reliable_report_channel_https.h"
#include "quenor_base/platform/config_center.h"
#include "quenor_base/platform/report_events.h"
#include "quenor_base/platform/thread_manager.h"

namespace {

thread_local size_t t_allocations = 0;
std::atomic<size_t> g_large{0};
std::atomic<size_t> g_large_from{SIZE_MAX};
std::atomic<size_t> g_signals{0};

}  // namespace

extern "C" void* __libc_malloc(size_t size);
extern "C" void* malloc(size_t size) noexcept;
extern "C" int pthread_cond_signal(pthread_cond_t* condition) noexcept;

// operator new comes here, too.
extern "C" void* malloc(size_t size) noexcept {
  ++t_allocations;
  if (size >= g_large_from) ++g_large;
  return __libc_malloc(size);
}

extern "C" int pthread_cond_signal(pthread_cond_t* condition) noexcept {
  using Signal = int (*)(pthread_cond_t*);
  static const auto next = reinterpret_cast<Signal>(dlsym(RTLD_NEXT, "pthread_cond_signal"));
  ++g_signals;
  return next(condition);
}

namespace quenor::bench {
namespace {

using Channel = std::shared_ptr<ReliableReportChannelHttps>;

Channel Make(const char* url) {
  config::ConfigCenterImpl::GetInstance()->SetHostOverride(config::BaseCfg().cache_option,
                                                           uint64_t{0});  // Nothing on disk.
  auto channel = std::make_shared<ReliableReportChannelHttps>("bench", url, 0, false, false);
  channel->Initialize();
  return channel;
}

void Rest(int us) { std::this_thread::sleep_for(std::chrono::microseconds(us)); }

// Counts what the queue's thread says, and lets it stand still inside.
class Listener : public ReportEventListener {
 public:
  Listener() { ReportEvents::SetListener(this); }
  ~Listener() override { ReportEvents::SetListener(nullptr); }

  void OnReportEvent(const ReportEvent& event) override {
    if (event.kind != ReportEventKind::kAdmitted && event.kind != ReportEventKind::kRefused) return;
    std::unique_lock<std::mutex> hold(mutex_);
    ++seen_;
    changed_.notify_all();
    changed_.wait(hold, [this] { return !closed_; });
  }
  void Set(bool closed) {
    std::lock_guard<std::mutex> hold(mutex_);
    closed_ = closed;
    changed_.notify_all();
  }
  void WaitFor(int count) {
    std::unique_lock<std::mutex> hold(mutex_);
    changed_.wait(hold, [=] { return seen_ >= count; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int seen_ = 0;
  bool closed_ = false;
};

double Allocations(uint32_t size) {
  const Channel channel = Make("");
  const std::vector<uint8_t> bytes(size, 0x5a);
  size_t most = 0;
  for (int i = 0; i < 1000; ++i) {
    const size_t before = t_allocations;
    channel->SendPacket(bytes.data(), size, false, false);
    most = std::max(most, t_allocations - before);
    if (i % 100 == 99) Rest(1000);
  }
  channel->Terminate();
  return static_cast<double>(most);
}

double Bodies(uint32_t size) {
  constexpr int kCount = 100;
  Listener listener;
  const Channel channel = Make("http://127.0.0.1:9/");  // Nothing is sent within its first 100 ms.
  const std::vector<uint8_t> bytes(size, 0x5a);
  // A burst may add one of the queue's own: its list of tasks grows to such a size.
  for (int i = 0; i < kCount; ++i) channel->SendPacket(bytes.data(), size, false, false);
  listener.WaitFor(kCount);
  g_large_from = size;
  for (int i = 0; i < kCount; ++i) {
    channel->SendPacket(bytes.data(), size, false, false);
    listener.WaitFor(kCount + i + 1);
  }
  const size_t large = g_large;
  g_large_from = SIZE_MAX;
  channel->Terminate();
  return static_cast<double>(large) / kCount;
}

double Wakes() {
  constexpr int kCount = 2000;
  const Channel channel = Make("");
  const uint8_t byte = 0x5a;
  Rest(100000);
  const size_t before = g_signals;
  auto due = std::chrono::steady_clock::now();
  for (int i = 0; i < kCount; ++i) {
    while (std::chrono::steady_clock::now() < due) {
    }
    channel->SendPacket(&byte, 1, false, false);
    due += std::chrono::microseconds(50);
  }
  const size_t signals = g_signals - before;
  channel->Terminate();
  return static_cast<double>(signals) / kCount;
}

double WakesAwake() {
  Listener listener;
  const Channel channel = Make("");
  const uint8_t byte = 0x5a;
  listener.Set(true);
  channel->SendPacket(&byte, 1, false, false);
  listener.WaitFor(1);  // The queue's thread is inside now, and stays there.
  const size_t before = g_signals;
  for (int i = 0; i < 100; ++i) channel->SendPacket(&byte, 1, false, false);
  const size_t signals = g_signals - before;
  listener.Set(false);
  listener.WaitFor(101);
  channel->Terminate();
  return static_cast<double>(signals);
}

// How often the threads of that name have given their processor up.
long Switches(const std::string& name) {
  long sum = 0;
  DIR* const tasks = opendir("/proc/self/task");
  if (tasks == nullptr) return -1;
  while (const dirent* const task = readdir(tasks)) {
    std::ifstream status("/proc/self/task/" + std::string(task->d_name) + "/status");
    bool found = false;
    for (std::string line; std::getline(status, line);) {
      if (line == "Name:\t" + name) found = true;
      if (found && line.rfind("voluntary_ctxt_switches:", 0) == 0) {
        sum += std::atol(line.c_str() + std::strlen("voluntary_ctxt_switches:"));
      }
    }
  }
  closedir(tasks);
  return sum;
}

double WakesIdle() {
  const Channel channel = Make("");
  const uint8_t byte = 0x5a;
  for (int i = 0; i < 1000; ++i) channel->SendPacket(&byte, 1, false, false);
  Rest(100000);  // The pauses of the burst are over.
  const long before = Switches("bench");
  Rest(1000000);
  const long switches = Switches("bench") - before;
  channel->Terminate();
  return static_cast<double>(switches);
}

double Instructions(uint32_t size) {
  const Channel channel = Make("");
  const std::vector<uint8_t> bytes(size, 0x5a);
  for (int i = 0; i < 2; ++i) {  // The first round warms up: symbols, room in the queue.
    if (i == 1) CALLGRIND_TOGGLE_COLLECT;
    for (int j = 0; j < 1000; ++j) channel->SendPacket(bytes.data(), size, false, false);
    if (i == 1) CALLGRIND_TOGGLE_COLLECT;
    Rest(100000);
  }
  channel->Terminate();
  return 0;
}

}  // namespace
}  // namespace quenor::bench

int main(int argc, char** argv) {
  using namespace quenor::bench;
  const std::string word = argc > 1 ? argv[1] : "";
  const auto size = static_cast<uint32_t>(argc > 2 ? std::atoi(argv[2]) : 256);
  const std::map<std::string, double (*)(uint32_t)> words = {
      {"allocations", &Allocations},
      {"bodies", &Bodies},
      {"wakes", [](uint32_t) { return Wakes(); }},
      {"wakes_awake", [](uint32_t) { return WakesAwake(); }},
      {"wakes_idle", [](uint32_t) { return WakesIdle(); }},
      {"instructions", &Instructions}};
  const auto found = words.find(word);
  if (found == words.end()) {
    std::fprintf(stderr, "usage: %s WORD [SIZE]; the words stand at the top of probe.cc\n",
                 argv[0]);
    return 64;
  }
  std::printf("%g\n", found->second(size));
  const bool drained =
      quenor::core::ThreadManager::WaitForDrain(quenor::base::TimeDelta::FromSeconds(60));
  return drained ? 0 : 1;
}
