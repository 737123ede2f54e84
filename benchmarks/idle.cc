// Channels at rest, each in a process of its own kind: what wakes up, and what a channel occupies.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "benchmarks/footprint_support.h"
#include "benchmarks/support/area.h"
#include "quenor_base/data_report/https/reliable_report_channel_https.h"
#include "quenor_base/platform/base/path_service.h"
#include "quenor_base/platform/config_center.h"
#include "quenor_base/platform/http_client.h"
#include "quenor_base/platform/thread_manager.h"

namespace quenor::bench {
namespace {

// ---- The process that is looked at --------------------------------------------------------------

// COUNT threads that only sleep: what the operating system takes for them.
int BareThreads(int count) {
  for (int i = 0; i < count; ++i) std::thread([] { pause(); }).detach();
  usleep(200000);
  std::cout << "resting" << std::endl;
  std::string line;
  std::getline(std::cin, line);
  _exit(0);
}

// --channels COUNT http1|http2 CACHE_FOLDER|- URL CA_FILE: each channel delivers a message, then
// all rest until the input ends.
int Channels(char** argv) {
  const int count = std::atoi(argv[0]);
  const bool http2 = std::strcmp(argv[1], "http2") == 0;
  if (std::strcmp(argv[2], "-") == 0) {
    config::ConfigCenterImpl::GetInstance()->SetHostOverride(config::BaseCfg().cache_option,
                                                             uint64_t{0});
  } else if (!base::PathService::Override(base::DIR_RELIABLE_REPORT, base::FilePath(argv[2]))) {
    return 64;
  }
  HttpDefaults defaults;
  defaults.ca_file = argv[4];
  if (!SetHttpDefaults(defaults).empty()) return 64;
  auto* const events = new EventCounter;  // Told until the process ends.
  ReportEvents::SetListener(events);
  std::vector<std::shared_ptr<ReliableReportChannelHttps>> channels;
  const std::vector<uint8_t> body(100, 'x');
  for (int i = 0; i < count; ++i) {
    channels.push_back(std::make_shared<ReliableReportChannelHttps>("idle-" + std::to_string(i),
                                                                    argv[3], 0, http2, false));
    channels.back()->Initialize();
  }
  for (const auto& channel : channels) channel->SendPacket(body.data(), 100, true, true);
  events->WaitFor(ReportEventKind::kAcknowledged, static_cast<uint64_t>(count));
  std::cout << "resting" << std::endl;
  std::string line;
  std::getline(std::cin, line);
  for (const auto& channel : channels) channel->Terminate();
  return core::ThreadManager::WaitForDrain(base::TimeDelta::FromSeconds(60)) ? 0 : 1;
}

// ---- Looking on ---------------------------------------------------------------------------------

struct Kind {
  const char* name;
  bool http2;
  bool cache;
};
constexpr Kind kKinds[] = {{"HTTP/1.1", false, false},
                           {"HTTP/2", true, false},
                           {"HTTP/1.1, with the cache", false, true},
                           {"HTTP/2, with the cache", true, true}};
constexpr int kCounts[] = {1, 2, 5, 10, 20, 50, 100};

struct Resting {
  size_t kind = 0;
  int count = 0;
  std::unique_ptr<TempFolder> folder;
  std::unique_ptr<Child> child;
  Memory memory;
  std::map<pid_t, uint64_t> before;
  uint64_t switches = 0;  // While it rested.
};

std::unique_ptr<Resting> Start(const TlsServer& server, size_t kind, int count) {
  auto resting = std::make_unique<Resting>();
  resting->kind = kind;
  resting->count = count;
  resting->folder = std::make_unique<TempFolder>();
  resting->child = std::make_unique<Child>(std::vector<std::string>{
      OwnPath(), "--channels", std::to_string(count), kKinds[kind].http2 ? "http2" : "http1",
      kKinds[kind].cache ? resting->folder->path() : "-", server.url(), server.ca_file()});
  if (resting->child->Answer() != "resting") Fail("a child has no rest");
  return resting;
}

// Has everybody come to rest, then looks what happens in `seconds`.
void Watch(std::vector<std::unique_ptr<Resting>>* all, int seconds) {
  bool changed = true;
  for (int attempt = 0; changed; ++attempt) {
    if (attempt == 60) Fail("the channels do not come to rest");
    usleep(500000);
    changed = false;
    for (const auto& resting : *all) {
      auto now = SwitchesOf(resting->child->pid());
      changed = changed || now != resting->before;
      resting->before.swap(now);
    }
  }
  sleep(static_cast<unsigned>(seconds));
  for (const auto& resting : *all) {
    for (const auto& [thread, count] : SwitchesOf(resting->child->pid())) {
      resting->switches += count - resting->before[thread];
    }
    resting->memory = MemoryOf(resting->child->pid());
  }
}

double BareThreadKib() {
  double kib[2];
  const int counts[2] = {10, 100};
  for (int i = 0; i < 2; ++i) {
    Child child({OwnPath(), "--threads", std::to_string(counts[i])});
    if (child.Answer() != "resting") Fail("a child has no rest");
    kib[i] = MemoryOf(child.pid()).anonymous;
    child.Finish();
  }
  return (kib[1] - kib[0]) / (counts[1] - counts[0]);
}

const Resting& Find(const std::vector<std::unique_ptr<Resting>>& all, size_t kind, int count) {
  for (const auto& resting : all) {
    if (resting->kind == kind && resting->count == count) return *resting;
  }
  Fail("nobody rests so");
}

void TellRest(Area* area, const std::vector<std::unique_ptr<Resting>>& all, int seconds) {
  for (const int count : {1, 10, 100}) {
    uint64_t switches = 0;
    size_t threads = 0;
    for (const auto& resting : all) {
      if (resting->count != count) continue;
      switches += resting->switches;
      threads = std::max(threads, resting->before.size() - 1);
    }
    const std::string channels = std::to_string(count) + (count == 1 ? " channel" : " channels");
    area->Tell({channels + ": context switches in " + std::to_string(seconds) + " s of rest", "",
                static_cast<double>(switches), 0,
                count == 1 ? "of all threads of four processes: HTTP/1.1 and HTTP/2, without and "
                             "with the cache; connections stay open"
                           : ""});
    area->Tell({channels + ": threads beside the host's", "", static_cast<double>(threads),
                static_cast<double>(count + 1), ""});
  }
}

void TellMemory(Area* area, const std::vector<std::unique_ptr<Resting>>& all) {
  for (size_t kind = 0; kind < std::size(kKinds); ++kind) {
    const Memory few = Find(all, kind, 10).memory;
    const Memory many = Find(all, kind, 100).memory;
    area->Tell({std::string("private memory of each further channel, ") + kKinds[kind].name, "KiB",
                (many.anonymous - few.anonymous) / 90, 40,
                kind == 0 ? "between 10 and 100 channels: heap, stack and whatever the HTTP "
                            "library keeps for a request"
                          : ""});
    if (!kKinds[kind].cache) continue;
    area->Tell({std::string("pages of its cache file, ") + kKinds[kind].name, "KiB",
                (many.cache_files - few.cache_files) / 90, -1,
                "shared with the file: the kernel takes them back when it needs room"});
  }
  area->Tell({"a thread that only sleeps", "KiB", BareThreadKib(), -1,
              "the part of the above that the operating system takes for any thread"});
  for (size_t kind = 0; kind < std::size(kKinds); ++kind) {
    area->Tell({std::string("private memory of a process with one channel, ") + kKinds[kind].name,
                "KiB", Find(all, kind, 1).memory.anonymous, -1,
                kind == 0 ? "mostly what the libraries under the HTTP library write as they are "
                            "loaded and initialised"
                          : ""});
  }
}

void DrawGrowth(Area* area, const std::vector<std::unique_ptr<Resting>>& all) {
  Plot memory{"memory", "Memory of a process by its channels at rest", "channels",
              "private memory, KiB"};
  Plot threads{"threads", "Threads of a process by its channels", "channels",
               "threads beside the host's"};
  for (size_t kind = 0; kind < std::size(kKinds); ++kind) {
    Plot::Line memory_line{kKinds[kind].name, {}};
    Plot::Line threads_line = memory_line;
    for (const auto& resting : all) {
      if (resting->kind != kind) continue;
      memory_line.points.emplace_back(resting->count, resting->memory.anonymous);
      threads_line.points.emplace_back(resting->count,
                                       static_cast<double>(resting->before.size() - 1));
    }
    memory.lines.push_back(memory_line);
    if (kind == 0) threads.lines.push_back(threads_line);
  }
  memory.note =
      "Both grow in a straight line. The start is what the libraries take once; up to about 16 "
      "channels each thread also begins a heap of its own, which the threads beyond then share.";
  threads.note = "One thread for each channel and one for the network.";
  area->Draw(memory);
  area->Draw(threads);
}

int Main(int argc, char** argv) {
  Area area(argc, argv, "idle", "At rest: wake-ups, threads and memory of idle channels");
  const TlsServer server;
  const int seconds = area.Scale(20, 2);
  std::vector<std::unique_ptr<Resting>> all;
  for (size_t kind = 0; kind < std::size(kKinds); ++kind) {
    for (const int count : kCounts) {
      if (area.quick() && count != 1 && count != 10 && count != 100) continue;
      all.push_back(Start(server, kind, count));
    }
  }
  Watch(&all, seconds);
  TellRest(&area, all, seconds);
  TellMemory(&area, all);
  DrawGrowth(&area, all);
  for (const auto& resting : all) {
    if (resting->child->Finish() != 0) Fail("a child did not end well");
  }
  return area.Finish();
}

}  // namespace
}  // namespace quenor::bench

int main(int argc, char** argv) {
  if (argc == 3 && std::strcmp(argv[1], "--threads") == 0) {
    return quenor::bench::BareThreads(std::atoi(argv[2]));
  }
  if (argc == 7 && std::strcmp(argv[1], "--channels") == 0) {
    return quenor::bench::Channels(argv + 2);
  }
  return quenor::bench::Main(argc, argv);
}
