#include <cstdio>
#include <string>
#include <vector>

#include "benchmarks/hand_over/contenders.h"
#include "quenor_base/data_report/https/reliable_report_channel_https.h"
#include "quenor_base/platform/config_center.h"
#include "quenor_base/platform/thread_manager.h"

namespace quenor::bench {
namespace {

using Channel = std::shared_ptr<ReliableReportChannelHttps>;

class Channels : public HandOver {
 public:
  Channels(int count, const std::string& url) {
    config::ConfigCenterImpl::GetInstance()->SetHostOverride(config::BaseCfg().cache_option,
                                                             uint64_t{0});  // Nothing on disk.
    for (int i = 0; i < count; ++i) {
      channels_.push_back(
          std::make_shared<ReliableReportChannelHttps>("bench", url, 0, false, false));
      channels_.back()->Initialize();
    }
  }
  ~Channels() override {
    for (const Channel& channel : channels_) channel->Terminate();
    const bool drained = core::ThreadManager::WaitForDrain(base::TimeDelta::FromSeconds(60));
    if (!drained) std::fprintf(stderr, "bench: a channel's queue does not end\n");
  }

  std::unique_ptr<Sender> MakeSender() override {
    if (channels_.size() > 1) return std::make_unique<InTurn>(channels_);
    return std::make_unique<One>(channels_.front());
  }

  const Channel& first() const { return channels_.front(); }

 private:
  class One : public Sender {
   public:
    explicit One(Channel channel) : channel_(std::move(channel)) {}
    void Send(const uint8_t* bytes, uint32_t size) override {
      channel_->SendPacket(bytes, size, false, false);
    }

   private:
    const Channel channel_;
  };

  class InTurn : public Sender {
   public:
    explicit InTurn(std::vector<Channel> channels) : channels_(std::move(channels)) {}
    void Send(const uint8_t* bytes, uint32_t size) override {
      channels_[next_]->SendPacket(bytes, size, false, false);
      if (++next_ == channels_.size()) next_ = 0;
    }

   private:
    const std::vector<Channel> channels_;
    size_t next_ = 0;
  };

  std::vector<Channel> channels_;
};

}  // namespace

std::unique_ptr<HandOver> MakeChannel() { return MakeChannels(1); }

std::unique_ptr<HandOver> MakeChannels(int channels) {
  return std::make_unique<Channels>(channels, "");
}

std::unique_ptr<HandOver> MakeChannelWithPending(int pending) {
  // Nothing is ever sent there: the URL is gone long before the first tick of the send timer.
  auto made = std::make_unique<Channels>(1, "http://127.0.0.1:9/");
  const uint8_t byte = 0x5a;
  for (int i = 0; i < pending; ++i) made->first()->SendPacket(&byte, 1, false, false);
  made->first()->SetServerDomain("");
  return made;
}

}  // namespace quenor::bench
