// The five counters and the line that reports and clears them.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "tests/support/channel_test_fixture.h"

namespace quenor::test {
namespace {

std::string Line(const std::string& name, const std::string& url, unsigned int needed,
                 unsigned int actual, unsigned int successful, unsigned int failed,
                 unsigned int dropping) {
  return "report channel statistical results: channel_name is " + name + ", url is " + url +
         ", sending message needed count is " + std::to_string(needed) +
         ", sending message actual count is " + std::to_string(actual) +
         ", sending_message successful count is " + std::to_string(successful) +
         ", sending message failed count is " + std::to_string(failed) +
         ", dropping message count is " + std::to_string(dropping);
}

class ChannelStatisticsTest : public ChannelTest {
 protected:
  void Report() {
    OnQueue([](Peer peer) { peer.LogoutStatistic(); });
  }
};

TEST_F(ChannelStatisticsTest, LineHasItsExactTextLevelAndFile) {
  Start();
  Send("one", false, true);
  Send("two", false, true);
  Send("three");
  Answer(0, 200);
  Fail(1);
  channel_->SetMaxResendCount(1);
  time_.RunUntilIdle();
  Advance(1000);
  Fail(2);

  Report();

  const auto lines = RecordingLog::Lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].level, 0);
  EXPECT_EQ(lines[0].file, kSourcePath);
  EXPECT_EQ(lines[0].text, Line(kName, kUrl, 3, 3, 1, 2, 1));
}

TEST_F(ChannelStatisticsTest, LineCarriesNameAndUrlAsTheyAreNow) {
  channel_ = std::make_shared<Channel>("a %s name", kUrl, 0u, false, false);
  channel_->Initialize();
  Send("one");
  channel_->SetServerDomain("https://new.example/?a=%d");
  time_.RunUntilIdle();

  Report();

  EXPECT_EQ(RecordingLog::Texts(0),
            Texts{Line("a %s name", "https://new.example/?a=%d", 1, 0, 0, 0, 0)});
}

TEST_F(ChannelStatisticsTest, AllFiveCountersReadZeroAfterTheLine) {
  Start();
  channel_->SetMaxResendCount(1);
  Send("one", false, true);
  Send("two", false, true);
  Answer(0, 200);
  Fail(1);
  ASSERT_EQ(Counters(), (Counts{2, 2, 1, 1, 1}));

  Report();

  EXPECT_EQ(Counters(), (Counts{0, 0, 0, 0, 0}));
}

TEST_F(ChannelStatisticsTest, ChannelThatNeverReceivesAMessageNeverWritesTheLine) {
  Start();

  Advance(7200 * 1000);
  Stop();

  EXPECT_TRUE(RecordingLog::Lines().empty());
}

TEST_F(ChannelStatisticsTest, WithNothingNeededNothingIsLoggedAndNothingCleared) {
  Start();
  Send("one", false, true);
  Report();
  RecordingLog::Clear();
  Fail(0);
  ASSERT_EQ(Counters(), (Counts{0, 0, 0, 1, 0}));

  Report();

  EXPECT_TRUE(RecordingLog::Lines().empty());
  EXPECT_EQ(Counters(), (Counts{0, 0, 0, 1, 0}));
}

TEST_F(ChannelStatisticsTest, FailuresOfAQuietPeriodAppearInTheNextReportedOne) {
  Start();
  Send("one", false, true);
  Advance(600000);
  RecordingLog::Clear();
  Fail(0);
  Advance(600000);
  ASSERT_TRUE(RecordingLog::Texts(0).empty());
  ASSERT_EQ(Counters(), (Counts{0, 1, 0, 1, 0}));

  Send("two");
  Advance(600000);

  EXPECT_EQ(RecordingLog::Texts(0), Texts{Line(kName, kUrl, 1, 2, 0, 1, 0)});
}

TEST_F(ChannelStatisticsTest, MessageThatFailsFiveTimesAddsFiveFiveAndOne) {
  Start();
  Send("one");
  for (int i = 0; i < 10; ++i) {
    Advance(8000);
    for (const size_t index : http_.Outstanding()) Fail(index);
  }

  EXPECT_EQ(Counters(), (Counts{1, 5, 0, 5, 1}));
}

TEST_F(ChannelStatisticsTest, FirstLineComesSixHundredSecondsAfterTheStart) {
  Make();
  Advance(100000);  // Before the start: does not count.
  channel_->Initialize();
  Send("one");

  Advance(599999);
  EXPECT_TRUE(RecordingLog::Texts(0).empty());
  Advance(1);

  EXPECT_EQ(RecordingLog::Texts(0), Texts{Line(kName, kUrl, 1, 1, 0, 0, 0)});
}

TEST_F(ChannelStatisticsTest, EachLineCoversTheTimeSinceTheOneBefore) {
  Start();
  Send("one", false, true);
  Answer(0, 200);
  Advance(600000);
  Send("two", false, true);
  Send("three", false, true);
  Answer(1, 200);
  Answer(2, 200);
  Advance(600000);

  EXPECT_EQ(RecordingLog::Texts(0),
            (Texts{Line(kName, kUrl, 1, 1, 1, 0, 0), Line(kName, kUrl, 2, 2, 2, 0, 0)}));
}

TEST_F(ChannelStatisticsTest, TerminationWritesTheLastLineOnce) {
  Start();
  Send("one", false, true);
  Send("two");

  Stop();
  Advance(7200 * 1000);

  EXPECT_EQ(RecordingLog::Texts(0), Texts{Line(kName, kUrl, 2, 1, 0, 0, 0)});
}

TEST_F(ChannelStatisticsTest, TerminationCarriesAQuietPeriodsCountsIntoTheNextRun) {
  Start();
  Send("one", false, true);
  Report();
  RecordingLog::Clear();
  Fail(0);
  Stop();
  EXPECT_TRUE(RecordingLog::Texts(0).empty());
  channel_->Initialize();

  Send("two", false, true);
  Report();

  EXPECT_EQ(RecordingLog::Texts(0), Texts{Line(kName, kUrl, 1, 1, 0, 1, 0)});
}

TEST_F(ChannelStatisticsTest, RefusedMessagesAndUnmatchedResponsesMoveNoCounter) {
  Start();
  Send("one", false, true);
  HttpClient::Request unknown;
  unknown.request_id = 987654321;
  peer().OnResponse(State::kFailed, unknown, nullptr);
  channel_->SetServerDomain("");
  Send("refused");

  EXPECT_EQ(Counters(), (Counts{1, 1, 0, 0, 0}));
}

TEST_F(ChannelStatisticsTest, EachChannelCountsItsOwn) {
  Start();
  const auto other = std::make_shared<Channel>("other", kUrl, 0u, false, false);
  other->Initialize();
  Send("one");

  EXPECT_EQ(Peer(other.get()).needed(), 0u);
  EXPECT_EQ(peer().needed(), 1u);
  other->Terminate();
  time_.RunUntilIdle();
}

}  // namespace
}  // namespace quenor::test
