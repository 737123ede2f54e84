// A channel that is used again: after a run that left traces in every field, the next one goes as
// that of a new channel does. What a termination keeps is set to the same before both.
#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/channel_test_fixture.h"

namespace quenor::test {
namespace {

class ChannelAgainTest : public ChannelTest, public ::testing::WithParamInterface<bool> {
 protected:
  // What can be seen of a run that sends, fails, backs off, is retuned, trims, cleans up and rests.
  Texts Run() {
    Texts seen;
    const size_t first_request = http_.RequestCount();
    const int64_t begin_us = time_.NowUs();
    events_.Clear();
    RecordingLog::Clear();
    events_.SetOnEvent([&](const ReportEvent& event) {
      std::ostringstream line;
      line << (time_.NowUs() - begin_us) / 1000 << " ms: event " << static_cast<int>(event.kind)
           << " cause " << static_cast<int>(event.cause) << " sent " << event.send_count << " size "
           << event.size << " interval " << event.send_interval_ms << " limit "
           << event.max_resend_count;
      seen.push_back(line.str());
    });
    const auto look = [&](const char* where) {
      std::ostringstream line;
      line << where << ": pending " << PendingBodies().size() << " in flight "
           << peer().sending().size() << " period " << SendPeriod() << " deadlines "
           << time_.PendingDeadlines() << " requests " << http_.RequestCount() - first_request
           << " clients " << http_.LiveClients();
      for (const uint32_t counter : Counters()) line << ' ' << counter;
      seen.push_back(line.str());
    };

    channel_->Initialize();
    time_.RunUntilIdle();
    look("begin");
    Send(std::string(500, 'a'), false, true);
    Send(std::string(500, 'b'));
    look("sent");
    Fail(first_request);
    look("failed");
    for (int i = 0; i < 8; ++i) {
      Advance(1000);
      look("later");
    }
    while (!http_.Outstanding().empty()) Answer(http_.Outstanding().front(), 500);
    look("refused");
    for (int i = 0; i < 230; ++i) Post(std::string(300, static_cast<char>('c' + i % 20)));
    time_.RunUntilIdle();
    look("trimmed");
    Advance(20000);
    while (!http_.Outstanding().empty()) Answer(http_.Outstanding().front(), 200);
    look("answered");
    channel_->FlushPacket();
    Advance(70000);
    look("cleaned");
    Advance(700000);
    look("rested");
    events_.SetOnEvent(nullptr);
    for (const std::string& text : RecordingLog::Texts()) seen.push_back(text);
    return seen;
  }

  // Line by line: the first that differs says what was not reset.
  static void ExpectSame(const Texts& seen, const Texts& wanted) {
    ASSERT_EQ(seen.size(), wanted.size());
    for (size_t i = 0; i < seen.size(); ++i) ASSERT_EQ(seen[i], wanted[i]) << "line " << i;
  }

  // Leaves something in every field: messages that wait and that are out, failures in a row, a
  // client, running timers, counters, another limit.
  void LeaveTraces() {
    channel_->Initialize();
    channel_->SetMaxResendCount(2);
    channel_->SetResendInterval(0);
    Send(std::string(400, 'x'), true, true);
    Fail(http_.Outstanding().back());
    Advance(1000);
    Answer(http_.RequestCount() - 1, 200);
    SendMany(30, std::string(300, 'w'));
    Send(std::string(300, 'i'), false, true);
    Send(std::string(300, 'a'), false, true);
    Answer(http_.RequestCount() - 1, 200);
    Stop();
  }
};

TEST_P(ChannelAgainTest, SecondRunGoesAsTheFirstOneOfANewChannel) {
  Make(GetParam());
  const Texts wanted = Run();
  Stop();
  Make(GetParam());
  LeaveTraces();

  ExpectSame(Run(), wanted);
}

TEST_P(ChannelAgainTest, TenthRunGoesAsTheFirst) {
  Make(GetParam());
  const Texts wanted = Run();
  for (int i = 0; i < 9; ++i) {
    Stop();
    ExpectSame(Run(), wanted);
  }
}

INSTANTIATE_TEST_SUITE_P(Bodies, ChannelAgainTest, ::testing::Values(false, true),
                         [](const auto& compressed) {
                           return compressed.param ? "Compressed" : "AsTheyAre";
                         });

}  // namespace
}  // namespace quenor::test
