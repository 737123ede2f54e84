#include "tests/unit/explorer/channel_model.h"

#include <algorithm>
#include <limits>

namespace quenor::test {

namespace {

constexpr int64_t kNever = std::numeric_limits<int64_t>::max();

std::string Number(uint32_t value) { return std::to_string(value); }

// Counts a call down to its failure.
bool Fails(size_t* countdown) { return *countdown > 0 && --*countdown == 0; }

}  // namespace

ChannelModel::ChannelModel(std::string name_in, std::string url_in, bool compress_in,
                           bool has_cache_in, WorldAnswers* world)
    : name(std::move(name_in)),
      compress(compress_in),
      has_cache(has_cache_in),
      url(std::move(url_in)),
      world_(world) {
  if (deflateInit2(&deflater_, 9, Z_DEFLATED, -15, 9, Z_DEFAULT_STRATEGY) != Z_OK) {
    Fail("the model has no memory for its deflater");
  }
}

ChannelModel::~ChannelModel() { deflateEnd(&deflater_); }

// --- The clock and the queue ---

uint64_t ChannelModel::Post(Task task, int64_t delay_us) {
  delay_us = std::max<int64_t>(delay_us, 0);
  const int64_t due = delay_us > kNever - now ? kNever : now + delay_us;
  tasks_.emplace(Key(due, ++last_sequence_), std::move(task));
  return last_sequence_;
}

void ChannelModel::PostToQueue(const char* what, std::function<void()> run) {
  Task task;
  task.queue = queue_;
  task.what = what;
  task.run = std::move(run);
  Post(std::move(task), 0);
}

void ChannelModel::PostToNetwork(const char* what, std::function<void()> run) {
  Task task;
  task.what = what;
  task.run = std::move(run);
  Post(std::move(task), TakeAnswerDelay());
}

int64_t ChannelModel::TakeAnswerDelay() {
  if (world_->answer_delays_us.empty()) {
    Fail("a request was not ended");
    return 0;
  }
  const int64_t delay_us = world_->answer_delays_us.front();
  world_->answer_delays_us.pop_front();
  return delay_us;
}

// Deadlines ahead never come; what is due runs, and then the thread ends.
void ChannelModel::DropQueue() {
  for (auto it = tasks_.upper_bound(Key(now, std::numeric_limits<uint64_t>::max()));
       it != tasks_.end();) {
    if (it->second.queue != queue_) {
      ++it;
      continue;
    }
    doomed_.insert(tasks_.extract(it++));
  }
  ++draining_queues;
  Task end;
  end.queue = queue_;
  end.what = "queue ends";
  end.run = [this] { EndQueue(); };
  Post(std::move(end), 0);
  queue_ = 0;
}

void ChannelModel::EndQueue() {
  --draining_queues;
  for (const auto& [key, task] : doomed_) {
    if (task.admission) {
      Tell(Kind::kDropped, Cause::kNeverRun, task.message, *task.message.original);
    }
  }
  doomed_.clear();
}

bool ChannelModel::RunNextTask() {
  if (tasks_.empty() || tasks_.begin()->first.first == kNever) return false;
  now = std::max(now, tasks_.begin()->first.first);
  const auto node = tasks_.extract(tasks_.begin());
  const Task& task = node.mapped();
  last_task_ = task.what;
  running_queue_ = task.queue;
  if (task.run) task.run();
  running_queue_ = 0;
  return true;
}

size_t ChannelModel::PendingDeadlines() const {
  return static_cast<size_t>(std::count_if(tasks_.begin(), tasks_.end(), [this](const auto& task) {
    return task.second.delayed && task.first.first > now;
  }));
}

size_t ChannelModel::DueTasks() const {
  return static_cast<size_t>(std::count_if(
      tasks_.begin(), tasks_.end(), [this](const auto& task) { return task.first.first <= now; }));
}

size_t ChannelModel::OnTheWay() const {
  const auto is_admission = [](const auto& task) { return task.second.admission; };
  return static_cast<size_t>(std::count_if(tasks_.begin(), tasks_.end(), is_admission) +
                             std::count_if(doomed_.begin(), doomed_.end(), is_admission));
}

// --- Timers ---

void ChannelModel::Stop(ModelTimer* timer) {
  ++timer->generation;
  timer->running = false;
  const Key deadline = std::exchange(timer->deadline, Key(0, 0));
  // A deadline that has been reached runs after all, and finds another generation.
  if (deadline.second != 0 && deadline.first > now && queue_ != 0) tasks_.erase(deadline);
}

void ChannelModel::Schedule(ModelTimer* timer, bool repeating, const char* what,
                            void (ChannelModel::*method)()) {
  // A queue that was dropped takes no more deadlines.
  timer->running = running_queue_ != 0 && running_queue_ == queue_;
  if (!timer->running) return;
  Task task;
  task.queue = queue_;
  task.delayed = true;
  task.what = what;
  const uint64_t generation = timer->generation;
  task.run = [this, timer, repeating, what, method, generation] {
    if (!timer->running || timer->generation != generation) return;
    timer->deadline = Key(0, 0);
    timer->running = false;
    if (repeating) Schedule(timer, repeating, what, method);
    (this->*method)();
  };
  const uint64_t sequence = Post(std::move(task), timer->delay_us);
  timer->deadline = Key(now + timer->delay_us, sequence);
}

void ChannelModel::Start(ModelTimer* timer, int64_t delay_us, bool repeating, const char* what,
                         void (ChannelModel::*method)()) {
  Stop(timer);
  timer->delay_us = delay_us;
  Schedule(timer, repeating, what, method);
}

// --- Words ---

bool ChannelModel::MayLog() {
  if (has_logged_ && now - logged_at_ < 60000000) return false;
  has_logged_ = true;
  logged_at_ = now;
  return true;
}

bool ChannelModel::CheckInitialized(const char* operation) {
  if (!initialized && MayLog()) {
    Log(1, std::string(operation) + ", channel is not initialized");
  }
  return initialized;
}

bool ChannelModel::CheckRunning(const char* operation) {
  if (!running && MayLog()) Log(1, std::string(operation) + ", channel is not running");
  return running;
}

void ChannelModel::Tell(Kind kind, Cause cause, const ModelMessage& message,
                        const std::string& bytes, int64_t id) {
  RecordedEvent event{};
  event.kind = kind;
  event.cause = cause;
  event.channel_name = name;
  event.data = bytes;
  event.need_cache = message.need_cache;
  event.send_count = message.send_count;
  event.request_id = id;
  events_.push_back(std::move(event));
}

// --- Owner operations ---

void ChannelModel::Initialize(bool queue_fails) {
  if (initialized) return;
  max_resend_count = 5;
  limit_known = true;
  if (queue_fails) return;
  queue_ = ++last_queue_;
  PostToQueue("init", [this] { DoInit(); });
  initialized = true;
}

void ChannelModel::Terminate(const std::function<void()>& late) {
  if (!initialized) return;
  PostToQueue("terminate", [this] { DoTerminate(); });
  late();
  DropQueue();
  initialized = false;
}

void ChannelModel::HandOver(const char* operation, const std::string& bytes, bool need_cache,
                            bool send_now, const int64_t* delay_us) {
  ModelMessage message;
  message.original = std::make_shared<const std::string>(bytes);
  message.need_cache = need_cache;
  Tell(Kind::kHandedOver, Cause::kNone, message, bytes);
  if (!CheckInitialized(operation)) {
    return Tell(Kind::kRefused, Cause::kNotInitialized, message, bytes);
  }
  Task task;
  task.queue = queue_;
  task.delayed = delay_us != nullptr;
  task.admission = true;
  task.what = "admission";
  task.message = message;
  task.run = [this, message, send_now] { Admit(message, send_now); };
  Post(std::move(task), delay_us == nullptr ? 0 : *delay_us);
}

void ChannelModel::SendPacket(const std::string& bytes, bool need_cache, bool send_now) {
  HandOver("SendPacket", bytes, need_cache, send_now, nullptr);
}

void ChannelModel::SendPacketWithDelay(const std::string& bytes, bool need_cache,
                                       int64_t delay_us) {
  HandOver("SendPacketWithDelay", bytes, need_cache, false, &delay_us);
}

void ChannelModel::FlushPacket() {
  if (!CheckInitialized("FlushPacket")) return;
  PostToQueue("flush", [this] { EnsureSendTimer(); });
}

void ChannelModel::SetResendInterval(uint32_t interval_ms) {
  if (!CheckInitialized("SetResendInterval")) return;
  PostToQueue("set interval", [this, interval_ms] { DoSetResendInterval(interval_ms); });
}

void ChannelModel::SetMaxResendCount(uint32_t count) {
  if (!CheckInitialized("SetMaxResendCount")) return;
  PostToQueue("set limit", [this, count] { max_resend_count = count; });
}

void ChannelModel::SetServerDomain(const std::string& new_url) {
  if (!CheckInitialized("SetServerDomain")) return;
  PostToQueue("set URL", [this, new_url] { url = new_url; });
}

void ChannelModel::OnResponse(const ModelResponse& response) {
  if (!CheckInitialized("OnResponse")) return;
  PostToQueue("response", [this, response] { DoOnResponse(response); });
}

// --- The network ---

void ChannelModel::Answer(size_t index, ModelResponse response) {
  response.id = outstanding.at(index);
  outstanding.erase(index);
  PostToNetwork("answer", [this, response] { OnResponse(response); });
}

void ChannelModel::Forget(size_t index) {
  outstanding.erase(index);
  PostToNetwork("forgotten", nullptr);
}

bool ChannelModel::MakeClient() {
  ++clients;
  if (client_failures > 0) {
    --client_failures;
    return false;
  }
  has_client = true;
  return true;
}

// Ends every request, as cancelled. There is one client at a time, so all of them are its own.
void ChannelModel::EndClient() {
  if (!has_client) return;
  has_client = false;
  while (!outstanding.empty()) {
    ModelResponse cancelled;
    cancelled.state = HttpClient::State::kCancelled;
    Answer(outstanding.begin()->first, cancelled);
  }
}

// --- Life cycle, on the queue ---

void ChannelModel::DoInit() {
  if (running) return;
  LoadCache();
  running = true;
  if (!statistic_timer.running) {
    Start(&statistic_timer, 600000000, true, "statistics", &ChannelModel::Statistics);
  }
}

void ChannelModel::DoTerminate() {
  running = false;
  Stop(&send_timer);
  Stop(&statistic_timer);
  Statistics();
  EndClient();
  const auto end = [this](const ModelMessage& message, int64_t id) {
    const bool kept = message.need_cache && cache.loaded && cache.whole;
    Tell(kept ? Kind::kKept : Kind::kDropped, kept ? Cause::kNone : Cause::kTerminated, message,
         *message.stored, id);
  };
  for (const auto& [id, message] : sending) end(message, id);
  for (const ModelMessage& message : pending) end(message, 0);
  CloseCache();
  pending.clear();
  sending.clear();
  Stop(&clean_timer);
}

void ChannelModel::DoClean() { EndClient(); }

void ChannelModel::Statistics() {
  if (needed == 0) return;
  Log(0, "report channel statistical results: channel_name is " + name + ", url is " + url +
             ", sending message needed count is " + Number(needed) +
             ", sending message actual count is " + Number(actual) +
             ", sending_message successful count is " + Number(successful) +
             ", sending message failed count is " + Number(failed) +
             ", dropping message count is " + Number(dropping));
  needed = actual = successful = failed = dropping = 0;
}

// --- Admission ---

void ChannelModel::Admit(ModelMessage message, bool send_now) {
  if (!CheckRunning("UpdateCacheAndSend")) {
    return Tell(Kind::kRefused, Cause::kNotRunning, message, *message.original);
  }
  if (url.empty()) return Tell(Kind::kRefused, Cause::kNoServer, message, *message.original);
  ++needed;
  Trim();
  message.stored = message.original;
  if (compress && !Deflate(&message)) {
    return Tell(Kind::kDropped, Cause::kNotCompressed, message, *message.original);
  }
  Tell(Kind::kAdmitted, Cause::kNone, message, *message.stored);
  if (compress) events_.back().original_data = *message.original;

  const bool at_once = send_now && resend_interval_ms == 0;
  pending.insert(at_once ? pending.begin() : pending.end(), message);
  if (at_once) DoSend();
  SaveCache();
  EnsureSendTimer();
}

void ChannelModel::Trim() {
  if (pending.size() < 200) return;
  while (pending.size() > 150) {
    Tell(Kind::kDropped, Cause::kTrimmed, pending.front(), *pending.front().stored);
    pending.pop_front();
    ++dropping;
  }
}

// In one call of deflate, into as much room as the body takes.
bool ChannelModel::Deflate(ModelMessage* message) {
  const std::string& body = *message->original;
  if (body.empty()) return false;
  std::string output(body.size(), '\0');
  deflateReset(&deflater_);
  deflater_.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(body.data()));
  deflater_.avail_in = static_cast<uInt>(body.size());
  deflater_.next_out = reinterpret_cast<Bytef*>(output.data());
  deflater_.avail_out = static_cast<uInt>(output.size());
  if (deflate(&deflater_, Z_FINISH) != Z_STREAM_END) return false;
  output.resize(output.size() - deflater_.avail_out);
  message->stored = std::make_shared<const std::string>(std::move(output));
  return true;
}

// --- The send timer ---

void ChannelModel::EnsureSendTimer() {
  if (!running || send_timer.running) return;
  Start(&send_timer, int64_t{std::max(current_interval_ms, 100u)} * 1000, true, "send timer",
        &ChannelModel::DoSend);
}

void ChannelModel::ResetSendTimer(uint32_t interval_ms) {
  if (!running) return;
  if (send_timer.running && send_timer.delay_us == int64_t{interval_ms} * 1000) return;
  Start(&send_timer, int64_t{std::max(interval_ms, 100u)} * 1000, true, "send timer",
        &ChannelModel::DoSend);
}

void ChannelModel::DoSetResendInterval(uint32_t interval_ms) {
  if (interval_ms == resend_interval_ms) return;
  resend_interval_ms = current_interval_ms = interval_ms;
  ResetSendTimer(interval_ms);
}

// --- Sending ---

void ChannelModel::DoSend() {
  if (!CheckRunning("DoSend")) return;
  if (pending.empty()) return Stop(&send_timer);
  if (url.empty()) return;
  Stop(&clean_timer);
  if (!has_client && !MakeClient()) return;

  if (world_->sent.empty()) return Fail("a message was not sent");
  const WorldAnswers::Sent sent = std::move(world_->sent.front());
  world_->sent.pop_front();
  const size_t index = next_index_++;
  ModelMessage message = pending.front();
  if (sent.url != url) Fail("a request went to " + sent.url);
  if (sent.method != "POST") Fail("a request's method is " + sent.method);
  if (sent.body != *message.stored) Fail("a request carries another message than the front one");
  if (sent.id < 1) return;

  outstanding.emplace(index, sent.id);
  const auto replaced = sending.find(sent.id);
  if (replaced != sending.end()) {
    Tell(Kind::kDropped, Cause::kReplaced, replaced->second, *replaced->second.stored, sent.id);
  }
  ++message.send_count;
  Tell(Kind::kSent, Cause::kNone, message, *message.stored, sent.id);
  sending[sent.id] = message;
  pending.pop_front();
  ++actual;
}

// --- Responses ---

void ChannelModel::DoOnResponse(const ModelResponse& response) {
  if (!CheckRunning("DoOnResponse")) return;
  if (pending.empty()) {
    Start(&clean_timer, 60000000, false, "clean-up", &ChannelModel::DoClean);
  }
  const auto found = sending.find(response.id);
  if (found == sending.end()) return;
  const ModelMessage message = found->second;
  sending.erase(found);
  if (response.state == HttpClient::State::kCompleted && response.has_response &&
      response.status_code == 200) {
    Tell(Kind::kAcknowledged, Cause::kNone, message, *message.stored, response.id);
    Deliver(*response.reply);
  } else {
    Retry(response, message);
  }
  SaveCache();
}

void ChannelModel::Deliver(const ModelReply& reply) {
  Apply(reply);
  if (current_interval_ms != resend_interval_ms) {
    current_interval_ms = resend_interval_ms;
    ResetSendTimer(resend_interval_ms);
  }
  fail_count = 0;
  ++successful;
}

void ChannelModel::Apply(const ModelReply& reply) {
  switch (reply.meaning) {
    case ModelReply::Meaning::kEmpty:
      return Log(2, "body is empty");
    case ModelReply::Meaning::kIgnored:
      return;
    case ModelReply::Meaning::kRefused:
      return Log(2, "response_errinfo is not success, response_msg:" + reply.text);
    case ModelReply::Meaning::kTaken:
      break;
  }
  if (reply.send_interval_ms > 0) DoSetResendInterval(reply.send_interval_ms);
  if (reply.max_resend_count > 0) max_resend_count = reply.max_resend_count;
  if (reply.report_duration_s > 0) report_interval_ms = reply.report_duration_s * 1000;
  if (reply.send_interval_ms == 0 && reply.max_resend_count == 0 && reply.report_duration_s == 0) {
    return;
  }
  Tell(Kind::kRetuned, Cause::kNone, ModelMessage(), std::string());
  events_.back().send_interval_ms = resend_interval_ms;
  events_.back().max_resend_count = max_resend_count;
  events_.back().report_interval_ms = report_interval_ms;
  events_.back().sets_max_resend_count = reply.max_resend_count > 0;
}

void ChannelModel::Retry(const ModelResponse& response, ModelMessage message) {
  const bool answered = response.state == HttpClient::State::kCompleted && response.has_response;
  Tell(Kind::kFailed, answered ? Cause::kStatus : Cause::kTransport, message, *message.stored,
       response.id);
  events_.back().http_state = static_cast<int32_t>(response.state);
  events_.back().status_code = answered ? response.status_code : 0;
  ++failed;
  if (message.send_count < max_resend_count) {
    pending.push_front(message);
  } else {
    ++dropping;
    Tell(Kind::kDropped, Cause::kResendLimit, message, *message.stored, response.id);
  }
  if (resend_interval_ms == 0 && fail_count <= 3) {
    const uint32_t back_off_ms[] = {1000, 2000, 4000, 8000};
    current_interval_ms = back_off_ms[fail_count];
    ResetSendTimer(current_interval_ms);
  } else {
    EnsureSendTimer();
  }
  ++fail_count;
}

// --- The cache ---

bool ChannelModel::OpenCache() {
  if (cache.folder_unknown) {
    Log(2, "PathService::Get base::DIR_RELIABLE_REPORT failed!");
    return false;
  }
  if (!cache.folder_exists && cache.folder_uncreatable) {
    Log(2, "CreateDirectory failed! path=" + cache.folder);
    return false;
  }
  cache.folder_exists = true;
  cache.calls.push_back("open");
  return !Fails(&cache.open_failure);
}

void ChannelModel::LoadCache() {
  if (!has_cache) return;
  if (!OpenCache()) return Log(2, "open mmap file failed!");
  cache.open = cache.whole = true;
  cache.unreadable = false;
  uint32_t total = 0;
  for (size_t i = 0;; ++i) {
    cache.calls.push_back("next");
    if (Fails(&cache.next_failure)) cache.unreadable = true;
    if (cache.unreadable || i == cache.packets.size() || cache.packets[i]->empty()) break;
    ModelMessage message;
    message.stored = cache.packets[i];
    message.need_cache = true;
    pending.push_back(message);
    ++needed;
    total += static_cast<uint32_t>(message.stored->size());
    Tell(Kind::kLoaded, Cause::kNone, message, *message.stored);
  }
  cache.loaded = true;
  Log(0, "load " + name + ".mmap successfully, data size is " + Number(total));
}

void ChannelModel::SaveCache() {
  if (!has_cache) return;
  if (!cache.loaded) return Log(2, "mmap file has been loaded!");
  std::vector<std::shared_ptr<const std::string>> packets;
  for (const auto& [id, message] : sending) {
    if (message.need_cache) packets.push_back(message.stored);
  }
  for (const ModelMessage& message : pending) {
    if (message.need_cache) packets.push_back(message.stored);
  }
  size_t room = 0;
  for (const auto& packet : packets) room += packet->size() + 4;
  cache.calls.push_back("clear " + std::to_string(room));
  cache.whole = !Fails(&cache.clear_failure) && !cache.unreadable;
  for (const auto& packet : packets) {
    cache.calls.push_back("append " + std::to_string(packet->size()));
    if (Fails(&cache.append_failure)) cache.whole = false;
  }
  Tell(cache.whole ? Kind::kSaved : Kind::kNotSaved, Cause::kNone, ModelMessage(), std::string());
  events_.back().count = static_cast<uint32_t>(packets.size());
  if (cache.whole) cache.packets = std::move(packets);
}

void ChannelModel::CloseCache() {
  if (cache.open) cache.calls.push_back("close");
  cache.open = cache.loaded = false;
}

}  // namespace quenor::test
