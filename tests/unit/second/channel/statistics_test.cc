// The five counters and their line. Written without sight of the implementation, from the promises
// alone.
#include "tests/unit/second/channel/promise_fixture.h"

namespace quenor::test {
namespace {

using PromisedStatisticsTest = PromiseTest;

TEST_F(PromisedStatisticsTest, LineComesEverySixHundredSeconds) {
  Start();
  Send("one");
  AdvanceToTheEdge(Seconds(600), [] { EXPECT_TRUE(StatisticLines().empty()); });
  EXPECT_EQ(StatisticLines(), Strings{StatisticLine("second", kUrl, {1, 1, 0, 0, 0})});
  Send("two");
  AdvanceToTheEdge(Seconds(600), [] { EXPECT_EQ(StatisticLines().size(), 1u); });
  EXPECT_EQ(StatisticLines().size(), 2u);
}

TEST_F(PromisedStatisticsTest, LineIsOfLevelZeroAndReadsExactlySo) {
  Start();
  Peer inside = Inside();
  inside.needed() = 1;
  inside.actual() = 2;
  inside.successful() = 3;
  inside.failed() = 4;
  inside.dropping() = 5;
  RecordingLog::Clear();

  OnQueue([this] { Inside().LogoutStatistic(); });

  const auto lines = RecordingLog::Lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].level, 0);
  EXPECT_EQ(lines[0].file, kChannelSource);
  EXPECT_EQ(lines[0].text,
            "report channel statistical results: channel_name is second, url is "
            "https://collector.example/report, sending message needed count is 1, sending message "
            "actual count is 2, sending_message successful count is 3, sending message failed "
            "count is 4, dropping message count is 5");
  EXPECT_EQ(Counters(), (Numbers{0, 0, 0, 0, 0}));
}

TEST_F(PromisedStatisticsTest, CountersArePrintedUnsigned) {
  Start();
  Peer inside = Inside();
  for (uint32_t* counter : {&inside.needed(), &inside.actual(), &inside.successful(),
                            &inside.failed(), &inside.dropping()}) {
    *counter = 4294967295u;
  }
  OnQueue([this] { Inside().LogoutStatistic(); });
  const uint32_t most = 4294967295u;
  EXPECT_EQ(StatisticLines(),
            Strings{StatisticLine("second", kUrl, {most, most, most, most, most})});
}

TEST_F(PromisedStatisticsTest, WithoutNeededMessagesNothingIsLoggedOrCleared) {
  Start();
  Peer inside = Inside();
  inside.actual() = 2;
  inside.successful() = 3;
  inside.failed() = 4;
  inside.dropping() = 5;
  RecordingLog::Clear();

  Advance(Seconds(600));

  EXPECT_TRUE(RecordingLog::Lines().empty());
  EXPECT_EQ(Counters(), (Numbers{0, 2, 3, 4, 5}));
  Stop();
  EXPECT_TRUE(StatisticLines().empty());
  EXPECT_EQ(Counters(), (Numbers{0, 2, 3, 4, 5}));
}

TEST_F(PromisedStatisticsTest, FailuresOfAQuietPeriodShowInTheNextLine) {
  Start();
  Send("one", false, true);
  Advance(Seconds(600));
  ASSERT_EQ(StatisticLines().size(), 1u);
  Answer(0, 500);
  Advance(Seconds(600));
  ASSERT_EQ(StatisticLines().size(), 1u);
  ASSERT_EQ(Counters(), (Numbers{0, 1, 0, 1, 0}));

  Send("two");
  Advance(Seconds(600));

  EXPECT_EQ(StatisticLines().size(), 2u);
  EXPECT_EQ(StatisticLines().back(), StatisticLine("second", kUrl, {1, 2, 0, 1, 0}));
}

TEST_F(PromisedStatisticsTest, IdleChannelNeverWritesTheLine) {
  Start();
  Advance(Seconds(6000));
  Stop();
  EXPECT_TRUE(StatisticLines().empty());
}

TEST_F(PromisedStatisticsTest, TerminationWritesTheLineOnceAndCountsNoDrops) {
  Start();
  for (int i = 0; i < 5; ++i) Send("waits", true);
  Send("flies", false, true);
  Stop();
  EXPECT_EQ(StatisticLines(), Strings{StatisticLine("second", kUrl, {6, 1, 0, 0, 0})});
  EXPECT_EQ(Counters(), (Numbers{0, 0, 0, 0, 0}));
  Advance(Seconds(1200));
  EXPECT_EQ(StatisticLines().size(), 1u);
}

TEST_F(PromisedStatisticsTest, TerminationAfterALineWritesNoSecond) {
  Start();
  Send("one", false, true);
  Advance(Seconds(600));
  Stop();
  EXPECT_EQ(StatisticLines().size(), 1u);
}

TEST_F(PromisedStatisticsTest, LineNamesTheUrlInForce) {
  Start();
  Send("one");
  channel_->SetServerDomain("https://new/%s%d");
  time_.RunUntilIdle();
  Stop();
  EXPECT_EQ(StatisticLines(),
            Strings{StatisticLine("second", "https://new/%s%d", {1, 0, 0, 0, 0})});
}

TEST_F(PromisedStatisticsTest, LongNamesAreNotCut) {
  const std::string name(100, 'n');
  const std::string url = "https://" + std::string(5000, 'u');
  channel_ = std::make_shared<Channel>(name, url, 0, false, false);
  Start();
  Send("one");
  Stop();
  EXPECT_EQ(StatisticLines(), Strings{StatisticLine(name, url, {1, 0, 0, 0, 0})});
}

TEST_F(PromisedStatisticsTest, HopelessMessageCountsFiveFiveOne) {
  Start();
  http_.SetOnStarted([this] { http_.Answer(http_.RequestCount() - 1, 500); });
  Send("failing");
  Advance(Seconds(600));
  EXPECT_EQ(StatisticLines(), Strings{StatisticLine("second", kUrl, {1, 5, 0, 5, 1})});
}

TEST_F(PromisedStatisticsTest, NeededIsCountedBeforeTheMessageIsLost) {
  Make(true);
  Start();
  Send("x");  // Cannot be compressed.
  Stop();
  EXPECT_EQ(StatisticLines(), Strings{StatisticLine("second", kUrl, {1, 0, 0, 0, 0})});
}

TEST_F(PromisedStatisticsTest, CountersWrap) {
  Start();
  Peer inside = Inside();
  inside.actual() = inside.failed() = inside.successful() = inside.dropping() = 4294967295u;
  channel_->SetMaxResendCount(0);
  Send("a", false, true);
  Send("b", false, true);
  EXPECT_EQ(Counters()[1], 1u);
  Answer(0, 500);
  Answer(1, 200);
  EXPECT_EQ(Counters(), (Numbers{2, 1, 0, 0, 0}));
}

TEST_F(PromisedStatisticsTest, NeededThatWrapsToZeroSilencesTheLine) {
  Start();
  Inside().needed() = 4294967295u;
  Send("one");
  EXPECT_EQ(Counters()[0], 0u);
  Advance(Seconds(600));
  EXPECT_TRUE(StatisticLines().empty());
  EXPECT_EQ(Counters()[1], 1u);
}

TEST_F(PromisedStatisticsTest, PeriodStartsWithTheRunAndNotWithTheMessage) {
  Start();
  Advance(Seconds(599));
  Send("late");
  Advance(Seconds(1));
  EXPECT_EQ(StatisticLines().size(), 1u);
}

TEST_F(PromisedStatisticsTest, RestartBeginsANewPeriod) {
  Start();
  Advance(Seconds(500));
  Restart();
  Send("one");
  AdvanceToTheEdge(Seconds(600), [] { EXPECT_TRUE(StatisticLines().empty()); });
  EXPECT_EQ(StatisticLines().size(), 1u);
}

}  // namespace
}  // namespace quenor::test
