#include "benchmarks/admission/channel.h"

#include <cstdio>
#include <cstdlib>
#include <future>
#include <list>
#include <utility>

#include "quenor_base/platform/thread_manager.h"

QUENOR_NAMESPACE_BEGIN

// Reaches what the queue's tasks call.
class ReliableReportChannelHttpsTestPeer {
 public:
  explicit ReliableReportChannelHttpsTestPeer(ReliableReportChannelHttps* channel) : c_(channel) {}

  std::shared_ptr<DispatchQueue> queue() const { return c_->dispatch_queue_.load(); }
  std::list<ReliableReportChannelHttps::CachedMessage>& pending() { return c_->pending_messages_; }
  void Admit(CopyOnWriteBuffer body) { c_->UpdateCacheAndSend(std::move(body), true, false); }
  void Save() { c_->SaveCache(); }
  bool IsSaved() const { return c_->IsCacheWhole(); }

 private:
  ReliableReportChannelHttps* const c_;
};

QUENOR_NAMESPACE_END

namespace quenor::bench {
namespace {

using Peer = ReliableReportChannelHttpsTestPeer;

CopyOnWriteBuffer Body(const Bytes& bytes) {
  return CopyOnWriteBuffer(bytes.data(), static_cast<uint32_t>(bytes.size()));
}

void CheckSaved(const Peer& peer) {
  if (peer.IsSaved()) return;
  std::fprintf(stderr, "bench: a save of the channel failed\n");
  std::exit(1);
}

}  // namespace

AdmittingChannel::AdmittingChannel(const std::string& name)
    : channel_(std::make_shared<ReliableReportChannelHttps>(name, "http://127.0.0.1:9/", 0, false,
                                                            false)) {
  channel_->Initialize();
  channel_->SetResendInterval(60 * 60 * 1000);
}

AdmittingChannel::~AdmittingChannel() {
  channel_->Terminate();
  (void)core::ThreadManager::WaitForDrain(base::TimeDelta::FromSeconds(60));
}

void AdmittingChannel::OnQueue(const std::function<void()>& act) {
  std::promise<void> done;
  Peer(channel_.get()).queue()->PostTask(base::Location(), [&] {
    act();
    done.set_value();
  });
  done.get_future().wait();
}

void AdmittingChannel::Fill(size_t count, size_t size) {
  OnQueue([&] {
    Peer peer(channel_.get());
    peer.pending().clear();
    Bytes bytes(size);
    for (size_t i = 0; i < count; ++i) {
      FillRandom(&bytes, &random_);
      peer.pending().emplace_back(Body(bytes), true);
    }
    peer.Save();
    CheckSaved(peer);
  });
}

double AdmittingChannel::SteadyNs(size_t pending, size_t size, double least_ns) {
  double mean = 0;
  OnQueue([&] {
    Peer peer(channel_.get());
    std::vector<CopyOnWriteBuffer> bodies(kBatch);
    mean = MeanNsOfFresh(
        size, least_ns, &random_,
        [&](const std::vector<Bytes>& fresh) {
          for (size_t i = 0; i < kBatch; ++i) bodies[i] = Body(fresh[i]);
        },
        [&](size_t i) {
          if (peer.pending().size() > pending) peer.pending().pop_front();
          peer.Admit(std::move(bodies[i]));
        });
    CheckSaved(peer);
  });
  return mean;
}

std::vector<double> AdmittingChannel::EachNs(size_t count, size_t most, size_t size) {
  std::vector<double> each(count);
  OnQueue([&] {
    Peer peer(channel_.get());
    Bytes bytes(size);
    for (double& ns : each) {
      while (peer.pending().size() > most) peer.pending().pop_front();
      FillRandom(&bytes, &random_);
      CopyOnWriteBuffer body = Body(bytes);
      const double begin = NowNs();
      peer.Admit(std::move(body));
      ns = NowNs() - begin;
    }
    CheckSaved(peer);
  });
  return each;
}

}  // namespace quenor::bench
