// Ends a process soon after the first send of its first channel, over and over: each run is a child
// that has used nothing of the library before, and that ends as a host does.
//   exit_program URL CA_FILE OWNER RUNS
// OWNER: static (a static object terminates and drains), leaked (nobody does), thread (as static,
// and the process is ended by a second thread while the first one goes on sending). RUNS children
// with each delay from 0 to 20 ms, some at a time. Prints what was seen; 0 if all ended well.
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "quenor_base/data_report/https/reliable_report_channel_https.h"
#include "quenor_base/platform/config_center.h"
#include "quenor_base/platform/http_client.h"
#include "quenor_base/platform/local_log.h"
#include "quenor_base/platform/thread_manager.h"
#include "tests/support/forked.h"

// Children that start threads are what is tested here.
extern "C" const char* __tsan_default_options() { return "die_after_fork=0"; }

QUENOR_NAMESPACE_BEGIN
namespace {

using Channel = ReliableReportChannelHttps;

constexpr int kLongestDelayMs = 20;
constexpr size_t kAtATime = 4;
constexpr unsigned kHangSeconds = 60;

struct Owner {
  ~Owner() {
    if (channel == nullptr) return;
    channel->Terminate();
    (void)core::ThreadManager::WaitForDrain(base::TimeDelta::FromSeconds(2));
    channel.reset();
  }
  std::shared_ptr<Channel> channel;
} g_owner;

void Send(Channel* channel) {
  channel->SendPacket(reinterpret_cast<const uint8_t*>("abc"), 3, true, true);
}

[[noreturn]] void RunAndExit(const char* url, const std::string& owner, int delay_ms) {
  alarm(kHangSeconds);
  auto channel = std::make_shared<Channel>("exit", url, 0, /*http2*/ true, false);
  if (owner == "leaked") {
    new std::shared_ptr<Channel>(channel);
  } else {
    g_owner.channel = channel;
  }
  channel->Initialize();
  Send(channel.get());
  if (owner == "thread") {
    std::thread([delay_ms] {
      poll(nullptr, 0, delay_ms);
      std::exit(0);
    }).detach();
    for (;; poll(nullptr, 0, 1)) Send(channel.get());
  }
  channel.reset();
  poll(nullptr, 0, delay_ms);
  std::exit(0);
}

// What was seen of the children: "delay 3 ms, signal 11" -> how often.
std::map<std::string, int> g_seen;
std::map<pid_t, int> g_delays_ms;

void WaitForOne() {
  int status = 0;
  const pid_t child = waitpid(-1, &status, 0);
  const int delay_ms = g_delays_ms[child];
  g_delays_ms.erase(child);
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return;
  ++g_seen["delay " + std::to_string(delay_ms) + " ms, " +
           (WIFSIGNALED(status) ? "signal " + std::to_string(WTERMSIG(status))
                                : "exit code " + std::to_string(WEXITSTATUS(status)))];
}

int Main(int argc, char** argv) {
  if (argc != 5) return 64;
  HttpDefaults defaults;
  defaults.ca_file = argv[2];
  if (!SetHttpDefaults(defaults).empty()) return 64;
  config::ConfigCenterImpl::GetInstance()->SetHostOverride(config::BaseCfg().cache_option,
                                                           uint64_t{0});
  SetLogSink([](void*, int, const char*, int, const char*, size_t) {}, nullptr);
  int started = 0;
  for (int run = 0; run < std::atoi(argv[4]); ++run) {
    for (int delay_ms = 0; delay_ms <= kLongestDelayMs; ++delay_ms) {
      const pid_t child = test::ForkChild([&]() -> int { RunAndExit(argv[1], argv[3], delay_ms); });
      g_delays_ms[child] = delay_ms;
      ++started;
      if (g_delays_ms.size() >= kAtATime) WaitForOne();
    }
  }
  while (!g_delays_ms.empty()) WaitForOne();
  int bad = 0;
  for (const auto& [what, count] : g_seen) {
    std::printf("%s: %d\n", what.c_str(), count);
    bad += count;
  }
  const std::string scheme(argv[1], std::strcspn(argv[1], ":"));
  std::printf("%s, %s: %d runs, %d ended badly\n", argv[3], scheme.c_str(), started, bad);
  return bad == 0 ? 0 : 1;
}

}  // namespace
QUENOR_NAMESPACE_END

int main(int argc, char** argv) { return quenor::Main(argc, argv); }
