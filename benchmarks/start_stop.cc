// What it takes to start and to stop channels and the process that has them, and when libcurl is
// initialised.
#include <curl/curl.h>
#include <dlfcn.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "benchmarks/footprint_support.h"
#include "benchmarks/support/area.h"
#include "quenor_base/data_report/https/reliable_report_channel_https.h"
#include "quenor_base/platform/base/path_service.h"
#include "quenor_base/platform/config_center.h"
#include "quenor_base/platform/http_client.h"
#include "quenor_base/platform/thread_manager.h"
#include "tests/support/loopback.h"

namespace {
std::atomic<int> g_libcurl_starts{0};  // relaxed: read when everything is at rest.
}

// In the place of libcurl's own, which it calls.
extern "C" CURLcode curl_global_init(long flags) {
  g_libcurl_starts.fetch_add(1, std::memory_order_relaxed);
  using Function = CURLcode (*)(long);
  static const Function own = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "curl_global_init"));
  return own == nullptr ? CURLE_FAILED_INIT : own(flags);
}

namespace quenor::bench {
namespace {

using Channel = ReliableReportChannelHttps;

std::shared_ptr<Channel> NewChannel(int number, const std::string& url) {
  return std::make_shared<Channel>("start-" + std::to_string(number), url, 0, false, false);
}

void Drain() {
  if (!core::ThreadManager::WaitForDrain(base::TimeDelta::FromSeconds(60))) Fail("no drain");
}

// ---- Starting and stopping ----------------------------------------------------------------------

// Median microseconds of each step over `count` channels in turn: not the mean, which a busy
// machine makes of its own scheduling.
struct Times {
  double start = 0;
  double stop = 0;
};

// A start is over when the channel's thread has refused a first message, for want of a URL: it is
// running then. One channel at a time, each at rest before it is stopped.
Times StartAndStop(EventCounter* events, int count) {
  std::vector<double> starts, stops;
  const uint8_t byte = 0;
  for (int i = 0; i < count; ++i) {
    events->Reset();
    const double begin = NowNs();
    const std::shared_ptr<Channel> channel = NewChannel(i, "");
    channel->Initialize();
    channel->SendPacket(&byte, 1, true, true);
    events->WaitFor(ReportEventKind::kRefused, 1);
    const double running = NowNs();
    usleep(50);  // Its thread falls asleep.
    const double ending = NowNs();
    channel->Terminate();
    Drain();
    stops.push_back((NowNs() - ending) / 1000);
    starts.push_back((running - begin) / 1000);
  }
  return {Median(starts), Median(stops)};
}

double ThreadCreation(int count) {
  static std::atomic<int> ran{0};
  std::vector<double> times;
  for (int i = 0; i < count; ++i) {
    usleep(50);  // As between a start and a stop.
    const double begin = NowNs();
    pthread_t thread;
    const auto first_instruction = [](void*) -> void* {
      ran.fetch_add(1, std::memory_order_relaxed);
      return nullptr;
    };
    if (pthread_create(&thread, nullptr, first_instruction, nullptr) != 0) Fail("no thread");
    pthread_join(thread, nullptr);
    times.push_back((NowNs() - begin) / 1000);
  }
  return Median(times);
}

// --starter OPTION FOLDER: does rounds on command, under a cache option that a process has once.
int Starter(char** argv) {
  config::ConfigCenterImpl::GetInstance()->SetHostOverride(
      config::BaseCfg().cache_option, static_cast<uint64_t>(std::atoi(argv[0])));
  if (!base::PathService::Override(base::DIR_RELIABLE_REPORT, base::FilePath(argv[1]))) return 64;
  auto* const events = new EventCounter;
  ReportEvents::SetListener(events);
  for (std::string line; std::getline(std::cin, line);) {
    const Times times = StartAndStop(events, std::atoi(line.c_str()));
    std::cout << times.start << " " << times.stop << std::endl;
  }
  return 0;
}

class RemoteStarter {
 public:
  explicit RemoteStarter(int cache_option)
      : child_({OwnPath(), "--starter", std::to_string(cache_option), folder_.path()}) {}
  Times Round(int count) {
    child_.Tell(std::to_string(count));
    Times times;
    if (std::sscanf(child_.Answer().c_str(), "%lf %lf", &times.start, &times.stop) != 2) {
      Fail("a starter's answer makes no sense");
    }
    return times;
  }

 private:
  TempFolder folder_;
  Child child_;
};

void MeasureStarts(Area* area) {
  const int count = area->Scale(200, 100);
  RemoteStarter without(0), file(1), mapped(2);
  const std::string creation = "pthread_create, first instruction, join";
  const std::string no_cache = "constructor to running, no cache";
  Row start{"start of a channel", "us"};
  start.contenders = {
      {no_cache, [&] { return without.Round(count).start; }},
      {creation, [&] { return ThreadCreation(count); }},
      {"constructor to running, mapped cache", [&] { return mapped.Round(count).start; }},
      {"constructor to running, file cache", [&] { return file.Round(count).start; }}};
  start.targets = {{Target::Kind::kAtMost, 3.0, {creation}}};
  start.note =
      "Up to the answer of the channel's thread to a first message. With a cache the start opens "
      "and locks the channel's file, which an earlier start has made.";
  area->Measure(start);
  Row stop{"stop of an idle channel", "us"};
  stop.contenders = {
      {"Terminate and WaitForDrain, no cache", [&] { return without.Round(count).stop; }},
      {creation, [&] { return ThreadCreation(count); }},
      {"Terminate and WaitForDrain, mapped cache", [&] { return mapped.Round(count).stop; }},
      {"Terminate and WaitForDrain, file cache", [&] { return file.Round(count).stop; }}};
  area->Measure(stop);
}

// ---- When libcurl starts ------------------------------------------------------------------------

size_t Threads() { return SwitchesOf(getpid()).size(); }

size_t Descriptors() {
  size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    count += entry.path().empty() ? 0 : 1;
  }
  return count;
}

// --lazy: prints what ten channels have started before anything is sent, and after.
int Lazy() {
  config::ConfigCenterImpl::GetInstance()->SetHostOverride(config::BaseCfg().cache_option,
                                                           uint64_t{0});
  auto* const events = new EventCounter;
  ReportEvents::SetListener(events);
  const size_t descriptors = Descriptors();
  if (!SetHttpDefaults(HttpDefaults()).empty()) return 1;
  std::vector<std::shared_ptr<Channel>> channels;
  const uint8_t byte = 0;
  for (int i = 0; i < 10; ++i) {
    channels.push_back(NewChannel(i, ""));
    channels.back()->Initialize();
    channels.back()->SendPacket(&byte, 1, false, true);  // Nowhere to go: refused.
  }
  events->WaitFor(ReportEventKind::kRefused, 10);
  const auto print = [&] {
    std::cout << g_libcurl_starts.load(std::memory_order_relaxed) << " " << Threads() - 11 << " "
              << Descriptors() - descriptors << std::endl;
  };
  print();
  channels[0]->SetServerDomain("http://127.0.0.1:1/");
  channels[0]->SendPacket(&byte, 1, false, true);
  events->WaitFor(ReportEventKind::kFailed, 1);
  print();
  _exit(0);
}

void TellLaziness(Area* area) {
  int starts[2], threads[2], descriptors[2];
  const std::string output = OutputOf({OwnPath(), "--lazy"});
  if (std::sscanf(output.c_str(), "%d %d %d %d %d %d", &starts[0], &threads[0], &descriptors[0],
                  &starts[1], &threads[1], &descriptors[1]) != 6) {
    Fail("the answer makes no sense: " + output);
  }
  if (starts[1] < 1 || threads[1] < 1) Fail("a send was made without libcurl");
  const std::string before = " before the first send, of ten running channels";
  area->Tell({"initialisations of libcurl" + before, "", static_cast<double>(starts[0]), 0,
              "counted in the place of curl_global_init"});
  area->Tell({"threads beside theirs" + before, "", static_cast<double>(threads[0]), 0, ""});
  area->Tell({"descriptors" + before, "", static_cast<double>(descriptors[0]), 0, ""});
  area->Tell({"initialisations of libcurl after it", "", static_cast<double>(starts[1]), 1, ""});
  area->Tell({"threads beside theirs after it", "", static_cast<double>(threads[1]), 2,
              "The network's, and while requests are on their way the one that watches over it."});
}

// ---- The end of the process ---------------------------------------------------------------------

// Listens and never takes a connection: the kernel accepts it, and nobody answers.
class SilentServer {
 public:
  SilentServer() {
    MakeCertificates(folder_.path());
    uint16_t port = 0;
    fd_ = test::BindLoopback(&port);
    if (listen(fd_, 4096) != 0) Fail("cannot listen");
    url_ = "https://127.0.0.1:" + std::to_string(port) + "/";
  }
  ~SilentServer() { close(fd_); }
  SilentServer(const SilentServer&) = delete;
  SilentServer& operator=(const SilentServer&) = delete;
  const std::string& url() const { return url_; }
  std::string ca_file() const { return folder_.path() + "/ca.pem"; }

 private:
  TempFolder folder_;
  int fd_ = -1;
  std::string url_;
};

// Returns once no thread of ours has run for a while.
void ComeToRest() {
  std::map<pid_t, uint64_t> before;
  for (;;) {
    auto now = SwitchesOf(getpid());
    now.erase(getpid());
    if (now == before) return;
    before.swap(now);
    usleep(20000);
  }
}

// --leaver COUNT URL CA_FILE: returns from main, when told to, with so many requests on their way.
// Without any it has had one that failed, so that everything is loaded and started all the same.
int Leaver(char** argv) {
  config::ConfigCenterImpl::GetInstance()->SetHostOverride(config::BaseCfg().cache_option,
                                                           uint64_t{0});
  const int count = std::atoi(argv[0]);
  HttpDefaults defaults;
  defaults.ca_file = argv[2];
  if (!SetHttpDefaults(defaults).empty()) return 64;
  auto* const events = new EventCounter;
  ReportEvents::SetListener(events);
  // Never dropped: a process may exit with a channel at work.
  const auto& channel =
      *new std::shared_ptr<Channel>(NewChannel(0, count > 0 ? argv[1] : "http://127.0.0.1:1/"));
  channel->Initialize();
  channel->SetMaxResendCount(1);
  const uint8_t byte = 0;
  for (int i = 0; i < std::max(count, 1); ++i) channel->SendPacket(&byte, 1, false, true);
  if (count > 0) events->WaitFor(ReportEventKind::kSent, static_cast<uint64_t>(count));
  if (count == 0) events->WaitFor(ReportEventKind::kFailed, 1);
  ComeToRest();  // The requests wait for their server.
  std::cout << "ready" << std::endl;
  std::string line;
  std::getline(std::cin, line);
  return 0;
}

// Median milliseconds from the word to the end of the process.
double ExitTime(int requests, const SilentServer& server, int repeats) {
  std::vector<double> times;
  for (int i = 0; i < repeats; ++i) {
    Child child({OwnPath(), "--leaver", std::to_string(requests), server.url(), server.ca_file()});
    if (child.Answer() != "ready") return -1;
    const double begin = NowNs();
    if (child.Finish() != 0) return -1;
    times.push_back((NowNs() - begin) / 1e6);
  }
  return Median(times);
}

void MeasureExit(Area* area) {
  const SilentServer server;
  const int repeats = area->Scale(10, 3);
  Row row{"return from main, to the end of the process", "ms"};
  row.contenders = {
      {"50 requests at a server that is silent", [&] { return ExitTime(50, server, repeats); }},
      {"none on its way", [&] { return ExitTime(0, server, repeats); }}};
  row.note =
      "Nothing waits for the network: a request's own limit is 15 s to connect, 50 s in all. What "
      "is more with requests is the end of their connections.";
  area->Measure(row);
}

int Main(int argc, char** argv) {
  Area area(argc, argv, "start_stop", "Start and stop: of channels and of their process");
  MeasureStarts(&area);
  MeasureExit(&area);
  TellLaziness(&area);
  return area.Finish();
}

}  // namespace
}  // namespace quenor::bench

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  if (argc == 4 && mode == "--starter") return quenor::bench::Starter(argv + 2);
  if (argc == 5 && mode == "--leaver") return quenor::bench::Leaver(argv + 2);
  if (argc == 2 && mode == "--lazy") return quenor::bench::Lazy();
  return quenor::bench::Main(argc, argv);
}
