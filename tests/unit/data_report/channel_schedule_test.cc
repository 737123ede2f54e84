// A long random life of a channel, checked after every task: each message is in exactly one place,
// the counters equal the events, the books close, and nothing ticks while the channel is stopped.
// The seed is printed; QUENOR_TEST_SEED repeats a run, QUENOR_TEST_STEPS sets its length.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "quenor_base/platform/local_log.h"
#include "tests/support/channel_test_fixture.h"

namespace quenor::test {
namespace {

using Kind = ReportEventKind;
using Cause = ReportEventCause;

uint64_t FromEnvironment(const char* name, uint64_t otherwise) {
  const char* const text = std::getenv(name);
  return text == nullptr ? otherwise : std::strtoull(text, nullptr, 10);
}

// The book-keeper: told of every event, it knows where each message ought to be.
class Ledger : public ReportEventListener {
 public:
  enum Place : uint8_t { kOnTheWay, kStored, kEnded };

  // Bodies begin with the message's number, in 8 bytes. With compression the stored bytes do not:
  // messages are then counted and not followed.
  explicit Ledger(bool compress) : compress_(compress) { ReportEvents::SetListener(this); }
  ~Ledger() override { ReportEvents::SetListener(nullptr); }

  void OnReportEvent(const ReportEvent& event) override {
    switch (event.kind) {
      case Kind::kHandedOver:
        ++on_the_way;
        if (!compress_) places_.push_back(kOnTheWay);
        Expect(compress_ || Number(event.data, event.size) + 1 == places_.size(), "hand-over");
        return;
      case Kind::kRefused:
        --on_the_way;
        return Move(event, kOnTheWay, kEnded);
      case Kind::kAdmitted:
        --on_the_way;
        ++stored;
        ++needed;
        return Move(event, kOnTheWay, kStored);
      case Kind::kSent:
        ++actual;
        return Move(event, kStored, kStored);
      case Kind::kFailed:
        ++failed;
        return Move(event, kStored, kStored);
      case Kind::kAcknowledged:
        ++successful;
        --stored;
        return Move(event, kStored, kEnded);
      case Kind::kDropped:
        return OnDropped(event);
      case Kind::kRetuned:
        return;
      default:
        return Fail("an event that this run cannot have");
    }
  }

  // Statistics start afresh with each line.
  void ClearCounts() { needed = actual = successful = failed = dropping = 0; }
  std::vector<uint32_t> Counts() const { return {needed, actual, successful, failed, dropping}; }

  void Check(ReliableReportChannelHttpsTestPeer peer) {
    Expect(peer.pending().size() + peer.sending().size() == stored, "the store's size");
    Expect(std::vector<uint32_t>{peer.needed(), peer.actual(), peer.successful(), peer.failed(),
                                 peer.dropping()} == Counts(),
           "the counters");
    if (!peer.is_running()) {
      Expect(!peer.send_timer().IsRunning() && !peer.statistic_timer().IsRunning() &&
                 !peer.clean_timer().IsRunning(),
             "a timer runs while the channel does not");
      Expect(peer.http_client() == nullptr, "a client lives while the channel does not run");
    }
    if (compress_) return;
    ++round_;
    seen_in_.resize(places_.size(), 0);
    for (const auto& message : peer.pending()) See(message.data);
    for (const auto& entry : peer.sending()) See(entry.second.data);
  }

  const std::string& error() const { return error_; }
  bool ok() const { return error_.empty(); }
  void Fail(const std::string& what) {
    if (error_.empty()) error_ = what;
  }
  void Expect(bool holds, const char* what) {
    if (!holds) Fail(what);
  }

  uint64_t on_the_way = 0;  // Handed over, neither in the store nor ended.
  uint64_t stored = 0;
  uint32_t needed = 0, actual = 0, successful = 0, failed = 0, dropping = 0;

 private:
  static uint64_t Number(const uint8_t* data, uint32_t size) {
    uint64_t number = UINT64_MAX;
    if (data != nullptr && size >= sizeof(number)) std::memcpy(&number, data, sizeof(number));
    return number;
  }

  void OnDropped(const ReportEvent& event) {
    switch (event.cause) {
      case Cause::kNotCompressed:
        ++needed;
        --on_the_way;
        return Move(event, kOnTheWay, kEnded);
      case Cause::kNeverRun:
        --on_the_way;
        return Move(event, kOnTheWay, kEnded);
      case Cause::kTrimmed:
      case Cause::kResendLimit:
        ++dropping;
        break;
      case Cause::kTerminated:
      case Cause::kReplaced:
        break;
      default:
        Fail("a cause that this run cannot have");
    }
    --stored;
    Move(event, kStored, kEnded);
  }

  void Move(const ReportEvent& event, Place from, Place to) {
    if (compress_) return;
    const uint64_t number = Number(event.data, event.size);
    if (number >= places_.size()) return Fail("an event about an unknown message");
    if (places_[number] != from) return Fail("an event out of turn");
    places_[number] = to;
  }

  void See(const CopyOnWriteBuffer& body) {
    const uint64_t number = Number(body.cdata<uint8_t>(), body.size());
    if (number >= places_.size()) return Fail("an unknown message in the store");
    Expect(places_[number] == kStored, "a message in the store that ought not to be");
    Expect(seen_in_[number] != round_, "a message in two places");
    seen_in_[number] = round_;
  }

  const bool compress_;
  std::string error_;
  std::vector<Place> places_;
  std::vector<uint64_t> seen_in_;  // The last check that met the message.
  uint64_t round_ = 0;
};

class Schedule {
 public:
  Schedule(uint64_t seed, bool compress)
      : random_(seed),
        compress_(compress),
        ledger_(compress),
        http_([this](base::OnceClosure task) {
          time_.PostToNetwork(std::move(task), TimeDelta::FromMilliseconds(Below(40)));
        }),
        channel_(std::make_shared<ReliableReportChannelHttps>(kName, kUrl, 0u, false, compress)) {
    SetLogSink(&OnLine, this);
    time_.SetAfterEachTask([this] {
      if (ledger_.ok()) ledger_.Check(peer());
    });
  }
  ~Schedule() { SetLogSink(nullptr, nullptr); }

  // Answers what went wrong; empty when nothing did.
  std::string Run(uint64_t steps) {
    for (uint64_t step = 0; step < steps && ledger_.ok(); ++step) {
      Step();
      // The record of lines grows without bound otherwise.
      if (step % 1000 == 0) RecordingLog::Clear();
    }
    End();
    return ledger_.error();
  }

  uint64_t handed_over() const { return next_number_; }
  uint64_t restarts() const { return restarts_; }

 private:
  using TimeDelta = base::TimeDelta;

  ReliableReportChannelHttpsTestPeer peer() {
    return ReliableReportChannelHttpsTestPeer(channel_.get());
  }
  uint64_t Below(uint64_t bound) { return random_() % bound; }
  bool OneIn(uint64_t n) { return Below(n) == 0; }

  void Step() {
    const uint64_t what = Below(1000);
    if (what < 300) {
      HandOver();
    } else if (what < 600) {
      time_.AdvanceBy(TimeDelta::FromMilliseconds(Below(150)));
    } else if (what < 650) {
      time_.RunNext();
    } else if (what < 900) {
      AnswerOne();
    } else if (what < 970) {
      Retune();
    } else if (what < 985) {
      Disturb();
    } else if (what < 990) {
      time_.AdvanceBy(TimeDelta::FromSeconds(Below(90)));
    } else if (what < 992) {
      time_.AdvanceBy(TimeDelta::FromSeconds(Below(900)));
    } else if (what < 993) {
      time_.WakeLateBy(TimeDelta::FromSeconds(Below(900)));
    } else if (what < 996) {
      channel_->Terminate();
    } else {
      Initialize();
    }
  }

  void HandOver() {
    uint8_t body[64];
    uint32_t size = static_cast<uint32_t>(sizeof(next_number_) + Below(40));
    std::memset(body, 'x', sizeof(body));
    std::memcpy(body, &next_number_, sizeof(next_number_));
    if (compress_ && OneIn(5)) size = static_cast<uint32_t>(Below(4));  // Does not compress.
    ++next_number_;
    if (OneIn(6)) {
      channel_->SendPacketWithDelay(body, size, OneIn(2), TimeDelta::FromMilliseconds(Below(5000)));
    } else {
      channel_->SendPacket(body, size, OneIn(2), OneIn(4));
    }
  }

  void AnswerOne() {
    const std::vector<size_t> outstanding = http_.Outstanding();
    if (outstanding.empty()) return;
    const size_t index = outstanding[Below(outstanding.size())];
    const uint64_t how = Below(100);
    if (how < 60) {
      http_.Answer(index, 200, Reply());
    } else if (how < 80) {
      http_.Answer(index, static_cast<int>(Below(600)) + (OneIn(2) ? 0 : 201));
    } else if (how < 97) {
      http_.Fail(index, static_cast<HttpClient::State>(Below(5)));
    } else {
      http_.Drop(index);  // Nobody ever answers.
    }
  }

  std::string Reply() {
    switch (Below(8)) {
      case 0:
        return "";
      case 1:
        return "not json";
      case 2:
        return "{\"bytes_errinfo\":\"busy\"}";
      case 3:
        return "{\"bytes_errinfo\":\"success\",\"uint32_max_resend_count\":" +
               std::to_string(Below(6)) + "}";
      case 4:
        return "{\"bytes_errinfo\":\"success\",\"uint32_send_interval\":" +
               std::to_string(Below(500)) + ",\"uint32_report_duration\":9}";
      default:
        return kSuccess;
    }
  }

  void Retune() {
    switch (Below(6)) {
      case 0:
        return channel_->SetResendInterval(static_cast<unsigned int>(Below(400)));
      case 1:
      case 2:
        return channel_->SetResendInterval(0);
      case 3:
        return channel_->SetMaxResendCount(static_cast<unsigned int>(Below(6)));
      case 4:
        return channel_->SetServerDomain(OneIn(4) ? "" : kUrl);
      default:
        return channel_->FlushPacket();
    }
  }

  void Disturb() {
    switch (Below(5)) {
      case 0:
        return http_.FailNextCreations(Below(4));
      case 1:
        return http_.RefuseAll(-static_cast<int64_t>(Below(3)));
      case 2:
      case 3:
        return http_.Accept();
      default: {
        // An id that may be in use: the message under it is lost.
        const auto& sending = peer().sending();
        if (sending.empty()) return;
        return http_.ReturnNextIds({sending.begin()->first});
      }
    }
  }

  void Initialize() {
    if (peer().state() != 0) return channel_->Initialize();  // Ignored.
    // The owner's duty: the old queue has drained.
    if (!core::ThreadManager::WaitForDrain(TimeDelta())) ledger_.Fail("the queue does not drain");
    if (OneIn(5)) time_.FailNextCreations(1);
    channel_->Initialize();
    time_.FailNextCreations(0);
    ++restarts_;
  }

  void End() {
    channel_->Terminate();
    time_.AdvanceBy(TimeDelta::FromSeconds(1));  // The last answers are on their way.
    if (!ledger_.ok()) return;
    ledger_.Expect(ledger_.stored == 0, "messages left in the store");
    ledger_.Expect(ledger_.on_the_way == 0, "messages left on the way");
    ledger_.Expect(time_.PendingDeadlines() == 0, "deadlines left");
    ledger_.Expect(time_.LiveQueues() == 0, "queues left");
    ledger_.Expect(http_.LiveClients() == 0, "clients left");
  }

  // The statistics line tells what the events told, and starts the counts afresh.
  static void OnLine(void* context, int level, const char*, int, const char* text, size_t) {
    if (level != 0) return;
    auto* const self = static_cast<Schedule*>(context);
    const std::vector<uint32_t> counts = self->ledger_.Counts();
    std::ostringstream numbers;
    numbers << "needed count is " << counts[0] << ", sending message actual count is " << counts[1]
            << ", sending_message successful count is " << counts[2]
            << ", sending message failed count is " << counts[3] << ", dropping message count is "
            << counts[4];
    const std::string line = text;
    const std::string tail = numbers.str();
    self->ledger_.Expect(line.size() > tail.size() &&
                             line.compare(line.size() - tail.size(), tail.size(), tail) == 0,
                         "the statistics line");
    self->ledger_.ClearCounts();
  }

  std::mt19937_64 random_;
  const bool compress_;
  uint64_t next_number_ = 0;
  uint64_t restarts_ = 0;
  Ledger ledger_;
  VirtualTime time_;
  FakeHttp http_;
  std::shared_ptr<ReliableReportChannelHttps> channel_;
};

class ChannelScheduleTest : public ::testing::TestWithParam<bool> {};

INSTANTIATE_TEST_SUITE_P(Bodies, ChannelScheduleTest, ::testing::Values(false, true),
                         [](const auto& named) { return named.param ? "Compressed" : "Plain"; });

TEST_P(ChannelScheduleTest, RandomLifeKeepsEveryMessageInOnePlaceAndTheBooksClosed) {
  const bool compress = GetParam();
  uint64_t steps = FromEnvironment("QUENOR_TEST_STEPS", 200000);
  if (compress) steps /= 10;
  const uint64_t seed = FromEnvironment("QUENOR_TEST_SEED", std::random_device()());
  std::cout << "QUENOR_TEST_SEED=" << seed << " QUENOR_TEST_STEPS=" << steps << std::endl;
  RecordingLog::Clear();
  GetSocks5ProxyConfigHolder()->SetConfig({});
  Schedule schedule(seed, compress);

  const std::string error = schedule.Run(steps);

  EXPECT_EQ(error, "") << "seed " << seed << ", " << schedule.handed_over() << " messages";
  EXPECT_GT(schedule.handed_over(), steps / 10);
  EXPECT_TRUE(steps < 10000 || schedule.restarts() > 0);
}

}  // namespace
}  // namespace quenor::test
