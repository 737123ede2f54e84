// What the second set of channel tests shares: a channel on virtual time, against a fake server.
// Written without sight of the implementation, from the promises alone. Threads: the test's own.
// Life cycle: one fixture per test.
#ifndef QUENOR_TESTS_UNIT_SECOND_CHANNEL_PROMISE_FIXTURE_H_
#define QUENOR_TESTS_UNIT_SECOND_CHANNEL_PROMISE_FIXTURE_H_

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "quenor_base/data_report/https/reliable_report_channel_https.h"
#include "quenor_base/platform/base/path_service.h"
#include "quenor_base/platform/config_center.h"
#include "quenor_base/platform/socks5_proxy_config.h"
#include "tests/support/fake_http_client.h"
#include "tests/support/recording_log.h"
#include "tests/support/temp_folder.h"
#include "tests/support/virtual_time.h"

QUENOR_NAMESPACE_BEGIN

// The channel's inside, by reference. What it calls must be called on the queue.
class ReliableReportChannelHttpsTestPeer {
 public:
  using Channel = ReliableReportChannelHttps;
  using Message = Channel::CachedMessage;

  explicit ReliableReportChannelHttpsTestPeer(Channel* channel) : c_(*channel) {}

  const std::string& name() { return c_.channel_name_; }
  std::string& url() { return c_.url_; }
  bool& http_client_option() { return c_.http_client_option_; }
  bool& enable_compress() { return c_.enable_compress_; }
  std::list<Message>& pending() { return c_.pending_messages_; }
  std::map<int64_t, Message>& sending() { return c_.sending_messages_; }
  int32_t state() { return c_.state_.load(); }
  void SetState(int32_t state) { c_.state_.store(state); }
  bool& running() { return c_.is_running_; }
  std::shared_ptr<DispatchQueue> queue() { return c_.dispatch_queue_.load(); }
  void SetQueue(std::shared_ptr<DispatchQueue> queue) {
    c_.dispatch_queue_.store(std::move(queue));
  }
  base::RepeatingTimer& send_timer() { return c_.send_timer_; }
  base::RepeatingTimer& statistic_timer() { return c_.statistic_timer_; }
  base::OneShotTimer& clean_timer() { return c_.clean_timer_; }
  uint32_t& resend_interval() { return c_.resend_interval_ms_; }
  uint32_t& current_interval() { return c_.current_interval_ms_; }
  uint32_t& fail_count() { return c_.continuous_fail_count_; }
  uint32_t& max_resend() { return c_.max_resend_count_; }
  std::unique_ptr<HttpClient>& client() { return c_.http_client_; }
  uint32_t& dropping() { return c_.dropping_message_count_; }
  uint32_t& needed() { return c_.sending_message_needed_count_; }
  uint32_t& actual() { return c_.sending_message_actual_count_; }
  uint32_t& successful() { return c_.sending_message_successful_count_; }
  uint32_t& failed() { return c_.sending_message_failed_count_; }
  bool& cache_loaded() { return c_.cache_loaded_; }
  const std::string& cache_name() { return c_.cache_name_; }
  uint32_t report_interval() { return c_.report_interval_ms_.load(); }
  std::unique_ptr<z_stream, void (*)(z_stream*)>& stream() { return c_.z_stream_; }

  // The addresses of all fields, in the order in which they are to be declared.
  std::vector<const void*> FieldAddresses() {
    return {&c_.channel_name_,
            &c_.url_,
            &c_.http_client_option_,
            &c_.enable_compress_,
            &c_.pending_messages_,
            &c_.sending_messages_,
            &c_.mmap_file_,
            &c_.cache_file_,
            &c_.state_,
            &c_.is_running_,
            &c_.dispatch_queue_,
            &c_.send_timer_,
            &c_.resend_interval_ms_,
            &c_.current_interval_ms_,
            &c_.continuous_fail_count_,
            &c_.max_resend_count_,
            &c_.http_client_,
            &c_.log_throtter_,
            &c_.dropping_message_count_,
            &c_.sending_message_needed_count_,
            &c_.sending_message_actual_count_,
            &c_.sending_message_successful_count_,
            &c_.sending_message_failed_count_,
            &c_.statistic_timer_,
            &c_.clean_timer_,
            &c_.cache_loaded_,
            &c_.cache_name_,
            &c_.report_interval_ms_,
            &c_.z_stream_};
  }

  void StopTimers() {
    c_.send_timer_.AbandonAndStop();
    c_.statistic_timer_.AbandonAndStop();
    c_.clean_timer_.AbandonAndStop();
  }

  void DoInit() { c_.DoInit(); }
  void DoClean() { c_.DoClean(); }
  void DoSend() { c_.DoSend(); }
  void EnsureStartTimer() { c_.EnsureStartTimer(); }
  void EnsureStopTimer() { c_.EnsureStopTimer(); }
  void ResetTimer(unsigned int interval_ms) { c_.ResetTimer(interval_ms); }
  void LogoutStatistic() { c_.LogoutStatistic(); }
  void UpdateCacheAndSend(CopyOnWriteBuffer data, bool need_cache, bool send_now) {
    c_.UpdateCacheAndSend(std::move(data), need_cache, send_now);
  }
  int Compress(const uint8_t* src, uint64_t src_len, uint8_t* dst, uint64_t* dst_len) {
    return c_.Compress(src, src_len, dst, dst_len);
  }
  void OnResponse(HttpClient::State state, int64_t id,
                  std::unique_ptr<HttpClient::Response> response) {
    HttpClient::Request request;
    request.request_id = id;
    c_.OnResponse(state, request, std::move(response));
  }
  void DoOnResponse(HttpClient::State state, int64_t id,
                    std::unique_ptr<HttpClient::Response> response) {
    HttpClient::Request request;
    request.request_id = id;
    c_.DoOnResponse(state, request, std::move(response));
  }
  void HandleResponse(const char* body, uint32_t size,
                      const std::map<std::string, std::string>* headers) {
    c_.HandleResponse(body, size, headers);
  }

 private:
  Channel& c_;
};

QUENOR_NAMESPACE_END

namespace quenor::test {

inline constexpr char kChannelSource[] =
    "quenor_base/data_report/https/reliable_report_channel_https";
inline constexpr char kUrl[] = "https://collector.example/report";

inline base::TimeDelta Ms(int64_t ms) { return base::TimeDelta::FromMilliseconds(ms); }
inline base::TimeDelta Seconds(int64_t s) { return base::TimeDelta::FromSeconds(s); }

inline std::string Bytes(const CopyOnWriteBuffer& buffer) {
  const char* bytes = buffer.cdata<char>();
  return bytes == nullptr ? std::string() : std::string(bytes, buffer.size());
}

inline std::unique_ptr<HttpClient::Response> MakeResponse(int status,
                                                          const std::string& body = "{}") {
  auto response = std::make_unique<HttpClient::Response>();
  response->status_code = status;
  response->body = CopyOnWriteBuffer(body.data(), static_cast<uint32_t>(body.size()));
  return response;
}

// A queue that keeps what is posted and runs nothing.
class HoldingQueue : public DispatchQueue {
 public:
  ~HoldingQueue() override {
    if (on_destroyed) on_destroyed();
  }
  void PostTask(const base::Location& from, base::OnceClosure task) override {
    Keep(from, std::move(task), false, base::TimeDelta());
  }
  void PostDelayedTask(const base::Location& from, base::OnceClosure task,
                       base::TimeDelta delay) override {
    Keep(from, std::move(task), true, delay);
  }
  uint64_t PostCancelableDelayedTask(const base::Location& from, base::OnceClosure task,
                                     base::TimeDelta delay) override {
    Keep(from, std::move(task), true, delay);
    return posts.size();
  }
  bool CancelDelayedTask(uint64_t) override { return false; }

  struct Post {
    base::Location from;
    base::OnceClosure task;
    bool delayed;
    base::TimeDelta delay;
  };
  std::vector<Post> posts;
  std::function<void()> on_post;
  std::function<void()> on_destroyed;

 private:
  void Keep(const base::Location& from, base::OnceClosure task, bool delayed,
            base::TimeDelta delay) {
    posts.push_back({from, std::move(task), delayed, delay});
    if (on_post) on_post();
  }
};

class PromiseTest : public ::testing::Test {
 protected:
  using Channel = ReliableReportChannelHttps;
  using Peer = ReliableReportChannelHttpsTestPeer;
  using State = HttpClient::State;

  // The process's first channel decides on the cache for all others: 0 none, 2 memory-mapped.
  explicit PromiseTest(uint64_t cache_option = 0)
      : http_([this](base::OnceClosure answer) { time_.PostToNetwork(std::move(answer)); }) {
    config::ConfigCenterImpl::GetInstance()->SetHostOverride(config::BaseCfg().cache_option,
                                                             cache_option);
    EXPECT_TRUE(
        base::PathService::Override(base::DIR_RELIABLE_REPORT, base::FilePath(folder_.path())));
    GetSocks5ProxyConfigHolder()->SetConfig({});
    Make();
    RecordingLog::Clear();
  }

  ~PromiseTest() override {
    time_.SetAfterEachTask(nullptr);
    http_.SetOnSend(nullptr);
    http_.SetOnStarted(nullptr);
    http_.SetOnClientDestroyed(nullptr);
    if (channel_ != nullptr) channel_->Terminate();
    time_.RunUntilIdle();
    channel_.reset();
    GetSocks5ProxyConfigHolder()->SetConfig({});
  }

  // A new channel in place of the one there was.
  void Make(bool compress = false, bool option = false, const std::string& url = kUrl) {
    channel_ = std::make_shared<Channel>("second", url, 0, option, compress);
  }
  Peer Inside() { return Peer(channel_.get()); }

  void Start() {
    channel_->Initialize();
    time_.RunUntilIdle();
  }
  void Stop() {
    channel_->Terminate();
    time_.RunUntilIdle();
  }
  void Restart() {
    Stop();
    Start();
  }

  void Post(const std::string& body, bool need_cache = false, bool send_now = false) {
    channel_->SendPacket(reinterpret_cast<const uint8_t*>(body.data()),
                         static_cast<uint32_t>(body.size()), need_cache, send_now);
  }
  void Send(const std::string& body, bool need_cache = false, bool send_now = false) {
    Post(body, need_cache, send_now);
    time_.RunUntilIdle();
  }
  void SendMany(int count) {
    for (int i = 0; i < count; ++i) Post("m" + std::to_string(i));
    time_.RunUntilIdle();
  }
  void OnQueue(std::function<void()> task) {
    Inside().queue()->PostTask(base::Location(), std::move(task));
    time_.RunUntilIdle();
  }
  void Advance(base::TimeDelta delta) { time_.AdvanceBy(delta); }
  // One microsecond before `delta`, where `check` runs, and then the rest.
  void AdvanceToTheEdge(base::TimeDelta delta, const std::function<void()>& check) {
    time_.AdvanceBy(base::TimeDelta::FromMicroseconds(delta.InMicroseconds() - 1));
    check();
    time_.AdvanceBy(base::TimeDelta::FromMicroseconds(1));
  }

  void Answer(size_t index, int status, const std::string& body = "{}") {
    ASSERT_TRUE(http_.Answer(index, status, body));
    time_.RunUntilIdle();
  }
  // Sends one message at once and has the server answer it 200 with `body`.
  void Reply(const std::string& body) {
    const size_t index = http_.RequestCount();
    OnQueue([this] {
      const std::string text = "carrier";
      Inside().pending().emplace_front(CopyOnWriteBuffer(text.data(), 7), false);
      Inside().DoSend();
    });
    Answer(index, 200, body);
  }

  std::vector<std::string> PendingBodies() {
    std::vector<std::string> bodies;
    for (const auto& message : Inside().pending()) bodies.push_back(Bytes(message.data));
    return bodies;
  }
  std::vector<std::string> SentBodies() {
    std::vector<std::string> bodies;
    for (const auto& sent : http_.Requests()) bodies.push_back(sent.body);
    return bodies;
  }
  // needed, actual, successful, failed, dropping.
  std::vector<uint32_t> Counters() {
    Peer inside = Inside();
    return {inside.needed(), inside.actual(), inside.successful(), inside.failed(),
            inside.dropping()};
  }
  static std::vector<std::string> StatisticLines() {
    std::vector<std::string> lines;
    for (const std::string& text : RecordingLog::Texts(0)) {
      if (text.rfind("report channel statistical", 0) == 0) lines.push_back(text);
    }
    return lines;
  }
  static std::string StatisticLine(const std::string& name, const std::string& url,
                                   const std::vector<uint32_t>& counters) {
    return "report channel statistical results: channel_name is " + name + ", url is " + url +
           ", sending message needed count is " + std::to_string(counters[0]) +
           ", sending message actual count is " + std::to_string(counters[1]) +
           ", sending_message successful count is " + std::to_string(counters[2]) +
           ", sending message failed count is " + std::to_string(counters[3]) +
           ", dropping message count is " + std::to_string(counters[4]);
  }
  static std::vector<std::string> Refusals() { return RecordingLog::Texts(1); }
  static std::vector<std::string> Warnings() { return RecordingLog::Texts(2); }

  using Strings = std::vector<std::string>;
  using Numbers = std::vector<uint32_t>;

  TempFolder folder_;
  VirtualTime time_;
  FakeHttp http_;
  std::shared_ptr<Channel> channel_;
};

}  // namespace quenor::test

#endif  // QUENOR_TESTS_UNIT_SECOND_CHANNEL_PROMISE_FIXTURE_H_
