// The files of an export, and what a kill leaves of them.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "collector/export/folder.h"
#include "collector/export/known_ids.h"
#include "collector/export/ranges.h"
#include "collector/fatal.h"
#include "tests/support/temp_folder.h"

namespace {
std::set<std::string> synced_paths;  // NOLINT: what the one below has been called for.
}  // namespace

extern "C" int fsync(int fd) {
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  synced_paths.insert(std::filesystem::read_symlink(link).string());
  return static_cast<int>(::syscall(SYS_fsync, fd));
}

namespace quenor::collector {
namespace {

using std::chrono::milliseconds;
using Strings = std::vector<std::string>;

TEST(RangesTest, KnowsWhatItHasSeen) {
  Ranges ranges(10);

  EXPECT_TRUE(ranges.Has(10));
  EXPECT_FALSE(ranges.Has(11));
  EXPECT_FALSE(ranges.Add(3));
  EXPECT_TRUE(ranges.Add(12));
  EXPECT_FALSE(ranges.Has(11));
  EXPECT_EQ(ranges.runs(), 2u);
  EXPECT_TRUE(ranges.Add(11));
  EXPECT_EQ(ranges.runs(), 1u);
  EXPECT_FALSE(ranges.Add(12));
}

TEST(RangesTest, AgreesWithASetInAnyOrder) {
  std::mt19937 random(7);
  Ranges ranges;
  std::set<uint64_t> set;
  for (int i = 0; i < 3000; ++i) {
    const uint64_t number = 1 + random() % 1000;
    ASSERT_EQ(ranges.Add(number), set.insert(number).second) << number;
  }
  for (uint64_t number = 1; number <= 1001; ++number) {
    ASSERT_EQ(ranges.Has(number), set.count(number) == 1) << number;
  }
}

TEST(KnownIdsTest, KnowsTheLatestOfEachProcess) {
  KnownIds ids(3);

  EXPECT_TRUE(ids.Add("a-1"));
  EXPECT_FALSE(ids.Add("a-1"));
  EXPECT_TRUE(ids.Add("b-1")) << "another process";
  EXPECT_TRUE(ids.Add("a-3"));
  EXPECT_TRUE(ids.Add("a-2"));
  EXPECT_FALSE(ids.Add("b-1")) << "three ids ago at most";
  EXPECT_TRUE(ids.Add("b-2"));
  EXPECT_TRUE(ids.Add("b-3"));
  EXPECT_FALSE(ids.Add("a-2"));
  for (const char* const id : {"a-4", "a-5", "a-6"}) EXPECT_TRUE(ids.Add(id));
  EXPECT_TRUE(ids.Add("a-1")) << "too long ago";
}

TEST(KnownIdsTest, TakesWhatHasNoIdForNew) {
  KnownIds ids(3);

  for (const char* const id : {"", "a", "a-", "a-x", "a-1x", "a-0", "-"}) {
    EXPECT_TRUE(ids.Add(id)) << id;
    EXPECT_TRUE(ids.Add(id)) << id;
  }
}

class ExportFolderTest : public ::testing::Test {
 protected:
  ExportFolder::Options Options(uint64_t rotate_bytes = 1'000'000) const {
    return {path_, "S", rotate_bytes, milliseconds(60'000), 3};
  }
  static std::string Line(uint64_t sequence) { return Line(sequence, std::to_string(sequence)); }
  static std::string Line(uint64_t sequence, const std::string& number) {
    return "{\"sequence\":" + std::to_string(sequence) +
           ",\"path\":\"\\\"id\\\":\\\"p-1\",\"id\":\"p-" + number + "\",\"body\":\"eA==\"}";
  }
  Strings Names() const {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(path_)) {
      names.insert(entry.path().filename().string());
    }
    return Strings(names.begin(), names.end());
  }
  std::string Read(const std::string& name) const {
    std::ifstream file(path_ + "/" + name);
    return std::string(std::istreambuf_iterator<char>(file), {});
  }

  test::TempFolder parent_;
  const std::string path_ = parent_.path() + "/out";
  Time now_{std::chrono::seconds(1000)};
};

TEST_F(ExportFolderTest, CompletesAFileUnderItsSequences) {
  ExportFolder folder(Options());
  folder.Resume(4, now_);
  for (const uint64_t sequence : {6, 5, 9}) folder.Add(sequence, Line(sequence));
  folder.Sync(now_);
  EXPECT_EQ(Names(), Strings{"S.part"});
  folder.Complete();

  EXPECT_EQ(Names(), Strings{"S-00000000000000000005-00000000000000000009.ndjson"});
  EXPECT_EQ(Read(Names()[0]), Line(6) + "\n" + Line(5) + "\n" + Line(9) + "\n");
}

TEST_F(ExportFolderTest, LeavesNothingWhereNothingCame) {
  ExportFolder folder(Options());
  folder.Resume(0, now_);
  folder.Sync(now_ + milliseconds(60'000));
  folder.Complete();

  EXPECT_TRUE(Names().empty());
}

TEST_F(ExportFolderTest, MessageThatComesAgainIsWrittenOnce) {
  ExportFolder folder(Options());
  folder.Resume(2, now_);
  for (const uint64_t sequence : {2, 3, 3}) folder.Add(sequence, Line(sequence));
  folder.Sync(now_);

  EXPECT_EQ(Read("S.part"), Line(3) + "\n");
  EXPECT_EQ(folder.lines(), 1u);
}

TEST_F(ExportFolderTest, OfOneIdTheFirstIsWritten) {
  ExportFolder folder(Options());
  folder.Resume(0, now_);
  folder.Add(2, Line(2, "7"));
  folder.Add(3, Line(3, "7"));
  folder.Add(3, Line(3, "7"));
  folder.Add(1, Line(1, "7"));
  folder.Sync(now_);

  EXPECT_EQ(Read("S.part"), Line(2, "7") + "\n");
  EXPECT_EQ(folder.lines(), 1u);
  EXPECT_EQ(folder.repeats(), 2u);
}

TEST_F(ExportFolderTest, KnowsTheLatestIdsAfterAKill) {
  {
    ExportFolder folder(Options(1));
    folder.Resume(0, now_);
    for (const uint64_t sequence : {1, 2, 3, 4, 5}) {
      folder.Add(sequence, Line(sequence));
      folder.Sync(now_);
    }
  }
  ExportFolder folder(Options());
  folder.Resume(5, now_);
  folder.Add(6, Line(6, "3"));
  EXPECT_EQ(folder.repeats(), 1u);
  folder.Add(7, Line(7, "2"));
  EXPECT_EQ(folder.repeats(), 1u) << "three are known";
}

TEST_F(ExportFolderTest, BeginsAFileWhenOneIsLargeOrOld) {
  ExportFolder folder(Options(80));
  folder.Resume(0, now_);
  folder.Add(1, Line(1));
  folder.Sync(now_);
  folder.Add(2, Line(2));
  folder.Sync(now_);
  EXPECT_EQ(Names(), (Strings{"S-00000000000000000001-00000000000000000002.ndjson", "S.part"}));
  folder.Add(3, Line(3));
  folder.Sync(now_ + milliseconds(59'999));
  EXPECT_EQ(Names().size(), 2u);
  folder.Sync(now_ + milliseconds(60'000));
  EXPECT_EQ(Names().size(), 3u);
}

TEST_F(ExportFolderTest, GoesOnAfterAKill) {
  {
    ExportFolder folder(Options(80));
    folder.Resume(0, now_);
    for (const uint64_t sequence : {1, 2, 3}) {
      folder.Add(sequence, Line(sequence));
      folder.Sync(now_);
    }
  }
  std::ofstream(path_ + "/S.part", std::ios::app) << Line(4).substr(0, 15);

  ExportFolder folder(Options(80));
  folder.Resume(1, now_);  // 2 and 3 come again, for their acknowledgements were lost.
  for (const uint64_t sequence : {2, 3, 4}) folder.Add(sequence, Line(sequence));
  folder.Sync(now_);
  folder.Complete();
  EXPECT_EQ(Read(Names()[0]), Line(1) + "\n" + Line(2) + "\n");
  EXPECT_EQ(Read(Names()[1]), Line(3) + "\n" + Line(4) + "\n");
}

TEST_F(ExportFolderTest, LineThatIsNotWholeIsNone) {
  {
    ExportFolder folder(Options());
    folder.Resume(0, now_);
  }
  std::string hollow = Line(2);
  hollow[hollow.size() / 2] = '\0';
  std::ofstream(path_ + "/S.part") << Line(1) << '\n'
                                   << hollow << '\n'
                                   << Line(3) << '\n'
                                   << Line(4).substr(0, 20) << "\n{}\n";

  ExportFolder folder(Options());
  folder.Resume(0, now_);
  for (const uint64_t sequence : {1, 2, 3, 4}) folder.Add(sequence, Line(sequence));
  folder.Sync(now_);
  EXPECT_EQ(Read("S.part"),
            Line(1) + "\n" + hollow + "\n" + Line(3) + "\n" + Line(2) + "\n" + Line(4) + "\n");
}

TEST_F(ExportFolderTest, OtherStreamsFilesAreNotItsOwn) {
  {
    ExportFolder folder(Options());
    folder.Resume(0, now_);
    folder.Complete();
  }
  for (const char* name : {"S-EU-00000000000000000001-00000000000000000005.ndjson",
                           "S-00000000000000000001-0000000000000000000x.ndjson",
                           "S-00000000000000000001_00000000000000000005.ndjson"}) {
    std::ofstream(path_ + "/" + name) << Line(1) << '\n';
  }
  {
    ExportFolder folder(Options());
    folder.Resume(0, now_);
    EXPECT_FALSE(folder.has_messages());
    folder.Add(1, Line(1));
    folder.Sync(now_);
    EXPECT_EQ(folder.lines(), 1u);
  }
  for (int i = 0; i < 2; ++i) {  // In the file that was being written, and in a complete one.
    ExportFolder folder(Options());
    folder.Resume(0, now_);
    EXPECT_TRUE(folder.has_messages());
    folder.Complete();
  }
}

TEST_F(ExportFolderTest, WhatCannotBeReadIsNotTakenForNothing) {
  std::filesystem::create_directories(path_ +
                                      "/S-00000000000000000001-00000000000000000005.ndjson");
  ExportFolder folder(Options());
  EXPECT_THROW(folder.Resume(0, now_), Fatal);
}

TEST_F(ExportFolderTest, WhatTheDiskDoesNotTakeIsTakenBack) {
  ExportFolder folder(Options());
  folder.Resume(0, now_);
  folder.Add(1, Line(1));
  folder.Sync(now_);
  for (const uint64_t sequence : {2, 3}) folder.Add(sequence, Line(sequence));

  std::signal(SIGXFSZ, SIG_IGN);
  rlimit before{};
  ::getrlimit(RLIMIT_FSIZE, &before);
  const rlimit small{Line(1).size() * 5 / 2, before.rlim_max};
  ::setrlimit(RLIMIT_FSIZE, &small);
  EXPECT_THROW(folder.Sync(now_), Fatal);
  ::setrlimit(RLIMIT_FSIZE, &before);
  EXPECT_EQ(Read("S.part"), Line(1) + "\n");
}

TEST_F(ExportFolderTest, NewFolderOutlastsAPowerCut) {
  const std::string parent = std::filesystem::canonical(parent_.path()).string();
  for (const char* name : {"/plain", "/slash/"}) {
    synced_paths.clear();
    ExportFolder folder({parent + name, "S", 1, milliseconds(1), 1});
    EXPECT_EQ(synced_paths.count(parent), 1u) << name;
  }
}

TEST_F(ExportFolderTest, IsOneExportsAlone) {
  ExportFolder folder(Options());

  EXPECT_THROW(ExportFolder{Options()}, Fatal);
}

TEST_F(ExportFolderTest, SaysWhichFolderItCannotUse) {
  std::ofstream(parent_.path() + "/file") << "x";
  try {
    ExportFolder folder({parent_.path() + "/file", "S", 1, milliseconds(1), 1});
    FAIL() << "a file is no folder";
  } catch (const Fatal& fatal) {
    EXPECT_NE(std::string(fatal.what()).find("/file"), std::string::npos) << fatal.what();
    EXPECT_EQ(fatal.exit_code(), kExitCannotCreate);
  }
}

}  // namespace
}  // namespace quenor::collector
