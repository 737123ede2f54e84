// One owner at a time, and what may be at the path besides a cache file.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>

#include "quenor_base/platform/reliable_report_cache_file.h"
#include "tests/support/forked.h"
#include "tests/unit/cache/plain/cache_file_test_support.h"

namespace quenor::test {
namespace {

class CacheFileOwnerTest : public CacheFileTest {
 protected:
  // Refused, with one line that says all of this.
  void ExpectRefused(const std::string& at, const std::vector<std::string>& words) {
    RecordingLog::Clear();
    ReliableReportCacheFile file;

    EXPECT_FALSE(file.Open(base::FilePath(at)));

    ASSERT_EQ(Complaints().size(), 1u);
    for (const std::string& word : words) {
      EXPECT_NE(Complaints()[0].find(word), std::string::npos) << Complaints()[0];
    }
    EXPECT_FALSE(file.Clear());
  }
};

TEST_F(CacheFileOwnerTest, ASecondInstanceIsRefused) {
  ReliableReportCacheFile owner;
  ASSERT_TRUE(owner.Open(file_path()));
  ASSERT_TRUE(Save(&owner, {"a"}));
  const std::string before = Bytes();

  ExpectRefused(path(), {path(), "another owner"});

  EXPECT_EQ(Bytes(), before);
  ASSERT_TRUE(Save(&owner, {"a", "b"}));
  owner.Close();
  EXPECT_EQ(Reopened(), (Packets{"a", "b"}));
}

TEST_F(CacheFileOwnerTest, AnotherProcessIsRefused) {
  ReliableReportCacheFile owner;
  ASSERT_TRUE(owner.Open(file_path()));

  EXPECT_EQ(ResultOfChild([&] {
              ReliableReportCacheFile file;
              return file.Open(file_path()) ? 1 : 0;
            }),
            0);
}

TEST_F(CacheFileOwnerTest, AnInterruptedRepairOfALiveOwnerIsLeftAlone) {
  ReliableReportCacheFile owner;
  ASSERT_TRUE(owner.Open(file_path()));
  ASSERT_TRUE(Save(&owner, {"a"}));
  // Between the two renames of a repair: the owner holds the file under the other name.
  ASSERT_EQ(rename(path().c_str(), recovered().c_str()), 0);

  ExpectRefused(path(), {path(), "another owner"});

  EXPECT_TRUE(Exists(recovered()));
  EXPECT_FALSE(Exists(path()));
}

TEST_F(CacheFileOwnerTest, ARewrittenFileIsStillOwned) {
  ReliableReportCacheFile owner;
  ASSERT_TRUE(owner.Open(file_path()));
  ASSERT_TRUE(Save(&owner, {std::string(200000, 'x')}));
  ASSERT_TRUE(Save(&owner, {"a"}));
  ASSERT_TRUE(owner.Clear());  // Written anew: little of it is content.
  ASSERT_LT(FileBytes(path()), 1000u);

  ExpectRefused(path(), {"another owner"});
}

TEST_F(CacheFileOwnerTest, AForkedChildHoldsNothingAndTouchesNothing) {
  ReliableReportCacheFile file;
  ASSERT_TRUE(file.Open(file_path()));
  ASSERT_TRUE(Save(&file, {"a", "b"}));
  const std::string before = Bytes();

  const int answers = ResultOfChild([&] {
    int wrong = 0;
    wrong += file.GetNextDataPacket().data != nullptr;
    wrong += file.Clear();
    wrong += Append(&file, "c");
    wrong += file.IsSaveComplete();
    file.Close();
    ReliableReportCacheFile second;
    wrong += second.Open(file_path());
    return wrong;
  });

  EXPECT_EQ(answers, 0);
  EXPECT_EQ(Bytes(), before);
  EXPECT_TRUE(Append(&file, "c"));
  file.Close();
  EXPECT_EQ(Reopened(), (Packets{"a", "b", "c"}));
}

// Its file, or the one that replaces it, has the number 0.
TEST_F(CacheFileOwnerTest, AChildOfAProcessWithoutStandardInputTouchesNothing) {
  const int input = dup(0);
  close(0);
  ReliableReportCacheFile file;
  EXPECT_TRUE(file.Open(file_path()));
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(remove(path().c_str()), 0);
    EXPECT_TRUE(Save(&file, {"a"}));
    EXPECT_EQ(ResultOfChild([&] { return file.Clear() ? 1 : 0; }), 0) << i;
  }
  file.Close();
  if (input < 0) return;
  dup2(input, 0);
  close(input);
}

TEST_F(CacheFileOwnerTest, AChildThatLivesOnDoesNotKeepTheFile) {
  int pipe_ends[2];
  ASSERT_EQ(pipe(pipe_ends), 0);
  ReliableReportCacheFile file;
  ASSERT_TRUE(file.Open(file_path()));
  const pid_t child = ForkChild([&] {
    char nothing;
    close(pipe_ends[1]);
    return read(pipe_ends[0], &nothing, 1) == 0 ? 0 : 1;  // Until the parent lets go.
  });

  file.Close();

  ReliableReportCacheFile second;
  EXPECT_TRUE(second.Open(file_path()));
  close(pipe_ends[0]);
  close(pipe_ends[1]);
  EXPECT_EQ(ReapPatiently(child), 0);
}

TEST_F(CacheFileOwnerTest, PathsThatLeadAstrayAreRefused) {
  ExpectRefused(folder_.path() + "/../x.cache", {".."});
  ExpectRefused("", {"empty"});
  ExpectRefused(folder_.path() + std::string("/a\0b", 4), {"NUL"});
  ExpectRefused(folder_.path() + "/missing/x.cache", {"No such file"});
}

TEST_F(CacheFileOwnerTest, ASymbolicLinkIsNotFollowed) {
  const std::string target = folder_.File("target");
  ASSERT_TRUE(WriteWholeFile(target, "precious"));
  ASSERT_EQ(symlink(target.c_str(), path().c_str()), 0);

  ExpectRefused(path(), {path(), "symbolic link"});

  EXPECT_EQ(ReadWholeFile(target), "precious");
}

TEST_F(CacheFileOwnerTest, ASymbolicLinkUnderTheOtherNamesIsNotFollowed) {
  const std::string target = folder_.File("target");
  ASSERT_TRUE(WriteWholeFile(target, "precious"));
  for (const bool with_damage : {false, true}) {
    ASSERT_EQ(symlink(target.c_str(), recovered().c_str()), 0);
    ASSERT_EQ(symlink(target.c_str(), aside().c_str()), 0);
    if (with_damage) {
      ASSERT_TRUE(WriteWholeFile(path(), "no cache file"));
    }

    EXPECT_TRUE(Reopened().empty());

    EXPECT_EQ(ReadWholeFile(target), "precious");
    remove(aside().c_str());
  }
}

TEST_F(CacheFileOwnerTest, AFolderAndAFifoAreRefusedWithoutWaiting) {
  ASSERT_EQ(mkdir(path().c_str(), 0700), 0);
  ExpectRefused(path(), {path(), "directory"});
  ASSERT_EQ(rmdir(path().c_str()), 0);
  ASSERT_EQ(mkfifo(path().c_str(), 0600), 0);
  ExpectRefused(path(), {path(), "no regular file"});
}

TEST_F(CacheFileOwnerTest, ADeletedFileIsWrittenAnew) {
  ReliableReportCacheFile file;
  ASSERT_TRUE(file.Open(file_path()));
  ASSERT_TRUE(Save(&file, {"a", "b"}));
  ASSERT_EQ(remove(path().c_str()), 0);

  ASSERT_TRUE(file.Clear());

  EXPECT_EQ(AfterKill(), (Packets{"a", "b"}));
  ASSERT_EQ(Complaints().size(), 1u);
  EXPECT_NE(Complaints()[0].find("removed or replaced"), std::string::npos) << Complaints()[0];
  ASSERT_TRUE(file.Clear());
  EXPECT_EQ(DiskCalls::CountOf("renameat2"), 1u);
  EXPECT_EQ(DiskCalls::CountOf("rename"), 0u) << "once is enough";
  ASSERT_TRUE(Append(&file, "b"));
  file.Close();
  EXPECT_EQ(Reopened(), Packets{"b"});
}

// A save that was refused must not count what it kept twice.
TEST_F(CacheFileOwnerTest, AFileThatIsWrittenAnewAfterAVoidSaveHoldsEachPacketOnce) {
  ReliableReportCacheFile file;
  ASSERT_TRUE(file.Open(file_path()));
  ASSERT_TRUE(Save(&file, {"a", "b"}));
  ASSERT_TRUE(file.Clear());
  ASSERT_TRUE(Append(&file, "b") && Append(&file, "new"));
  ASSERT_FALSE(file.AppendDataPacket({nullptr, 1}));
  ASSERT_EQ(remove(path().c_str()), 0);

  ASSERT_TRUE(file.Clear());

  EXPECT_EQ(AfterKill(), (Packets{"a", "b", "new"}));
}

// Saved where the next start looks, however the name was lost.
TEST_F(CacheFileOwnerTest, ANameThatIsLostWhileTheFileLivesOnIsMadeAnew) {
  const std::string folder = folder_.File("folder");
  const std::string at = folder + "/channel.cache";
  const std::vector<std::pair<std::string, std::function<bool()>>> ways = {
      {"its name removed, a hard link left",
       [&] {
         return link(at.c_str(), (folder + "/link").c_str()) == 0 && remove(at.c_str()) == 0;
       }},
      {"its folder renamed and made again",
       [&] {
         return rename(folder.c_str(), folder_.File("old").c_str()) == 0 &&
                mkdir(folder.c_str(), 0700) == 0;
       }},
  };
  for (const auto& [way, lose] : ways) {
    std::filesystem::remove_all(folder);
    ASSERT_EQ(mkdir(folder.c_str(), 0700), 0);
    ReliableReportCacheFile file;
    ASSERT_TRUE(file.Open(base::FilePath(at)));
    ASSERT_TRUE(Save(&file, {"a"}));
    ASSERT_TRUE(lose()) << way;

    EXPECT_TRUE(Save(&file, {"a", "b"})) << way;
    file.Close();

    ReliableReportCacheFile next;
    ASSERT_TRUE(next.Open(base::FilePath(at)));
    EXPECT_EQ(ReadAll(&next), (Packets{"a", "b"})) << way;
  }
}

TEST_F(CacheFileOwnerTest, ARemovedFolderIsToldOnceAndUsedAgainWhenItIsBack) {
  const std::string folder = folder_.File("folder");
  ASSERT_EQ(mkdir(folder.c_str(), 0700), 0);
  ReliableReportCacheFile file;
  ASSERT_TRUE(file.Open(base::FilePath(folder + "/channel.cache")));
  ASSERT_TRUE(Save(&file, {"a"}));
  std::filesystem::remove_all(folder);

  for (int i = 0; i < 20; ++i) EXPECT_FALSE(Save(&file, {"a", "b"}));

  EXPECT_EQ(Complaints().size(), 2u) << ::testing::PrintToString(Complaints());
  ASSERT_EQ(mkdir(folder.c_str(), 0700), 0);
  EXPECT_TRUE(Save(&file, {"a", "b"}));
  EXPECT_TRUE(Exists(folder + "/channel.cache"));
  EXPECT_EQ(Complaints().size(), 2u);
}

TEST_F(CacheFileOwnerTest, AFileThatTookItsPlaceIsLeftAlone) {
  ReliableReportCacheFile file;
  ASSERT_TRUE(file.Open(file_path()));
  ASSERT_TRUE(Save(&file, {"a"}));
  ASSERT_EQ(remove(path().c_str()), 0);
  ReliableReportCacheFile second;
  ASSERT_TRUE(second.Open(file_path()));
  ASSERT_TRUE(Save(&second, {"second"}));

  EXPECT_FALSE(file.Clear());
  EXPECT_FALSE(file.IsSaveComplete());
  EXPECT_FALSE(Append(&file, "a"));
  EXPECT_FALSE(file.IsSaveComplete());

  second.Close();
  file.Close();
  EXPECT_EQ(Reopened(), Packets{"second"});
}

TEST_F(CacheFileOwnerTest, AFileThatIsPutBackIsUsedAgain) {
  const std::string elsewhere = folder_.File("elsewhere");
  ReliableReportCacheFile file;
  ASSERT_TRUE(file.Open(file_path()));
  ASSERT_TRUE(Save(&file, {"a"}));
  ASSERT_EQ(rename(path().c_str(), elsewhere.c_str()), 0);
  ASSERT_TRUE(WriteWholeFile(path(), "another's"));
  ASSERT_FALSE(file.Clear());
  ASSERT_EQ(rename(elsewhere.c_str(), path().c_str()), 0);

  EXPECT_TRUE(Save(&file, {"a", "b"}));

  file.Close();
  EXPECT_EQ(Reopened(), (Packets{"a", "b"}));
}

TEST_F(CacheFileOwnerTest, AShortenedFileIsWrittenAnew) {
  for (const int length : {0, 10, 40, 150}) {
    ReliableReportCacheFile file;
    ASSERT_TRUE(file.Open(file_path()));
    ASSERT_TRUE(Save(&file, {"a", std::string(100, 'b'), "c"}));
    ASSERT_EQ(truncate(path().c_str(), length), 0);
    RecordingLog::Clear();

    ASSERT_TRUE(Save(&file, {"a", "c", "d"}));

    EXPECT_GE(Complaints().size(), 1u);
    EXPECT_TRUE(HoldsAll(AfterKill(), {"a", "c", "d"}));
    // What was lost then is not lost again.
    RecordingLog::Clear();
    ASSERT_EQ(remove(path().c_str()), 0);
    ASSERT_TRUE(Save(&file, {"a", "c", "d"}));
    EXPECT_EQ(Complaints().size(), 1u) << ::testing::PrintToString(Complaints());
    file.Close();
    EXPECT_EQ(Reopened(), (Packets{"a", "c", "d"}));
  }
}

TEST_F(CacheFileOwnerTest, BytesThatOthersAppendAreCutOff) {
  ReliableReportCacheFile file;
  ASSERT_TRUE(file.Open(file_path()));
  ASSERT_TRUE(Save(&file, {"a"}));
  ASSERT_TRUE(WriteWholeFile(path(), Bytes() + std::string(10000, 'z')));

  ASSERT_TRUE(Save(&file, {"a", "b"}));
  file.Close();

  EXPECT_EQ(Reopened(), (Packets{"a", "b"}));
  EXPECT_LT(FileBytes(path()), 1000u);
  EXPECT_FALSE(Exists(aside()));
}

TEST_F(CacheFileOwnerTest, WhatAKillMayHaveLeftBehindTheEndIsCutOffOnce) {
  Write({"a"});
  ReliableReportCacheFile file;
  ASSERT_TRUE(file.Open(file_path()));
  const size_t before = DiskCalls::CountOf("ftruncate");

  for (const Packets& packets : {Packets{"a", "b"}, Packets{"b", "c"}, Packets{"d"}}) {
    ASSERT_TRUE(Save(&file, packets));
  }

  EXPECT_EQ(DiskCalls::CountOf("ftruncate"), before + 1);
}

TEST_F(CacheFileOwnerTest, APacketThatIsGoneWhileReadingStopsTheSaves) {
  Write({"a", std::string(5000, 'b'), "c"});
  ReliableReportCacheFile file;
  ASSERT_TRUE(file.Open(file_path()));
  ASSERT_EQ(file.GetNextDataPacket().size, 1u);
  ASSERT_EQ(truncate(path().c_str(), 500), 0);

  EXPECT_EQ(file.GetNextDataPacket().size, 0u);

  EXPECT_EQ(file.GetNextDataPacket().size, 0u);
  ASSERT_EQ(Complaints().size(), 1u);
  EXPECT_NE(Complaints()[0].find("packet 2"), std::string::npos) << Complaints()[0];
  EXPECT_FALSE(file.Clear());
  EXPECT_FALSE(file.IsSaveComplete());
}

}  // namespace
}  // namespace quenor::test
