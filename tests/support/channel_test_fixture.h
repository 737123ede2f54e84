// What every test of the channel starts from: one channel on virtual time, a fake HTTP client, the
// recorded log and events, and a peer that looks inside.
// At the end of each test the books must close: every message that was handed over has ended.
#ifndef QUENOR_TESTS_SUPPORT_CHANNEL_TEST_FIXTURE_H_
#define QUENOR_TESTS_SUPPORT_CHANNEL_TEST_FIXTURE_H_

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "quenor_base/data_report/https/reliable_report_channel_https.h"
#include "quenor_base/platform/report_events.h"
#include "quenor_base/platform/socks5_proxy_config.h"
#include "tests/support/deflate_faults.h"
#include "tests/support/fake_http_client.h"
#include "tests/support/recording_log.h"
#include "tests/support/recording_report_events.h"
#include "tests/support/virtual_time.h"

namespace quenor {

// Looks inside a channel. Borrows it. Queue thread, or while nothing runs; what changes the channel
// says so.
class ReliableReportChannelHttpsTestPeer {
 public:
  using Channel = ReliableReportChannelHttps;
  using Message = Channel::CachedMessage;

  explicit ReliableReportChannelHttpsTestPeer(Channel* channel) : c_(channel) {}

  const std::string& channel_name() const { return c_->channel_name_; }
  const std::string& url() const { return c_->url_; }
  bool http_client_option() const { return c_->http_client_option_; }
  bool enable_compress() const { return c_->enable_compress_; }
  std::list<Message>& pending() { return c_->pending_messages_; }
  std::map<int64_t, Message>& sending() { return c_->sending_messages_; }
  int32_t state() const { return c_->state_.load(); }
  bool is_running() const { return c_->is_running_; }
  std::shared_ptr<DispatchQueue> queue() const { return c_->dispatch_queue_.load(); }
  base::RepeatingTimer& send_timer() { return c_->send_timer_; }
  base::RepeatingTimer& statistic_timer() { return c_->statistic_timer_; }
  base::OneShotTimer& clean_timer() { return c_->clean_timer_; }
  uint32_t resend_interval_ms() const { return c_->resend_interval_ms_; }
  uint32_t current_interval_ms() const { return c_->current_interval_ms_; }
  uint32_t continuous_fail_count() const { return c_->continuous_fail_count_; }
  uint32_t max_resend_count() const { return c_->max_resend_count_; }
  HttpClient* http_client() const { return c_->http_client_.get(); }
  Throtter& log_throtter() { return c_->log_throtter_; }
  uint32_t dropping() const { return c_->dropping_message_count_; }
  uint32_t needed() const { return c_->sending_message_needed_count_; }
  uint32_t actual() const { return c_->sending_message_actual_count_; }
  uint32_t successful() const { return c_->sending_message_successful_count_; }
  uint32_t failed() const { return c_->sending_message_failed_count_; }
  bool cache_loaded() const { return c_->cache_loaded_; }
  const std::string& cache_name() const { return c_->cache_name_; }
  uint32_t report_interval_ms() const { return c_->report_interval_ms_.load(); }
  z_stream* stream() const { return c_->z_stream_.get(); }
  bool has_stream_deleter() const { return c_->z_stream_.get_deleter() != nullptr; }

  // The channel's private operations, as the queue's tasks call them.
  void DoInit() { c_->DoInit(); }
  void DoTerminate() { c_->DoTerminate(); }
  void DoClean() { c_->DoClean(); }
  void EnsureStartTimer() { c_->EnsureStartTimer(); }
  void EnsureStopTimer() { c_->EnsureStopTimer(); }
  void ResetTimer(unsigned int interval_ms) { c_->ResetTimer(interval_ms); }
  void DoSend() { c_->DoSend(); }
  int Compress(const uint8_t* src, uint64_t src_len, uint8_t* dst, uint64_t* dst_len) {
    return c_->Compress(src, src_len, dst, dst_len);
  }
  void OnResponse(HttpClient::State state, const HttpClient::Request& request,
                  std::unique_ptr<HttpClient::Response> response) {
    c_->OnResponse(state, request, std::move(response));
  }
  void HandleResponse(const char* body, uint32_t size,
                      const std::map<std::string, std::string>* headers) {
    c_->HandleResponse(body, size, headers);
  }
  void LogoutStatistic() { c_->LogoutStatistic(); }
  void InitCacheMmap() { c_->InitCacheMmap(); }
  void LoadCache() { c_->LoadCache(); }
  bool OpenCache() { return c_->OpenCache(); }
  void SaveCache() { c_->SaveCache(); }
  bool OpenCacheFile() { return c_->OpenCacheFile(); }
  void LoadCacheFile() { c_->LoadCacheFile(); }
  void SaveCacheFile() { c_->SaveCacheFile(); }
  uint32_t CalculateCacheSize() { return c_->CalculateCacheSize(); }
  bool OpenCacheMmap() { return c_->OpenCacheMmap(); }
  void LoadCacheMmap() { c_->LoadCacheMmap(); }
  void SaveCacheMmap() { c_->SaveCacheMmap(); }

  Channel& channel() { return *c_; }

  // Puts the channel into a moment that lasts too short to be met otherwise.
  void SetState(int32_t state) { c_->state_.store(state); }
  void SetQueue(std::shared_ptr<DispatchQueue> queue) {
    c_->dispatch_queue_.store(std::move(queue));
  }
  void DestroyStream() { c_->z_stream_.reset(); }

 private:
  Channel* const c_;
};

namespace test {

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

}  // namespace test
}  // namespace quenor

#endif  // QUENOR_TESTS_SUPPORT_CHANNEL_TEST_FIXTURE_H_
