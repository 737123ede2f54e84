// quenor_crash_sender FOLDER URL FIRST COUNT: a process with a report channel, as an application
// has it, with the cache in FOLDER. Sends the messages FIRST, FIRST + 1, ..., COUNT of them, and
// ends with whatever is not answered by then in the cache. With COUNT 0 it sends what the cache
// holds, all of it. Reports on standard output, as tests/crash/job.h has it, from the channel's own
// events.
#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "quenor_base/data_report/https/reliable_report_channel_https.h"
#include "quenor_base/platform/base/check.h"
#include "quenor_base/platform/base/path_service.h"
#include "quenor_base/platform/local_log.h"
#include "quenor_base/platform/report_events.h"
#include "quenor_base/platform/thread_manager.h"
#include "tests/crash/contents.h"
#include "tests/crash/job.h"

namespace quenor::test {
namespace {

void Report(JobEvent::Kind kind, uint64_t number) {
  const JobEvent event = {kind, number};
  if (write(STDOUT_FILENO, &event, sizeof(event)) != sizeof(event)) _exit(3);  // Nobody listens.
}

// Turns the channel's events into reports, and knows how much is under way.
class Books : public ReportEventListener {
 public:
  void OnReportEvent(const ReportEvent& event) override {
    const uint64_t number = NumberOf(std::string(reinterpret_cast<const char*>(event.data),
                                                 event.data == nullptr ? 0 : event.size));
    std::lock_guard<std::mutex> hold(mutex_);
    switch (event.kind) {
      case ReportEventKind::kLoaded:
        ++open_;
        Report(JobEvent::kLoaded, number);
        break;
      case ReportEventKind::kHandedOver:
        ++open_;
        break;
      case ReportEventKind::kAdmitted:
        admitted_.push_back(number);
        break;
      case ReportEventKind::kAcknowledged:
        --open_;
        acknowledged_.push_back(number);
        Report(JobEvent::kAcknowledged, number);
        break;
      case ReportEventKind::kSaved:
        ReportAll(JobEvent::kSaved, &admitted_);
        ReportAll(JobEvent::kRetired, &acknowledged_);
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

  // A line of the log. Any error counts: none is to be expected here.
  void OnLog(int level, const std::string& text) {
    std::lock_guard<std::mutex> hold(mutex_);
    if (level == 2) {
      std::fprintf(stderr, "%s\n", text.c_str());
      Report(JobEvent::kFailed, 0);
    }
    is_loaded_ = is_loaded_ || text.find(".mmap successfully") != std::string::npos;
    changed_.notify_all();
  }

  void WaitUntilLoaded() {
    std::unique_lock<std::mutex> hold(mutex_);
    changed_.wait(hold, [&] { return is_loaded_; });
  }
  // Waits until fewer than so many messages have no answer yet.
  void WaitForFewerThan(size_t most) {
    std::unique_lock<std::mutex> hold(mutex_);
    changed_.wait(hold, [&] { return open_ < most; });
  }
  // Waits until every message that was handed over is in the cache.
  void WaitUntilSaved(uint64_t saved) {
    std::unique_lock<std::mutex> hold(mutex_);
    changed_.wait(hold, [&] { return saved_ >= saved; });
  }

 private:
  void ReportAll(JobEvent::Kind kind, std::vector<uint64_t>* numbers) {
    for (const uint64_t number : *numbers) Report(kind, number);
    if (kind == JobEvent::kSaved) saved_ += numbers->size();
    numbers->clear();
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  bool is_loaded_ = false;
  size_t open_ = 0;
  uint64_t saved_ = 0;
  std::vector<uint64_t> admitted_;      // And not yet in a complete save.
  std::vector<uint64_t> acknowledged_;  // And not yet gone by a complete save.
};

// Far from what is trimmed, whatever is loaded besides: that is sent by ten messages a second.
constexpr size_t kMostOpen = 8;

int Run(const std::vector<std::string>& arguments) {
  const uint64_t first = std::stoull(arguments[2]);
  const uint64_t count = std::stoull(arguments[3]);
  QUENOR_CHECK(base::PathService::Override(base::DIR_RELIABLE_REPORT, base::FilePath(arguments[0])),
               "no such folder");
  static Books books;
  ReportEvents::SetListener(&books);
  SetLogSink([](void*, int level, const char*, int, const char* text,
                size_t size) { books.OnLog(level, std::string(text, size)); },
             nullptr);
  const auto channel =
      std::make_shared<ReliableReportChannelHttps>("crash", arguments[1], 0, false, false);
  channel->Initialize();
  // Each Initialize() sets 5; a server that is slow to answer must not cost a message here.
  channel->SetMaxResendCount(UINT32_MAX);
  channel->FlushPacket();
  books.WaitUntilLoaded();
  for (uint64_t number = first; number < first + count; ++number) {
    books.WaitForFewerThan(kMostOpen);
    const std::string message = Message(number, 40 + number * 37 % 700);
    channel->SendPacket(reinterpret_cast<const uint8_t*>(message.data()),
                        static_cast<uint32_t>(message.size()), true, true);
  }
  books.WaitUntilSaved(count);
  if (count == 0) {
    channel->SetResendInterval(100);  // Failures are answered without a pause.
    books.WaitForFewerThan(1);
  }
  channel->Terminate();
  const bool drained = core::ThreadManager::WaitForDrain(base::TimeDelta::FromSeconds(60));
  ReportEvents::SetListener(nullptr);
  return drained ? 0 : 1;
}

}  // namespace
}  // namespace quenor::test

int main(int argc, char** argv) {
  QUENOR_CHECK(argc == 5, "quenor_crash_sender FOLDER URL FIRST COUNT");
  return quenor::test::Run(std::vector<std::string>(argv + 1, argv + argc));
}
