// ReliableReportChannelHttps: one named channel that keeps each report until a server has answered
// 200 to it, within the bounds that its operations name. Threads: the public operations on any
// thread, never blocking on the network or the disk; everything private on the channel's own queue
// thread, the only one that touches the store, the timers, the client, the counters and the cache.
// Life cycle: owned by a std::shared_ptr from construction on; Initialize, operations, Terminate,
// and again. Exceptions: only the constructor lets one out (std::bad_alloc); any other
// std::bad_alloc ends the process, after a line that says whose it was, and so does what a listener
// or a log sink throws. docs/design/channel.md tells a message's way; duties of the owner stand
// with the methods.
#ifndef QUENOR_BASE_DATA_REPORT_HTTPS_RELIABLE_REPORT_CHANNEL_HTTPS_H_
#define QUENOR_BASE_DATA_REPORT_HTTPS_RELIABLE_REPORT_CHANNEL_HTTPS_H_

#include <zlib.h>

#include <atomic>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "quenor_base/buffer/copy_on_write_buffer.h"
#include "quenor_base/data_report/https/atomic_shared_ptr_mutex.h"
#include "quenor_base/platform/base/fork.h"
#include "quenor_base/platform/base/time.h"
#include "quenor_base/platform/base/timer.h"
#include "quenor_base/platform/dispatch_queue.h"
#include "quenor_base/platform/http_client.h"
#include "quenor_base/platform/multi_process_safety_mmap_file.h"
#include "quenor_base/platform/reliable_report_cache_file.h"
#include "quenor_base/platform/throtter.h"

QUENOR_NAMESPACE_BEGIN

class ChannelEvents;

class ReliableReportChannelHttps : public std::enable_shared_from_this<ReliableReportChannelHttps> {
 public:
  // One queued message. Copies share the body.
  struct CachedMessage {
    explicit CachedMessage(bool need_cache_in) : need_cache(need_cache_in) {}
    CachedMessage(CopyOnWriteBuffer data_in, bool need_cache_in)
        : data(std::move(data_in)), need_cache(need_cache_in) {}
    // Copies `size` bytes.
    CachedMessage(const uint8_t* bytes, uint32_t size, bool need_cache_in)
        : data(bytes, size), need_cache(need_cache_in) {}

    CopyOnWriteBuffer data;   // The request's body, exactly as it will be sent.
    uint32_t send_count = 0;  // How often it has been put on the wire.
    bool need_cache;          // Written to the persistent cache until it is acknowledged.
  };

  // --- Life cycle -----------------------------------------------------------------------------

  // Any thread. Copies the strings; starts nothing. `channel_name` names the queue's thread and the
  // cache file, `url` is where messages are POSTed (https:// or http://); while it is empty no
  // message is taken. The third argument is ignored. `http_client_option` turns HTTP/2 on,
  // `enable_compress` sends every body as raw deflate; a body that deflate does not make shorter is
  // then dropped.
  ReliableReportChannelHttps(const std::string& channel_name, const std::string& url, unsigned int,
                             bool http_client_option, bool enable_compress);
  // Any thread. Saves, stops and logs nothing. The owner calls Terminate() before it drops the last
  // reference to a channel that is initialised; otherwise the timers end the process, after a line
  // on standard error.
  ~ReliableReportChannelHttps();
  ReliableReportChannelHttps(const ReliableReportChannelHttps&) = delete;
  ReliableReportChannelHttps& operator=(const ReliableReportChannelHttps&) = delete;

  // Any thread. Creates the channel's queue and thread and lets operations in; ignored unless the
  // channel is uninitialised. When no thread can be made the channel stays uninitialised and the
  // call may be repeated. Sets the resend limit to 5. After a Terminate() the owner first lets the
  // old queue drain (core::ThreadManager::WaitForDrain answers true): two queues must not run at
  // once. Aborts the process, after a line on standard error, when no std::shared_ptr owns the
  // channel.
  void Initialize();

  // Any thread. Lets no more operations in, has the queue stop the timers, end the requests and
  // forget the store (what the cache holds stays there), and drops the queue; ignored unless the
  // channel is initialised. Does not wait for any of it. Aborts as Initialize() does.
  void Terminate();

  // --- Owner operations -----------------------------------------------------------------------
  // Any thread, concurrently. Each checks that the channel is initialised (if not, one line a
  // minute at level 1), copies its arguments and posts; nothing is reported back. An operation that
  // races with Terminate() may be ignored. Aborts as Initialize() does.

  // Hands over one message: copies `size` bytes once, so that the caller may reuse them at once.
  // `data` may be null only when `size` is 0. `need_cache` keeps it in the persistent cache until
  // it is acknowledged; `send_now` sends it ahead of all others and at once, unless a send interval
  // is configured, by the owner or the server. When memory for the copy is exhausted the message is
  // refused with a line at level 2 and an event: a message never becomes an empty one. (The few
  // bytes of bookkeeping come from operator new, whose failure ends the process; so does, when
  // compressing, the scratch array of a body above 1 MiB.)
  void SendPacket(const uint8_t* data, uint32_t size, bool need_cache, bool send_now);

  // As SendPacket() without `send_now`, admitted only after `delay`. Until then it is in memory
  // only: a termination before that loses it.
  void SendPacketWithDelay(const uint8_t* data, uint32_t size, bool need_cache,
                           base::TimeDelta delay);

  // Makes sure that the send timer runs. Sends nothing by itself.
  void FlushPacket();

  // One message per this many milliseconds (at least 100); 0 goes back to the default: a message
  // each 100 ms, `send_now` honoured, failures answered by waiting 1, 2, 4, then 8 seconds.
  void SetResendInterval(unsigned int interval_ms);

  // Sends after which a failing message is dropped, until the next Initialize(), which sets 5, or
  // until the server sends a limit. 0 and 1 drop at the first failure.
  void SetMaxResendCount(unsigned int count);

  // Where later requests go. An empty URL makes the channel discard what is handed over and hold
  // what it has.
  void SetServerDomain(const std::string& url);

  // --- Timers ---------------------------------------------------------------------------------

  // Any thread. The report interval in milliseconds: 10000 until the server sends another. The
  // channel itself does not use it.
  uint32_t GetReportInterval();

 private:
  friend class ReliableReportChannelHttpsTestPeer;
  struct AdmissionTask;

  // Everything below: queue thread, unless noted.
  // --- Life cycle -----------------------------------------------------------------------------
  void DoInit();
  void DoTerminate();
  // Destroys the HTTP client; the next send makes a new one.
  void DoClean();
  // Any thread. What tells the listener of this channel.
  ChannelEvents Events() const;
  // Any thread. A strong reference to the channel; ends the process when no std::shared_ptr owns
  // it.
  std::shared_ptr<ReliableReportChannelHttps> StrongThis();

  // --- Owner operations -----------------------------------------------------------------------
  // Any thread. True in state 2; else logs "OPERATION, channel is not initialized", throttled.
  bool CheckInitialized(const char* operation, int line);
  // Any thread. In a child that the host forked: the channel is the parent's, and does nothing.
  bool IsForkedCopy() const { return fork_generation_ != base::ForkGeneration(); }
  // Any thread. Null when there is none, and in a child that the host forked.
  std::shared_ptr<DispatchQueue> Queue() const;
  // Queue thread. True while running; else logs "OPERATION, channel is not running", throttled.
  bool CheckRunning(const char* operation, int line);
  // Any thread. The steps of the two operations that carry a message; a null `delay` posts at once.
  void HandOver(const char* operation, int line, const uint8_t* data, uint32_t size,
                bool need_cache, bool send_now, const base::TimeDelta* delay);
  // Any thread. Posts `method` with `args` bound, for the operation of that name.
  template <typename... Params, typename... Args>
  void PostOperation(const char* operation, int line,
                     void (ReliableReportChannelHttps::*method)(Params...), Args&&... args);
  void DoSetServerDomain(const std::string& url);
  void DoSetMaxResendCount(unsigned int count);

  // --- Timers ---------------------------------------------------------------------------------
  // Starts the send timer with the current interval unless it runs.
  void EnsureStartTimer();
  // Kept as part of the class; nothing calls it.
  void EnsureStopTimer();
  // Restarts the send timer unless it runs with exactly this delay already. The comparison is made
  // before the floor of 100 ms, so an interval below it always restarts the timer.
  void ResetTimer(unsigned int interval_ms);
  void DoSetResendInterval(unsigned int interval_ms);

  // --- Store and admission --------------------------------------------------------------------
  // The one door through which a new message enters the store.
  void UpdateCacheAndSend(CopyOnWriteBuffer data, bool need_cache, bool send_now);
  // From 200 pending messages or more down to 150, the oldest first.
  void TrimPendingMessages();

  // --- Sending --------------------------------------------------------------------------------
  // Puts the front pending message on the wire. The send timer's task.
  void DoSend();
  void CreateHttpClient();

  // --- Compression ----------------------------------------------------------------------------
  // False, and `*compressed` unspecified, when the body cannot be compressed to at most its size.
  bool CompressBody(const CopyOnWriteBuffer& body, CopyOnWriteBuffer* compressed);
  // Raw deflate of `src` into `dst`, whose capacity `*dst_len` is and which it lowers to the bytes
  // written. 0, or a negative zlib code. An output full while input remains is a success with
  // `*dst_len` unchanged; the caller keeps the unfinished stream.
  int Compress(const uint8_t* src, uint64_t src_len, uint8_t* dst, uint64_t* dst_len);

  // --- Responses ------------------------------------------------------------------------------
  // Any thread: the HTTP client's callback. Only forwards to the queue.
  void OnResponse(HttpClient::State state, const HttpClient::Request& request,
                  std::unique_ptr<HttpClient::Response> response);
  void DoOnResponse(HttpClient::State state, const HttpClient::Request& request,
                    std::unique_ptr<HttpClient::Response> response);
  void OnDelivered(const HttpClient::Response& response);
  void OnAttemptFailed(int64_t request_id, CachedMessage message);
  // Applies the control fields of the server's reply. Borrows `body`, not terminated.
  void HandleResponse(const char* body, uint32_t size,
                      const std::map<std::string, std::string>* headers);

  // --- Statistics -----------------------------------------------------------------------------
  void LogoutStatistic();

  // --- Cache ----------------------------------------------------------------------------------
  // Which backend, if any, is the process's cache option; each of these asks for it anew and does
  // nothing when it is another's. The calls of the files block the queue while they run.
  // Loads the cache, of either backend, unless it is loaded.
  void InitCacheMmap();
  // Opens the file and puts its messages behind those in the store. Only then anything is saved.
  void LoadCache();
  bool OpenCache();
  // Replaces the whole content of the file by the store's messages that need it.
  void SaveCache();
  bool OpenCacheFile();
  void LoadCacheFile();
  void SaveCacheFile();
  // Of all messages that a save writes: their bytes and 4 for each, modulo 2^32.
  uint32_t CalculateCacheSize();
  bool OpenCacheMmap();
  void LoadCacheMmap();
  void SaveCacheMmap();
  // Those that need the cache: first in flight by ascending id, then pending from the front.
  template <typename Visit>
  void ForEachMessageToSave(Visit visit);
  // Up to the end mark; adds the bytes up. False, and logged, when memory was exhausted: what was
  // loaded so far stays in the store, and what was not must not be replaced in the file.
  template <typename File>
  bool LoadMessages(File* file, uint32_t* total_bytes);
  // The packets of a save. A refused one, or a refused Clear() before, changes only what the
  // listener is told, which the file knows.
  template <typename File>
  void AppendMessages(File* file);
  // True when the file holds all messages of the store that need the cache.
  bool IsCacheWhole() const;

  // The fields, in an order that is part of the class.
  std::string channel_name_;  // Constant after construction.
  std::string url_;
  bool http_client_option_;  // Constant after construction.
  bool enable_compress_;     // Constant after construction.
  std::list<CachedMessage> pending_messages_;
  std::map<int64_t, CachedMessage> sending_messages_;
  MultiProcessSafetyMmapFile mmap_file_;
  ReliableReportCacheFile cache_file_;
  // 0 not initialised, 1 initialising, 2 initialised, 3 terminating. Any thread.
  std::atomic<int32_t> state_{0};
  bool is_running_ = false;
  // Any thread. Every call writes to it: on a cache line of its own, and the channel's reference
  // count, which std::make_shared puts in front of the object, on another one.
  alignas(64) internal::AtomicSharedPtrMutex<DispatchQueue> dispatch_queue_;
  base::RepeatingTimer send_timer_;
  uint32_t resend_interval_ms_ = 0;
  uint32_t current_interval_ms_ = 0;
  uint32_t continuous_fail_count_ = 0;
  // Deliberately without a value until Initialize(), which writes it on its caller's thread before
  // it posts DoInit; afterwards the queue thread's.
  uint32_t max_resend_count_;
  std::unique_ptr<HttpClient> http_client_;
  Throtter log_throtter_;  // Any thread.
  uint32_t dropping_message_count_ = 0;
  uint32_t sending_message_needed_count_ = 0;
  uint32_t sending_message_actual_count_ = 0;
  uint32_t sending_message_successful_count_ = 0;
  uint32_t sending_message_failed_count_ = 0;
  base::RepeatingTimer statistic_timer_;
  base::OneShotTimer clean_timer_;
  bool cache_loaded_ = false;
  std::string cache_name_ = "quenor_report";
  std::atomic<uint32_t> report_interval_ms_{10000};  // Written by the queue, read by any thread.
  std::unique_ptr<z_stream, void (*)(z_stream*)> z_stream_{nullptr, nullptr};
  const uint32_t fork_generation_ = base::ForkGeneration();
  // What weak_from_this() answers, which counts each copy that it makes. Set by Initialize().
  std::weak_ptr<ReliableReportChannelHttps> self_;
};

QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_DATA_REPORT_HTTPS_RELIABLE_REPORT_CHANNEL_HTTPS_H_
