// Loading at the start: the folder, the file, and what comes back from it. Both backends.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/unit/channel_cache/channel_cache_fixture.h"

namespace quenor::test {
namespace {

class ChannelCacheLoadTest : public ChannelCacheTest {};

// --- The folder and the file ---

TEST_F(ChannelCacheLoadTest, FirstStartCreatesFolderAndFileAndLogsATotalOfZero) {
  Start();

  EXPECT_EQ(FakePaths::Asked(), std::vector<int>{19});
  EXPECT_EQ(FakePaths::Created(), Texts{"/reports/quenor_report"});
  EXPECT_TRUE(Files().Exists(Path()));
  EXPECT_TRUE(peer().cache_loaded());
  ASSERT_EQ(RecordingLog::Lines().size(), 1u);
  EXPECT_EQ(ChannelLog(0), Texts{Loaded(0)});
}

TEST_F(ChannelCacheLoadTest, FolderIsCreatedOnceAndFoundAfterwards) {
  Start();
  Restart();

  EXPECT_EQ(FakePaths::Asked().size(), 2u) << "asked for at each opening";
  EXPECT_EQ(FakePaths::Created().size(), 1u);
}

TEST_F(ChannelCacheLoadTest, WhateverExistsInTheFoldersPlaceIsUsedAsItIs) {
  FakePaths::Add("/reports/quenor_report");

  Start();

  EXPECT_TRUE(FakePaths::Created().empty());
  EXPECT_TRUE(peer().cache_loaded());
}

TEST_F(ChannelCacheLoadTest, FileIsOpenedOncePerRunOfTheChannel) {
  Start();
  Send("one", true, true);
  Answer(0, 200);

  EXPECT_EQ(Files().Calls(Operation::kOpen).size(), 1u);
}

TEST_F(ChannelCacheLoadTest, ChannelsShareTheFolderAndEachHasItsOwnFile) {
  Start();
  const auto other = std::make_shared<Channel>("other", kUrl, 0u, false, false);
  other->Initialize();
  Send("mine", true);
  other->SendPacket(reinterpret_cast<const uint8_t*>("its"), 3, true, false);
  time_.RunUntilIdle();

  EXPECT_EQ(Content(), Packets{"mine"});
  EXPECT_EQ(Files().Content(PathOf("other")), Packets{"its"});
  EXPECT_EQ(ChannelLog(0), (Texts{Loaded(0), Loaded(0, "other")}));
  EXPECT_EQ(FakePaths::Created().size(), 1u);
  other->Terminate();
  time_.RunUntilIdle();
}

TEST_F(ChannelCacheLoadTest, LoadingWritesNothing) {
  Files().Put(Path(), {"a", "b"});

  Start();

  EXPECT_TRUE(Writes().empty());
  EXPECT_EQ(Content(), (Packets{"a", "b"}));
}

// --- The messages ---

TEST_F(ChannelCacheLoadTest, MessagesComeBackInTheOrderSavedUnsentAndCached) {
  Files().Put(Path(), {"first", "second", "third"});

  Start();

  EXPECT_EQ(PendingBodies(), (Texts{"first", "second", "third"}));
  for (const auto& message : peer().pending()) {
    EXPECT_EQ(message.send_count, 0u);
    EXPECT_TRUE(message.need_cache);
  }
  EXPECT_EQ(Counters(), (Counts{3, 0, 0, 0, 0}));
  EXPECT_EQ(ChannelLog(0), Texts{Loaded(16)});
}

TEST_F(ChannelCacheLoadTest, MessagesGoBehindThoseInTheStore) {
  Files().Put(Path(), {"from the file", "this one too"});
  Make();
  peer().pending().emplace_back(reinterpret_cast<const uint8_t*>("here"), 4, false);

  channel_->Initialize();
  time_.RunUntilIdle();

  EXPECT_EQ(PendingBodies(), (Texts{"here", "from the file", "this one too"}));
  peer().pending().pop_front();  // Nobody handed it over: the books need not close it.
}

TEST_F(ChannelCacheLoadTest, BytesOfAllValuesComeBackAsTheyWere) {
  std::string bytes;
  for (int value = 0; value < 256; ++value) bytes.push_back(static_cast<char>(value));
  Start();
  Send(bytes, true);

  Restart();

  EXPECT_EQ(PendingBodies(), Texts{bytes});
}

TEST_F(ChannelCacheLoadTest, LoadedMessageIsSentByTheFirstTimerThatRunsAndNoSooner) {
  Files().Put(Path(), {"one"});
  Start();
  Advance(10000);
  EXPECT_EQ(http_.RequestCount(), 0u);

  channel_->FlushPacket();
  Advance(100);

  ASSERT_EQ(http_.RequestCount(), 1u);
  EXPECT_EQ(http_.Requests()[0].body, "one");
  EXPECT_EQ(peer().sending().begin()->second.send_count, 1u);
}

TEST_F(ChannelCacheLoadTest, LoadedMessageStaysInTheFileUntilItIsAcknowledged) {
  Files().Put(Path(), {"one", "two"});
  Start();
  channel_->FlushPacket();
  Advance(100);
  EXPECT_EQ(Content(), (Packets{"one", "two"}));

  Answer(0, 200);

  EXPECT_EQ(Content(), Packets{"two"});
}

TEST_F(ChannelCacheLoadTest, EmptyPacketEndsTheLoadAndWhatIsBehindItGoesWithTheNextSave) {
  Files().Put(Path(), {"before", "", "behind"});
  Start();
  EXPECT_EQ(PendingBodies(), Texts{"before"});
  EXPECT_EQ(ChannelLog(0), Texts{Loaded(6)});
  EXPECT_EQ(Counters(), (Counts{1, 0, 0, 0, 0}));
  EXPECT_EQ(Content(), (Packets{"before", "", "behind"}));

  Send("new", true);

  EXPECT_EQ(Content(), (Packets{"before", "new"}));
}

TEST_F(ChannelCacheLoadTest, EmptyPacketInFrontLoadsNothingAndIsASuccess) {
  Files().Put(Path(), {"", "behind"});

  Start();

  EXPECT_TRUE(PendingBodies().empty());
  EXPECT_TRUE(peer().cache_loaded());
  EXPECT_EQ(ChannelLog(0), Texts{Loaded(0)});
}

TEST_F(ChannelCacheLoadTest, MoreThanTwoHundredAreAllLoadedAndTrimmedAtTheNextAdmission) {
  Packets packets;
  for (int i = 0; i < 230; ++i) packets.push_back("p" + std::to_string(i));
  Files().Put(Path(), packets);
  Start();
  EXPECT_EQ(peer().pending().size(), 230u);
  EXPECT_EQ(Counters(), (Counts{230, 0, 0, 0, 0}));

  Send("new", true);

  EXPECT_EQ(peer().pending().size(), 151u);
  EXPECT_EQ(Counters(), (Counts{231, 0, 0, 0, 80}));
  EXPECT_EQ(PendingBodies().front(), "p80");
  EXPECT_EQ(Content(), PendingBodies());
}

TEST_F(ChannelCacheLoadTest, CompressedMessageIsSavedAndSentAgainAsItWasFirstSent) {
  const std::string body(500, 'a');
  Start(true);
  Send(body, true, true);
  const std::string sent = http_.Requests()[0].body;
  ASSERT_LT(sent.size(), body.size());
  EXPECT_EQ(Content(), Packets{sent});

  Restart(true);
  channel_->FlushPacket();
  Advance(100);

  ASSERT_EQ(http_.RequestCount(), 2u);
  EXPECT_EQ(http_.Requests()[1].body, sent);
}

// --- Restarts ---

TEST_F(ChannelCacheLoadTest, AfterARestartThoseInFlightComeFirstThenThoseQueued) {
  Start();
  Send("queued", true);
  Send("in flight", true, true);
  Send("queued later", true);

  Restart();

  EXPECT_EQ(PendingBodies(), (Texts{"in flight", "queued", "queued later"}));
  EXPECT_EQ(Counters(), (Counts{3, 0, 0, 0, 0}));
}

TEST_F(ChannelCacheLoadTest, MessageWhoseAnswerNeverCameIsSentAgainAfterARestart) {
  Start();
  Send("one", true, true);
  Restart();
  channel_->FlushPacket();
  Advance(100);

  ASSERT_EQ(http_.RequestCount(), 2u);
  EXPECT_EQ(http_.Requests()[1].body, "one");
  Answer(1, 200);
  Restart();
  EXPECT_TRUE(PendingBodies().empty());
}

TEST_F(ChannelCacheLoadTest, SendCountBeginsAnewAfterARestart) {
  Start();
  Send("one", true, true);
  Fail(0);
  ASSERT_EQ(peer().pending().front().send_count, 1u);

  Restart();

  ASSERT_EQ(PendingBodies(), Texts{"one"});
  EXPECT_EQ(peer().pending().front().send_count, 0u);
}

TEST_F(ChannelCacheLoadTest, SameChannelInitialisedAgainLoadsItsFileAgain) {
  Start();
  Send("one", true);
  Stop();
  EXPECT_FALSE(peer().cache_loaded());
  EXPECT_TRUE(PendingBodies().empty());
  RecordingLog::Clear();

  channel_->Initialize();
  time_.RunUntilIdle();

  EXPECT_TRUE(peer().cache_loaded());
  EXPECT_EQ(PendingBodies(), Texts{"one"});
  EXPECT_EQ(ChannelLog(0), Texts{Loaded(3)});
}

TEST_F(ChannelCacheLoadTest, DroppedMessagesDoNotComeBack) {
  Start();
  channel_->SetMaxResendCount(1);
  Send("one", true, true);
  Fail(0);
  EXPECT_EQ(Content(), Packets{});

  Restart();

  EXPECT_TRUE(PendingBodies().empty());
}

TEST_F(ChannelCacheLoadTest, DelayedMessageThatNeverRanIsNowhereOnDisk) {
  Start();
  channel_->SendPacketWithDelay(reinterpret_cast<const uint8_t*>("late"), 4, true,
                                TimeDelta::FromSeconds(60));
  Advance(59000);
  EXPECT_TRUE(Writes().empty());

  Restart();

  EXPECT_TRUE(PendingBodies().empty());
}

// --- What is refused, and what is another backend's ---

TEST_F(ChannelCacheLoadTest, SecondLoadIsRefusedInTheSameWordsForBothBackends) {
  Files().Put(Path(), {"one"});
  Start();
  Files().ForgetCalls();
  RecordingLog::Clear();

  OnQueue([](Peer peer) { peer.LoadCache(); });

  EXPECT_EQ(ChannelLog(2), Texts{"mmap file has been loaded!"});
  EXPECT_EQ(RecordingLog::Lines().size(), 1u);
  EXPECT_EQ(PendingBodies(), Texts{"one"});
  EXPECT_TRUE(Files().Calls().empty());
}

TEST_F(ChannelCacheLoadTest, InitialisingALoadedCacheDoesNothingSilently) {
  Start();
  Files().ForgetCalls();
  RecordingLog::Clear();

  OnQueue([](Peer peer) { peer.InitCacheMmap(); });

  EXPECT_TRUE(RecordingLog::Lines().empty());
  EXPECT_TRUE(Files().Calls().empty());
}

TEST_F(ChannelCacheLoadTest, OpeningIsTheOwnBackendsAlone) {
  Make();

  EXPECT_EQ(peer().OpenCacheMmap(), Backend().option == 2);
  EXPECT_EQ(peer().OpenCacheFile(), Backend().option == 1);
  EXPECT_EQ(FakePaths::Asked().size(), 1u);
  EXPECT_EQ(Files().OpenObjects(), 1u);
}

TEST_F(ChannelCacheLoadTest, LoadingOfTheOtherBackendDoesNothingSilently) {
  Make();

  Backend().option == 2 ? peer().LoadCacheFile() : peer().LoadCacheMmap();

  EXPECT_FALSE(peer().cache_loaded());
  EXPECT_TRUE(RecordingLog::Lines().empty());
}

}  // namespace
}  // namespace quenor::test
