// One owner at a time, and what others do to the file of one.
#include <unistd.h>

#include <cstdio>

#include "tests/support/forked.h"
#include "tests/unit/cache/plain/plain_file_fixture.h"

namespace quenor::test {
namespace {

class CacheFileOwnerTest : public CacheFileTest {
 protected:
  void ExpectOwned() {
    RecordingLog::Clear();

    EXPECT_EQ(Packets{"cannot open"}, Reopened());

    EXPECT_EQ(1, LinesWith(2, ""));
    EXPECT_EQ(1, LinesWith(2, path_ + ": another owner"));
  }
};

TEST_F(CacheFileOwnerTest, ASecondInstanceIsRefused) {
  ReliableReportCacheFile owner;
  ASSERT_TRUE(OpenFile(owner, path_));
  ASSERT_TRUE(SaveUnasked(owner, {"a"}));
  const std::string before = Bytes();

  ExpectOwned();
  EXPECT_EQ(ResultOfChild([&] { return Reopened() == Packets{"cannot open"} ? 0 : 1; }), 0);

  EXPECT_EQ(Bytes(), before);
  ASSERT_TRUE(SaveUnasked(owner, {"a", "b"}));
  owner.Close();
  EXPECT_EQ(Reopened(), (Packets{"a", "b"}));
}

TEST_F(CacheFileOwnerTest, AnInterruptedRepairOfALiveOwnerIsLeftAlone) {
  ReliableReportCacheFile owner;
  ASSERT_TRUE(OpenFile(owner, path_));
  ASSERT_TRUE(SaveUnasked(owner, {"a"}));
  // Between the two renames of a repair: the owner holds the file under the other name.
  ASSERT_EQ(rename(path_.c_str(), Recovered(path_).c_str()), 0);

  ExpectOwned();

  EXPECT_TRUE(Exists(Recovered(path_)));
  EXPECT_FALSE(Exists(path_));
}

TEST_F(CacheFileOwnerTest, ARewrittenFileIsStillOwned) {
  ReliableReportCacheFile owner;
  ASSERT_TRUE(OpenFile(owner, path_));
  ASSERT_TRUE(SaveUnasked(owner, {std::string(200000, 'x')}));
  ASSERT_TRUE(SaveUnasked(owner, {"a"}));
  ASSERT_TRUE(owner.Clear());  // Written anew: little of it is content.
  ASSERT_LT(SizeOf(path_), 1000u);

  ExpectOwned();
}

// Its file, or the one that replaces it, has the number 0.
TEST_F(CacheFileOwnerTest, AChildOfAProcessWithoutStandardInputTouchesNothing) {
  const int input = dup(0);
  close(0);
  ReliableReportCacheFile file;
  EXPECT_TRUE(OpenFile(file, path_));
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(remove(path_.c_str()), 0);
    EXPECT_TRUE(SaveUnasked(file, {"a"}));
    EXPECT_EQ(ResultOfChild([&] { return file.Clear() ? 1 : 0; }), 0) << i;
  }
  file.Close();
  if (input < 0) return;
  dup2(input, 0);
  close(input);
}

TEST_F(CacheFileOwnerTest, BytesThatOthersAppendAreCutOff) {
  ReliableReportCacheFile file;
  ASSERT_TRUE(OpenFile(file, path_));
  ASSERT_TRUE(SaveUnasked(file, {"a"}));
  ASSERT_TRUE(WriteWholeFile(path_, Bytes() + std::string(10000, 'z')));

  ASSERT_TRUE(SaveUnasked(file, {"a", "b"}));
  file.Close();

  EXPECT_EQ(Reopened(), (Packets{"a", "b"}));
  EXPECT_LT(SizeOf(path_), 1000u);
  EXPECT_FALSE(Exists(SetAside(path_)));
}

TEST_F(CacheFileOwnerTest, WhatAKillMayHaveLeftBehindTheEndIsCutOffOnce) {
  Leave({"a"});
  ReliableReportCacheFile file;
  ASSERT_TRUE(OpenFile(file, path_));
  const size_t before = FileCalls::Count(Call::kFtruncate);

  for (const Packets& packets : {Packets{"a", "b"}, Packets{"b", "c"}, Packets{"d"}}) {
    ASSERT_TRUE(SaveUnasked(file, packets));
  }

  EXPECT_EQ(FileCalls::Count(Call::kFtruncate), before + 1);
}

TEST_F(CacheFileOwnerTest, APacketThatIsGoneWhileReadingStopsTheSaves) {
  Leave({"a", std::string(5000, 'b'), "c"});
  ReliableReportCacheFile file;
  ASSERT_TRUE(OpenFile(file, path_));
  ASSERT_EQ(file.GetNextDataPacket().size, 1u);
  ASSERT_EQ(truncate(path_.c_str(), 500), 0);

  EXPECT_EQ(file.GetNextDataPacket().size, 0u);

  EXPECT_EQ(file.GetNextDataPacket().size, 0u);
  EXPECT_EQ(1, LinesWith(2, ""));
  EXPECT_EQ(1, LinesWith(2, "packet 2"));
  EXPECT_FALSE(file.Clear());
  EXPECT_FALSE(file.IsSaveComplete());
}

}  // namespace
}  // namespace quenor::test
