// A peer that looks inside a channel, for its tests and its fuzzer.
#ifndef QUENOR_TESTS_SUPPORT_CHANNEL_TEST_PEER_H_
#define QUENOR_TESTS_SUPPORT_CHANNEL_TEST_PEER_H_

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "quenor_base/data_report/https/reliable_report_channel_https.h"

QUENOR_NAMESPACE_BEGIN

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
  const void* state_field() const { return &c_->state_; }
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

  // The addresses of the fields, in the order in which the class is to have them.
  std::vector<const void*> Fields() const {
    const Channel& c = *c_;
    return {&c.channel_name_,
            &c.url_,
            &c.http_client_option_,
            &c.enable_compress_,
            &c.pending_messages_,
            &c.sending_messages_,
            &c.mmap_file_,
            &c.cache_file_,
            &c.state_,
            &c.is_running_,
            &c.dispatch_queue_,
            &c.send_timer_,
            &c.resend_interval_ms_,
            &c.current_interval_ms_,
            &c.continuous_fail_count_,
            &c.max_resend_count_,
            &c.http_client_,
            &c.log_throtter_,
            &c.dropping_message_count_,
            &c.sending_message_needed_count_,
            &c.sending_message_actual_count_,
            &c.sending_message_successful_count_,
            &c.sending_message_failed_count_,
            &c.statistic_timer_,
            &c.clean_timer_,
            &c.cache_loaded_,
            &c.cache_name_,
            &c.report_interval_ms_,
            &c.z_stream_};
  }

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

QUENOR_NAMESPACE_END

#endif  // QUENOR_TESTS_SUPPORT_CHANNEL_TEST_PEER_H_
