// What SendPacket costs its caller, against a floor measured in the same run, round by round in
// turn: the same bytes copied into a mutex-guarded deque that a thread of its own empties.
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "benchmarks/support/area.h"
#include "quenor_base/data_report/https/reliable_report_channel_https.h"
#include "quenor_base/platform/config_center.h"
#include "quenor_base/platform/thread_manager.h"

namespace {

constexpr int kBurstSize = 100;

class FloorQueue {
 public:
  FloorQueue() : thread_([this] { Run(); }) {}
  ~FloorQueue() {
    {
      std::lock_guard<std::mutex> hold(mutex_);
      stop_ = true;
    }
    changed_.notify_one();
    thread_.join();
  }

  void Send(const std::vector<uint8_t>& bytes) {
    auto copy = std::make_unique<std::vector<uint8_t>>(bytes);
    {
      std::lock_guard<std::mutex> hold(mutex_);
      messages_.push_back(std::move(copy));
    }
    changed_.notify_one();
  }

 private:
  void Run() {
    std::unique_lock<std::mutex> hold(mutex_);
    for (;;) {
      changed_.wait(hold, [this] { return stop_ || !messages_.empty(); });
      if (messages_.empty()) return;
      std::unique_ptr<std::vector<uint8_t>> message = std::move(messages_.front());
      messages_.pop_front();
      hold.unlock();
      message.reset();  // Without the lock, as a channel does with what it does not keep.
      hold.lock();
    }
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::unique_ptr<std::vector<uint8_t>>> messages_;
  bool stop_ = false;
  std::thread thread_;
};

// Mean nanoseconds per call of a round of bursts, with a pause in which the receiver catches up.
template <typename Send>
double Round(int bursts, const Send& send) {
  std::chrono::nanoseconds spent{0};
  for (int burst = 0; burst < bursts; ++burst) {
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < kBurstSize; ++i) send();
    spent += std::chrono::steady_clock::now() - begin;
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  return static_cast<double>(spent.count()) / (bursts * kBurstSize);
}

}  // namespace

int main(int argc, char** argv) {
  quenor::bench::Area area(argc, argv, "hand_over", "Hand-over: what SendPacket costs its caller");
  quenor::config::ConfigCenterImpl::GetInstance()->SetHostOverride(
      quenor::config::BaseCfg().cache_option, uint64_t{0});  // Nothing on disk.
  const int bursts = area.Scale(200, 20);
  for (const size_t size : {size_t{256}, size_t{4096}}) {
    const std::vector<uint8_t> bytes(size, 0x5a);
    // Without a server every message goes through the queue and is then refused.
    const auto channel =
        std::make_shared<quenor::ReliableReportChannelHttps>("bench", "", 0, false, false);
    channel->Initialize();
    FloorQueue floor_queue;
    quenor::bench::Row row{std::to_string(size) + " bytes, 1 thread, bursts of 100", "ns"};
    row.contenders = {{"SendPacket",
                       [&] {
                         return Round(bursts, [&] {
                           channel->SendPacket(bytes.data(), static_cast<uint32_t>(size), false,
                                               false);
                         });
                       }},
                      {"copy + mutex + deque + condition variable",
                       [&] { return Round(bursts, [&] { floor_queue.Send(bytes); }); }}};
    row.targets = {
        {quenor::bench::Target::Kind::kAtMost, 1.0, {"copy + mutex + deque + condition variable"}}};
    area.Measure(row);
    channel->Terminate();
    if (!quenor::core::ThreadManager::WaitForDrain(quenor::base::TimeDelta::FromSeconds(60)))
      return 1;
  }
  return area.Finish();
}
