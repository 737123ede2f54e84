// What SendPacket costs its caller, against a floor measured in the same run, round by round in
// turn: the same bytes copied into a mutex-guarded deque that a thread of its own empties.
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "quenor_base/data_report/https/reliable_report_channel_https.h"
#include "quenor_base/platform/config_center.h"
#include "quenor_base/platform/thread_manager.h"

namespace {

constexpr int kRounds = 9;
constexpr int kBursts = 200;
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
double Round(const Send& send) {
  std::chrono::nanoseconds spent{0};
  for (int burst = 0; burst < kBursts; ++burst) {
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < kBurstSize; ++i) send();
    spent += std::chrono::steady_clock::now() - begin;
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  return static_cast<double>(spent.count()) / (kBursts * kBurstSize);
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

}  // namespace

int main() {
  quenor::config::ConfigCenterImpl::GetInstance()->SetHostOverride(
      quenor::config::BaseCfg().cache_option, uint64_t{0});  // Nothing on disk.
  std::printf("hand-over, 1 thread, bursts of %d, %d rounds; ns per message, median (min to max)\n",
              kBurstSize, kRounds);
  for (const size_t size : {size_t{256}, size_t{4096}}) {
    const std::vector<uint8_t> bytes(size, 0x5a);
    // Without a server every message goes through the queue and is then refused.
    const auto channel =
        std::make_shared<quenor::ReliableReportChannelHttps>("bench", "", 0, false, false);
    channel->Initialize();
    FloorQueue floor_queue;
    std::vector<double> ours;
    std::vector<double> floor;
    for (int round = 0; round < kRounds; ++round) {
      ours.push_back(Round([&] {
        channel->SendPacket(bytes.data(), static_cast<uint32_t>(bytes.size()), false, false);
      }));
      floor.push_back(Round([&] { floor_queue.Send(bytes); }));
    }
    channel->Terminate();
    if (!quenor::core::ThreadManager::WaitForDrain(quenor::base::TimeDelta::FromSeconds(60)))
      return 1;
    const auto range = [](const std::vector<double>& values) {
      return std::minmax_element(values.begin(), values.end());
    };
    std::printf(
        "%5zu bytes: SendPacket %.0f (%.0f to %.0f), copy + mutex + deque + condition "
        "variable %.0f (%.0f to %.0f), ratio %.2f\n",
        size, Median(ours), *range(ours).first, *range(ours).second, Median(floor),
        *range(floor).first, *range(floor).second, Median(ours) / Median(floor));
  }
}
