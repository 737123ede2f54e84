// What others do to a file that is open and idle is noticed at the next save, by both kinds.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "tests/cache/support/cache_kind.h"

namespace quenor::test {
namespace {

template <typename Kind>
class CacheTakenAwayTest : public CacheKindTest<Kind> {
 protected:
  void SetUp() override {
    std::filesystem::create_directory(folder_);
    ASSERT_TRUE(OpenFile(file_, path_) && Save(file_, NamedPackets("old", 50, 1000)));
    RecordingLog::Clear();
  }
  void ExpectGoesOn() {
    EXPECT_TRUE(Save(file_, {NamedPacket("old", 3, 1000), "b"}));
    EXPECT_EQ(1, LinesWith(2, path_));
    EXPECT_TRUE(Save(file_, {"b", "c"}));
    EXPECT_EQ(1, LinesWith(2, ""));
    EXPECT_EQ(Kind::kIsPlain ? Packets{"cannot open"} : Packets{}, Kind::Load(path_))
        << "its owner lives";
    file_.Close();
    EXPECT_EQ((Packets{"b", "c"}), Kind::Load(path_));
  }

  const std::string folder_ = CacheKindTest<Kind>::folder_.File("folder");
  const std::string path_ = folder_ + "/channel";
  typename Kind::File file_;
};
TYPED_TEST_SUITE(CacheTakenAwayTest, CacheKinds, CacheKindName);

TYPED_TEST(CacheTakenAwayTest, DeletedIsMadeAnew) {
  ASSERT_EQ(0, unlink(this->path_.c_str()));
  this->ExpectGoesOn();
}

// Saved where the next start looks, however the name was lost.
TYPED_TEST(CacheTakenAwayTest, RenamedIsMadeAnew) {
  ASSERT_EQ(0, rename(this->path_.c_str(), (this->folder_ + "/elsewhere").c_str()));
  this->ExpectGoesOn();
}

TYPED_TEST(CacheTakenAwayTest, DeletedBesideAHardLinkIsMadeAnew) {
  ASSERT_EQ(0, link(this->path_.c_str(), (this->folder_ + "/link").c_str()));
  ASSERT_EQ(0, unlink(this->path_.c_str()));
  this->ExpectGoesOn();
}

TYPED_TEST(CacheTakenAwayTest, WhoseFolderWasRenamedAndMadeAgainIsMadeAnew) {
  ASSERT_EQ(0, rename(this->folder_.c_str(), (this->folder_ + ".old").c_str()));
  ASSERT_EQ(0, mkdir(this->folder_.c_str(), 0700));
  this->ExpectGoesOn();
}

// Else it would be written anew beside itself, and each later save refused.
TYPED_TEST(CacheTakenAwayTest, OfWhichNobodyCanTellIsNotSaved) {
  for (const int error : {EACCES, EIO}) {
    FileCalls::FailEach(Call::kLstat, error);
    EXPECT_FALSE(Save(this->file_, {"a", "b"}));
    EXPECT_FALSE(this->file_.IsSaveComplete());
    EXPECT_FALSE(Append(this->file_, "b"));
    FileCalls::Reset();

    EXPECT_TRUE(Save(this->file_, {"a", "b"}));
  }
  EXPECT_EQ(2, LinesWith(2, this->path_));
  this->file_.Close();
  EXPECT_EQ((Packets{"a", "b"}), TypeParam::Load(this->path_));
}

TYPED_TEST(CacheTakenAwayTest, CutShortIsMadeAnew) {
  for (const int length : {0, 10, 40, 150, 4096, 16384}) {
    SCOPED_TRACE(length);
    ASSERT_TRUE(Save(this->file_, NamedPackets("old", 50, 1000)));
    ASSERT_EQ(0, truncate(this->path_.c_str(), length));
    RecordingLog::Clear();

    EXPECT_TRUE(Save(this->file_, {NamedPacket("old", 40, 1000), "b"}));
    EXPECT_GE(LinesWith(2, this->path_), 1);
    EXPECT_TRUE(Save(this->file_, {"b", "c"}));

    // What was lost then is not lost again.
    RecordingLog::Clear();
    ASSERT_EQ(0, unlink(this->path_.c_str()));
    EXPECT_TRUE(Save(this->file_, {"b", "c"}));
    EXPECT_EQ(1, LinesWith(2, ""));
    this->file_.Close();
    EXPECT_EQ((Packets{"b", "c"}), TypeParam::Load(this->path_));
    ASSERT_TRUE(OpenFile(this->file_, this->path_));
  }
}

TYPED_TEST(CacheTakenAwayTest, DeletedWithItsFolderIsRefusedUntilTheFolderIsBack) {
  std::filesystem::remove_all(this->folder_);

  for (int i = 0; i < 20; ++i) EXPECT_FALSE(Save(this->file_, {"a"}));
  EXPECT_FALSE(Save(this->file_, {})) << "nothing is saved, not even that there is nothing";
  EXPECT_EQ(2, LinesWith(2, "")) << "that it is gone, and that there is no folder";
  ASSERT_EQ(0, mkdir(this->folder_.c_str(), 0700));

  EXPECT_TRUE(Save(this->file_, {"a", "b"}));
  EXPECT_EQ(2, LinesWith(2, ""));
  this->file_.Close();
  EXPECT_EQ((Packets{"a", "b"}), TypeParam::Load(this->path_));
}

using MappedTakenAwayTest = CacheTakenAwayTest<Mapped>;

TEST_F(MappedTakenAwayTest, ReplacedByANewFileOfAnotherOwnerIsSharedWithHim) {
  ASSERT_EQ(0, unlink(path_.c_str()));
  MultiProcessSafetyMmapFile other;
  ASSERT_TRUE(OpenFile(other, path_));
  // Larger than the lost one: its size must not pass for that one's.
  Packets all = NamedPackets("of the other", 100, 1000);
  ASSERT_TRUE(Save(other, all));

  ASSERT_TRUE(Save(file_, {"a"}));
  file_.Close();
  other.Close();

  all.push_back("a");
  const Packets found = LoadMapped(path_);
  EXPECT_TRUE(all == found) << found.size() << " packets, the last one " << found.back();
}

using PlainTakenAwayTest = CacheTakenAwayTest<Plain>;

TEST_F(PlainTakenAwayTest, HasItsContentAgainWithTheNextClear) {
  ASSERT_EQ(0, unlink(path_.c_str()));

  ASSERT_TRUE(file_.Clear());

  CopyAsIfKilled(path_, path_ + ".killed");
  EXPECT_EQ(NamedPackets("old", 50, 1000), LoadPlain(path_ + ".killed"));
  EXPECT_EQ(1, LinesWith(2, "removed or replaced"));
  ASSERT_TRUE(file_.Clear());
  EXPECT_EQ(1u, FileCalls::Count(Call::kRenameat2));
  EXPECT_EQ(0u, FileCalls::Count(Call::kRename)) << "once is enough";
}

// A save that was refused must not count what it kept twice.
TEST_F(PlainTakenAwayTest, AfterAVoidSaveHoldsEachPacketOnce) {
  ASSERT_TRUE(Save(file_, {"a", "b"}) && file_.Clear());
  ASSERT_TRUE(Append(file_, "b") && Append(file_, "new"));
  ASSERT_FALSE(file_.AppendDataPacket({nullptr, 1}));
  ASSERT_EQ(0, unlink(path_.c_str()));

  ASSERT_TRUE(file_.Clear());

  CopyAsIfKilled(path_, path_ + ".killed");
  EXPECT_EQ((Packets{"a", "b", "new"}), LoadPlain(path_ + ".killed"));
}

TEST_F(PlainTakenAwayTest, LeavesTheFileOfAnotherOwnerAlone) {
  ASSERT_EQ(0, unlink(path_.c_str()));
  ReliableReportCacheFile second;
  ASSERT_TRUE(OpenFile(second, path_) && Save(second, {"second"}));

  EXPECT_FALSE(file_.Clear());
  EXPECT_FALSE(file_.IsSaveComplete());
  EXPECT_FALSE(Append(file_, "a"));
  EXPECT_FALSE(file_.IsSaveComplete());

  second.Close();
  file_.Close();
  EXPECT_EQ(Packets{"second"}, LoadPlain(path_));
}

TEST_F(PlainTakenAwayTest, AndPutBackIsUsedAgain) {
  const std::string elsewhere = folder_ + "/elsewhere";
  ASSERT_EQ(0, rename(path_.c_str(), elsewhere.c_str()));
  ASSERT_TRUE(WriteWholeFile(path_, "another's"));
  ASSERT_FALSE(file_.Clear());
  ASSERT_EQ(0, rename(elsewhere.c_str(), path_.c_str()));

  EXPECT_TRUE(Save(file_, {"a", "b"}));

  file_.Close();
  EXPECT_EQ((Packets{"a", "b"}), LoadPlain(path_));
}

}  // namespace
}  // namespace quenor::test
