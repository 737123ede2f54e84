// Every system call of the mapped file fails once, at every place where it is made: nothing that a
// save confirmed is lost, a save that failed leaves the old or the new content whole, and the next
// one works.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <iostream>
#include <memory>
#include <string>

#include "tests/cache/faults_bench.h"
#include "tests/cache/support/cache_files.h"
#include "tests/cache/support/file_calls.h"
#include "tests/support/fakes/recording_log.h"
#include "tests/support/temp_folder.h"

namespace quenor::test {
namespace {

// One life of a file with one fault in it. What the saves confirmed is remembered.
class Life {
 public:
  static constexpr char kKind[] = "mapped";

  Life(const std::string& path, const Packets& content)
      : path_(path), confirmed_(content), attempted_(content) {}

  void Arm(const Fault& fault, int nth) {
    fault_ = fault;
    FileCalls::Fail(fault.call, nth, fault.error);
  }

  void Open() {
    for (int attempt = 0;; ++attempt) {
      file_ = std::make_unique<MultiProcessSafetyMmapFile>();
      RecordingLog::Clear();
      if (!OpenFile(*file_, path_)) {
        Expect(FileCalls::HasFailed() && attempt == 0, "Open() fails without a reason");
        Expect(LinesWith(2, path_) > 0 || IsMemory(fault_.call), "Open() fails without a line");
        Expect(!IsRepeated(fault_), "Open() gives up when interrupted");
        if (attempt > 0) return;
        continue;
      }
      const Packets found = ReadAll(*file_);
      if (found == confirmed_ || found == attempted_) {
        confirmed_ = attempted_ = found;
        return;
      }
      // Cut short by the fault: then nothing may be replaced, and the next start finds it all.
      Expect(FileCalls::HasFailed() && attempt == 0, "the content is another", found);
      if (attempt > 0) return;
      Expect(LinesWith(2, path_) > 0, "a packet is not read and no line says so");
      Expect(!Save(*file_, {"must not be"}), "a save replaces what could not be read");
    }
  }

  void SaveAs(const Packets& packets) {
    if (!error_.empty()) return;
    attempted_ = packets;
    RecordingLog::Clear();
    const bool had_failed = FileCalls::HasFailed();
    if (Save(*file_, packets)) {
      confirmed_ = packets;
      return CheckKilled("after a save that worked");
    }
    Expect(FileCalls::HasFailed() && !had_failed, "a save fails without a reason");
    Expect(!file_->IsSaveComplete(), "a failed save counts as complete");
    Expect(!Append(*file_, "x"), "a void save takes packets");
    Expect(!IsRepeated(fault_) && !IsHarmless(fault_.call), "a save fails without need");
    Expect(LinesWith(2, path_) > 0, "a save fails without a line");
    ++failed_saves_;
    CheckKilled("after a failed save");
    Expect(Save(*file_, packets), "the save after the failed one fails too");
    confirmed_ = packets;
    CheckKilled("after the second attempt");
  }

  // After somebody took the file away: until a save works there is no content to keep.
  void SaveAnew(const Packets& packets) {
    if (!error_.empty()) return;
    if (!Save(*file_, packets)) {
      Expect(FileCalls::HasFailed(), "a save fails without a reason");
      Expect(Save(*file_, packets), "the save after the failed one fails too");
    }
    confirmed_ = attempted_ = packets;
    CheckKilled("after the file was made anew");
  }

  void Close() {
    file_.reset();
    // Seen from outside, with the fault still to come if it has not.
    attempted_ = confirmed_;
  }

  void Expect(bool holds, const std::string& what, const Packets& found = {}) {
    if (holds || !error_.empty()) return;
    error_ = what + (found.empty() ? "" : "; found " + Show(found));
    for (const std::string& line : RecordingLog::Texts()) error_ += "\n  log: " + line;
  }

  MultiProcessSafetyMmapFile& file() { return *file_; }
  const std::string& path() const { return path_; }
  const std::string& error() const { return error_; }
  uint64_t failed_saves() const { return failed_saves_; }

 private:
  void CheckKilled(const std::string& when) {
    const FileCalls::Unseen unseen;
    if (IsMemory(fault_.call) && !FileCalls::HasFailed()) return;  // It would be hit instead.
    const std::string copy = path_ + ".killed";
    CopyAsIfKilled(path_, copy);
    const Packets found = LoadMapped(copy);
    Expect(found == confirmed_ || found == attempted_, "killed " + when + ", another content",
           found);
  }

  const std::string path_;
  Fault fault_ = {Call::kOpen, 0};
  Packets confirmed_;
  Packets attempted_;
  std::unique_ptr<MultiProcessSafetyMmapFile> file_;
  uint64_t failed_saves_ = 0;
  std::string error_;
};

std::string ImageOfTwoDeadOwners() {
  const TempFolder folder;
  MultiProcessSafetyMmapFile first, second;
  EXPECT_TRUE(OpenFile(first, folder.File("f")) && OpenFile(second, folder.File("f")));
  EXPECT_TRUE(Save(first, NamedPackets("first", 5, 300)));
  EXPECT_TRUE(Save(second, NamedPackets("second", 5, 300)));
  return ReadWholeFile(folder.File("f"));
}

Packets TwoDeadOwners() {
  Packets content = NamedPackets("first", 5, 300);
  for (const std::string& packet : NamedPackets("second", 5, 300)) content.push_back(packet);
  return content;
}

void OpenSaveGrowShrinkReopen(Life& life) {
  life.Open();
  Packets packets = TwoDeadOwners();
  packets.erase(packets.begin());
  packets.push_back(NamedPacket("new", 1, 500));
  life.SaveAs(packets);
  for (const std::string& packet : NamedPackets("grown", FullLength() ? 60 : 15, 4000))
    packets.push_back(packet);
  life.SaveAs(packets);
  packets.erase(packets.begin() + 3);
  life.SaveAs(packets);
  life.SaveAs({NamedPacket("shrunk", 1, 200)});
  life.SaveAs({NamedPacket("shrunk", 1, 200), NamedPacket("shrunk", 2, 200)});
  life.SaveAs({});
  life.SaveAs({"last"});
  life.Close();
  life.Open();
  life.SaveAs({"last", "and new"});
  life.Close();
  life.Open();
  life.Close();
}

TEST(MmapFileFaultsTest, AnyFailingCallLosesNothingThatWasConfirmed) {
  for (const uint64_t durability : {2, 1, 0}) {
    if (durability != 2 && !FullLength()) break;
    FailEveryCall<Life>("open, save, grow, shrink",
                        {ImageOfTwoDeadOwners(), TwoDeadOwners(), OpenSaveGrowShrinkReopen},
                        durability);
  }
}

// The mapping stays for the life of the process, and must not keep the owner's place.
TEST(MmapFileFaultsTest, UnmappingThatFailsLeavesNoLiveOwnerBehind) {
  const TempFolder folder;
  const std::string path = folder.File("channel.mmap");
  FileCalls::Reset();
  MultiProcessSafetyMmapFile file;
  ASSERT_TRUE(OpenFile(file, path));
  ASSERT_TRUE(Save(file, {"a"}));

  FileCalls::FailEach(Call::kMunmap, ENOMEM);
  file.Close();
  FileCalls::Reset();

  EXPECT_EQ(Packets{"a"}, LoadMapped(path));
}

TEST(MmapFileFaultsTest, AnyFailingCallInANewFileLosesNothing) {
  FailEveryCall<Life>("a new file",
                      {"",
                       {},
                       [](Life& life) {
                         life.Open();
                         life.SaveAs({"a"});
                         life.SaveAs({"a", "b"});
                         life.Close();
                         life.Open();
                         life.Close();
                       }},
                      2);
}

TEST(MmapFileFaultsTest, AnyFailingCallInARepairLosesNoIntactPacket) {
  std::string image = ImageOfTwoDeadOwners();
  const StoredPacket hit = FindPacket(image, NamedPacket("first", 2, 300)).at(0);
  image[hit.end - 1] = static_cast<char>(image[hit.end - 1] ^ 1);
  Packets content = TwoDeadOwners();
  content.erase(content.begin() + 2);

  FailEveryCall<Life>("repair",
                      {image, content,
                       [image](Life& life) {
                         life.Open();
                         life.Expect(ReadWholeFile(SetAside(life.path())) == image,
                                     "the file as it was is not set aside");
                         life.SaveAs({"a"});
                         life.Close();
                         life.Open();
                         life.Close();
                       }},
                      2);
}

TEST(MmapFileFaultsTest, AnyFailingCallAfterTheFileWasDeletedLosesNothing) {
  for (const bool cut : {false, true}) {
    FailEveryCall<Life>(cut ? "cut while open" : "deleted while open",
                        {"",
                         {},
                         [cut](Life& life) {
                           life.Open();
                           life.SaveAs(NamedPackets("p", 20, 1000));
                           if (cut) {
                             life.Expect(truncate(life.path().c_str(), 5000) == 0, "cannot cut");
                           } else {
                             life.Expect(std::remove(life.path().c_str()) == 0, "cannot delete");
                           }
                           life.SaveAnew({"a", "b"});
                           life.SaveAs({"b", "c"});
                           life.Close();
                           life.Open();
                           life.Close();
                         }},
                        0);
  }
}

// What others do to a file that is open and idle is noticed at the next save.
class MmapFileTakenAwayTest : public ::testing::Test {
 protected:
  void SetUp() override {
    FileCalls::Reset();
    ASSERT_TRUE(OpenFile(file_, path_));
    ASSERT_TRUE(Save(file_, NamedPackets("old", 50, 1000)));
    RecordingLog::Clear();
  }
  void ExpectGoesOn() {
    EXPECT_TRUE(Save(file_, {NamedPacket("old", 3, 1000), "b"}));
    EXPECT_EQ(1, LinesWith(2, path_));
    EXPECT_TRUE(Save(file_, {"b", "c"}));
    EXPECT_EQ(Packets{}, LoadMapped(path_)) << "its owner lives";
    file_.Close();
    EXPECT_EQ((Packets{"b", "c"}), LoadMapped(path_));
    EXPECT_EQ(1, LinesWith(2, ""));
  }

  TempFolder folder_;
  const std::string path_ = folder_.File("channel.mmap");
  MultiProcessSafetyMmapFile file_;
};

TEST_F(MmapFileTakenAwayTest, DeletedIsMadeAnew) {
  ASSERT_EQ(0, unlink(path_.c_str()));
  ExpectGoesOn();
}

// Saved where the next start looks, however the name was lost.
TEST_F(MmapFileTakenAwayTest, RenamedIsMadeAnew) {
  ASSERT_EQ(0, rename(path_.c_str(), folder_.File("elsewhere").c_str()));
  ExpectGoesOn();
}

TEST_F(MmapFileTakenAwayTest, DeletedBesideAHardLinkIsMadeAnew) {
  ASSERT_EQ(0, link(path_.c_str(), folder_.File("link").c_str()));
  ASSERT_EQ(0, unlink(path_.c_str()));
  ExpectGoesOn();
}

TEST_F(MmapFileTakenAwayTest, WhoseFolderWasRenamedAndMadeAgainIsMadeAnew) {
  const std::string old = folder_.path() + ".old";
  ASSERT_EQ(0, rename(folder_.path().c_str(), old.c_str()));
  ASSERT_EQ(0, mkdir(folder_.path().c_str(), 0700));
  ExpectGoesOn();
  std::filesystem::remove_all(old);
}

TEST_F(MmapFileTakenAwayTest, OfWhichNobodyCanTellIsNotSaved) {
  FileCalls::FailEach(Call::kLstat, EACCES);
  EXPECT_FALSE(Save(file_, {"a", "b"}));
  EXPECT_FALSE(file_.IsSaveComplete());
  FileCalls::Reset();

  EXPECT_TRUE(Save(file_, {"a", "b"}));
}

TEST_F(MmapFileTakenAwayTest, CutToNothingIsMadeAnew) {
  ASSERT_EQ(0, truncate(path_.c_str(), 0));
  ExpectGoesOn();
}

TEST_F(MmapFileTakenAwayTest, CutBehindItsTableIsMadeAnew) {
  ASSERT_EQ(0, truncate(path_.c_str(), 16384));

  EXPECT_TRUE(Save(file_, {"a", "b"}));
  EXPECT_TRUE(Save(file_, {"b", "c"}));
  file_.Close();

  EXPECT_EQ((Packets{"b", "c"}), LoadMapped(path_));
}

TEST_F(MmapFileTakenAwayTest, DeletedWithItsFolderIsRefusedUntilTheFolderIsBack) {
  ASSERT_EQ(0, unlink(path_.c_str()));
  ASSERT_EQ(0, rmdir(folder_.path().c_str()));

  for (int i = 0; i < 20; ++i) EXPECT_FALSE(Save(file_, {"a"}));
  EXPECT_EQ(2, LinesWith(2, "")) << "that it is gone, and that there is no folder";
  ASSERT_EQ(0, mkdir(folder_.path().c_str(), 0700));

  EXPECT_TRUE(Save(file_, {"a", "b"}));
  file_.Close();
  EXPECT_EQ((Packets{"a", "b"}), LoadMapped(path_));
}

TEST_F(MmapFileTakenAwayTest, ReplacedByANewFileOfAnotherOwnerIsSharedWithHim) {
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

}  // namespace
}  // namespace quenor::test
