// call_statistics URL COUNT: sends COUNT reports on a call, at the interval that the server sets.
#include <quenor_base/reporter/reporter.h>

#include <condition_variable>
#include <cstdlib>
#include <iostream>
#include <mutex>

namespace {

// What the call's own threads would count. A report has what came since the last one.
std::string Statistics(int number) {
  return "{\"report\":" + std::to_string(number) + ",\"packets\":5000,\"lost\":12}";
}

// When the next report is due. The server may change its mind at any answer.
class Schedule {
 public:
  // On the reporter's thread, which waits for it: notes it, and no more.
  void OnTuning(const quenor::Reporter::Tuning& tuning) {
    std::lock_guard<std::mutex> hold(mutex_);
    if (tuning.report_interval_ms == interval_ms_) return;
    interval_ms_ = tuning.report_interval_ms;
    std::cout << "the server wants a report every " << interval_ms_ << " ms" << std::endl;
    changed_.notify_all();
  }

  // A new interval begins when it comes.
  void WaitForNext() {
    std::unique_lock<std::mutex> hold(mutex_);
    uint32_t waited_for_ms;
    do {
      waited_for_ms = interval_ms_;
      changed_.wait_for(hold, std::chrono::milliseconds(waited_for_ms),
                        [&] { return interval_ms_ != waited_for_ms; });
    } while (interval_ms_ != waited_for_ms);
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  uint32_t interval_ms_ = 10000;  // Until the server says so.
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return std::cerr << "usage: call_statistics URL COUNT\n", 64;
  Schedule schedule;
  quenor::Reporter::Options options;
  options.name = "calls";
  options.url = argv[1];
  options.on_tuning = [&](const quenor::Reporter::Tuning& tuning) { schedule.OnTuning(tuning); };
  std::string error;
  const auto reporter = quenor::Reporter::Create(options, &error);
  if (reporter == nullptr) return std::cerr << error << '\n', 2;

  const int count = std::atoi(argv[2]);
  for (int number = 1; number <= count; ++number) {
    if (number > 1) schedule.WaitForNext();
    const std::string report = Statistics(number);
    // A report that is refused is no reason to end a call; the next one says more.
    const auto sent = reporter->Send(report.data(), report.size());
    if (!sent) std::cerr << "not taken: " << quenor::Reporter::TextOf(sent.refusal) << '\n';
  }
  const auto all = reporter->Stop(std::chrono::seconds(2));
  std::cout << all.acknowledged << " acknowledged, " << all.kept << " kept for the next start\n";
  return all.dropped + all.rejected + all.out == 0 ? 0 : 1;
}
