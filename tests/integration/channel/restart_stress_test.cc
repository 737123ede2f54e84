// Producers call every operation while the owner starts and stops the channel over and over, with
// all services real and a server that refuses connections. Counts, not times, end the test.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "quenor_base/data_report/https/reliable_report_channel_https.h"
#include "quenor_base/platform/config_center.h"
#include "quenor_base/platform/local_log.h"
#include "quenor_base/platform/report_events.h"
#include "quenor_base/platform/thread_manager.h"
#include "tests/integration/support/servers.h"

namespace quenor::test {
namespace {

constexpr int kProducers = 3;
constexpr int kRounds = 300;
constexpr uint64_t kMessagesPerRound = 40;

// Knows each message by the number that is its body.
class Books : public ReportEventListener {
 public:
  void OnReportEvent(const ReportEvent& event) override {
    if (event.kind == ReportEventKind::kRetuned) return;
    uint64_t number = 0;
    ASSERT_EQ(event.size, sizeof(number));
    std::memcpy(&number, event.data, sizeof(number));
    std::lock_guard<std::mutex> hold(mutex_);
    switch (event.kind) {
      case ReportEventKind::kHandedOver:
        ++handed_over_;
        open_[number] = true;
        break;
      case ReportEventKind::kAcknowledged:
      case ReportEventKind::kDropped:
      case ReportEventKind::kRefused:
      case ReportEventKind::kKept:
        if (open_.erase(number) == 0) ++ended_twice_;
        break;
      default:
        if (open_.count(number) == 0) ++unknown_;
    }
  }

  uint64_t handed_over() { return Read(handed_over_); }
  uint64_t ended_twice() { return Read(ended_twice_); }
  uint64_t unknown() { return Read(unknown_); }
  size_t open() {
    std::lock_guard<std::mutex> hold(mutex_);
    return open_.size();
  }

 private:
  uint64_t Read(const uint64_t& value) {
    std::lock_guard<std::mutex> hold(mutex_);
    return value;
  }

  std::mutex mutex_;
  std::map<uint64_t, bool> open_;
  uint64_t handed_over_ = 0;
  uint64_t ended_twice_ = 0;
  uint64_t unknown_ = 0;
};

void CallAnything(ReliableReportChannelHttps* channel, const std::string& url, uint64_t number,
                  std::minstd_rand* random) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(&number);
  switch ((*random)() % 12) {
    case 0:
      return channel->FlushPacket();
    case 1:
      return channel->SetResendInterval((*random)() % 3 == 0 ? (*random)() % 200 : 0);
    case 2:
      return channel->SetMaxResendCount(1 + (*random)() % 4);
    case 3:
      return channel->SetServerDomain((*random)() % 20 == 0 ? "" : url);
    case 4:
      return channel->SendPacketWithDelay(
          bytes, sizeof(number), true,
          base::TimeDelta::FromMicroseconds(static_cast<int64_t>((*random)() % 5000) - 100));
    default:
      return channel->SendPacket(bytes, sizeof(number), (*random)() % 2 == 0, (*random)() % 2 == 0);
  }
}

TEST(ChannelRestartStressTest, BooksCloseAfterEveryDrainWhileProducersGoOn) {
  SetLogSink([](void*, int, const char*, int, const char*, size_t) {}, nullptr);
  config::ConfigCenterImpl::GetInstance()->SetHostOverride(config::BaseCfg().cache_option,
                                                           uint64_t{0});
  Books books;
  ReportEvents::SetListener(&books);
  const std::string url = "http://127.0.0.1:" + std::to_string(UnusedPort()) + "/";
  const auto channel = std::make_shared<ReliableReportChannelHttps>("stress", url, 0, false, false);
  std::atomic<bool> stop{false};
  std::atomic<uint64_t> next_number{1};
  std::vector<std::thread> producers;
  for (int i = 0; i < kProducers; ++i) {
    producers.emplace_back([&, i] {
      std::minstd_rand random(static_cast<unsigned>(i) + 5);
      while (!stop) {
        CallAnything(channel.get(), url, next_number++, &random);
        if (random() % 4 == 0) std::this_thread::yield();
      }
    });
  }

  for (int round = 0; round < kRounds; ++round) {
    channel->Initialize();
    const uint64_t enough = books.handed_over() + kMessagesPerRound;
    while (books.handed_over() < enough) std::this_thread::yield();
    channel->Terminate();
    ASSERT_TRUE(core::ThreadManager::WaitForDrain(base::TimeDelta::FromSeconds(60)));
  }
  stop = true;
  for (std::thread& producer : producers) producer.join();
  ASSERT_TRUE(core::ThreadManager::WaitForDrain(base::TimeDelta::FromSeconds(60)));
  ReportEvents::SetListener(nullptr);
  SetLogSink(nullptr, nullptr);

  EXPECT_EQ(0u, books.open());
  EXPECT_EQ(0u, books.ended_twice());
  EXPECT_EQ(0u, books.unknown());
  EXPECT_GE(books.handed_over(), kRounds * kMessagesPerRound);
}

}  // namespace
}  // namespace quenor::test
