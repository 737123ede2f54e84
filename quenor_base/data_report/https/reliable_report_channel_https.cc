#include "quenor_base/data_report/https/reliable_report_channel_https.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "quenor_base/data_report/https/cache_option.h"
#include "quenor_base/data_report/https/channel_events.h"
#include "quenor_base/object_pool/alloc_buffer_from_pool.h"
#include "quenor_base/platform/base/check.h"
#include "quenor_base/platform/base/file_path.h"
#include "quenor_base/platform/base/json_reader.h"
#include "quenor_base/platform/base/location.h"
#include "quenor_base/platform/base/memory_mapped_file.h"
#include "quenor_base/platform/base/optional.h"
#include "quenor_base/platform/base/thread.h"
#include "quenor_base/platform/base/values.h"
#include "quenor_base/platform/exception_barrier.h"
#include "quenor_base/platform/local_log.h"
#include "quenor_base/platform/socks5_proxy_config.h"
#include "quenor_base/platform/thread_manager.h"

QUENOR_NAMESPACE_BEGIN

// Constants and pure helpers ----------------------------------------------------------------------

namespace {

constexpr char kSourcePath[] = "quenor_base/data_report/https/reliable_report_channel_https";

// Whose exception it is when there is no memory past the copy of a message.
constexpr char kInOperation[] = "quenor's report channel, in an operation of its owner";

// The states of `state_`.
constexpr int32_t kNotInitialized = 0;
constexpr int32_t kInitializing = 1;
constexpr int32_t kInitialized = 2;
constexpr int32_t kTerminating = 3;

constexpr uint32_t kLogPeriodMs = 60000;
constexpr uint32_t kDefaultMaxResendCount = 5;
constexpr uint32_t kMinSendPeriodMs = 100;
constexpr uint32_t kFirstBackOffMs = 1000;
constexpr uint32_t kLastBackOffShift = 3;
constexpr base::TimeDelta kStatisticPeriod = base::TimeDelta::FromSeconds(600);
constexpr base::TimeDelta kCleanDelay = base::TimeDelta::FromSeconds(60);

// Trimming goes well below the limit, so that it happens in bursts and not on every message.
constexpr size_t kMaxPendingMessages = 200;
constexpr size_t kPendingMessagesAfterTrim = 150;

constexpr int kStatusOk = 200;
constexpr int kMaxJsonDepth = 200;

constexpr int kDeflateWindowBits = -15;  // Raw deflate, 32 KiB window.
constexpr int kDeflateMemoryLevel = 9;
constexpr char kZlibVersion[] = "1.3.1";  // zlib compares the first digit only.

constexpr uint32_t kPacketLengthBytes = 4;  // What each packet takes besides its bytes.

base::Location Here(int line) { return base::Location::CreateFromHere(kSourcePath, line); }

base::TimeDelta SendPeriod(uint32_t interval_ms) {
  return base::TimeDelta::FromMilliseconds(std::max(interval_ms, kMinSendPeriodMs));
}

// The bytes of a packet. The store's own: a body that a request still holds is unshared, once. When
// memory for that is exhausted the shared bytes are the same ones. Null when there are none.
inline const uint8_t* PacketBytes(CopyOnWriteBuffer* body) {
  if (body->size() == 0) return nullptr;
  const uint8_t* const bytes = body->data<uint8_t>();
  return bytes != nullptr ? bytes : body->cdata<uint8_t>();
}

void EndAndFreeStream(z_stream* stream) {
  if (stream == nullptr) return;
  deflateEnd(stream);
  std::free(stream);
}

}  // namespace

// Life cycle --------------------------------------------------------------------------------------

ReliableReportChannelHttps::ReliableReportChannelHttps(const std::string& channel_name,
                                                       const std::string& url, unsigned int,
                                                       bool http_client_option,
                                                       bool enable_compress)
    : channel_name_(channel_name),
      url_(url),
      http_client_option_(http_client_option),
      enable_compress_(enable_compress),
      log_throtter_(kLogPeriodMs) {}

ReliableReportChannelHttps::~ReliableReportChannelHttps() = default;

void ReliableReportChannelHttps::Initialize() {
  if (IsForkedCopy()) return;
  int32_t expected = kNotInitialized;
  if (!state_.compare_exchange_strong(expected, kInitializing)) return;
  base::EndOnException(kInOperation, [&] {
    max_resend_count_ = kDefaultMaxResendCount;
    // Written once, before the queue is there: whoever has loaded the queue may read it.
    if (self_.expired()) self_ = weak_from_this();
    dispatch_queue_.store(core::ThreadManager::CreateNewDispatchQueue(
        core::BusinessID::kReliableReport, channel_name_,
        base::Optional<base::Thread::Options>(base::Thread::Options())));
    const std::shared_ptr<DispatchQueue> queue = Queue();
    if (queue == nullptr) {
      state_.store(kNotInitialized);
      return;
    }
    queue->PostTask(Here(__LINE__),
                    base::BindOnce(&ReliableReportChannelHttps::DoInit, StrongThis()));
    state_.store(kInitialized);
  });
}

void ReliableReportChannelHttps::Terminate() {
  int32_t expected = kInitialized;
  if (!state_.compare_exchange_strong(expected, kTerminating)) return;
  base::EndOnException(kInOperation, [&] {
    const std::shared_ptr<DispatchQueue> queue = Queue();
    if (queue != nullptr) {
      queue->PostTask(Here(__LINE__),
                      base::BindOnce(&ReliableReportChannelHttps::DoTerminate, StrongThis()));
      queue->Retire();  // Another thread may hold it past this: the drain counts from here.
    }
    if (!IsForkedCopy()) dispatch_queue_.store(nullptr);
    state_.store(kNotInitialized);
  });
}

void ReliableReportChannelHttps::DoInit() {
  if (is_running_) return;
  if (!cache_loaded_) InitCacheMmap();
  is_running_ = true;
  if (!statistic_timer_.IsRunning()) {
    statistic_timer_.Start(Here(__LINE__), kStatisticPeriod, this,
                           &ReliableReportChannelHttps::LogoutStatistic);
  }
}

void ReliableReportChannelHttps::DoTerminate() {
  is_running_ = false;
  send_timer_.AbandonAndStop();
  statistic_timer_.AbandonAndStop();
  LogoutStatistic();
  http_client_.reset();
  const bool cache_is_whole = IsCacheWhole();  // Asked while the files can still tell.
  mmap_file_.Close();
  cache_file_.Close();
  Events().LeftOver(sending_messages_, pending_messages_, cache_is_whole);
  // Not saved first: the cache keeps what the last save wrote, and the next DoInit loads it.
  pending_messages_.clear();
  sending_messages_.clear();
  cache_loaded_ = false;
  clean_timer_.AbandonAndStop();
}

void ReliableReportChannelHttps::DoClean() { http_client_.reset(); }

ChannelEvents ReliableReportChannelHttps::Events() const { return ChannelEvents(channel_name_); }

std::shared_ptr<ReliableReportChannelHttps> ReliableReportChannelHttps::StrongThis() {
  if (std::shared_ptr<ReliableReportChannelHttps> strong = self_.lock()) return strong;
  std::shared_ptr<ReliableReportChannelHttps> strong = weak_from_this().lock();
  QUENOR_CHECK(strong != nullptr,
               "a report channel is used that no std::shared_ptr owns; make it with "
               "std::make_shared and keep the pointer until after Terminate()");
  return strong;
}

// Owner operations --------------------------------------------------------------------------------

// The admission of one message, on its way to the queue. Destroyed unrun, it tells that the message
// is lost.
struct ReliableReportChannelHttps::AdmissionTask {
  std::shared_ptr<ReliableReportChannelHttps> channel;
  CopyOnWriteBuffer data;
  bool need_cache;
  bool send_now;

  AdmissionTask(std::shared_ptr<ReliableReportChannelHttps> channel_in, CopyOnWriteBuffer data_in,
                bool need_cache_in, bool send_now_in)
      : channel(std::move(channel_in)),
        data(std::move(data_in)),
        need_cache(need_cache_in),
        send_now(send_now_in) {}
  AdmissionTask(AdmissionTask&&) noexcept = default;
  ~AdmissionTask() {
    if (channel == nullptr) return;  // Moved from, or run.
    channel->Events().Dropped(ReportEventCause::kNeverRun, data, need_cache);
  }

  void operator()() && {
    const std::shared_ptr<ReliableReportChannelHttps> strong = std::move(channel);
    strong->UpdateCacheAndSend(std::move(data), need_cache, send_now);
  }
};

// Another thread of the parent's may have held the holder's lock for ever.
std::shared_ptr<DispatchQueue> ReliableReportChannelHttps::Queue() const {
  return IsForkedCopy() ? nullptr : dispatch_queue_.load();
}

bool ReliableReportChannelHttps::CheckInitialized(const char* operation, int line) {
  // relaxed: a call that races with Initialize() or Terminate() may see either state.
  if (state_.load(std::memory_order_relaxed) == kInitialized) return true;
  if (log_throtter_.ShouldGo()) {
    LocalLog(1, kSourcePath, line, "%s, channel is not initialized", operation);
  }
  return false;
}

bool ReliableReportChannelHttps::CheckRunning(const char* operation, int line) {
  if (is_running_) return true;
  if (log_throtter_.ShouldGo()) {
    LocalLog(1, kSourcePath, line, "%s, channel is not running", operation);
  }
  return false;
}

void ReliableReportChannelHttps::HandOver(const char* operation, int line, const uint8_t* data,
                                          uint32_t size, bool need_cache, bool send_now,
                                          const base::TimeDelta* delay) {
  const MessageTag tag = Events().HandedOver(data, size, need_cache, delay != nullptr);
  const auto refuse = [&](ReportEventCause cause) {
    Events().Refused(cause, tag, data, size, need_cache);
  };
  if (!CheckInitialized(operation, line)) return refuse(ReportEventCause::kNotInitialized);
  CopyOnWriteBuffer body(data, size);
  body.set_tag(tag);
  if (body.size() != size || body.tag().id != tag.id) {
    LocalLog(2, kSourcePath, line,
             "%s, no memory to copy a message of %u bytes; it is refused, hand it over again later",
             operation, size);
    return refuse(ReportEventCause::kOutOfMemory);
  }
  const std::shared_ptr<DispatchQueue> queue = Queue();
  if (queue == nullptr) return refuse(ReportEventCause::kQueueGone);
  AdmissionTask task(StrongThis(), std::move(body), need_cache, send_now);
  base::EndOnException(kInOperation, [&] {
    if (delay != nullptr) {
      queue->PostDelayedTask(Here(line), std::move(task), *delay);
    } else {
      queue->PostTask(Here(line), std::move(task));
    }
  });
}

template <typename... Params, typename... Args>
void ReliableReportChannelHttps::PostOperation(
    const char* operation, int line, void (ReliableReportChannelHttps::*method)(Params...),
    Args&&... args) {
  if (!CheckInitialized(operation, line)) return;
  const std::shared_ptr<DispatchQueue> queue = Queue();
  if (queue == nullptr) return;
  base::EndOnException(kInOperation, [&] {
    queue->PostTask(Here(line), base::BindOnce(method, StrongThis(), std::forward<Args>(args)...));
  });
}

void ReliableReportChannelHttps::SendPacket(const uint8_t* data, uint32_t size, bool need_cache,
                                            bool send_now) {
  HandOver("SendPacket", __LINE__, data, size, need_cache, send_now, nullptr);
}

void ReliableReportChannelHttps::SendPacketWithDelay(const uint8_t* data, uint32_t size,
                                                     bool need_cache, base::TimeDelta delay) {
  HandOver("SendPacketWithDelay", __LINE__, data, size, need_cache, false, &delay);
}

void ReliableReportChannelHttps::FlushPacket() {
  PostOperation("FlushPacket", __LINE__, &ReliableReportChannelHttps::EnsureStartTimer);
}

void ReliableReportChannelHttps::SetResendInterval(unsigned int interval_ms) {
  PostOperation("SetResendInterval", __LINE__, &ReliableReportChannelHttps::DoSetResendInterval,
                interval_ms);
}

void ReliableReportChannelHttps::SetMaxResendCount(unsigned int count) {
  PostOperation("SetMaxResendCount", __LINE__, &ReliableReportChannelHttps::DoSetMaxResendCount,
                count);
}

void ReliableReportChannelHttps::SetServerDomain(const std::string& url) {
  PostOperation("SetServerDomain", __LINE__, &ReliableReportChannelHttps::DoSetServerDomain, url);
}

void ReliableReportChannelHttps::DoSetServerDomain(const std::string& url) { url_ = url; }

void ReliableReportChannelHttps::DoSetMaxResendCount(unsigned int count) {
  max_resend_count_ = count;
}

// Timers ------------------------------------------------------------------------------------------

uint32_t ReliableReportChannelHttps::GetReportInterval() { return report_interval_ms_.load(); }

void ReliableReportChannelHttps::EnsureStartTimer() {
  if (!is_running_) return;
  if (send_timer_.IsRunning()) return;
  send_timer_.Start(Here(__LINE__), SendPeriod(current_interval_ms_), this,
                    &ReliableReportChannelHttps::DoSend);
}

void ReliableReportChannelHttps::EnsureStopTimer() { send_timer_.AbandonAndStop(); }

void ReliableReportChannelHttps::ResetTimer(unsigned int interval_ms) {
  if (!is_running_) return;
  if (send_timer_.GetCurrentDelay().InMilliseconds() == int64_t{interval_ms}) return;
  send_timer_.Stop();
  send_timer_.Start(Here(__LINE__), SendPeriod(interval_ms), this,
                    &ReliableReportChannelHttps::DoSend);
}

void ReliableReportChannelHttps::DoSetResendInterval(unsigned int interval_ms) {
  if (interval_ms == resend_interval_ms_) return;
  resend_interval_ms_ = interval_ms;
  current_interval_ms_ = interval_ms;
  ResetTimer(interval_ms);
}

// Store and admission -----------------------------------------------------------------------------

void ReliableReportChannelHttps::UpdateCacheAndSend(CopyOnWriteBuffer data, bool need_cache,
                                                    bool send_now) {
  const auto refuse = [&](ReportEventCause cause) { Events().Refused(cause, data, need_cache); };
  if (!CheckRunning("UpdateCacheAndSend", __LINE__)) return refuse(ReportEventCause::kNotRunning);
  if (url_.empty()) return refuse(ReportEventCause::kNoServer);
  ++sending_message_needed_count_;
  TrimPendingMessages();

  CachedMessage message(data, need_cache);
  if (enable_compress_ && !CompressBody(data, &message.data)) {
    return Events().Dropped(ReportEventCause::kNotCompressed, data, need_cache);
  }
  Events().Admitted(message, data);
  data = CopyOnWriteBuffer();  // The store now holds the body alone.

  if (send_now && resend_interval_ms_ == 0) {
    pending_messages_.push_front(std::move(message));
    DoSend();
  } else {
    pending_messages_.push_back(std::move(message));
  }
  SaveCache();
  EnsureStartTimer();
}

void ReliableReportChannelHttps::TrimPendingMessages() {
  if (pending_messages_.size() < kMaxPendingMessages) return;
  while (pending_messages_.size() > kPendingMessagesAfterTrim) {
    Events().Dropped(ReportEventCause::kTrimmed, pending_messages_.front(), 0);
    pending_messages_.pop_front();
    ++dropping_message_count_;
  }
}

// Sending -----------------------------------------------------------------------------------------

void ReliableReportChannelHttps::DoSend() {
  if (!CheckRunning("DoSend", __LINE__)) return;
  if (pending_messages_.empty()) {
    send_timer_.AbandonAndStop();
    return;
  }
  if (url_.empty()) return;
  clean_timer_.AbandonAndStop();

  CachedMessage message = pending_messages_.front();
  HttpClient::Request request;
  request.url = url_;
  request.method = "POST";
  request.body = message.data;
  ++message.send_count;  // The copy's: the list keeps the old count until the request is under way.

  if (http_client_ == nullptr) CreateHttpClient();
  if (http_client_ == nullptr) return;
  auto bound = base::BindOnce(&ReliableReportChannelHttps::OnResponse, StrongThis());
  const int64_t request_id = http_client_->SendRequest(request, base::OnlyPosts(std::move(bound)));
  if (request_id < 1) return;

  const auto in_flight = sending_messages_.find(request_id);
  if (in_flight != sending_messages_.end()) {
    Events().Dropped(ReportEventCause::kReplaced, in_flight->second, request_id);
  }
  Events().Sent(message, request_id);
  sending_messages_.insert_or_assign(request_id, std::move(message));
  pending_messages_.pop_front();
  ++sending_message_actual_count_;
}

void ReliableReportChannelHttps::CreateHttpClient() {
  HttpClient::Config config;
  config.enable_http2 = http_client_option_;
  const Socks5ProxyConfigHolder::Socks5ProxyConfig proxy =
      GetSocks5ProxyConfigHolder()->GetConfig();
  if (proxy.enabled) config.SetSocks5Proxy(proxy.host, proxy.port, proxy.user, proxy.password);
  http_client_ = HttpClientFactory::Create(config);
}

// Compression -------------------------------------------------------------------------------------

bool ReliableReportChannelHttps::CompressBody(const CopyOnWriteBuffer& body,
                                              CopyOnWriteBuffer* compressed) {
  // No larger than the body: what deflate would make longer does not fit, and is not sent.
  const auto output = internal::AllocBufferTFromPool<uint8_t[]>(body.size());
  uint64_t length = body.size();
  if (Compress(body.cdata<uint8_t>(), body.size(), output.get(), &length) != Z_OK) return false;
  *compressed = CopyOnWriteBuffer(output.get(), static_cast<uint32_t>(length));
  compressed->set_tag(body.tag());
  return compressed->size() == length;
}

int ReliableReportChannelHttps::Compress(const uint8_t* src, uint64_t src_len, uint8_t* dst,
                                         uint64_t* dst_len) {
  if (src == nullptr || src_len == 0 || dst == nullptr || dst_len == nullptr) return Z_BUF_ERROR;
  if (z_stream_ == nullptr) {
    z_stream_ = {static_cast<z_stream*>(std::malloc(sizeof(z_stream))), &EndAndFreeStream};
    if (z_stream_ == nullptr) return Z_MEM_ERROR;
    std::memset(z_stream_.get(), 0, sizeof(z_stream));
    if (deflateInit2_(z_stream_.get(), Z_BEST_COMPRESSION, Z_DEFLATED, kDeflateWindowBits,
                      kDeflateMemoryLevel, Z_DEFAULT_STRATEGY, kZlibVersion,
                      sizeof(z_stream)) != Z_OK) {
      z_stream_.reset();
      return Z_ERRNO;
    }
  }
  if (deflateReset(z_stream_.get()) != Z_OK) {
    z_stream_.reset();
    return Z_ERRNO;
  }
  z_stream_->next_in = const_cast<uint8_t*>(src);
  z_stream_->avail_in = static_cast<uint32_t>(src_len);
  z_stream_->next_out = dst;
  z_stream_->avail_out = static_cast<uint32_t>(*dst_len);
  while (z_stream_->avail_in > 0) {
    if (z_stream_->avail_out == 0) return Z_OK;
    const int result = deflate(z_stream_.get(), Z_NO_FLUSH);
    if (result != Z_OK) return result;
  }
  int result;
  do {
    result = deflate(z_stream_.get(), Z_FINISH);
  } while (result == Z_OK);
  if (result != Z_STREAM_END) return result;
  *dst_len -= z_stream_->avail_out;
  return Z_OK;
}

// Responses ---------------------------------------------------------------------------------------

void ReliableReportChannelHttps::OnResponse(HttpClient::State state,
                                            const HttpClient::Request& request,
                                            std::unique_ptr<HttpClient::Response> response) {
  PostOperation("OnResponse", __LINE__, &ReliableReportChannelHttps::DoOnResponse, state, request,
                std::move(response));
}

void ReliableReportChannelHttps::DoOnResponse(HttpClient::State state,
                                              const HttpClient::Request& request,
                                              std::unique_ptr<HttpClient::Response> response) {
  if (!CheckRunning("DoOnResponse", __LINE__)) return;
  if (pending_messages_.empty()) {
    clean_timer_.Start(Here(__LINE__), kCleanDelay, this, &ReliableReportChannelHttps::DoClean);
  }
  const auto found = sending_messages_.find(request.request_id);
  if (found == sending_messages_.end()) return;
  CachedMessage message = std::move(found->second);
  sending_messages_.erase(found);

  if (state == HttpClient::State::kCompleted && response != nullptr &&
      response->status_code == kStatusOk) {
    Events().Acknowledged(message, request.request_id);
    OnDelivered(*response);
  } else {
    Events().Failed(state, response.get(), message, request);
    OnAttemptFailed(request.request_id, std::move(message));
  }
  SaveCache();
}

void ReliableReportChannelHttps::OnDelivered(const HttpClient::Response& response) {
  HandleResponse(response.body.cdata<char>(), response.body.size(), &response.headers);
  // Read after the reply was applied: an interval that it brought counts already.
  if (current_interval_ms_ != resend_interval_ms_) {
    current_interval_ms_ = resend_interval_ms_;
    ResetTimer(resend_interval_ms_);
  }
  continuous_fail_count_ = 0;
  ++sending_message_successful_count_;
}

void ReliableReportChannelHttps::OnAttemptFailed(int64_t request_id, CachedMessage message) {
  ++sending_message_failed_count_;
  if (message.send_count < max_resend_count_) {
    pending_messages_.push_front(std::move(message));
  } else {
    ++dropping_message_count_;
    Events().Dropped(ReportEventCause::kResendLimit, message, request_id);
  }
  if (resend_interval_ms_ == 0 && continuous_fail_count_ <= kLastBackOffShift) {
    current_interval_ms_ = kFirstBackOffMs << continuous_fail_count_;
    ResetTimer(current_interval_ms_);
  } else {
    EnsureStartTimer();
  }
  ++continuous_fail_count_;
}

void ReliableReportChannelHttps::HandleResponse(const char* body, uint32_t size,
                                                const std::map<std::string, std::string>*) {
  if (body == nullptr || size == 0) {
    LocalLog(2, kSourcePath, __LINE__, "body is empty");
    return;
  }
  const std::string_view text(body, size);
  const base::Optional<base::Value> reply = base::JSONReader::Read(text, 0, kMaxJsonDepth);
  if (!reply.has_value() || !reply->is_dict()) return;
  const std::string* error_info = reply->FindStringKey("bytes_errinfo");
  if (error_info == nullptr || *error_info != "success") {
    LocalLog(2, kSourcePath, __LINE__, "response_errinfo is not success, response_msg:%s",
             std::string(text).c_str());
    return;
  }
  const int send_interval = reply->FindIntKey("uint32_send_interval").value_or(0);
  if (send_interval > 0) DoSetResendInterval(static_cast<uint32_t>(send_interval));
  const int max_resend_count = reply->FindIntKey("uint32_max_resend_count").value_or(0);
  if (max_resend_count > 0) max_resend_count_ = static_cast<uint32_t>(max_resend_count);
  const int report_duration = reply->FindIntKey("uint32_report_duration").value_or(0);
  if (report_duration > 0) report_interval_ms_.store(static_cast<uint32_t>(report_duration) * 1000);
  if (send_interval <= 0 && max_resend_count <= 0 && report_duration <= 0) return;
  Events().Retuned(resend_interval_ms_, max_resend_count_, report_interval_ms_.load(),
                   max_resend_count > 0);
}

// Statistics --------------------------------------------------------------------------------------

void ReliableReportChannelHttps::LogoutStatistic() {
  if (sending_message_needed_count_ == 0) return;
  LocalLog(0, kSourcePath, __LINE__,
           "report channel statistical results: channel_name is %s, url is %s, sending message "
           "needed count is %u, sending message actual count is %u, sending_message successful "
           "count is %u, sending message failed count is %u, dropping message count is %u",
           channel_name_.c_str(), url_.c_str(), sending_message_needed_count_,
           sending_message_actual_count_, sending_message_successful_count_,
           sending_message_failed_count_, dropping_message_count_);
  dropping_message_count_ = 0;
  sending_message_needed_count_ = 0;
  sending_message_actual_count_ = 0;
  sending_message_successful_count_ = 0;
  sending_message_failed_count_ = 0;
}

// Cache -------------------------------------------------------------------------------------------

void ReliableReportChannelHttps::InitCacheMmap() {
  if (!cache_loaded_) LoadCache();
}

void ReliableReportChannelHttps::LoadCache() {
  if (cache_loaded_) {
    LocalLog(2, kSourcePath, __LINE__, "mmap file has been loaded!");
    return;
  }
  const int option = GetCacheOption();
  if (option == kCacheNone) return;
  if (!OpenCache()) {
    LocalLog(2, kSourcePath, __LINE__, "open mmap file failed!");
    return;
  }
  if (option == kCacheMmap) LoadCacheMmap();
  if (option == kCacheFile) LoadCacheFile();
}

bool ReliableReportChannelHttps::OpenCache() {
  const int option = GetCacheOption();
  if (option == kCacheMmap) return OpenCacheMmap();
  return option == kCacheFile && OpenCacheFile();
}

void ReliableReportChannelHttps::SaveCache() {
  const int option = GetCacheOption();
  if (option == kCacheMmap) SaveCacheMmap();
  if (option == kCacheFile) SaveCacheFile();
}

bool ReliableReportChannelHttps::OpenCacheFile() {
  if (GetCacheOption() != kCacheFile) return false;
  const base::FilePath folder = GetCacheFolerPath(cache_name_);
  if (folder.empty()) return false;
  return cache_file_.Open(folder.AppendASCII(channel_name_ + ".cache"));
}

void ReliableReportChannelHttps::LoadCacheFile() {
  if (GetCacheOption() != kCacheFile) return;
  uint32_t total_bytes = 0;
  if (!LoadMessages(&cache_file_, &total_bytes)) return;
  cache_loaded_ = true;
  LocalLog(0, kSourcePath, __LINE__, "load %s.cache successfully, data size is %u",
           channel_name_.c_str(), total_bytes);
}

void ReliableReportChannelHttps::SaveCacheFile() {
  if (GetCacheOption() != kCacheFile) return;
  if (!cache_loaded_) {
    LocalLog(2, kSourcePath, __LINE__, "cache file has been loaded!");
    return;
  }
  cache_file_.Clear();
  AppendMessages(&cache_file_);
}

uint32_t ReliableReportChannelHttps::CalculateCacheSize() {
  uint32_t size_bytes = 0;
  ForEachMessageToSave([&](const CachedMessage& message) {
    size_bytes += message.data.size() + kPacketLengthBytes;
  });
  return size_bytes;
}

bool ReliableReportChannelHttps::OpenCacheMmap() {
  if (GetCacheOption() != kCacheMmap) return false;
  const base::FilePath folder = GetCacheFolerPath(cache_name_);
  if (folder.empty()) return false;
  return mmap_file_.Open(folder.AppendASCII(channel_name_ + ".mmap"),
                         base::MemoryMappedFile::READ_WRITE_EXTEND, 0);
}

void ReliableReportChannelHttps::LoadCacheMmap() {
  if (GetCacheOption() != kCacheMmap) return;
  uint32_t total_bytes = 0;
  if (!LoadMessages(&mmap_file_, &total_bytes)) return;
  cache_loaded_ = true;
  LocalLog(0, kSourcePath, __LINE__, "load %s.mmap successfully, data size is %u",
           channel_name_.c_str(), total_bytes);
}

void ReliableReportChannelHttps::SaveCacheMmap() {
  if (GetCacheOption() != kCacheMmap) return;
  if (!cache_loaded_) {
    LocalLog(2, kSourcePath, __LINE__, "mmap file has been loaded!");
    return;
  }
  mmap_file_.Clear(int64_t{CalculateCacheSize()});
  AppendMessages(&mmap_file_);
}

template <typename Visit>
void ReliableReportChannelHttps::ForEachMessageToSave(Visit visit) {
  for (auto& [request_id, message] : sending_messages_) {
    if (message.need_cache) visit(message);
  }
  for (CachedMessage& message : pending_messages_) {
    if (message.need_cache) visit(message);
  }
}

template <typename File>
bool ReliableReportChannelHttps::LoadMessages(File* file, uint32_t* total_bytes) {
  for (;;) {
    const auto packet = file->GetNextDataPacket();
    if (packet.data == nullptr || packet.size == 0) return true;
    CachedMessage message(packet.data, packet.size, true);
    if (message.data.size() != packet.size) {
      LocalLog(2, kSourcePath, __LINE__,
               "cache: no memory to load a message of %u bytes of channel %s; the file stays as it "
               "is, and nothing is saved until the next Initialize",
               packet.size, channel_name_.c_str());
      return false;
    }
    pending_messages_.push_back(std::move(message));
    ++sending_message_needed_count_;
    *total_bytes += packet.size;
    Events().Loaded(&pending_messages_.back());
  }
}

template <typename File>
void ReliableReportChannelHttps::AppendMessages(File* file) {
  using Packet = decltype(file->GetNextDataPacket());
  uint32_t count = 0;
  ForEachMessageToSave([&](CachedMessage& message) {
    file->AppendDataPacket(Packet{PacketBytes(&message.data), message.data.size()});
    ++count;
  });
  Events().Saved(count, file->IsSaveComplete());
}

bool ReliableReportChannelHttps::IsCacheWhole() const {
  if (!cache_loaded_) return false;
  return GetCacheOption() == kCacheMmap ? mmap_file_.IsSaveComplete()
                                        : cache_file_.IsSaveComplete();
}

QUENOR_NAMESPACE_END
