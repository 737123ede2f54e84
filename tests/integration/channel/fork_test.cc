// A host forks while its channels are at full work. The child is quiet about the parent's channels
// and may have channels of its own; the parent notices nothing.
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <thread>
#include <vector>

#include "quenor_base/platform/base/path_service.h"
#include "quenor_base/platform/local_log.h"
#include "quenor_base/platform/thread_manager.h"
#include "tests/integration/channel/channel_fixture.h"
#include "tests/integration/support/servers.h"
#include "tests/support/forked.h"

namespace quenor::test {
namespace {

using Channel = ReliableReportChannelHttps;
using Channels = std::vector<std::shared_ptr<Channel>>;

constexpr int kChannels = 3;
constexpr size_t kMostOpen = 100;       // Messages of all channels that are not answered yet.
constexpr unsigned kChildSeconds = 60;  // A child that hangs is ended by its alarm.

int ForkCount() {
  const char* const full = std::getenv("QUENOR_NETWORK_FULL");
  return full != nullptr && *full == '1' ? 1000 : 40;
}

void IgnoreLine(void*, int, const char*, int, const char*, size_t) {}

// What a child does; its exit code.
enum ChildEnd { kGood, kParentsChannelWasSent, kNotDelivered, kNotDrained };

class ForkUnderLoadTest : public ChannelOverNetworkTest {
 protected:
  ForkUnderLoadTest() : origin_("127.0.0.1:" + std::to_string(UnusedPort())) {
    const Certificate certificate = GoodCertificate();
    collector_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{QUENOR_COLLECTOR, "--listen", origin_, "--cert",
                                 certificate.certificate_file, "--key", certificate.key_file,
                                 "--log", folder_.File("received.log")},
        folder_.File("collector.out"));
    config::ConfigCenterImpl::GetInstance()->SetHostOverride(config::BaseCfg().cache_option,
                                                             uint64_t{2});
    EXPECT_TRUE(
        base::PathService::Override(base::DIR_RELIABLE_REPORT, base::FilePath(folder_.path())));
    SetLogSink(&IgnoreLine, nullptr);
  }
  ~ForkUnderLoadTest() override {
    SetLogSink(nullptr, nullptr);
    (void)base::PathService::Override(base::DIR_RELIABLE_REPORT, base::FilePath());
  }

  std::shared_ptr<Channel> StartNamed(const std::string& name) {
    auto channel =
        std::make_shared<Channel>(name, "https://" + origin_ + "/", 0, /*http2*/ false, true);
    channel->Initialize();
    channel->SetMaxResendCount(UINT32_MAX);
    return channel;
  }

  // Keeps every channel and every service busy for as long as it lives.
  class Load {
   public:
    Load(EventCounter* events, const Channels& channels) : events_(events) {
      for (const auto& channel : channels) {
        threads_.emplace_back([this, channel] { KeepSending(channel.get()); });
      }
      threads_.emplace_back([this] { KeepSetting(); });
    }
    ~Load() {
      stop_ = true;
      for (std::thread& thread : threads_) thread.join();
    }

   private:
    void KeepSending(Channel* channel) {
      while (!stop_) {
        if (sent_ < events_->Count(ReportEventKind::kAcknowledged) + kMostOpen) {
          Send(channel,
               "from the parent from the parent from the parent " + std::to_string(sent_++));
        }
        channel->SetMaxResendCount(UINT32_MAX);
        std::this_thread::yield();
      }
    }
    void KeepSetting() {
      auto* const config = config::ConfigCenterImpl::GetInstance();
      while (!stop_) {
        SetLogSink(&IgnoreLine, this);
        LocalLog(2, "fork_test", __LINE__, "a line");
        config->SetHostOverride("fork_test.key", uint64_t{1});
        ReportEvents::SetListener(events_);
        base::FilePath path;
        (void)base::PathService::Get(base::DIR_RELIABLE_REPORT, &path);
        GetSocks5ProxyConfigHolder()->SetConfig({});
      }
    }

    EventCounter* const events_;
    std::atomic<bool> stop_{false};
    std::atomic<size_t> sent_{0};
    std::vector<std::thread> threads_;
  };

  int InChild(Channels* parents, int number) {
    alarm(kChildSeconds);
    EventCounter events;  // The parent's may be locked for ever.
    for (const auto& channel : *parents) {
      Send(channel.get(), "the parent's channel, used by child " + std::to_string(number));
      channel->FlushPacket();
      channel->Terminate();
    }
    parents->clear();
    if (events.Count(ReportEventKind::kRefused) != kChannels) return kParentsChannelWasSent;
    LocalLog(2, "fork_test", __LINE__, "a line of a child's");
    const auto channel = StartNamed("child");
    Send(channel.get(), "from child from child from child " + std::to_string(number));
    events.WaitFor(ReportEventKind::kAcknowledged, 1);
    if (events.Count(ReportEventKind::kSent) != 1) return kNotDelivered;
    channel->Terminate();
    return core::ThreadManager::WaitForDrain(base::TimeDelta::FromSeconds(30)) ? kGood
                                                                               : kNotDrained;
  }

  size_t Received(std::map<std::string, size_t>* by_digest) const {
    std::ifstream log(folder_.File("received.log"));
    size_t count = 0;
    for (std::string line; std::getline(log, line); ++count) {
      ++(*by_digest)[line.substr(line.find("\"sha256\":\""), 74)];
    }
    return count;
  }

  const std::string origin_;
  std::unique_ptr<ChildProcess> collector_;
};

TEST_F(ForkUnderLoadTest, ChildrenHaveChannelsOfTheirOwnAndTheParentLosesNothing) {
#if defined(QUENOR_SANITIZED_THREAD)
  GTEST_SKIP() << "ThreadSanitizer ends children that start threads";
#elif defined(QUENOR_SANITIZED_ADDRESS)
  GTEST_SKIP() << "a fork may find AddressSanitizer's allocator locked, and the child hangs in it";
#endif
  Channels channels;
  for (int i = 0; i < kChannels; ++i) channels.push_back(StartNamed("parent" + std::to_string(i)));
  const int forks = ForkCount();
  int ends[5] = {};
  {
    const Load load(&events_, channels);
    for (int i = 0; i < forks; ++i) {
      events_.WaitFor(ReportEventKind::kAcknowledged, static_cast<size_t>(10 * (i + 1)));
      const int result = ResultOfChild([&] { return InChild(&channels, i); });
      ++ends[result >= 0 && result < 4 ? result : 4];
    }
  }
  const size_t handed_over = events_.Count(ReportEventKind::kHandedOver);
  events_.WaitFor(ReportEventKind::kAcknowledged, handed_over);
  for (const auto& channel : channels) channel->Terminate();
  EXPECT_TRUE(core::ThreadManager::WaitForDrain(base::TimeDelta::FromSeconds(30)));

  std::map<std::string, size_t> by_digest;
  const size_t received = Received(&by_digest);
  std::cout << forks << " forks: " << ends[kGood] << " children delivered a message of their own, "
            << ends[4] << " hung or crashed; the parent handed over " << handed_over
            << " messages meanwhile, " << by_digest.size() << " different ones arrived, "
            << received - by_digest.size() << " twice" << std::endl;
  EXPECT_EQ(forks, ends[kGood]);
  EXPECT_EQ(0, ends[kParentsChannelWasSent]);
  EXPECT_EQ(0, ends[kNotDelivered]);
  EXPECT_EQ(0, ends[kNotDrained]);
  EXPECT_EQ(0, ends[4]);
  EXPECT_EQ(handed_over + static_cast<size_t>(forks), by_digest.size());
  EXPECT_EQ(received, by_digest.size());
}

}  // namespace
}  // namespace quenor::test
