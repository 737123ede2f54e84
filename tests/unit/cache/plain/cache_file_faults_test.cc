// Every call to the system fails once, or from then on, with every error that matters.
#include <gtest/gtest.h>

#include <cerrno>

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
    Packets appended;       // What was.
  };

  void Prepare(bool damaged, bool long_file) {
    for (const std::string& name : {path(), aside(), recovered()}) remove(name.c_str());
    DiskCalls::Reset();
    ReliableReportCacheFile file;
    ASSERT_TRUE(file.Open(file_path()));
    if (long_file) {
      ASSERT_TRUE(Save(&file, {std::string(300000, 'x')}));
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
    bool complete = file.Clear();
    for (const char* packet : {"c", "b", "d"}) {
      const bool appended = Append(&file, packet);
      if (appended) run.appended.push_back(packet);
      complete = complete && appended;
    }
    run.complete = complete && file.IsSaveComplete();
    EXPECT_EQ(complete, run.complete);
    return run;
  }

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
        EXPECT_TRUE(failed || run.complete) << what;
        if (error == EINTR) {
          EXPECT_TRUE(run.complete) << what;
        }
        EXPECT_TRUE(run.complete || !Complaints().empty()) << what;
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
      EXPECT_TRUE(failed || run.complete) << what;
      EXPECT_TRUE(run.complete || !Complaints().empty()) << what;
      CheckAfter(run, what);
      ASSERT_LT(n, 1000u);
    }
  }
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
    const bool complete = begun && appended.size() == 4;
    EXPECT_EQ(file.IsSaveComplete(), complete);
    EXPECT_EQ(Complaints().size(), complete ? 0u : 1u);
    EXPECT_TRUE(HoldsAll(AfterKill(), {"a", "b", "c"})) << space;
    EXPECT_TRUE(HoldsAll(AfterKill(), appended)) << space;

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
