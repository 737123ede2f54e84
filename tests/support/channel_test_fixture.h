// What every test of the channel starts from: one channel on virtual time, a fake HTTP client, the
// recorded log and events, and a peer that looks inside.
// At the end of each test the books must close: every message that was handed over has ended.
#ifndef QUENOR_TESTS_SUPPORT_CHANNEL_TEST_FIXTURE_H_
#define QUENOR_TESTS_SUPPORT_CHANNEL_TEST_FIXTURE_H_

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "quenor_base/data_report/https/reliable_report_channel_https.h"
#include "quenor_base/platform/report_events.h"
#include "quenor_base/platform/socks5_proxy_config.h"
#include "tests/support/channel_test_peer.h"
#include "tests/support/deflate_faults.h"
#include "tests/support/fakes/fake_http_client.h"
#include "tests/support/fakes/recording_log.h"
#include "tests/support/fakes/recording_report_events.h"
#include "tests/support/fakes/virtual_time.h"

namespace quenor::test {

inline constexpr char kUrl[] = "https://collector.example/report";
inline constexpr char kName[] = "channel";
inline constexpr char kSourcePath[] = "quenor_base/data_report/https/reliable_report_channel_https";
inline constexpr char kSuccess[] = "{\"bytes_errinfo\":\"success\"}";

class ChannelTest : public ::testing::Test {
 protected:
  using Channel = ReliableReportChannelHttps;
  using Peer = ReliableReportChannelHttpsTestPeer;
  using Kind = ReportEventKind;
  using Cause = ReportEventCause;
  using State = HttpClient::State;
  using Texts = std::vector<std::string>;
  using TimeDelta = base::TimeDelta;

  ChannelTest() : http_([this](base::OnceClosure task) { time_.PostToNetwork(std::move(task)); }) {
    RecordingLog::Clear();
    DeflateFaults::Clear();
    GetSocks5ProxyConfigHolder()->SetConfig({});
  }

  void TearDown() override {
    if (channel_ != nullptr) {
      channel_->Terminate();
      time_.RunUntilIdle();
      channel_.reset();
      time_.RunUntilIdle();
    }
    EXPECT_EQ(events_.OpenMessages(), 0) << "the books do not close";
    EXPECT_EQ(time_.PendingDeadlines(), 0u) << "a deadline is left behind";
    EXPECT_EQ(time_.LiveQueues(), 0u) << "somebody still holds a queue";
    EXPECT_EQ(http_.LiveClients(), 0u) << "an HTTP client is left behind";
  }

  // --- Life cycle ---
  void Make(bool compress = false, bool http_client_option = false, const std::string& url = kUrl) {
    channel_ = std::make_shared<Channel>(kName, url, 0u, http_client_option, compress);
  }
  // A new channel, running.
  void Start(bool compress = false) {
    Make(compress);
    channel_->Initialize();
    time_.RunUntilIdle();
  }
  void Stop() {
    channel_->Terminate();
    time_.RunUntilIdle();
  }
  Peer peer() { return Peer(channel_.get()); }

  // --- Acting ---
  void Advance(int64_t ms) { time_.AdvanceBy(TimeDelta::FromMilliseconds(ms)); }
  // Runs `act` as a task of the channel's queue.
  void OnQueue(std::function<void(Peer)> act) { OnQueue(peer().queue(), std::move(act)); }
  void OnQueue(const std::shared_ptr<DispatchQueue>& queue, std::function<void(Peer)> act) {
    queue->PostTask(base::Location(), [this, act = std::move(act)] { act(peer()); });
    time_.RunUntilIdle();
  }
  // Hands a message over without running the queue.
  void Post(const std::string& body, bool need_cache = false, bool send_now = false) {
    channel_->SendPacket(reinterpret_cast<const uint8_t*>(body.data()),
                         static_cast<uint32_t>(body.size()), need_cache, send_now);
  }
  // Hands a message over and has it admitted.
  void Send(const std::string& body, bool need_cache = false, bool send_now = false) {
    Post(body, need_cache, send_now);
    time_.RunUntilIdle();
  }
  void SendMany(int count, const std::string& prefix = "m") {
    for (int i = 0; i < count; ++i) Post(prefix + std::to_string(i));
    time_.RunUntilIdle();
  }
  void Configure(unsigned int interval_ms) {
    channel_->SetResendInterval(interval_ms);
    time_.RunUntilIdle();
  }
  // One run of DoSend, as a tick of the send timer.
  void Tick() {
    OnQueue([](Peer peer) { peer.DoSend(); });
  }
  // Answers a request and lets the queue handle the answer.
  void Answer(size_t index, int status, const std::string& body = kSuccess) {
    ASSERT_TRUE(http_.Answer(index, status, body));
    time_.RunUntilIdle();
  }
  void Fail(size_t index, State state = State::kFailed) {
    ASSERT_TRUE(http_.Fail(index, state));
    time_.RunUntilIdle();
  }

  // --- Looking ---
  static std::string Body(const CopyOnWriteBuffer& buffer) {
    const char* bytes = buffer.cdata<char>();
    return bytes == nullptr ? std::string() : std::string(bytes, buffer.size());
  }
  Texts PendingBodies() {
    Texts bodies;
    for (const auto& message : peer().pending()) bodies.push_back(Body(message.data));
    return bodies;
  }
  // The period of the send timer in milliseconds; -1 while it is stopped.
  int64_t SendPeriod() {
    return peer().send_timer().IsRunning() ? peer().send_timer().GetCurrentDelay().InMilliseconds()
                                           : -1;
  }
  // needed, actual, successful, failed, dropping.
  std::vector<uint32_t> Counters() {
    Peer p = peer();
    return {p.needed(), p.actual(), p.successful(), p.failed(), p.dropping()};
  }
  using Counts = std::vector<uint32_t>;

  RecordingReportEvents events_;  // Outlives the tasks that tell events as they are destroyed.
  VirtualTime time_;
  FakeHttp http_;
  std::shared_ptr<Channel> channel_;
};

}  // namespace quenor::test

#endif  // QUENOR_TESTS_SUPPORT_CHANNEL_TEST_FIXTURE_H_
