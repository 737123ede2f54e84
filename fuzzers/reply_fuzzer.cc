// A reply of the server: the input is its body, and what the channel went through before. The
// channel runs as it ships, on virtual time; what the reply changes is compared with what a reader
// of the fuzzers' own takes from the same bytes. Whatever the reply, the channel serves on.
#include <algorithm>
#include <iterator>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "fuzzers/fuzz_support.h"
#include "fuzzers/plain_json.h"
#include "fuzzers/reply_input.h"
#include "quenor_base/data_report/https/reliable_report_channel_https.h"
#include "quenor_base/platform/base/json_reader.h"
#include "quenor_base/platform/http_client.h"
#include "quenor_base/platform/report_events.h"
#include "tests/support/channel_test_peer.h"
#include "tests/support/fakes/fake_http_client.h"
#include "tests/support/fakes/fake_mmap_file.h"
#include "tests/support/fakes/recording_log.h"
#include "tests/support/fakes/recording_report_events.h"
#include "tests/support/fakes/virtual_time.h"

namespace quenor::fuzz {
namespace {

using Channel = ReliableReportChannelHttps;
using Peer = ReliableReportChannelHttpsTestPeer;
using State = HttpClient::State;
using Type = base::Value::Type;

constexpr int kMaxDepth = 200;
constexpr char kVerdict[] = "bytes_errinfo";
constexpr char kSendInterval[] = "uint32_send_interval";
constexpr char kMaxResendCount[] = "uint32_max_resend_count";
constexpr char kReportDuration[] = "uint32_report_duration";

// --- The input
// ------------------------------------------------------------------------------------

struct Input {
  Input(const uint8_t* data, size_t size) {
    uint8_t head[kReplyHead] = {};
    std::copy_n(data, std::min(size, kReplyHead), head);
    if (size > kReplyHead) {
      body.assign(reinterpret_cast<const char*>(data) + kReplyHead, size - kReplyHead);
    }
    struct End {
      State state;
      int status;  // Below 0: no response.
    };
    constexpr End kEnds[] = {{State::kCompleted, 204}, {State::kCompleted, 500},
                             {State::kCompleted, 0},   {State::kCompleted, 199},
                             {State::kCompleted, 201}, {State::kCompleted, -1},
                             {State::kFailed, 200},    {State::kFailed, -1},
                             {State::kTimedOut, -1},   {State::kTooLarge, 200}};
    if (head[0] >= 200) {
      state = kEnds[head[0] % std::size(kEnds)].state;
      status = kEnds[head[0] % std::size(kEnds)].status;
    }
    constexpr uint32_t kIntervals[] = {0, 1, 50, 100, 101, 1000, 3000, INT32_MAX, UINT32_MAX};
    constexpr uint32_t kLimits[] = {5, 0, 1, 2, UINT32_MAX};
    interval_ms = kIntervals[head[1] % std::size(kIntervals)];
    failures = head[2] % 7;
    limit = kLimits[head[3] % std::size(kLimits)];
    had_reply = (head[4] & 1) != 0;
    loses_interval = (head[4] & 2) != 0;
    has_more = (head[4] & 4) != 0;
    stops_timer = (head[4] & 8) != 0;
    reader_depth = head[5] % 8;
  }

  State state = State::kCompleted;
  int status = 200;
  uint32_t interval_ms;  // Set before anything is sent.
  int failures;          // Of the message, before the reply.
  uint32_t limit;        // Of sends, when the reply comes.
  bool had_reply;        // One that told a report interval.
  bool loses_interval;   // It is taken back after the failures.
  bool has_more;         // Another message waits.
  bool stops_timer;      // The send timer found nothing left to send.
  int reader_depth;
  std::string body;
};

// --- What the reply has to change
// -----------------------------------------------------------------

// An event of a failed exchange or of a reply that counts: its kind, its cause, and its numbers.
using Told = std::vector<int64_t>;

constexpr int64_t Number(ReportEventKind kind) { return static_cast<int64_t>(kind); }
constexpr int64_t Number(ReportEventCause cause) { return static_cast<int64_t>(cause); }

// Of a channel, all that a reply may change.
struct Fields {
  uint32_t resend_interval_ms;
  uint32_t current_interval_ms;
  uint32_t failures;
  uint32_t limit;
  uint32_t report_interval_ms;
  uint32_t successful;
  uint32_t failed;
  uint32_t dropped;
  size_t pending;
  size_t sending;
  int64_t period_ms;  // Of the send timer, also while it is stopped.
  bool ticks;
  bool cleans;
  std::vector<std::string> lines;  // Of the log.
  std::vector<Told> told;          // To the listener.

  // The send timer's period becomes `ms`, but not below the floor.
  void Reset(int64_t ms) {
    if (period_ms == ms) return;
    period_ms = std::max<int64_t>(ms, 100);
    ticks = true;
  }

  bool operator==(const Fields& other) const {
    const auto tie = [](const Fields& f) {
      return std::tie(f.resend_interval_ms, f.current_interval_ms, f.failures, f.limit,
                      f.report_interval_ms, f.successful, f.failed, f.dropped, f.pending, f.sending,
                      f.period_ms, f.ticks, f.cleans, f.lines, f.told);
    };
    return tie(*this) == tie(other);
  }
};

void Print(const char* name, const Fields& f) {
  std::fprintf(stderr,
               "%s: interval %u, current %u, failures %u, limit %u, report interval %u, successful "
               "%u, failed %u, dropped %u, pending %zu, sending %zu, period %lld, ticks %d, cleans "
               "%d\n",
               name, f.resend_interval_ms, f.current_interval_ms, f.failures, f.limit,
               f.report_interval_ms, f.successful, f.failed, f.dropped, f.pending, f.sending,
               static_cast<long long>(f.period_ms), f.ticks, f.cleans);
  for (const std::string& line : f.lines) std::fprintf(stderr, "  %s\n", line.c_str());
  for (const Told& told : f.told) {
    for (const int64_t number : told)
      std::fprintf(stderr, "  %lld", static_cast<long long>(number));
    std::fprintf(stderr, " told\n");
  }
}

Fields FieldsOf(Peer peer, const std::vector<test::RecordedEvent>& events) {
  Fields f;
  f.resend_interval_ms = peer.resend_interval_ms();
  f.current_interval_ms = peer.current_interval_ms();
  f.failures = peer.continuous_fail_count();
  f.limit = peer.max_resend_count();
  f.report_interval_ms = peer.report_interval_ms();
  f.successful = peer.successful();
  f.failed = peer.failed();
  f.dropped = peer.dropping();
  f.pending = peer.pending().size();
  f.sending = peer.sending().size();
  f.period_ms = peer.send_timer().GetCurrentDelay().InMilliseconds();
  f.ticks = peer.send_timer().IsRunning();
  f.cleans = peer.clean_timer().IsRunning();
  f.lines = test::RecordingLog::Texts();
  for (const test::RecordedEvent& event : events) {
    const Told head = {Number(event.kind), Number(event.cause)};
    if (event.kind == ReportEventKind::kRetuned) {
      f.told.push_back({head[0], head[1], event.send_interval_ms, event.max_resend_count,
                        event.report_interval_ms});
    } else if (event.kind == ReportEventKind::kFailed) {
      f.told.push_back({head[0], head[1], event.http_state, event.status_code});
    }
  }
  return f;
}

// The number of a control member that counts; else 0.
uint32_t Control(const PlainDocument& reply, const char* key) {
  const auto found = reply.members.find(key);
  if (found == reply.members.end() || found->second.type != Type::kInteger) return 0;
  return found->second.integer > 0 ? static_cast<uint32_t>(found->second.integer) : 0;
}

void Apply(const std::string& body, Fields* f) {
  if (body.empty()) {
    f->lines.push_back("body is empty");
    return;
  }
  PlainDocument reply;
  if (!ReadPlainJson(body, kMaxDepth, &reply) || reply.value.type != Type::kDictionary) return;
  const PlainValue& verdict = reply.members[kVerdict];
  if (verdict.type != Type::kString || verdict.string != "success") {
    f->lines.push_back("response_errinfo is not success, response_msg:" +
                       test::RecordingLog::Escaped(body.c_str()));
    return;
  }
  const uint32_t interval_ms = Control(reply, kSendInterval);
  if (interval_ms > 0 && interval_ms != f->resend_interval_ms) {
    f->resend_interval_ms = interval_ms;
    f->current_interval_ms = interval_ms;
    f->Reset(interval_ms);
  }
  const uint32_t limit = Control(reply, kMaxResendCount);
  if (limit > 0) f->limit = limit;
  const uint32_t duration_s = Control(reply, kReportDuration);
  if (duration_s > 0) f->report_interval_ms = duration_s * 1000;
  if (interval_ms > 0 || limit > 0 || duration_s > 0) {
    f->told.push_back({Number(ReportEventKind::kRetuned), Number(ReportEventCause::kNone),
                       f->resend_interval_ms, f->limit, f->report_interval_ms});
  }
}

// What becomes of `f` when the message's exchange, its `sends`-th, ends as the input says.
void Answer(const Input& input, uint32_t sends, Fields* f) {
  if (f->pending == 0) f->cleans = true;
  --f->sending;
  if (input.state == State::kCompleted && input.status == 200) {
    Apply(input.body, f);
    if (f->current_interval_ms != f->resend_interval_ms) {
      f->current_interval_ms = f->resend_interval_ms;
      f->Reset(f->resend_interval_ms);
    }
    f->failures = 0;
    ++f->successful;
    return;
  }
  ++f->failed;
  const bool answered = input.state == State::kCompleted && input.status >= 0;
  const ReportEventCause cause =
      answered ? ReportEventCause::kStatus : ReportEventCause::kTransport;
  f->told.push_back({Number(ReportEventKind::kFailed), Number(cause),
                     static_cast<int64_t>(input.state), answered ? input.status : 0});
  sends < f->limit ? ++f->pending : ++f->dropped;
  if (f->resend_interval_ms == 0 && f->failures <= 3) {
    constexpr uint32_t kBackOffMs[] = {1000, 2000, 4000, 8000};
    f->current_interval_ms = kBackOffMs[f->failures];
    f->Reset(f->current_interval_ms);
  } else if (!f->ticks) {
    f->ticks = true;
    f->period_ms = std::max<int64_t>(f->current_interval_ms, 100);
  }
  ++f->failures;
}

// --- The channel under test
// -----------------------------------------------------------------------

class Run {
 public:
  Run()
      : http_([this](base::OnceClosure task) { time_.PostToNetwork(std::move(task)); }),
        channel_(std::make_shared<Channel>("fuzzed", "https://collector.example/report", 0u, false,
                                           false)) {
    channel_->Initialize();
    time_.RunUntilIdle();
  }

  // Every message has ended, and nothing of the channel is left.
  void End() {
    const uint32_t ended = peer().successful() + peer().dropping();
    FUZZ_CHECK(peer().pending().empty() && peer().sending().empty() && ended == peer().needed());
    channel_->Terminate();
    time_.RunUntilIdle();
    channel_.reset();
    time_.RunUntilIdle();
    FUZZ_CHECK(time_.PendingDeadlines() == 0 && time_.LiveQueues() == 0);
    FUZZ_CHECK(http_.LiveClients() == 0 && events_.OpenMessages() == 0);
  }

  Channel* channel() { return channel_.get(); }
  Peer peer() { return Peer(channel_.get()); }
  // From now on.
  void Forget() {
    test::RecordingLog::Clear();
    forgotten_ = events_.Events().size();
  }
  Fields Now() {
    std::vector<test::RecordedEvent> events = events_.Events();
    events.erase(events.begin(), events.begin() + static_cast<std::ptrdiff_t>(forgotten_));
    return FieldsOf(peer(), events);
  }
  void Settle() { time_.RunUntilIdle(); }

  void Send(const std::string& body) {
    channel_->SendPacket(reinterpret_cast<const uint8_t*>(body.data()),
                         static_cast<uint32_t>(body.size()), false, false);
    Settle();
  }
  // As a tick of the send timer.
  void Tick() {
    peer().queue()->PostTask(base::Location(), [this] { peer().DoSend(); });
    Settle();
  }
  // Answers the only request that is outstanding; below 0 without a response.
  void Answer(State state, int status, const std::string& body) {
    const std::vector<size_t> outstanding = http_.Outstanding();
    FUZZ_CHECK(outstanding.size() == 1);
    std::unique_ptr<HttpClient::Response> response;
    if (status >= 0) {
      response = std::make_unique<HttpClient::Response>();
      response->status_code = status;
      response->body = CopyOnWriteBuffer(body.data(), static_cast<uint32_t>(body.size()));
    }
    FUZZ_CHECK(http_.AnswerWith(outstanding[0], state, std::move(response)));
    Settle();
  }

 private:
  test::RecordingReportEvents events_;
  size_t forgotten_ = 0;  // Of the events, the first ones.
  test::VirtualTime time_;
  test::FakeHttp http_;
  std::shared_ptr<Channel> channel_;
};

// Brings the channel to where the input wants it, with its message on the way.
void Prepare(const Input& input, Run* run) {
  run->channel()->SetResendInterval(input.interval_ms);
  run->channel()->SetMaxResendCount(100);
  run->Settle();
  if (input.had_reply) {
    run->Send("before");
    run->Tick();
    run->Answer(State::kCompleted, 200,
                "{\"bytes_errinfo\":\"success\",\"uint32_report_duration\":60}");
    FUZZ_CHECK(run->channel()->GetReportInterval() == 60000);
  }
  run->Send("message");
  run->Tick();
  for (int i = 0; i < input.failures; ++i) {
    run->Answer(State::kCompleted, 503, "");
    run->Tick();
  }
  if (input.loses_interval) run->channel()->SetResendInterval(0);
  run->channel()->SetMaxResendCount(input.limit);
  run->Settle();
  if (input.stops_timer) run->Tick();
  if (input.has_more) run->Send("more");
}

void CheckServesOn(Run* run) {
  run->Send("after");
  for (int i = 0; i < 3; ++i) {
    run->Tick();
    if (run->peer().sending().empty()) continue;
    run->Answer(State::kCompleted, 200,
                "{\"bytes_errinfo\":\"success\",\"uint32_send_interval\":777,"
                "\"uint32_max_resend_count\":7,\"uint32_report_duration\":77}");
  }
  FUZZ_CHECK(run->peer().resend_interval_ms() == 777 && run->peer().current_interval_ms() == 777);
  FUZZ_CHECK(run->peer().max_resend_count() == 7 && run->channel()->GetReportInterval() == 77000);
  FUZZ_CHECK(run->peer().continuous_fail_count() == 0);
}

// --- The reader on its own
// ------------------------------------------------------------------------

void CheckReader(const std::string& text, int max_depth) {
  PlainDocument wanted;
  const bool is_good = ReadPlainJson(text, max_depth, &wanted);
  const base::Optional<base::Value> found = base::JSONReader::Read(text, 0, max_depth);
  FUZZ_CHECK(found.has_value() == is_good);
  if (!is_good) return;
  FUZZ_CHECK(found->type() == wanted.value.type);
  for (const auto& [key, member] : wanted.members) {
    const std::string* const string = found->FindStringKey(key);
    FUZZ_CHECK((string != nullptr) == (member.type == Type::kString));
    FUZZ_CHECK(string == nullptr || *string == member.string);
    const base::Optional<int> integer = found->FindIntKey(key);
    FUZZ_CHECK(integer.has_value() == (member.type == Type::kInteger));
    FUZZ_CHECK(!integer.has_value() || *integer == member.integer);
  }
}

// --- Changing an input
// ----------------------------------------------------------------------------

const std::vector<std::string>& Words() {
  static const auto* const words = [] {
    auto* all = new std::vector<std::string>;
    for (const char* key : {kVerdict, kSendInterval, kMaxResendCount, kReportDuration}) {
      all->push_back('"' + std::string(key) + '"');
      all->push_back('"' + std::string(key) + "\":");
      all->push_back(key);
    }
    for (const char* word : {"\"success\"",
                             "\"Success\"",
                             "\"success \"",
                             "\"\"",
                             "\"\\u0073uccess\"",
                             "success",
                             "\"uint32\\u005fsend_interval\"",
                             "{",
                             "}",
                             "[",
                             "]",
                             ",",
                             ":",
                             "\"",
                             "\\",
                             "null",
                             "true",
                             "false",
                             "0",
                             "-0",
                             "1",
                             "-1",
                             "50",
                             "3000",
                             "2147483647",
                             "2147483648",
                             "-2147483648",
                             "-2147483649",
                             "4294967295",
                             "4294967296",
                             "4294968",
                             "1e400",
                             "-1E-9",
                             "0.0",
                             "1e",
                             "01",
                             "1.",
                             ".5",
                             "+1",
                             "9223372036854775808",
                             "1e99999999999",
                             "18446744073709551616",
                             "0e-0",
                             "NaN",
                             "\\u",
                             "\\u0000",
                             "\\ud800",
                             "\\udc00",
                             "\\uD83D\\uDE39",
                             "\\uDBFF\\uDFFF",
                             "\\b",
                             "\\/",
                             "\\x",
                             " ",
                             "\t",
                             "\n",
                             "\r",
                             "\f",
                             "\xEF\xBB\xBF",
                             "\xC2\x80",
                             "\xC0\x80",
                             "\xC3",
                             "\xED\xA0\x80",
                             "\xED\x9F\xBF",
                             "\xE0\x9F\xBF",
                             "\xF0\x8F\xBF\xBF",
                             "\xF0\x90\x80\x80",
                             "\xF4\x8F\xBF\xBF",
                             "\xF4\x90\x80\x80",
                             "\xF8",
                             "\xFF",
                             "\x7F",
                             "/*",
                             "//",
                             "'"}) {
      all->push_back(word);
    }
    all->push_back(std::string(1, '\0'));
    for (const size_t depth : {10, 100, 199, 200}) {
      all->push_back(std::string(depth, '['));
      all->push_back(std::string(depth, ']'));
    }
    return all;
  }();
  return *words;
}

// A reply that counts, with members of any kind beside the verdict.
std::string MakeSuccess(Random& random, const std::string& value) {
  std::string text = "{\"bytes_errinfo\":\"success\"";
  const auto& words = Words();
  for (size_t i = Below(random, 5); i > 0; --i) {
    constexpr const char* kKeys[] = {kSendInterval, kMaxResendCount, kReportDuration, "x"};
    text += ",\"" + std::string(kKeys[Below(random, 4)]) + "\":";
    switch (Below(random, 4)) {
      case 0:
        text += value;
        break;
      case 1:
        text += words[Below(random, words.size())];
        break;
      default:
        text += std::to_string(static_cast<int64_t>(Interesting(random, 1u << 31)));
    }
  }
  return text + "}";
}

}  // namespace
}  // namespace quenor::fuzz

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t max_size,
                                          unsigned seed) {
  using namespace quenor::fuzz;
  Random random(seed);
  const size_t way = Below(random, 8);
  if (way == 0) return LLVMFuzzerMutate(data, size, max_size);
  Bytes bytes(data, data + size);
  if (bytes.size() < kReplyHead || OneIn(random, 4)) {
    bytes.resize(std::max(size, kReplyHead));
    bytes[Below(random, kReplyHead)] = static_cast<uint8_t>(random() >> 8);
  }
  if (way <= 2) {
    const std::string value(bytes.begin() + kReplyHead, bytes.end());
    const std::string body = MakeSuccess(random, value);
    bytes.resize(kReplyHead);
    bytes.insert(bytes.end(), body.begin(), body.end());
  } else {
    MutateText(&bytes, kReplyHead, Words(), random);
  }
  return PutBack(bytes, data, max_size);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace quenor::fuzz;
  const Input input(data, size);
  CheckReader(input.body, kMaxDepth);
  CheckReader(input.body, input.reader_depth);

  Run run;
  Prepare(input, &run);
  run.Forget();
  FUZZ_CHECK(run.peer().sending().size() == 1);
  const uint32_t sends = run.peer().sending().begin()->second.send_count;
  FUZZ_CHECK(sends == static_cast<uint32_t>(input.failures) + 1);
  Fields wanted = run.Now();
  FUZZ_CHECK(wanted.limit == input.limit && wanted.failures + 1 == sends);
  FUZZ_CHECK(wanted.resend_interval_ms == (input.loses_interval ? 0 : input.interval_ms));
  FUZZ_CHECK(wanted.report_interval_ms == (input.had_reply ? 60000 : 10000));

  run.Answer(input.state, input.status, input.body);

  Answer(input, sends, &wanted);
  const Fields found = run.Now();
  if (!(found == wanted)) {
    Print("wanted", wanted);
    Print("found", found);
  }
  FUZZ_CHECK(found == wanted);
  FUZZ_CHECK(run.channel()->GetReportInterval() == wanted.report_interval_ms);
  CheckServesOn(&run);
  run.End();
  // Else libFuzzer looks for a leak.
  quenor::test::RecordingLog::Clear();
  quenor::test::FakeMmapFiles().Clear();
  return 0;
}
