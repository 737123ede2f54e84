// ChannelModel: what a report channel, without a cache or with a mapped file, is to do, written a
// second time and as plainly as possible: one clock, one ordered list of tasks, messages and the
// file's packets as strings. It predicts every event, every log line, every timer, every call of
// the file and the whole store; the explorer compares all of it after each task. Threads: the
// test's own. Page: docs/design/explorer.md.
#ifndef QUENOR_TESTS_UNIT_EXPLORER_CHANNEL_MODEL_H_
#define QUENOR_TESTS_UNIT_EXPLORER_CHANNEL_MODEL_H_

#include <zlib.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "quenor_base/platform/http_client.h"
#include "tests/support/fakes/recording_report_events.h"

namespace quenor::test {

// A body as the owner handed it over and, once admitted, as it is sent.
struct ModelMessage {
  std::shared_ptr<const std::string> original;
  std::shared_ptr<const std::string> stored;
  bool need_cache = false;
  uint32_t send_count = 0;
};

// What a server's reply is, known from how it was made up; the model reads no JSON.
struct ModelReply {
  enum class Meaning { kEmpty, kIgnored, kRefused, kTaken };
  Meaning meaning = Meaning::kEmpty;
  std::string text;
  uint32_t send_interval_ms = 0;  // 0: not to be applied; likewise below.
  uint32_t max_resend_count = 0;
  uint32_t report_duration_s = 0;
};

struct ModelResponse {
  int64_t id = 0;
  HttpClient::State state = HttpClient::State::kFailed;
  bool has_response = false;
  int status_code = 0;
  std::shared_ptr<const ModelReply> reply;
};

// What the world answered the channel while the last task ran, in order. Whatever the model does
// not take out, the channel did although it should not have.
struct WorldAnswers {
  struct Sent {
    int64_t id;  // What SendRequest() answered.
    std::string url;
    std::string method;
    std::string body;
  };
  std::deque<Sent> sent;
  // How long each answer that was posted to the network is on its way.
  std::deque<int64_t> answer_delays_us;
};

struct ModelTimer {
  bool running = false;
  int64_t delay_us = 0;
  uint64_t generation = 0;
  std::pair<int64_t, uint64_t> deadline{0, 0};  // Sequence number 0: none.
};

struct ModelLogLine {
  int level;
  std::string text;
};

// The cache's file, and what is to fail of it: the nth call from now, 0 for none.
struct ModelCache {
  std::string folder;
  bool folder_exists = false;
  bool folder_unknown = false;  // The path service does not know where it is to be.
  bool folder_uncreatable = false;
  size_t open_failure = 0, next_failure = 0, clear_failure = 0, append_failure = 0;

  bool open = false;
  bool loaded = false;
  bool unreadable = false;  // A packet could not be read, so that nothing may be replaced.
  bool whole = false;       // No save was begun, or the last one is complete.
  std::vector<std::shared_ptr<const std::string>> packets;
  std::vector<std::string> calls;  // Each that reaches the file, in words.
};

class ChannelModel {
 public:
  // Borrows `world` until destroyed.
  ChannelModel(std::string name, std::string url, bool compress, bool has_cache,
               WorldAnswers* world);
  ~ChannelModel();
  ChannelModel(const ChannelModel&) = delete;
  ChannelModel& operator=(const ChannelModel&) = delete;

  // --- What is done to the channel ---
  void Initialize(bool queue_fails);
  // `late` is called when DoTerminate is posted and the queue is about to go: what it does still
  // gets through.
  void Terminate(const std::function<void()>& late);
  void SendPacket(const std::string& bytes, bool need_cache, bool send_now);
  void SendPacketWithDelay(const std::string& bytes, bool need_cache, int64_t delay_us);
  void FlushPacket();
  void SetResendInterval(uint32_t interval_ms);
  void SetMaxResendCount(uint32_t count);
  void SetServerDomain(const std::string& url);
  void OnResponse(const ModelResponse& response);

  // --- What is done to the world ---
  // The request of that index is answered; the world has noted how long that takes.
  void Answer(size_t index, ModelResponse response);
  // Its callback is thrown away.
  void Forget(size_t index);
  void FailNextClients(uint32_t count) { client_failures = count; }
  // The clock stands at `now_us` now; nothing runs.
  void SetNow(int64_t now_us) { now = now_us; }

  // Runs what comes next. False when nothing is due until then.
  bool RunNextTask();
  // What ran last, in a word.
  const char* last_task() const { return last_task_; }

  // --- Looking ---
  size_t PendingDeadlines() const;
  size_t DueTasks() const;
  // Messages that are handed over and neither in the store nor ended.
  size_t OnTheWay() const;
  std::vector<RecordedEvent>& events() { return events_; }
  std::vector<ModelLogLine>& log() { return log_; }
  // The first thing that cannot be; empty when there is none.
  const std::string& error() const { return error_; }

  // Read by the explorer; written by nobody else.
  const std::string name;
  const bool compress;
  const bool has_cache;
  ModelCache cache;  // Its failures are the explorer's to set.
  std::string url;
  int64_t now = 0;
  bool initialized = false;
  bool running = false;
  bool limit_known = false;
  size_t draining_queues = 0;
  std::list<ModelMessage> pending;
  std::map<int64_t, ModelMessage> sending;
  uint32_t resend_interval_ms = 0;
  uint32_t current_interval_ms = 0;
  uint32_t fail_count = 0;
  uint32_t max_resend_count = 0;
  uint32_t report_interval_ms = 10000;
  uint32_t needed = 0, actual = 0, successful = 0, failed = 0, dropping = 0;
  ModelTimer send_timer, statistic_timer, clean_timer;
  bool has_client = false;
  uint32_t clients = 0;  // Attempts to make one.
  uint32_t client_failures = 0;
  // Requests by index: those whose callback is outstanding, with the id.
  std::map<size_t, int64_t> outstanding;

 private:
  using Key = std::pair<int64_t, uint64_t>;
  using Kind = ReportEventKind;
  using Cause = ReportEventCause;

  struct Task {
    uint64_t queue = 0;  // 0: the network.
    bool delayed = false;
    bool admission = false;
    const char* what = "";
    ModelMessage message;
    std::function<void()> run;
  };

  uint64_t Post(Task task, int64_t delay_us);
  void PostToQueue(const char* what, std::function<void()> run);
  void PostToNetwork(const char* what, std::function<void()> run);
  void DropQueue();
  void EndQueue();
  int64_t TakeAnswerDelay();

  void Stop(ModelTimer* timer);
  void Start(ModelTimer* timer, int64_t delay_us, bool repeating, const char* what,
             void (ChannelModel::*method)());
  void Schedule(ModelTimer* timer, bool repeating, const char* what,
                void (ChannelModel::*method)());

  // Answers whether the operation may go on; logs when not.
  bool CheckInitialized(const char* operation);
  bool CheckRunning(const char* operation);
  bool MayLog();
  void HandOver(const char* operation, const std::string& bytes, bool need_cache, bool send_now,
                const int64_t* delay_us);
  void Tell(Kind kind, Cause cause, const ModelMessage& message, const std::string& bytes,
            int64_t id = 0);
  void Log(int level, std::string text) { log_.push_back({level, std::move(text)}); }
  void Fail(const std::string& what) {
    if (error_.empty()) error_ = what;
  }

  void DoInit();
  void DoTerminate();
  void DoClean();
  void Statistics();
  void Admit(ModelMessage message, bool send_now);
  bool Deflate(ModelMessage* message);  // False when it does not get shorter, or stay as long.
  void Trim();
  void EnsureSendTimer();
  void ResetSendTimer(uint32_t interval_ms);
  void DoSetResendInterval(uint32_t interval_ms);
  void DoSend();
  bool MakeClient();
  void EndClient();
  void DoOnResponse(const ModelResponse& response);
  void Deliver(const ModelReply& reply);
  void Apply(const ModelReply& reply);
  void Retry(const ModelResponse& response, ModelMessage message);
  bool OpenCache();
  void LoadCache();
  void SaveCache();
  void CloseCache();

  WorldAnswers* const world_;
  std::map<Key, Task> tasks_;
  std::map<Key, Task> doomed_;  // Deadlines of the queue that was dropped.
  uint64_t last_sequence_ = 0;
  uint64_t queue_ = 0;  // The channel's; 0: none.
  uint64_t last_queue_ = 0;
  uint64_t running_queue_ = 0;  // Whose task runs; 0 once that queue was dropped.
  size_t next_index_ = 0;
  bool has_logged_ = false;
  int64_t logged_at_ = 0;
  std::vector<RecordedEvent> events_;
  std::vector<ModelLogLine> log_;
  const char* last_task_ = "";
  std::string error_;
  z_stream deflater_{};
};

}  // namespace quenor::test

#endif  // QUENOR_TESTS_UNIT_EXPLORER_CHANNEL_MODEL_H_
