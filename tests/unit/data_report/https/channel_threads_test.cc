// The channel on its real queue: owners on several threads, answers on another, restarts between.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "quenor_base/data_report/https/reliable_report_channel_https.h"
#include "quenor_base/platform/config_center.h"
#include "quenor_base/platform/local_log.h"
#include "quenor_base/platform/report_events.h"
#include "quenor_base/platform/thread_manager.h"
#include "tests/conformance/dispatch_queue_conformance.h"
#include "tests/support/channel_test_fixture.h"
#include "tests/support/fakes/fake_http_client.h"
#include "tests/support/memory_faults.h"

namespace quenor::test {
namespace {

using base::TimeDelta;
using conformance::Gate;

// Counts messages in and messages out. Any thread.
class Books : public ReportEventListener {
 public:
  Books() { ReportEvents::SetListener(this); }
  ~Books() override { ReportEvents::SetListener(nullptr); }

  void OnReportEvent(const ReportEvent& event) override {
    switch (event.kind) {
      case ReportEventKind::kHandedOver:
        ++handed_over;
        break;
      case ReportEventKind::kAcknowledged:
        ++acknowledged;
        ++ended;
        break;
      case ReportEventKind::kRefused:
      case ReportEventKind::kDropped:
      case ReportEventKind::kKept:
        ++ended;
        break;
      case ReportEventKind::kAdmitted:
        ++admitted;
        break;
      default:
        break;
    }
  }

  std::atomic<int> handed_over{0}, admitted{0}, acknowledged{0}, ended{0};
};

class ChannelThreadsTest : public ::testing::Test {
 protected:
  ChannelThreadsTest()
      : network_(conformance::NewQueue("network")), http_([this](base::OnceClosure task) {
          network_->PostTask(base::Location(), std::move(task));
        }) {
    config::ConfigCenterImpl::GetInstance()->SetHostOverride(config::BaseCfg().cache_option,
                                                             uint64_t{0});
    // Levels 1 and 2 need not fill the test's output.
    SetLogSink([](void*, int, const char*, int, const char*, size_t) {}, nullptr);
    // Every request is answered as soon as it is out.
    http_.SetOnStarted([this] { network_->PostTask(base::Location(), [this] { AnswerAll(); }); });
    channel_ = std::make_shared<ReliableReportChannelHttps>("threads", "https://x.example/", 0u,
                                                            false, false);
  }
  ~ChannelThreadsTest() override {
    channel_->Terminate();
    EXPECT_TRUE(Drain());
    http_.SetOnSend(nullptr);
    http_.SetOnStarted(nullptr);
    Gate settled;
    network_->PostTask(base::Location(), [&] { settled.Open(); });
    EXPECT_TRUE(settled.Wait());
    channel_.reset();
    network_.reset();
    EXPECT_TRUE(Drain());
    EXPECT_EQ(books_.handed_over, books_.ended) << "the books do not close";
    SetLogSink(nullptr, nullptr);
  }

  static bool Drain() { return core::ThreadManager::WaitForDrain(TimeDelta::FromSeconds(60)); }

  void AnswerAll() {
    for (const size_t index : http_.Outstanding()) {
      if (index % 5 == 0) {
        http_.Fail(index);
      } else {
        http_.Answer(index, 200, "{\"bytes_errinfo\":\"success\"}");
      }
    }
  }

  Books books_;
  std::shared_ptr<DispatchQueue> network_;
  FakeHttp http_;
  std::shared_ptr<ReliableReportChannelHttps> channel_;
};

// Each thread writes and reads until both have done so often: that the other came in between is
// certain enough for the thread sanitizer on a busy machine too.
TEST(AtomicSharedPtrMutexTest, TwoThreadsReplaceAndReadThePointer) {
  constexpr int kRounds = 20000;
  internal::AtomicSharedPtrMutex<int> holder;
  holder.store(std::make_shared<int>(0));
  std::atomic<int> ready{0};
  std::atomic<bool> never_null{true};
  const auto replace_and_read = [&](int value) {
    ++ready;
    while (ready < 2) std::this_thread::yield();
    for (int i = 0; i < kRounds; ++i) {
      holder.store(std::make_shared<int>(value));
      if (holder.load() == nullptr) never_null = false;
    }
  };

  std::thread other([&] { replace_and_read(1); });
  replace_and_read(2);
  other.join();

  EXPECT_TRUE(never_null);
  const int last = *holder.load();
  EXPECT_TRUE(last == 1 || last == 2) << last;
}

TEST_F(ChannelThreadsTest, OperationsOnFourThreadsWhileTheChannelRestartsLoseNoBook) {
  std::atomic<bool> stop{false};
  std::vector<std::thread> owners;
  for (int t = 0; t < 4; ++t) {
    owners.emplace_back([&, t] {
      for (unsigned int i = 0; !stop; ++i) {
        const std::string body = std::to_string(t) + ":" + std::to_string(i);
        const auto* bytes = reinterpret_cast<const uint8_t*>(body.data());
        const auto size = static_cast<uint32_t>(body.size());
        switch (i % 8) {
          case 0:
            channel_->SendPacketWithDelay(bytes, size, true, TimeDelta::FromMicroseconds(i % 500));
            break;
          case 1:
            channel_->FlushPacket();
            break;
          case 2:
            channel_->SetResendInterval(i % 3);
            break;
          case 3:
            channel_->SetMaxResendCount(i % 7);
            break;
          case 4:
            channel_->SetServerDomain(i % 50 == 4 ? "" : "https://y.example/");
            break;
          case 5:
            EXPECT_EQ(channel_->GetReportInterval(), 10000u);
            break;
          default:
            channel_->SendPacket(bytes, size, i % 2 == 0, true);
        }
        if (i % 16 == 15) std::this_thread::yield();
      }
    });
  }
  for (int cycle = 0; cycle < 100; ++cycle) {
    channel_->Initialize();
    std::this_thread::yield();
    channel_->Terminate();
    // The owner's duty: two queues must not run at once. Operations need not have returned.
    ASSERT_TRUE(Drain());
  }
  stop = true;
  for (std::thread& owner : owners) owner.join();

  EXPECT_GT(books_.handed_over, 0);
}

TEST_F(ChannelThreadsTest, DrainAfterTerminateWaitsForAnOperationThatStillHoldsTheQueue) {
  channel_->Initialize();
  auto held = ReliableReportChannelHttpsTestPeer(channel_.get()).queue();

  channel_->Terminate();

  EXPECT_FALSE(core::ThreadManager::WaitForDrain(TimeDelta::FromMilliseconds(1)));
  held.reset();
  EXPECT_TRUE(Drain());
}

// One initialiser: a second run may not start before the first has drained.
TEST_F(ChannelThreadsTest, TerminateOnThreeThreadsRacesWithInitialize) {
  int ended_in_the_race = 0;
  for (int round = 0; round < 200; ++round) {
    std::atomic<int> waiting{4};
    const auto together = [&](void (ReliableReportChannelHttps::*operation)()) {
      return std::thread([this, operation, &waiting] {
        --waiting;
        while (waiting > 0) std::this_thread::yield();
        ((*channel_).*operation)();
      });
    };
    std::thread threads[] = {together(&ReliableReportChannelHttps::Initialize),
                             together(&ReliableReportChannelHttps::Terminate),
                             together(&ReliableReportChannelHttps::Terminate),
                             together(&ReliableReportChannelHttps::Terminate)};
    for (std::thread& thread : threads) thread.join();

    ReliableReportChannelHttpsTestPeer peer(channel_.get());
    ASSERT_TRUE(peer.state() == 0 || peer.state() == 2) << peer.state();
    ASSERT_EQ(peer.queue() != nullptr, peer.state() == 2);
    ended_in_the_race += peer.state() == 0;
    channel_->Terminate();
    ASSERT_TRUE(Drain());
    ASSERT_FALSE(peer.is_running());
  }
  RecordProperty("ended_in_the_race", ended_in_the_race);
}

TEST_F(ChannelThreadsTest, MessagesOfFourThreadsAreAllDelivered) {
  channel_->Initialize();
  Gate all;
  std::atomic<int> delivered{0};
  http_.SetOnStarted([&] {
    network_->PostTask(base::Location(), [&] {
      for (const size_t index : http_.Outstanding()) {
        if (http_.Answer(index, 200) && ++delivered == 400) all.Open();
      }
    });
  });
  std::vector<std::thread> owners;
  for (int t = 0; t < 4; ++t) {
    owners.emplace_back([&] {
      const uint8_t body[] = {'m'};
      for (int i = 0; i < 100; ++i) channel_->SendPacket(body, 1, false, true);
    });
  }
  for (std::thread& owner : owners) owner.join();

  ASSERT_TRUE(all.Wait());
  Gate settled;  // The last answer has gone through the network's queue to the channel's.
  network_->PostTask(base::Location(), [&] { settled.Open(); });
  ASSERT_TRUE(settled.Wait());
  channel_->Terminate();
  ASSERT_TRUE(Drain());

  EXPECT_EQ(books_.acknowledged, 400);
}

TEST_F(ChannelThreadsTest, SendPacketAllocatesAtMostTwiceOnTheCallersThread) {
  channel_->Initialize();
  ReportEvents::SetListener(nullptr);

  for (const uint32_t size : {0u, 2u, 256u, 4096u, 1048576u}) {
    const std::vector<uint8_t> body(size, 'm');
    for (int i = 0; i < 500; ++i) {
      MemoryFaults::Counter allocations;
      channel_->SendPacket(body.data(), size, false, i % 100 == 0);
      EXPECT_LE(allocations.count(), 2u) << "call " << i << " with " << size << " bytes";
    }
  }

  channel_->Terminate();
  EXPECT_TRUE(Drain());
  ReportEvents::SetListener(&books_);
}

TEST_F(ChannelThreadsTest, CallerWaitsForNothingWhileTheQueueIsBusy) {
  channel_->Initialize();
  Gate inside;
  Gate go_on;
  http_.SetOnSend([&](const HttpClient::Request&) {
    inside.Open();
    go_on.Wait();
  });
  const uint8_t body[] = {'m'};
  channel_->SendPacket(body, 1, false, true);
  ASSERT_TRUE(inside.Wait());

  // The queue's thread stands still; every door still lets its caller through.
  channel_->SendPacket(body, 1, true, true);
  channel_->SendPacketWithDelay(body, 1, true, TimeDelta());
  channel_->FlushPacket();
  channel_->SetResendInterval(500);
  channel_->SetMaxResendCount(2);
  channel_->SetServerDomain("https://z.example/");
  channel_->GetReportInterval();
  channel_->Terminate();
  go_on.Open();

  EXPECT_TRUE(Drain());
}

}  // namespace
}  // namespace quenor::test
