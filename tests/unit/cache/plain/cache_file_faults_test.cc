// Every call to the system fails once, or from then on, with every error that matters.
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <iterator>
#include <random>

#include "quenor_base/platform/reliable_report_cache_file.h"
#include "tests/support/memory_faults.h"
#include "tests/unit/cache/plain/cache_file_test_support.h"

namespace quenor::test {
namespace {

constexpr int kErrors[] = {ENOSPC, EIO, EMFILE, EINTR, ENOMEM, EDQUOT, EACCES};

// a, b and c are saved. Then a save without a, and with a new one, in an owner of its own.
class CacheFileFaultsTest : public CacheFileTest {
 protected:
  struct Run {
    bool opened = false;
    bool complete = false;  // Every call of the save was true.
    bool sealed = false;    // And so was the question.
    Packets appended;       // What was.
  };

  void Prepare(bool damaged, bool long_file) {
    for (const std::string& name : {path(), aside(), recovered()}) remove(name.c_str());
    DiskCalls::Reset();
    ReliableReportCacheFile file;
    ASSERT_TRUE(file.Open(file_path()));
    content_ = {"a", "b", "c"};
    if (long_file) {
      const std::string long_packet(300000, 'x');
      ASSERT_TRUE(Save(&file, {long_packet}));
      // A kill brings back what was sealed; a later save, of those below, drops it.
      if (!damaged) content_.push_back(long_packet);
    }
    ASSERT_TRUE(Save(&file, {"a", "b", "c"}));
    if (damaged) {
      ASSERT_TRUE(Save(&file, {"z", "a", "b", "c"}));
    }
    // As a kill leaves it: the last save is not closed.
    const std::string bytes = Bytes();
    file.Close();
    ASSERT_TRUE(WriteWholeFile(path(), bytes));
    if (damaged) {
      std::string broken = Bytes();
      broken[broken.rfind('z')] = 'y';
      ASSERT_TRUE(WriteWholeFile(path(), broken));
    }
    RecordingLog::Clear();
  }

  Run OpenAndSave() {
    Run run;
    ReliableReportCacheFile file;
    run.opened = file.Open(file_path());
    if (!run.opened) return run;
    const bool read_all = ReadAll(&file) == content_;
    EXPECT_TRUE(read_all || DiskCalls::HasFailed() || MemoryFaults::HasFailed());
    bool complete = file.Clear();
    EXPECT_TRUE(read_all || !complete) << "what could not be read was replaced";
    for (const char* packet : {"c", "b", "d"}) {
      const bool appended = Append(&file, packet);
      if (appended) run.appended.push_back(packet);
      complete = complete && appended;
    }
    run.complete = complete;
    run.sealed = file.IsSaveComplete();
    EXPECT_TRUE(complete || !run.sealed);
    return run;
  }

  // What a recovery has to yield after Prepare().
  Packets content_;

  void CheckAfter(const Run& run, const std::string& what) {
    DiskCalls::Reset();
    const Packets found = Reopened();
    EXPECT_TRUE(HoldsAll(found, {"b", "c"})) << what;
    EXPECT_TRUE(HoldsAll(found, run.appended)) << what;
    EXPECT_TRUE(run.complete || HoldsAll(found, {"a"})) << what;
  }

  void FailEachCall(bool damaged, bool long_file, bool for_ever) {
    for (const int error : kErrors) {
      if (error == EINTR && for_ever) continue;  // It is asked again for as long as it takes.
      bool failed = true;
      for (size_t n = 1; failed; ++n) {
        ASSERT_NO_FATAL_FAILURE(Prepare(damaged, long_file));
        DiskCalls::FailNth(n, error, for_ever);
        const Run run = OpenAndSave();
        failed = DiskCalls::HasFailed();
        const std::string what = "call " + std::to_string(n) + ", error " + std::to_string(error);
        EXPECT_TRUE(failed || run.sealed) << what;
        if (error == EINTR) {
          EXPECT_TRUE(run.sealed) << what;
        }
        EXPECT_TRUE(run.sealed || !Complaints().empty()) << what;
        CheckAfter(run, what);
        ASSERT_LT(n, 1000u);
      }
    }
  }
};

TEST_F(CacheFileFaultsTest, EachCallFailsOnce) { FailEachCall(false, false, false); }
TEST_F(CacheFileFaultsTest, EachCallFailsFromThenOn) { FailEachCall(false, false, true); }
TEST_F(CacheFileFaultsTest, EachCallOfARepairFailsOnce) { FailEachCall(true, false, false); }
TEST_F(CacheFileFaultsTest, EachCallOfARepairFailsFromThenOn) { FailEachCall(true, false, true); }
TEST_F(CacheFileFaultsTest, EachCallOfARewriteFailsOnce) { FailEachCall(false, true, false); }
TEST_F(CacheFileFaultsTest, EachCallOfARewriteFailsFromThenOn) { FailEachCall(false, true, true); }
TEST_F(CacheFileFaultsTest, EachCallFailsOnceWhenItHasToBeOnTheDisk) {
  SetDurability(2);
  FailEachCall(false, true, false);
}

TEST_F(CacheFileFaultsTest, EachAllocationFailsOnce) {
  for (const bool damaged : {false, true}) {
    bool failed = true;
    for (size_t n = 1; failed; ++n) {
      ASSERT_NO_FATAL_FAILURE(Prepare(damaged, true));
      MemoryFaults::FailMalloc(n);
      const Run run = OpenAndSave();
      failed = MemoryFaults::HasFailed();
      MemoryFaults::FailMalloc(0);
      const std::string what = "allocation " + std::to_string(n);
      EXPECT_TRUE(failed || run.sealed) << what;
      EXPECT_TRUE(run.sealed || !Complaints().empty()) << what;
      CheckAfter(run, what);
      ASSERT_LT(n, 1000u);
    }
  }
}

// QUENOR_CACHE_FULL=1 for many more saves.
TEST_F(CacheFileFaultsTest, RandomFaultsNeverCostAPacketThatWasTaken) {
  constexpr size_t kMostPackets = 12;
  const size_t saves = NumberOr("QUENOR_CACHE_FULL", 0) != 0 ? 5000 : 150;
  const uint64_t seed =
      NumberOr("QUENOR_TEST_SEED",
               static_cast<uint64_t>(std::chrono::system_clock::now().time_since_epoch().count()));
  std::printf("QUENOR_TEST_SEED=%llu\n", static_cast<unsigned long long>(seed));
  std::fflush(stdout);  // Even of a run that has to be ended.
  std::mt19937_64 random(seed);
  const auto below = [&](size_t end) {
    return std::uniform_int_distribution<size_t>(0, end - 1)(random);
  };
  SetDurability(below(3));
  ReliableReportCacheFile file;
  ASSERT_TRUE(file.Open(file_path()));
  Packets store;
  Packets promised;  // The last complete save, and what was taken since.
  size_t complete_saves = 0;

  for (size_t i = 0; i < saves && !HasFailure(); ++i) {
    if (store.size() == kMostPackets || (!store.empty() && below(2) == 0)) {
      store.erase(store.begin());
    }
    if (store.size() > 1 && below(9) == 0) std::swap(store.front(), store.back());
    store.push_back(std::to_string(i) + std::string(below(below(8) == 0 ? 20000 : 500), 'x'));
    if (below(3) == 0) {
      const int error = kErrors[below(std::size(kErrors))];
      // An interrupted call is made again for as long as it takes.
      DiskCalls::FailNth(1 + below(12), error, error != EINTR && below(2) == 0);
    }
    bool complete = file.Clear();
    for (const std::string& packet : store) {
      const bool taken = Append(&file, packet);
      complete = complete && taken;
      if (taken) promised = Union(promised, {packet});
    }
    const bool sealed = file.IsSaveComplete();
    EXPECT_TRUE(sealed ? complete : !complete || DiskCalls::HasFailed());
    if (complete) promised = store;
    complete_saves += sealed;
    DiskCalls::Reset();
    const Packets found = AfterKill();
    EXPECT_TRUE(sealed ? found == store : HoldsAll(found, promised)) << "save " << i;
  }
  EXPECT_GT(complete_saves, saves / 2);
  EXPECT_FALSE(Exists(aside()));
}

TEST_F(CacheFileFaultsTest, ADiskThatFillsUpAnywhereLosesNothingAndIsUsedAgain) {
  for (uint64_t space = 0; space < 400; ++space) {
    remove(path().c_str());
    ReliableReportCacheFile file;
    ASSERT_TRUE(file.Open(file_path()));
    ASSERT_TRUE(Save(&file, {"a", "b", "c"}));
    DiskCalls::SetSpace(space);
    RecordingLog::Clear();

    Packets appended;
    const bool begun = file.Clear();
    for (const char* packet : {"b", "dddddddddd", "c", "e"}) {
      if (Append(&file, packet)) appended.push_back(packet);
    }
    const bool sealed = file.IsSaveComplete();
    EXPECT_TRUE(!sealed || (begun && appended.size() == 4));
    EXPECT_EQ(Complaints().size(), sealed ? 0u : 1u);
    const Packets after = AfterKill();
    EXPECT_TRUE(HoldsAll(after, appended)) << space;
    EXPECT_TRUE(sealed ? after.size() == 4 : HoldsAll(after, {"a", "b", "c"})) << space;

    DiskCalls::Reset();
    EXPECT_TRUE(Save(&file, {"b", "dddddddddd", "c", "e"})) << space;
    file.Close();
    EXPECT_EQ(Reopened(), (Packets{"b", "dddddddddd", "c", "e"})) << space;
  }
}

TEST_F(CacheFileFaultsTest, AFullDiskIsReportedOnceForManySaves) {
  ReliableReportCacheFile file;
  ASSERT_TRUE(file.Open(file_path()));
  ASSERT_TRUE(Save(&file, {"a"}));
  DiskCalls::SetSpace(0);

  for (int i = 0; i < 50; ++i) EXPECT_FALSE(Save(&file, {"a", "new"}));

  EXPECT_EQ(Complaints().size(), 1u);
  EXPECT_NE(Complaints()[0].find("No space left"), std::string::npos) << Complaints()[0];
  EXPECT_NE(Complaints()[0].find(path()), std::string::npos) << Complaints()[0];
  // The next row of failures is told again.
  DiskCalls::Reset();
  EXPECT_TRUE(Save(&file, {"a", "new"}) && file.IsSaveComplete());
  DiskCalls::SetSpace(0);
  for (int i = 0; i < 5; ++i) EXPECT_FALSE(Save(&file, {"a", "newer"}));
  EXPECT_EQ(Complaints().size(), 2u);
}

TEST_F(CacheFileFaultsTest, SavesThatTheDiskRefusesDoNotPileUp) {
  ReliableReportCacheFile file;
  ASSERT_TRUE(file.Open(file_path()));
  ASSERT_TRUE(Save(&file, {"a"}));
  const std::string large(100, 'x');
  uint64_t after_first = 0;
  for (int i = 0; i < 100; ++i) {
    ASSERT_TRUE(file.Clear());
    ASSERT_TRUE(Append(&file, "a"));
    ASSERT_TRUE(Append(&file, "taken"));
    DiskCalls::SetSpace(0);
    ASSERT_FALSE(Append(&file, "refused"));
    DiskCalls::Reset();
    if (i == 0) after_first = FileBytes(path());
  }

  EXPECT_LE(FileBytes(path()), after_first + 100 * 48);
  EXPECT_EQ(Sorted(AfterKill()), (Packets{"a", "taken"}));
}

TEST_F(CacheFileFaultsTest, WritesThatAreTakenByteByByteAreCarriedThrough) {
  DiskCalls::SetLongestWrite(1);
  Write({"a", "bb", "ccc"});

  EXPECT_EQ(Reopened(), (Packets{"a", "bb", "ccc"}));
}

TEST_F(CacheFileFaultsTest, AFailedCutIsMadeUpForBeforeTheNextWrite) {
  ReliableReportCacheFile file;
  ASSERT_TRUE(file.Open(file_path()));
  ASSERT_TRUE(Save(&file, {"a"}));
  ASSERT_TRUE(file.Clear());
  DiskCalls::SetSpace(50);
  DiskCalls::FailAll("ftruncate", EIO);
  EXPECT_FALSE(Append(&file, std::string(1000, 'x')));
  EXPECT_FALSE(file.Clear() && Append(&file, "b"));
  EXPECT_EQ(AfterKill(), Packets{"a"});
  DiskCalls::Reset();

  EXPECT_TRUE(Save(&file, {"a", "b"}));

  file.Close();
  EXPECT_EQ(Reopened(), (Packets{"a", "b"}));
  EXPECT_FALSE(Exists(aside()));
}

// Else it would be written anew beside itself, and each later save refused.
TEST_F(CacheFileFaultsTest, AFileThatCouldNotBeLookedAtOnceIsNotTakenForGone) {
  ReliableReportCacheFile file;
  ASSERT_TRUE(file.Open(file_path()));
  ASSERT_TRUE(Save(&file, {"a"}));
  DiskCalls::FailAll("lstat", EIO);
  EXPECT_FALSE(file.Clear());
  EXPECT_FALSE(file.IsSaveComplete());
  EXPECT_FALSE(Append(&file, "b"));
  DiskCalls::Reset();

  EXPECT_TRUE(Save(&file, {"a", "c"}));

  file.Close();
  EXPECT_EQ(Reopened(), (Packets{"a", "c"}));
  ASSERT_EQ(Complaints().size(), 1u);
  EXPECT_NE(Complaints()[0].find("cannot look at"), std::string::npos) << Complaints()[0];
}

TEST_F(CacheFileFaultsTest, AFileSystemWithoutTheCarefulRenameIsServed) {
  Write({"a"});
  ASSERT_EQ(rename(path().c_str(), recovered().c_str()), 0);
  DiskCalls::FailAll("renameat2", EINVAL);

  EXPECT_EQ(Reopened(), Packets{"a"});
  EXPECT_TRUE(Exists(path()));
}

TEST_F(CacheFileFaultsTest, AFileSystemWithoutLocksIsRefused) {
  DiskCalls::FailAll("fcntl", ENOLCK);
  ReliableReportCacheFile file;

  EXPECT_FALSE(file.Open(file_path()));

  ASSERT_EQ(Complaints().size(), 1u);
  EXPECT_NE(Complaints()[0].find("cannot lock"), std::string::npos) << Complaints()[0];
}

}  // namespace
}  // namespace quenor::test
