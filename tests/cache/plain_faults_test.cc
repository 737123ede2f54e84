// What the plain file does with a disk that is full or takes little at a time.
#include <cerrno>

#include "tests/cache/faults_bench.h"

namespace quenor::test {
namespace {

using PlainFaultsTest = CacheKindTest<Plain>;

TEST_F(PlainFaultsTest, ADiskThatFillsUpAnywhereLosesNothingAndIsUsedAgain) {
  for (uint64_t space = 0; space < 400; ++space) {
    std::remove(path_.c_str());
    Life<Plain> life(path_, {});
    life.Open();
    life.SaveAs({"a", "b", "c"});
    FileCalls::SetSpace(space);
    life.SaveAs({"b", "dddddddddd", "c", "e"});
    life.Close();
    FileCalls::Reset();
    life.Open();
    ASSERT_EQ("", life.error()) << space;
  }
}

TEST_F(PlainFaultsTest, AFullDiskIsReportedOnceForManySaves) {
  ReliableReportCacheFile file;
  ASSERT_TRUE(OpenFile(file, path_) && Save(file, {"a"}));
  for (const int rows : {1, 2}) {
    FileCalls::SetSpace(0);

    for (int i = 0; i < 50; ++i) EXPECT_FALSE(Save(file, {"a", "new" + std::to_string(rows)}));

    EXPECT_EQ(rows, LinesWith(2, ""));
    EXPECT_EQ(rows, LinesWith(2, path_ + ": No space left"));
    FileCalls::Reset();
    EXPECT_TRUE(Save(file, {"a", "b"}));
  }
}

TEST_F(PlainFaultsTest, SavesThatTheDiskRefusesDoNotPileUp) {
  ReliableReportCacheFile file;
  ASSERT_TRUE(OpenFile(file, path_) && Save(file, {"a"}));
  uint64_t after_first = 0;
  for (int i = 0; i < 100; ++i) {
    ASSERT_TRUE(file.Clear() && Append(file, "a") && Append(file, "taken"));
    FileCalls::SetSpace(0);
    ASSERT_FALSE(Append(file, "refused"));
    FileCalls::Reset();
    if (i == 0) after_first = SizeOf(path_);
  }

  EXPECT_LE(SizeOf(path_), after_first + 100 * 48);
  CopyAsIfKilled(path_, path_ + ".killed");
  EXPECT_EQ((Packets{"a", "taken"}), LoadPlain(path_ + ".killed"));
}

TEST_F(PlainFaultsTest, WritesThatAreTakenByteByByteAreCarriedThrough) {
  FileCalls::SetLongestWrite(1);
  ASSERT_TRUE(SaveAt(path_, {"a", "bb", "ccc"}));

  EXPECT_EQ((Packets{"a", "bb", "ccc"}), LoadPlain(path_));
}

TEST_F(PlainFaultsTest, AFailedCutIsMadeUpForBeforeTheNextWrite) {
  ReliableReportCacheFile file;
  ASSERT_TRUE(OpenFile(file, path_) && Save(file, {"a"}) && file.Clear());
  FileCalls::SetSpace(50);
  FileCalls::FailEach(Call::kFtruncate, EIO);
  EXPECT_FALSE(Append(file, std::string(1000, 'x')));
  EXPECT_FALSE(file.Clear() && Append(file, "b"));
  FileCalls::Reset();
  CopyAsIfKilled(path_, path_ + ".killed");
  EXPECT_EQ(Packets{"a"}, LoadPlain(path_ + ".killed"));

  EXPECT_TRUE(Save(file, {"a", "b"}));

  file.Close();
  EXPECT_EQ((Packets{"a", "b"}), LoadPlain(path_));
  EXPECT_FALSE(Exists(SetAside(path_)));
}

}  // namespace
}  // namespace quenor::test
