#include "tests/unit/explorer/explorer.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <limits>
#include <sstream>
#include <tuple>
#include <utility>

#include "quenor_base/platform/config_center.h"
#include "tests/support/fakes/fake_mmap_file.h"
#include "tests/support/fakes/fake_path_service.h"

namespace quenor::test {

namespace {

constexpr size_t kNotesKept = 30;
constexpr size_t kLongestNote = 4000;
constexpr char kOtherUrl[] = "https://other.example/report";
constexpr char kCacheFolder[] = "/reports/quenor_report";
constexpr char kCachePath[] = "/reports/quenor_report/channel.mmap";

std::string Text(const CopyOnWriteBuffer& buffer) {
  const char* bytes = buffer.cdata<char>();
  return bytes == nullptr ? std::string() : std::string(bytes, buffer.size());
}

bool SameBytes(const CopyOnWriteBuffer& buffer, const std::string& bytes) {
  const char* const data = buffer.cdata<char>();
  return buffer.size() == bytes.size() &&
         (bytes.empty() || bytes.compare(0, bytes.npos, data, buffer.size()) == 0);
}

bool SameMessage(const ReliableReportChannelHttps::CachedMessage& message,
                 const ModelMessage& ought_to_be) {
  return message.send_count == ought_to_be.send_count &&
         message.need_cache == ought_to_be.need_cache &&
         SameBytes(message.data, *ought_to_be.stored);
}

bool SameEvent(const RecordedEvent& a, const RecordedEvent& b) {
  return a.kind == b.kind && a.cause == b.cause && a.channel_name == b.channel_name &&
         a.data == b.data && a.original_data == b.original_data && a.request_id == b.request_id &&
         a.send_count == b.send_count && a.http_state == b.http_state &&
         a.status_code == b.status_code && a.count == b.count &&
         a.send_interval_ms == b.send_interval_ms && a.max_resend_count == b.max_resend_count &&
         a.report_interval_ms == b.report_interval_ms && a.need_cache == b.need_cache &&
         a.sets_max_resend_count == b.sets_max_resend_count;
}

// A dropped queue destroys its deadlines in no particular order.
void SortThoseNeverRun(std::vector<RecordedEvent>* events) {
  const auto first = std::find_if(events->begin(), events->end(), [](const RecordedEvent& event) {
    return event.cause == ReportEventCause::kNeverRun;
  });
  const auto last = std::find_if(first, events->end(), [](const RecordedEvent& event) {
    return event.cause != ReportEventCause::kNeverRun;
  });
  std::sort(first, last, [](const RecordedEvent& a, const RecordedEvent& b) {
    return std::tie(a.data, a.need_cache) < std::tie(b.data, b.need_cache);
  });
}

const uint8_t* Data(const std::string& bytes) {
  return reinterpret_cast<const uint8_t*>(bytes.data());
}

// A call of the cache's file in the model's words.
std::string InWords(const FileCall& call) {
  switch (call.operation) {
    case FileCall::Operation::kOpen:
      return call.access == 2 && call.size == 0 ? "open" : "open in another way";
    case FileCall::Operation::kNext:
      return "next";
    case FileCall::Operation::kClear:
      return "clear " + std::to_string(call.size);
    case FileCall::Operation::kAppend:
      return "append " + std::to_string(call.bytes.size());
    default:
      return "close";
  }
}

}  // namespace

bool Explorer::HasCache() {
  return config::ConfigCenterImpl::GetInstance()->GetValueWithPriority(
             config::BaseCfg().cache_option, uint64_t{2}) == uint64_t{2};
}

Explorer::Character Explorer::MakeCharacter(std::mt19937_64* random) {
  const auto one_of = [random](std::vector<uint32_t> values) {
    return values[(*random)() % values.size()];
  };
  Character character{};
  character.compress = one_of({0, 0, 1}) != 0;
  character.http2 = one_of({0, 1}) != 0;
  character.success_percent = one_of({2, 50, 75, 95});
  character.answers = one_of({0, 60, 200, 300});
  character.messages = one_of({20, 100, 300, 450});
  character.longest_pause_ms = one_of({20, 150, 1500, 9000});
  character.act_in_hook_one_in = one_of({16, 100, 100000});
  return character;
}

Explorer::Explorer(uint64_t seed, Sightings* sightings)
    : random_(seed),
      sightings_(sightings),
      character_(MakeCharacter(&random_)),
      http_([this](base::OnceClosure task) {
        const TimeDelta delay = ChooseAnswerDelay();
        world_.answer_delays_us.push_back(delay.InMicroseconds());
        time_.PostToNetwork(std::move(task), delay);
      }) {
  RecordingLog::Clear();
  GetSocks5ProxyConfigHolder()->SetConfig({});
  const std::string url = OneIn(20) ? "" : kUrl;
  FakeMmapFiles().Clear();
  FakePaths::Clear();
  model_ = std::make_unique<ChannelModel>(kName, url, character_.compress, HasCache(), &world_);
  model_->cache.folder = kCacheFolder;
  channel_ = std::make_shared<ReliableReportChannelHttps>(
      kName, url, static_cast<unsigned>(Below(9)), character_.http2, character_.compress);
  http_.SetOnSend([this](const HttpClient::Request& request) { OnSend(request); });
  events_.SetOnEvent([this](const ReportEvent& event) { OnEvent(event); });
  time_.SetAfterEachTask([this] { AfterTask(); });
  Note("a life: compress %d, http2 %d, success %u%%, answers %u, messages %u, pauses %u ms",
       character_.compress, character_.http2, character_.success_percent, character_.answers,
       character_.messages, character_.longest_pause_ms);
}

Explorer::~Explorer() {
  time_.SetAfterEachTask(nullptr);
  events_.SetOnEvent(nullptr);
}

std::string Explorer::Run(uint64_t steps) {
  Initialize();
  Check();
  while (steps_ < steps && error_.empty()) {
    ++steps_;
    Step();
    if (error_.empty()) Check();
  }
  if (error_.empty()) End();
  return error_.empty() ? error_ : error_ + "\n" + LastSteps();
}

// --- Steps ---------------------------------------------------------------------------------------

void Explorer::Step() {
  const uint64_t what = Below(1000);
  if (what < 15 && model_->initialized) {
    if (OneIn(12)) return Terminate();
    return Act();
  }
  if (what < 40) return Initialize();
  if (what < 400) return PassTime();
  Act();
}

void Explorer::Act() {
  const uint32_t all = character_.messages + character_.answers + 190;
  uint64_t what = Below(all);
  if (what < character_.messages) return HandOver();
  what -= character_.messages;
  if (what < character_.answers) return AnswerOne();
  what -= character_.answers;
  if (what < 30) return AnswerOne();
  if (what < 45) return AnswerOutOfTurn();
  if (what < 125) return Retune();
  if (what < 185) return Disturb();
  if (what < 188) return HandOverMany();
  if (OneIn(8)) Terminate();
}

void Explorer::PassTime() {
  const uint64_t how = Below(200);
  if (how < 60) {
    Note("run one task");
    time_.RunNext();
    return;
  }
  if (how < 80) {
    Note("run what is due");
    time_.RunUntilIdle();
    return;
  }
  TimeDelta pause = TimeDelta::FromMilliseconds(Below(character_.longest_pause_ms));
  if (how == 199) pause = TimeDelta::FromSeconds(Below(900));
  if (how >= 190 && how < 199) pause = TimeDelta::FromSeconds(Below(70));
  if (how >= 180 && how < 190) pause = TimeDelta::FromMicroseconds(Below(200000));
  if (OneIn(12)) {
    Note("sleep through %lld us", static_cast<long long>(pause.InMicroseconds()));
    model_->SetNow(time_.NowUs() + pause.InMicroseconds());
    time_.WakeLateBy(pause);
  } else {
    Note("advance by %lld us", static_cast<long long>(pause.InMicroseconds()));
    time_.AdvanceBy(pause);
    model_->SetNow(time_.NowUs());
  }
}

std::string Explorer::MakeBody() {
  std::string body = "#" + std::to_string(next_number_++);
  const uint64_t kind = Below(100);
  if (kind < 4) return std::string();
  if (kind < 12) return body;
  if (kind < 14) return "the same each time, the same each time, the same each time";
  if (kind < 40) {
    for (uint64_t i = Below(60); i > 0; --i) body += static_cast<char>(random_());
    return body;
  }
  if (character_.compress && OneIn(400)) {  // Deflate cannot shorten it.
    body.resize(1000 + Below(200000));
    for (size_t i = 0; i + 8 <= body.size(); i += 8) {
      const uint64_t noise = random_();
      body.replace(i, 8, reinterpret_cast<const char*>(&noise), 8);
    }
    return body;
  }
  body += " {\"event\":\"step\",\"level\":\"info\"}";
  body.append(Below(200), static_cast<char>('a' + Below(3)));
  return body;
}

void Explorer::HandOver() {
  const std::string body = MakeBody();
  const bool need_cache = OneIn(2);
  const uint8_t* const data = body.empty() ? nullptr : Data(body);
  const auto size = static_cast<uint32_t>(body.size());
  if (OneIn(6)) {
    TimeDelta delay = TimeDelta::FromMilliseconds(static_cast<int64_t>(Below(5000)));
    if (OneIn(5)) delay = TimeDelta::FromMilliseconds(-static_cast<int64_t>(Below(2)));
    if (OneIn(20)) delay = TimeDelta::FromMicroseconds(std::numeric_limits<int64_t>::max());
    Note("SendPacketWithDelay(#%llu, %u bytes, cache %d, %lld us)",
         static_cast<unsigned long long>(next_number_ - 1), size, need_cache,
         static_cast<long long>(delay.InMicroseconds()));
    channel_->SendPacketWithDelay(data, size, need_cache, delay);
    model_->SendPacketWithDelay(body, need_cache, delay.InMicroseconds());
  } else {
    const bool send_now = OneIn(4);
    Note("SendPacket(#%llu, %u bytes, cache %d, now %d)",
         static_cast<unsigned long long>(next_number_ - 1), size, need_cache, send_now);
    channel_->SendPacket(data, size, need_cache, send_now);
    model_->SendPacket(body, need_cache, send_now);
  }
}

void Explorer::HandOverMany() {
  for (uint64_t i = 20 + Below(220); i > 0; --i) HandOver();
}

void Explorer::AnswerOne() {
  if (model_->outstanding.empty()) return;
  auto chosen = model_->outstanding.begin();
  std::advance(chosen, Below(model_->outstanding.size()));
  const size_t index = chosen->first;
  if (OneIn(60)) {
    Note("forget request %zu", index);
    Expect(http_.Drop(index), "a request that is not outstanding");
    return model_->Forget(index);
  }
  ModelResponse response = MakeResponse();
  response.id = chosen->second;
  Note("answer request %zu, id %lld: state %d, status %d, %s", index,
       static_cast<long long>(response.id), static_cast<int>(response.state), response.status_code,
       response.reply == nullptr ? "null" : response.reply->text.c_str());
  Expect(http_.AnswerWith(index, response.state, RealResponse(response)),
         "a request that is not outstanding");
  model_->Answer(index, response);
}

// A second answer, one that is early, or one to nothing.
void Explorer::AnswerOutOfTurn() {
  ModelResponse response = MakeResponse();
  response.id = OneIn(4) ? static_cast<int64_t>(Below(static_cast<uint64_t>(next_id_) + 3)) - 1
                         : next_id_ - static_cast<int64_t>(Below(60));
  if (!model_->sending.empty() && OneIn(3)) response.id = model_->sending.rbegin()->first;
  Note("answer out of turn, id %lld: state %d, status %d", static_cast<long long>(response.id),
       static_cast<int>(response.state), response.status_code);
  HttpClient::Request request;
  request.request_id = response.id;
  peer().OnResponse(response.state, request, RealResponse(response));
  model_->OnResponse(response);
}

ModelResponse Explorer::MakeResponse() {
  ModelResponse response;
  const bool succeeds = Below(100) < character_.success_percent;
  response.state = succeeds || OneIn(2) ? HttpClient::State::kCompleted
                                        : static_cast<HttpClient::State>(Below(6));
  response.has_response = succeeds || !OneIn(3);
  if (!response.has_response) return response;
  const int statuses[] = {0, 100, 199, 201, 204, 302, 404, 500, 503, -200, 200};
  response.status_code = succeeds ? 200 : statuses[Below(11)];
  response.reply = MakeReply();
  return response;
}

std::unique_ptr<HttpClient::Response> Explorer::RealResponse(const ModelResponse& response) {
  if (!response.has_response) return nullptr;
  auto real = std::make_unique<HttpClient::Response>();
  real->status_code = response.status_code;
  real->headers["content-type"] = "application/json";
  real->body = CopyOnWriteBuffer(response.reply->text.data(),
                                 static_cast<uint32_t>(response.reply->text.size()));
  return real;
}

std::shared_ptr<const ModelReply> Explorer::MakeReply() {
  auto reply = std::make_shared<ModelReply>();
  using Meaning = ModelReply::Meaning;
  const uint64_t kind = Below(40);
  if (kind == 0) return reply;
  if (kind < 4) {
    const char* const texts[] = {"not json",
                                 "[\"success\"]",
                                 "\"success\"",
                                 "7",
                                 "{",
                                 " ",
                                 "{\"bytes_errinfo\":\"success\"} x",
                                 "{'bytes_errinfo':'success'}"};
    reply->meaning = Meaning::kIgnored;
    reply->text = texts[Below(8)];
    return reply;
  }
  const char* const verdicts[] = {"\"Success\"", "\"success \"", "\"\"", "\"busy\"", "7", "null"};
  const bool refused = kind < 8;
  reply->meaning = refused ? Meaning::kRefused : Meaning::kTaken;
  std::vector<std::string> members;
  if (!refused) members.push_back("\"bytes_errinfo\":\"success\"");
  if (refused && !OneIn(6)) {
    members.push_back(std::string("\"bytes_errinfo\":") + verdicts[Below(6)]);
  }
  std::string field;
  if (OneIn(5)) {
    const uint32_t value = MakeField("uint32_send_interval", &field);
    if (!refused) reply->send_interval_ms = value;
    members.push_back(field);
  }
  if (OneIn(5)) {
    const uint32_t value = MakeField("uint32_max_resend_count", &field);
    if (!refused) reply->max_resend_count = value;
    members.push_back(field);
  }
  if (OneIn(5)) {
    const uint32_t value = MakeField("uint32_report_duration", &field);
    if (!refused) reply->report_duration_s = value;
    members.push_back(field);
  }
  if (OneIn(6)) members.push_back("\"more\":{\"uint32_send_interval\":[1,2,3]}");
  std::rotate(members.begin(), members.begin() + static_cast<long>(Below(members.size() + 1)),
              members.end());
  for (const std::string& member : members) {
    reply->text += (reply->text.empty() ? "{" : ",") + member;
  }
  reply->text += reply->text.empty() ? "{}" : "}";
  return reply;
}

// Answers the value that is to be applied, 0 for none.
uint32_t Explorer::MakeField(const char* name, std::string* text) {
  *text = std::string("\"") + name + "\":";
  const uint64_t kind = Below(24);
  uint32_t value = 0;
  if (kind < 16) value = 1 + static_cast<uint32_t>(Below(9));
  if (kind == 16) value = 50 + static_cast<uint32_t>(Below(100));
  if (kind == 17) value = 1000u << Below(4);
  if (kind == 18 && OneIn(8)) value = 2147483647;
  if (kind == 19) value = 4294960 + static_cast<uint32_t>(Below(20));
  if (kind == 19 && !OneIn(8)) value = 100;
  if (value > 0) {
    *text += std::to_string(value);
    return value;
  }
  const char* const useless[] = {"0",    "-3",         "\"30\"",     "1.5", "true",
                                 "null", "2147483648", "4294967297", "[5]", "{}"};
  *text += useless[Below(10)];
  return 0;
}

void Explorer::Retune() {
  switch (Below(8)) {
    case 0: {
      const uint32_t intervals[] = {1, 50, 99, 100, 101, 1000, 2000, 8000, 400, 4294967295u};
      uint32_t interval_ms = intervals[Below(10)];
      if (OneIn(2)) interval_ms = static_cast<uint32_t>(Below(400));
      Note("SetResendInterval(%u)", interval_ms);
      channel_->SetResendInterval(interval_ms);
      return model_->SetResendInterval(interval_ms);
    }
    case 1:
    case 2:
    case 3:
      Note("SetResendInterval(0)");
      channel_->SetResendInterval(0);
      return model_->SetResendInterval(0);
    case 4: {
      const uint32_t count = OneIn(9) ? 4294967295u : static_cast<uint32_t>(Below(7));
      Note("SetMaxResendCount(%u)", count);
      channel_->SetMaxResendCount(count);
      return model_->SetMaxResendCount(count);
    }
    case 5:
    case 6: {
      const std::string url = OneIn(12) ? "" : OneIn(2) ? kUrl : kOtherUrl;
      Note("SetServerDomain(%s)", url.c_str());
      channel_->SetServerDomain(url);
      return model_->SetServerDomain(url);
    }
    default:
      Note("FlushPacket()");
      channel_->FlushPacket();
      return model_->FlushPacket();
  }
}

void Explorer::Disturb() {
  if (model_->has_cache && OneIn(2)) return DisturbCache();
  switch (Below(12)) {
    case 0: {
      const auto count = static_cast<uint32_t>(Below(4));
      Note("the next %u clients cannot be made", count);
      http_.FailNextCreations(count);
      return model_->FailNextClients(count);
    }
    case 1:
      Note("requests cannot be started");
      refuses_ = true;
      return;
    case 2:
    case 3:
      next_id_ += int64_t{1} << Below(40);  // Ids that agree in their low bits.
      return;
    default:
      Note("requests can be started");
      refuses_ = false;
  }
}

void Explorer::DisturbCache() {
  ModelCache& cache = model_->cache;
  const uint64_t what = Below(16);
  const size_t nth = 1 + Below(what == 1 ? 2 : what == 2 ? 5 : 60);
  if (what == 0) cache.folder_unknown = cache.folder_uncreatable = OneIn(2);
  if (what == 1) cache.open_failure = nth;
  if (what == 2) cache.clear_failure = nth;
  if (what == 3) cache.append_failure = nth;
  if (what == 4) cache.next_failure = nth;
  if (what == 5) cache.folder_uncreatable = true;
  if (what > 9) {
    cache.folder_unknown = cache.folder_uncreatable = false;
    cache.open_failure = cache.clear_failure = cache.append_failure = cache.next_failure = 0;
  }
  Note("the cache: folder %d %d, open %zu, clear %zu, append %zu, next %zu", cache.folder_unknown,
       cache.folder_uncreatable, cache.open_failure, cache.clear_failure, cache.append_failure,
       cache.next_failure);
  FakePaths::FailGet(cache.folder_unknown);
  FakePaths::FailCreate(cache.folder_uncreatable);
  FakeMmapFiles().FailOpen(cache.open_failure);
  FakeMmapFiles().FailClear(cache.clear_failure);
  FakeMmapFiles().FailAppend(cache.append_failure);
  FakeMmapFiles().FailNext(cache.next_failure);
}

void Explorer::Terminate() {
  if (!model_->initialized || OneIn(2)) {
    Note("Terminate()");
    channel_->Terminate();
    return model_->Terminate([] {});
  }
  // As if other threads had looked at the state and taken the queue just before.
  std::shared_ptr<DispatchQueue> queue = peer().queue();
  channel_->Terminate();
  Note("Terminate(), overtaking");
  peer().SetState(2);
  peer().SetQueue(queue);
  model_->Terminate([this] {
    for (uint64_t i = 1 + Below(4); i > 0; --i) {
      const uint64_t what = Below(4);
      what == 0 ? AnswerOutOfTurn() : what == 1 ? Retune() : HandOver();
    }
  });
  peer().SetQueue(nullptr);
  peer().SetState(0);
}

void Explorer::Initialize() {
  if (!model_->initialized && model_->draining_queues > 0) {
    Note("let the old queue drain");
    Expect(core::ThreadManager::WaitForDrain(TimeDelta()), "the queue does not drain");
    if (!error_.empty()) return;
  }
  if (model_->initialized && !OneIn(5)) return Act();
  const bool fails = !model_->initialized && OneIn(6);
  Note("Initialize()%s", fails ? ", without a queue" : "");
  time_.FailNextCreations(fails ? 1 : 0);
  channel_->Initialize();
  model_->Initialize(fails);
}

void Explorer::End() {
  Terminate();
  Note("the end");
  time_.AdvanceBy(TimeDelta::FromSeconds(200));  // The last answers are on their way.
  model_->SetNow(time_.NowUs());
  if (!error_.empty()) return;
  Check();
  Same("messages left on the way", model_->OnTheWay(), 0u);
  Same("deadlines left", time_.PendingDeadlines(), 0u);
  Same("queues left", time_.LiveQueues() + time_.DrainingQueues(), 0u);
  Same("clients left", http_.LiveClients(), 0u);
  const std::vector<HttpClient::Config> configs = http_.Configs();
  Same("clients made", configs.size(), model_->clients);
  for (const HttpClient::Config& config : configs) {
    Expect(config.enable_http2 == character_.http2 && !config.use_socks5, "a client's settings");
  }
}

// --- The world's answers -------------------------------------------------------------------------

void Explorer::OnSend(const HttpClient::Request& request) {
  const int64_t id = ChooseId();
  world_.sent.push_back({id, request.url, request.method, Text(request.body)});
  http_.ReturnNextIds({id});
  if (id < 1) Saw("request refused");
}

int64_t Explorer::ChooseId() {
  const uint64_t how = Below(100);
  if (refuses_ || how < 2) {
    const int64_t refusals[] = {0, -1, std::numeric_limits<int64_t>::min()};
    return refusals[Below(3)];
  }
  if (how < 5 && !model_->sending.empty()) {
    auto chosen = model_->sending.begin();
    std::advance(chosen, Below(model_->sending.size()));
    return chosen->first;
  }
  if (how < 7) return 1 + static_cast<int64_t>(Below(static_cast<uint64_t>(next_id_)));
  return next_id_++;
}

base::TimeDelta Explorer::ChooseAnswerDelay() {
  const uint64_t how = Below(100);
  if (how < 20) return TimeDelta();
  if (how < 98) return TimeDelta::FromMilliseconds(Below(40));
  return TimeDelta::FromMilliseconds(Below(100000));
}

void Explorer::OnEvent(const ReportEvent& event) {
  books_.Note(event, event.message.handed_over_ns, /*is_rejected=*/false);
  switch (event.kind) {
    case Kind::kHandedOver:
      ++handed_over_;
      return;
    case Kind::kRefused:
      ++refused_;
      return Saw(event.cause == Cause::kNotInitialized ? "refused: not initialized"
                 : event.cause == Cause::kNotRunning   ? "refused: not running"
                                                       : "refused: no server");
    case Kind::kAdmitted:
      ++counted_[0];
      return;
    case Kind::kSent:
      ++counted_[1];
      return Saw("sent");
    case Kind::kAcknowledged:
      ++acknowledged_;
      ++counted_[2];
      return Saw("acknowledged");
    case Kind::kFailed:
      ++counted_[3];
      return Saw("failed");
    case Kind::kKept:
      ++kept_;
      kept_now_.emplace_back(reinterpret_cast<const char*>(event.data), event.size);
      return Saw("kept");
    case Kind::kLoaded:
      ++loaded_;
      ++counted_[0];
      return Saw("loaded");
    case Kind::kSaved:
      return Saw("saved");
    case Kind::kNotSaved:
      return Saw("not saved");
    case Kind::kRetuned:
      return Saw("retuned");
    case Kind::kDropped:
      break;
  }
  ++dropped_;
  switch (event.cause) {
    case Cause::kTrimmed:
      ++counted_[4];
      return Saw("dropped: trimmed");
    case Cause::kResendLimit:
      ++counted_[4];
      return Saw("dropped: resend limit");
    case Cause::kNotCompressed:
      ++counted_[0];
      return Saw("dropped: not compressed");
    case Cause::kTerminated:
      return Saw("dropped: terminated");
    case Cause::kNeverRun:
      return Saw("dropped: never run");
    case Cause::kReplaced:
      return Saw("dropped: replaced");
    default:
      return Fail("a cause that no drop has");
  }
}

// --- Checks --------------------------------------------------------------------------------------

void Explorer::AfterTask() {
  if (!error_.empty()) return;
  ++tasks_;
  const bool had_client = model_->has_client;
  if (!model_->RunNextTask()) return Fail("a task ran that ought not to");
  if (had_client && !model_->has_client && model_->running) Saw("client cleaned up");
  if (notes_.back().size() < kLongestNote) {
    notes_.back() += std::string(" | ") + model_->last_task();
  }
  Check();
  if (error_.empty() && OneIn(character_.act_in_hook_one_in)) {
    Act();
    if (error_.empty()) Check();
  }
}

void Explorer::Check() {
  if (!model_->error().empty()) Fail(model_->error());
  CheckEvents();
  CheckLog();
  CheckState();
  CheckTimers();
  CheckStore();
  CheckCache();
  CheckBooks();
  CheckClock();
  Same("requests that nothing called for", world_.sent.size(), 0u);
  Same("answers that nothing called for", world_.answer_delays_us.size(), 0u);
}

template <typename A, typename B>
void Explorer::Same(const char* what, const A& is, const B& ought_to_be) {
  if (is == static_cast<A>(ought_to_be) || !error_.empty()) return;
  std::ostringstream text;
  text << what << " is " << is << " and ought to be " << static_cast<A>(ought_to_be);
  Fail(text.str());
}

void Explorer::CheckEvents() {
  std::vector<RecordedEvent> is = events_.Events();
  std::vector<RecordedEvent>& ought_to_be = model_->events();
  SortThoseNeverRun(&is);
  SortThoseNeverRun(&ought_to_be);
  for (size_t i = 0; i < std::max(is.size(), ought_to_be.size()); ++i) {
    if (i < is.size() && i < ought_to_be.size() && SameEvent(is[i], ought_to_be[i])) continue;
    std::ostringstream text;
    text << "an event differs: is ";
    i < is.size() ? text << is[i] : text << "none";
    text << ", ought to be ";
    i < ought_to_be.size() ? text << ought_to_be[i] : text << "none";
    Fail(text.str());
    break;
  }
  events_.Clear();
  model_->events().clear();
}

void Explorer::CheckLog() {
  std::vector<LogLine> is = RecordingLog::Lines();
  const bool any = !is.empty();
  // The file has words of its own.
  is.erase(std::remove_if(is.begin(), is.end(),
                          [](const LogLine& line) { return line.file != kSourcePath; }),
           is.end());
  const std::vector<ModelLogLine>& ought_to_be = model_->log();
  for (size_t i = 0; i < std::max(is.size(), ought_to_be.size()); ++i) {
    if (i < is.size() && i < ought_to_be.size() && is[i].level == ought_to_be[i].level &&
        is[i].text == ought_to_be[i].text) {
      if (is[i].text.rfind("report channel", 0) == 0) {
        Saw("statistics line");
        counted_ = {};
      }
      if (is[i].text == "open mmap file failed!") Saw("cache not opened");
      if (is[i].text == "mmap file has been loaded!") Saw("save refused");
      continue;
    }
    Fail("a log line differs: is \"" + (i < is.size() ? is[i].text : "") + "\", ought to be \"" +
         (i < ought_to_be.size() ? ought_to_be[i].text : "") + "\"");
    break;
  }
  if (any) RecordingLog::Clear();
  model_->log().clear();
}

void Explorer::CheckState() {
  Same("state_", peer().state(), model_->initialized ? 2 : 0);
  Same("is_running_", peer().is_running(), model_->running);
  Same("there is a queue", peer().queue() != nullptr, model_->initialized);
  Same("url_", peer().url(), model_->url);
  Same("resend_interval_ms_", peer().resend_interval_ms(), model_->resend_interval_ms);
  Same("current_interval_ms_", peer().current_interval_ms(), model_->current_interval_ms);
  Same("continuous_fail_count_", peer().continuous_fail_count(), model_->fail_count);
  if (model_->limit_known) {
    Same("max_resend_count_", peer().max_resend_count(), model_->max_resend_count);
  }
  Same("GetReportInterval()", channel_->GetReportInterval(), model_->report_interval_ms);
  Same("there is a client", peer().http_client() != nullptr, model_->has_client);
  Same("living clients", http_.LiveClients(), model_->has_client ? 1u : 0u);
  Expect(model_->running || !model_->has_client, "a client lives while the channel does not run");
  if (model_->fail_count > 4) Saw("a fifth failure in a row");
}

void Explorer::CheckTimers() {
  const auto check = [this](const char* what, const base::internal::TimerBase& timer,
                            const ModelTimer& ought_to_be) {
    Same(what, timer.IsRunning(), ought_to_be.running);
    Same(what, timer.GetCurrentDelay().InMicroseconds(),
         ought_to_be.running ? ought_to_be.delay_us : -1000);
    Expect(model_->running || !timer.IsRunning(), "a timer runs while the channel does not");
  };
  check("the send timer", peer().send_timer(), model_->send_timer);
  check("the statistics timer", peer().statistic_timer(), model_->statistic_timer);
  check("the clean timer", peer().clean_timer(), model_->clean_timer);
  Expect(!peer().send_timer().IsRunning() ||
             peer().send_timer().GetCurrentDelay() >= TimeDelta::FromMilliseconds(100),
         "the send timer is too fast");
}

void Explorer::CheckStore() {
  Peer p = peer();
  Same("the length of the pending list", p.pending().size(), model_->pending.size());
  Same("the number of messages in flight", p.sending().size(), model_->sending.size());
  if (!error_.empty()) return;
  size_t position = 0;
  auto ought_to_be = model_->pending.begin();
  for (const auto& message : p.pending()) {
    if (!SameMessage(message, *ought_to_be++)) {
      return Fail("another message is at position " + std::to_string(position) +
                  " of the pending list");
    }
    ++position;
  }
  auto in_flight = model_->sending.begin();
  for (const auto& [id, message] : p.sending()) {
    if (id != in_flight->first || !SameMessage(message, in_flight->second)) {
      return Fail("another message is in flight under id " + std::to_string(id));
    }
    ++in_flight;
  }
  if (position >= 200) Saw("200 pending");
}

void Explorer::CheckCache() {
  ModelCache& cache = model_->cache;
  Same("cache_loaded_", peer().cache_loaded(), cache.loaded);
  const std::vector<FileCall> calls = FakeMmapFiles().Calls();
  Same("calls of the file", calls.size(), cache.calls.size());
  if (!error_.empty() || calls.empty()) return;
  for (size_t i = 0; i < calls.size(); ++i) {
    Same("a call of the file", InWords(calls[i]), cache.calls[i]);
  }
  FakeMmapFiles().ForgetCalls();
  cache.calls.clear();
  if (cache.open && !cache.whole) Saw("save failed");
  if (cache.unreadable) Saw("packet unreadable");
  const FakePacketFiles::Packets content = FakeMmapFiles().Content(kCachePath);
  Same("packets in the file", content.size(), cache.packets.size());
  if (!error_.empty()) return;
  for (size_t i = 0; i < content.size(); ++i) {
    Expect(content[i] == *cache.packets[i], "another packet is in the file");
  }
  CheckKept(content);
}

// From the events and the file alone.
void Explorer::CheckKept(std::vector<std::string> content) {
  std::sort(content.begin(), content.end());
  std::sort(kept_now_.begin(), kept_now_.end());
  Expect(std::includes(content.begin(), content.end(), kept_now_.begin(), kept_now_.end()),
         "a message is told as kept that is not in the file");
  kept_now_.clear();
}

// From the events alone, not from what the model predicts.
void Explorer::CheckBooks() {
  Peer p = peer();
  const uint64_t inside = p.pending().size() + p.sending().size() + model_->OnTheWay();
  Same("handed over and loaded less ended",
       handed_over_ + loaded_ - refused_ - acknowledged_ - dropped_ - kept_, inside);
  const BooksEntry books = books_.Read();
  Expect(books.Closes(), "the books do not close");
  Same("what the books have as in flight", books.in_flight, p.sending().size());
  Same("what they have as delayed and pending", books.delayed + books.pending,
       p.pending().size() + model_->OnTheWay());
  Expect(model_->has_cache || loaded_ + kept_ == 0, "an event of a cache, where there is none");
  Same("sending_message_needed_count_", p.needed(), counted_[0]);
  Same("sending_message_actual_count_", p.actual(), counted_[1]);
  Same("sending_message_successful_count_", p.successful(), counted_[2]);
  Same("sending_message_failed_count_", p.failed(), counted_[3]);
  Same("dropping_message_count_", p.dropping(), counted_[4]);
}

void Explorer::CheckClock() {
  if (model_->now != time_.NowUs()) Same("the time in us", time_.NowUs(), model_->now);
  Same("deadlines ahead", time_.PendingDeadlines(), model_->PendingDeadlines());
  Same("due tasks", time_.DueTasks(), model_->DueTasks());
  Same("living queues", time_.LiveQueues(), model_->initialized ? 1u : 0u);
  Same("draining queues", time_.DrainingQueues(), model_->draining_queues);
  const std::vector<size_t> outstanding = http_.Outstanding();
  Same("outstanding requests", outstanding.size(), model_->outstanding.size());
  if (!error_.empty()) return;
  auto ought_to_be = model_->outstanding.begin();
  for (const size_t index : outstanding) {
    Same("the index of an outstanding request", index, (ought_to_be++)->first);
  }
}

void Explorer::Note(const char* format, ...) {
  char text[300];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof(text), format, arguments);
  va_end(arguments);
  char when[64];
  std::snprintf(when, sizeof(when), "step %llu, %lld us: ", static_cast<unsigned long long>(steps_),
                static_cast<long long>(time_.NowUs()));
  notes_.push_back(std::string(when) + text);
  if (notes_.size() > kNotesKept) notes_.pop_front();
}

std::string Explorer::LastSteps() const {
  std::string text = "the last steps, each with the tasks that ran behind it:\n";
  for (const std::string& note : notes_) text += "  " + note + "\n";
  return text;
}

}  // namespace quenor::test
