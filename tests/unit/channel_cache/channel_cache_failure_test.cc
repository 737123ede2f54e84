// Folders, files, packets and memory that fail: exact words, and nothing on disk is lost by them.
// Both backends.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/memory_faults.h"
#include "tests/unit/channel_cache/channel_cache_fixture.h"

namespace quenor::test {
namespace {

class ChannelCacheFailureTest : public ChannelCacheTest {
 protected:
  // After a start that failed to open: each save is refused, aloud and unthrottled.
  void ExpectEachSaveRefused() {
    RecordingLog::Clear();
    Files().ForgetCalls();
    Send("one", true, true);
    Send("two", true);
    Answer(0, 200);
    EXPECT_EQ(ChannelLog(2), Texts(3, Backend().refused_save));
    EXPECT_EQ(RecordingLog::Lines().size(), 3u);
    EXPECT_TRUE(Files().Calls().empty());
    EXPECT_TRUE(SavedCounts().empty());
  }
};

// --- Opening ---

TEST_F(ChannelCacheFailureTest, FolderThatThePathServiceDoesNotKnowLeavesTheCacheUnloaded) {
  FakePaths::FailGet(true);

  Start();

  EXPECT_EQ(ChannelLog(2), (Texts{"PathService::Get base::DIR_RELIABLE_REPORT failed!",
                                  "open mmap file failed!"}));
  EXPECT_EQ(RecordingLog::Lines().size(), 2u);
  EXPECT_FALSE(peer().cache_loaded());
  EXPECT_TRUE(peer().is_running());
  EXPECT_TRUE(FakePaths::Created().empty());
  EXPECT_TRUE(Files().Calls().empty());
  ExpectEachSaveRefused();
}

TEST_F(ChannelCacheFailureTest, FolderThatCannotBeCreatedLeavesTheCacheUnloaded) {
  FakePaths::FailCreate(true);

  Start();

  EXPECT_EQ(ChannelLog(2), (Texts{"CreateDirectory failed! path=/reports/quenor_report",
                                  "open mmap file failed!"}));
  EXPECT_EQ(RecordingLog::Lines().size(), 2u);
  EXPECT_FALSE(peer().cache_loaded());
  EXPECT_TRUE(Files().Calls().empty());
  ExpectEachSaveRefused();
}

TEST_F(ChannelCacheFailureTest, FileThatDoesNotOpenLeavesTheCacheUnloaded) {
  Files().Put(Path(), {"kept"});
  Files().FailOpen(1);

  Start();

  EXPECT_EQ(ChannelLog(2), Texts{"open mmap file failed!"});
  EXPECT_TRUE(ChannelLog(0).empty());
  EXPECT_FALSE(peer().cache_loaded());
  EXPECT_EQ(Files().Calls().size(), 1u);
  ExpectEachSaveRefused();
  EXPECT_EQ(Content(), Packets{"kept"});
}

TEST_F(ChannelCacheFailureTest, ChannelWithoutItsCacheDeliversAllTheSame) {
  Files().FailOpen(1);
  Start();

  Send("one", true, true);
  Answer(0, 200);

  EXPECT_EQ(events_.Count(Kind::kAcknowledged), 1u);
}

TEST_F(ChannelCacheFailureTest, OpeningIsTriedAgainAtTheNextInitialize) {
  Files().Put(Path(), {"one"});
  Files().FailOpen(1);
  Start();
  Stop();

  channel_->Initialize();
  time_.RunUntilIdle();

  EXPECT_TRUE(peer().cache_loaded());
  EXPECT_EQ(PendingBodies(), Texts{"one"});
}

TEST_F(ChannelCacheFailureTest, SaveBeforeTheLoadIsRefusedInTheBackendsOwnWords) {
  Make();

  peer().SaveCache();

  EXPECT_EQ(ChannelLog(2), Texts{Backend().refused_save});
  EXPECT_TRUE(Files().Calls().empty());
}

// --- Loading ---

TEST_F(ChannelCacheFailureTest, PacketThatCannotBeReadEndsTheLoadAndTheFileStaysAsItIs) {
  Files().Put(Path(), {"one", "unreadable", "three"});
  Files().FailNext(2);
  Start();
  EXPECT_EQ(PendingBodies(), Texts{"one"});
  EXPECT_EQ(ChannelLog(0), Texts{Loaded(3)});

  Send("new", true);

  EXPECT_TRUE(SavedCounts().empty());
  EXPECT_EQ(Content(), (Packets{"one", "unreadable", "three"}));
}

TEST_F(ChannelCacheFailureTest, WithoutMemoryForAMessageTheLoadStopsAndTheFileIsNotReplaced) {
  Files().Put(Path(), {"one", "two", "three"});
  Files().FailOpen(1);
  Start();
  RecordingLog::Clear();

  OnQueue([](Peer peer) {
    MemoryFaults::FailMalloc(2);
    peer.LoadCache();
    EXPECT_TRUE(MemoryFaults::HasFailed());
  });

  EXPECT_EQ(PendingBodies(), Texts{"one"});
  EXPECT_EQ(Counters(), (Counts{1, 0, 0, 0, 0}));
  EXPECT_FALSE(peer().cache_loaded());
  EXPECT_EQ(ChannelLog(2),
            Texts{"cache: no memory to load a message of 3 bytes of channel channel; the file "
                  "stays as it is, and nothing is saved until the next Initialize"});
  EXPECT_TRUE(ChannelLog(0).empty());
  ExpectEachSaveRefused();
  EXPECT_EQ(Content(), (Packets{"one", "two", "three"}));
  Restart();
  EXPECT_EQ(events_.Count(Kind::kKept), 0u) << "what was handed over meanwhile is in no file";
  EXPECT_EQ(PendingBodies(), (Texts{"one", "two", "three"}));
}

// --- Saving ---

TEST_F(ChannelCacheFailureTest, AfterARefusedClearThePacketsAreAppendedAllTheSameSilently) {
  Start();
  Send("one", true);
  Files().ForgetCalls();
  RecordingLog::Clear();
  Files().FailClear(1);

  Send("two", true);

  EXPECT_EQ(Writes(), (Texts{"clear", "append one", "append two"}));
  EXPECT_TRUE(RecordingLog::Lines().empty());
  EXPECT_EQ(Content(), Packets{"one"});
  EXPECT_EQ(PendingBodies(), (Texts{"one", "two"}));
}

TEST_F(ChannelCacheFailureTest, AfterARefusedPacketTheOthersAreAppendedAllTheSameSilently) {
  Start();
  Send("one", true, true);
  Send("two", true);
  for (size_t nth = 1; nth <= 3; ++nth) {
    Files().ForgetCalls();
    RecordingLog::Clear();
    Files().FailAppend(nth);

    OnQueue([](Peer peer) { peer.pending().emplace_back(nullptr, 0, true), peer.SaveCache(); });

    EXPECT_EQ(Writes(), (Texts{"clear", "append one", "append two", "append "})) << nth;
    EXPECT_TRUE(RecordingLog::Lines().empty());
    EXPECT_EQ(Content(), (Packets{"one", "two"})) << nth;
    peer().pending().pop_back();
  }
}

TEST_F(ChannelCacheFailureTest, SaveAfterAFailedOneIsWhole) {
  Start();
  Files().FailAppend(1);
  Send("one", true);

  Send("two", true);

  EXPECT_EQ(Content(), (Packets{"one", "two"}));
}

TEST_F(ChannelCacheFailureTest, WithoutMemoryToUnshareABodyItsSharedBytesAreSaved) {
  Start();
  Send("warm up", true, true);
  Answer(0, 200);
  http_.SetOnStarted([] { MemoryFaults::FailMalloc(1); });

  Send("one", true, true);

  EXPECT_TRUE(MemoryFaults::HasFailed());
  EXPECT_EQ(Content(), Packets{"one"});
  EXPECT_EQ(SavedCounts(), (std::vector<uint32_t>{1, 0, 1}));
}

}  // namespace
}  // namespace quenor::test
