// What a listener is told of the cache: only what is true of the file. Both backends.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/unit/channel_cache/channel_cache_fixture.h"

namespace quenor::test {
namespace {

class ChannelCacheEventsTest : public ChannelCacheTest {
 protected:
  using Saves = std::vector<uint32_t>;
};

// --- Saved ---

TEST_F(ChannelCacheEventsTest, EachSaveIsToldWithTheMessagesThatItWrote) {
  Start();

  Send("in flight", true, true);
  Send("not cached", false);
  Send("pending", true);
  Answer(0, 200);

  ASSERT_EQ(SavedCounts(), (Saves{1, 1, 2, 1}));
  const RecordedEvent saved = events_.OfKind(Kind::kSaved)[0];
  EXPECT_EQ(saved.channel_name, kName);
  EXPECT_FALSE(saved.has_data);
}

TEST_F(ChannelCacheEventsTest, SaveOfNothingAndOfAnEmptyMessageAreToldToo) {
  Start();

  Send("not cached", false);
  Send("", true);

  EXPECT_EQ(SavedCounts(), (Saves{0, 1}));
}

TEST_F(ChannelCacheEventsTest, SaveIsToldOnceTheFileHoldsIt) {
  Start();
  Packets content;
  events_.SetOnEvent([&](const ReportEvent& event) {
    if (event.kind == Kind::kSaved) content = Content();
  });

  Send("one", true);

  EXPECT_EQ(content, Packets{"one"});
  events_.SetOnEvent(nullptr);
}

TEST_F(ChannelCacheEventsTest, SaveThatCouldNotBeginIsNotTold) {
  Start();
  Files().FailClear(1);

  Send("one", true);
  EXPECT_EQ(SavedCounts(), Saves{});
  Send("two", true);

  EXPECT_EQ(SavedCounts(), Saves{2});
}

TEST_F(ChannelCacheEventsTest, SaveOfNothingThatCouldNotBeginIsNotTold) {
  Start();
  Files().FailClear(1);

  Send("not cached", false);

  EXPECT_EQ(SavedCounts(), Saves{});
}

TEST_F(ChannelCacheEventsTest, SaveOfWhichAnyPacketWasRefusedIsNotTold) {
  Start();
  Send("one", true);
  Send("two", true);
  Send("three", true);
  for (size_t nth = 1; nth <= 3; ++nth) {
    events_.Clear();
    Files().FailAppend(nth);

    OnQueue([](Peer peer) { peer.SaveCache(); });
    EXPECT_EQ(SavedCounts(), Saves{}) << nth;
    OnQueue([](Peer peer) { peer.SaveCache(); });

    EXPECT_EQ(SavedCounts(), Saves{3}) << nth;
  }
  events_.Clear();
  for (int i = 0; i < 3; ++i) peer().pending().pop_back();
}

// --- Loaded ---

TEST_F(ChannelCacheEventsTest, EachLoadedMessageIsToldInItsOrder) {
  Files().Put(Path(), {"first", "second"});

  Start();

  EXPECT_EQ(BodiesTold(Kind::kLoaded), (Texts{"first", "second"}));
  EXPECT_EQ(events_.Events().size(), 2u);
  for (const RecordedEvent& event : events_.Events()) {
    EXPECT_TRUE(event.need_cache);
    EXPECT_EQ(event.send_count, 0u);
    EXPECT_EQ(event.channel_name, kName);
  }
}

TEST_F(ChannelCacheEventsTest, MessageBehindAnEmptyPacketIsNotTold) {
  Files().Put(Path(), {"before", "", "behind"});

  Start();

  EXPECT_EQ(BodiesTold(Kind::kLoaded), Texts{"before"});
}

// --- Kept ---

TEST_F(ChannelCacheEventsTest, TerminationTellsWhatTheFileKeepsAndWhatIsLost) {
  Start();
  Send("cached in flight", true, true);
  Send("cached pending", true);
  Send("in flight", false, true);
  Send("pending", false);

  Stop();

  ASSERT_EQ(BodiesTold(Kind::kKept), (Texts{"cached in flight", "cached pending"}));
  EXPECT_EQ(BodiesTold(Kind::kDropped), (Texts{"in flight", "pending"}));
  EXPECT_EQ(events_.Count(Kind::kDropped, Cause::kTerminated), 2u);
  EXPECT_EQ(BodiesTold(Kind::kKept), Content());
  const auto kept = events_.OfKind(Kind::kKept);
  EXPECT_EQ(kept[0].request_id, http_.Requests()[0].id);
  EXPECT_EQ(kept[0].send_count, 1u);
  EXPECT_EQ(kept[1].request_id, 0);
  EXPECT_EQ(kept[0].cause, Cause::kNone);
}

TEST_F(ChannelCacheEventsTest, LoadedMessagesAreKeptWithoutASave) {
  Files().Put(Path(), {"one", "two"});
  Start();

  Stop();

  EXPECT_EQ(BodiesTold(Kind::kKept), (Texts{"one", "two"}));
  EXPECT_EQ(Content(), (Packets{"one", "two"}));
}

TEST_F(ChannelCacheEventsTest, NothingIsKeptAfterASaveThatCouldNotBegin) {
  Start();
  Files().FailClear(1);
  Send("one", true);

  Stop();

  EXPECT_EQ(events_.Count(Kind::kKept), 0u);
  EXPECT_EQ(events_.Count(Kind::kDropped, Cause::kTerminated), 1u);
  EXPECT_EQ(Content(), Packets{});
}

TEST_F(ChannelCacheEventsTest, NothingIsKeptAfterASaveOfWhichAPacketWasRefused) {
  Start();
  Send("one", true);
  Files().FailAppend(2);
  Send("two", true);

  Stop();

  EXPECT_EQ(events_.Count(Kind::kKept), 0u);
  EXPECT_EQ(BodiesTold(Kind::kDropped), (Texts{"one", "two"}));
}

TEST_F(ChannelCacheEventsTest, AWholeSaveAfterAFailedOneKeepsAgain) {
  Start();
  Files().FailClear(1);
  Send("one", true);
  Send("two", true);

  Stop();

  EXPECT_EQ(BodiesTold(Kind::kKept), (Texts{"one", "two"}));
}

TEST_F(ChannelCacheEventsTest, NothingIsKeptByACacheThatDidNotOpen) {
  Files().FailOpen(1);
  Start();
  Send("one", true);

  Stop();

  EXPECT_EQ(events_.Count(Kind::kKept), 0u);
  EXPECT_EQ(events_.Count(Kind::kDropped, Cause::kTerminated), 1u);
}

TEST_F(ChannelCacheEventsTest, KeptIsToldOnceTheFileIsClosed) {
  Start();
  Send("one", true);
  size_t open_objects = 99;
  events_.SetOnEvent([&](const ReportEvent& event) {
    if (event.kind == Kind::kKept) open_objects = Files().OpenObjects();
  });

  Stop();

  EXPECT_EQ(open_objects, 0u);
  events_.SetOnEvent(nullptr);
}

TEST_F(ChannelCacheEventsTest, WhatOneRunKeepsTheNextOneLoads) {
  Start();
  Send("in flight", true, true);
  Send("pending", true);
  Stop();
  const Texts kept = BodiesTold(Kind::kKept);
  events_.Clear();

  Start();

  EXPECT_EQ(BodiesTold(Kind::kLoaded), kept);
}

// --- Without a listener the channel does exactly the same ---

TEST_F(ChannelCacheEventsTest, FileIsWrittenAlikeWithAndWithoutAListener) {
  const auto scenario = [this](bool listen) {
    ReportEvents::SetListener(listen ? &events_ : nullptr);
    Files().Clear();
    Start();
    const size_t first = http_.RequestCount();
    Send("one", true, true);
    Send("two", true);
    Answer(first, 200);
    Restart();
    Send("three", true, true);
    Fail(first + 1);
    Stop();
    return Files().Calls();
  };

  const auto without = scenario(false);
  const auto with = scenario(true);

  EXPECT_EQ(without, with);
  EXPECT_GT(with.size(), 15u);
}

}  // namespace
}  // namespace quenor::test
