// quenor_crash_sender FOLDER URL KIND LIMIT FIRST COUNT [fork]: a process with a report channel, as
// an application has it, with a cache of the KIND in FOLDER and LIMIT as resend limit. Sends the
// messages FIRST, FIRST + 1, ..., COUNT of them, and ends with whatever is not answered by then in
// the cache. With COUNT 0 it sends what the cache holds, all of it. With "fork" see Fork().
// Reports on standard output, as tests/crash/support/job.h has it. That a save is complete it says
// on the channel's own thread, once the channel has returned from the save and before it does
// anything else, and when it has found the message's bytes in the file itself; how many messages
// the save must have follows from its own books of what was admitted and answered.
#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "quenor_base/data_report/https/reliable_report_channel_https.h"
#include "quenor_base/platform/base/check.h"
#include "quenor_base/platform/base/path_service.h"
#include "quenor_base/platform/config_center.h"
#include "quenor_base/platform/local_log.h"
#include "quenor_base/platform/report_events.h"
#include "quenor_base/platform/thread_manager.h"
#include "tests/crash/support/contents.h"
#include "tests/crash/support/job.h"
#include "tests/support/forked.h"

namespace quenor::test {
namespace {

void Report(JobEvent::Kind kind, uint64_t number) {
  const JobEvent event = {kind, number};
  if (write(STDOUT_FILENO, &event, sizeof(event)) != sizeof(event)) _exit(3);  // Nobody listens.
}

// Turns the channel's events into reports, and knows how much is under way.
class Books : public ReportEventListener {
 public:
  // Its own messages are [first, end).
  Books(uint64_t first, uint64_t end, std::string cache_file)
      : first_(first), end_(end), cache_file_(std::move(cache_file)) {}

  void OnReportEvent(const ReportEvent& event) override {
    const std::string message(reinterpret_cast<const char*>(event.data),
                              event.data == nullptr ? 0 : event.size);
    const uint64_t number = NumberOf(message);
    std::lock_guard<std::mutex> hold(mutex_);
    switch (event.kind) {
      case ReportEventKind::kLoaded:
        ++open_;
        ++stored_;
        Report(JobEvent::kLoaded, number);
        break;
      case ReportEventKind::kHandedOver:
        ++open_;
        ++own_open_;
        break;
      case ReportEventKind::kAdmitted:
        ++stored_;
        admitted_.push_back(message);
        break;
      case ReportEventKind::kSent:
        Report(JobEvent::kSent, number);
        break;
      case ReportEventKind::kAcknowledged:
        --open_;
        --stored_;
        if (number >= first_ && number < end_) --own_open_;
        acknowledged_.push_back(number);
        Report(JobEvent::kAcknowledged, number);
        break;
      case ReportEventKind::kSaved:
        if (event.count != stored_) Report(JobEvent::kFailed, event.count);
        ReportSaved();
        for (const uint64_t gone : acknowledged_) Report(JobEvent::kRetired, gone);
        acknowledged_.clear();
        break;
      case ReportEventKind::kRefused:
      case ReportEventKind::kDropped:
        Report(JobEvent::kFailed, number);
        break;
      default:
        break;
    }
    changed_.notify_all();
  }

  // A line of the log. Any error ends the process: none is to be expected here.
  void OnLog(int level, const std::string& text) {
    std::lock_guard<std::mutex> hold(mutex_);
    if (level == 2) {
      std::fprintf(stderr, "%s\n", text.c_str());
      Report(JobEvent::kFailed, 0);
      _exit(1);
    }
    is_loaded_ = is_loaded_ || text.find(" successfully, data size is ") != std::string::npos;
    changed_.notify_all();
  }

  void WaitUntilLoaded() {
    std::unique_lock<std::mutex> hold(mutex_);
    changed_.wait(hold, [&] { return is_loaded_; });
  }
  // Waits until fewer than `most` messages have no answer yet, and fewer than `most_own` of its
  // own.
  void WaitForFewerThan(size_t most, size_t most_own) {
    std::unique_lock<std::mutex> hold(mutex_);
    changed_.wait(hold, [&] { return open_ < most && own_open_ < most_own; });
  }
  // Waits until every message that was handed over is in the cache.
  void WaitUntilSaved(uint64_t saved) {
    std::unique_lock<std::mutex> hold(mutex_);
    changed_.wait(hold, [&] { return saved_ >= saved; });
  }

 private:
  // Whatever the channel says: the bytes must be in its file by now.
  void ReportSaved() {
    const std::string bytes = admitted_.empty() ? "" : ReadAll(cache_file_);
    for (const std::string& message : admitted_) {
      const bool is_there = bytes.find(message) != std::string::npos;
      Report(is_there ? JobEvent::kSaved : JobEvent::kFailed, NumberOf(message));
    }
    saved_ += admitted_.size();
    admitted_.clear();
  }

  static std::string ReadAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }

  const uint64_t first_;
  const uint64_t end_;
  const std::string cache_file_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool is_loaded_ = false;
  size_t open_ = 0;
  size_t own_open_ = 0;
  uint64_t saved_ = 0;
  size_t stored_ = 0;                   // What a save must write.
  std::vector<std::string> admitted_;   // And not yet in a complete save.
  std::vector<uint64_t> acknowledged_;  // And not yet gone by a complete save.
};

// Far from what is trimmed.
constexpr size_t kMostOpen = 40;
// What was loaded is sent by ten messages a second: a killed sender must not leave many.
constexpr size_t kMostOwnOpen = 4;
constexpr unsigned kNeverMs = 3600 * 1000;

struct Orders {
  base::FilePath folder;
  std::string url;
  bool plain;
  uint32_t limit;
  uint64_t first;
  uint64_t count;
};

std::string CacheFileOf(const Orders& orders) {
  const char* const name = orders.plain ? "crash.cache" : "crash.mmap";
  return orders.folder.AppendASCII("quenor_report").AppendASCII(name).value();
}

// What the host has: the process's settings, and a channel.
std::shared_ptr<ReliableReportChannelHttps> Begin(const Orders& orders, Books* books) {
  QUENOR_CHECK(base::PathService::Override(base::DIR_RELIABLE_REPORT, orders.folder),
               "no such folder");
  config::ConfigCenterImpl::GetInstance()->SetHostOverride(config::BaseCfg().cache_option,
                                                           uint64_t{orders.plain ? 1u : 2u});
  ReportEvents::SetListener(books);
  SetLogSink([](void* to, int level, const char*, int, const char* text,
                size_t size) { static_cast<Books*>(to)->OnLog(level, std::string(text, size)); },
             books);
  auto channel = std::make_shared<ReliableReportChannelHttps>("crash", orders.url, 0, false, false);
  channel->Initialize();
  // Each Initialize() sets 5; a server that is slow to answer must not cost a message here.
  channel->SetMaxResendCount(orders.limit);
  return channel;
}

void Send(uint64_t number, ReliableReportChannelHttps* channel) {
  const std::string message = Message(number, 40 + number * 37 % 700);
  channel->SendPacket(reinterpret_cast<const uint8_t*>(message.data()),
                      static_cast<uint32_t>(message.size()), true, true);
}

int Run(const Orders& orders) {
  static Books books(orders.first, orders.first + orders.count, CacheFileOf(orders));
  const auto channel = Begin(orders, &books);
  channel->FlushPacket();
  books.WaitUntilLoaded();
  for (uint64_t i = 0; i < orders.count; ++i) {
    books.WaitForFewerThan(kMostOpen, kMostOwnOpen);
    Send(orders.first + i, channel.get());
  }
  books.WaitUntilSaved(orders.count);
  if (orders.count == 0) books.WaitForFewerThan(1, 1);
  channel->Terminate();
  const bool drained = core::ThreadManager::WaitForDrain(base::TimeDelta::FromSeconds(60));
  ReportEvents::SetListener(nullptr);
  return drained ? 0 : 1;
}

// Blocks until standard input ends.
void AwaitRelease() {
  char byte;
  while (read(STDIN_FILENO, &byte, 1) > 0) {
  }
}

// A forked child has left what belonged to its parent's threads, on purpose: no leak.
bool is_forked = false;
[[noreturn]] void ExitAsForked() {
  is_forked = true;
  std::exit(0);
}

// Saves its messages and sends none of them, and forks: a child that ends at once, in order, and
// one that does so when standard input ends. Then it waits for its end.
int Fork(const Orders& orders) {
  static Books books(orders.first, orders.first + orders.count, CacheFileOf(orders));
  const auto channel = Begin(orders, &books);
  channel->SetResendInterval(kNeverMs);
  for (uint64_t i = 0; i < orders.count; ++i) Send(orders.first + i, channel.get());
  books.WaitUntilSaved(orders.count);
  if (ResultOfChild([]() -> int { ExitAsForked(); }) != 0) Report(JobEvent::kFailed, 0);
  ForkChild([]() -> int {
    // Not by the parent: a child that is still in fork() has all that its parent has.
    Report(JobEvent::kReady, static_cast<uint64_t>(getpid()));
    AwaitRelease();
    ExitAsForked();
  });
  for (;;) pause();
}

int Main(const std::vector<std::string>& arguments) {
  QUENOR_CHECK(arguments[2] == "plain" || arguments[2] == "mapped", "no kind of cache");
  const Orders orders = {
      base::FilePath(arguments[0]), arguments[1],
      arguments[2] == "plain",      static_cast<uint32_t>(std::stoul(arguments[3])),
      std::stoull(arguments[4]),    std::stoull(arguments[5])};
  return arguments.size() > 6 ? Fork(orders) : Run(orders);
}

}  // namespace
}  // namespace quenor::test

// LeakSanitizer asks at the end of a process whether it shall look.
extern "C" int __lsan_is_turned_off();
extern "C" int __lsan_is_turned_off() { return quenor::test::is_forked ? 1 : 0; }

int main(int argc, char** argv) {
  QUENOR_CHECK(argc == 7 || (argc == 8 && std::string(argv[7]) == "fork"),
               "quenor_crash_sender FOLDER URL KIND LIMIT FIRST COUNT [fork]");
  return quenor::test::Main(std::vector<std::string>(argv + 1, argv + argc));
}
