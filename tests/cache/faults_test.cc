// Every system call of the mapped file fails once, at every place where it is made: nothing that a
// save confirmed is lost, a save that failed leaves the old or the new content whole, and the next
// one works.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <functional>
#include <iostream>
#include <memory>
#include <string>

#include "tests/cache/support/cache_files.h"
#include "tests/cache/support/file_calls.h"
#include "tests/support/recording_log.h"
#include "tests/support/temp_folder.h"

namespace quenor::test {
namespace {

struct Fault {
  Call call;
  int error;
};

const Call kCalls[] = {Call::kOpen,    Call::kPosixFallocate, Call::kFallocate, Call::kMmap,
                       Call::kMadvise, Call::kFcntl,          Call::kFsync,     Call::kFdatasync,
                       Call::kMsync,   Call::kSyncFileRange,  Call::kRename,    Call::kFtruncate,
                       Call::kPread,   Call::kPwrite,         Call::kFstat,     Call::kLstat,
                       Call::kMalloc,  Call::kRealloc,        Call::kNothrowNew};
const int kErrors[] = {ENOSPC, EIO, EMFILE, EINTR, ENOMEM};

const char* ErrnoName(int error) {
  switch (error) {
    case ENOSPC:
      return "ENOSPC";
    case EIO:
      return "EIO";
    case EMFILE:
      return "EMFILE";
    case EINTR:
      return "EINTR";
    default:
      return "ENOMEM";
  }
}

bool IsMemory(Call call) {
  return call == Call::kMalloc || call == Call::kRealloc || call == Call::kNothrowNew;
}
// A call that the system interrupts and a caller repeats.
bool IsRepeated(const Fault& fault) {
  return fault.error == EINTR && !IsMemory(fault.call) && fault.call != Call::kMmap &&
         fault.call != Call::kMadvise;
}
// What fails without any harm to a save: advice, and giving space back.
bool IsHarmless(Call call) { return call == Call::kFallocate || call == Call::kSyncFileRange; }

// One life of a file with one fault in it. What the saves confirmed is remembered.
class Life {
 public:
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

// What to do to a file; `fault` is armed where it begins to count.
struct Scenario {
  std::string image;  // Of the file at first; empty: none.
  Packets content;
  std::function<void(Life&)> run;
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
  for (const std::string& packet : NamedPackets("grown", 60, 4000)) packets.push_back(packet);
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

int OneErrorOf(Call call) {
  const int errors[] = {ENOSPC, EIO, EMFILE, ENOMEM};
  return errors[static_cast<int>(call) % 4];
}

// Fails each call of each kind in turn until the scenario makes no more of them.
void FailEveryCall(const char* name, const Scenario& scenario, uint64_t durability) {
  const DurabilityScope scope(durability);
  const TempFolder folder;
  uint64_t lives = 0, failed_saves = 0, faults = 0;
  std::string places;
  for (const Call call : kCalls) {
    int places_of_call = 0;
    for (const int error : kErrors) {
      if (IsMemory(call) && error != ENOMEM) continue;
      // In the short form each place fails in two ways, and all ways are met.
      if (!FullLength() && !IsMemory(call) && error != EINTR && error != OneErrorOf(call)) continue;
      for (int nth = 1;; ++nth) {
        const std::string path = folder.File("channel.mmap");
        for (const char* suffix : {"", ".set-aside", ".recovered", ".killed"}) {
          std::remove((path + suffix).c_str());
        }
        ASSERT_TRUE(scenario.image.empty() || WriteWholeFile(path, scenario.image));
        FileCalls::Reset();
        Life life(path, scenario.content);
        life.Arm({call, error}, nth);
        scenario.run(life);
        ++lives;
        failed_saves += life.failed_saves();
        if (!life.error().empty()) {
          ++faults;
          const std::string fault = std::string(FileCalls::Name(call)) + " number " +
                                    std::to_string(nth) + " fails with " + ErrnoName(error) + ": " +
                                    life.error();
          if (faults <= 5) ADD_FAILURE() << name << ": " << fault;
        }
        places_of_call = std::max(places_of_call, nth - 1);
        if (!FileCalls::HasFailed()) break;
      }
    }
    if (places_of_call > 0) {
      places += std::string(" ") + FileCalls::Name(call) + " " + std::to_string(places_of_call);
    }
  }
  FileCalls::Reset();
  std::cout << name << ", durability " << durability << ": " << lives << " lives, " << failed_saves
            << " saves failed, " << faults << " faults; places:" << places << std::endl;
}

TEST(MmapFileFaultsTest, AnyFailingCallLosesNothingThatWasConfirmed) {
  for (const uint64_t durability : {2, 1, 0}) {
    if (durability != 2 && !FullLength()) break;
    FailEveryCall("open, save, grow, shrink",
                  {ImageOfTwoDeadOwners(), TwoDeadOwners(), OpenSaveGrowShrinkReopen}, durability);
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
  FailEveryCall("a new file",
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

  FailEveryCall("repair",
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
    FailEveryCall(cut ? "cut while open" : "deleted while open",
                  {"",
                   {},
                   [cut](Life& life) {
                     life.Open();
                     life.SaveAs(NamedPackets("p", 20, 1000));
                     if (cut) {
                       life.Expect(truncate(life.path().c_str(), 5000) == 0, "cannot cut");
                     } else {
                       life.Expect(unlink(life.path().c_str()) == 0, "cannot delete");
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
    EXPECT_TRUE(Save(file_, {"a", "b"}));
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

// Not looked for: a host that has changed its root or its rights since would see the same.
TEST_F(MmapFileTakenAwayTest, RenamedAwayIsUsedUnderItsOtherName) {
  ASSERT_EQ(0, rename(path_.c_str(), folder_.File("elsewhere").c_str()));

  ASSERT_TRUE(Save(file_, {"a", "b"}));
  file_.Close();

  EXPECT_EQ((Packets{"a", "b"}), LoadMapped(folder_.File("elsewhere")));
  EXPECT_EQ(Packets(), LoadMapped(path_));
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

  EXPECT_FALSE(Save(file_, {"a"}));
  EXPECT_FALSE(Save(file_, {"a"}));
  ASSERT_EQ(0, mkdir(folder_.path().c_str(), 0700));

  EXPECT_TRUE(Save(file_, {"a", "b"}));
  file_.Close();
  EXPECT_EQ((Packets{"a", "b"}), LoadMapped(path_));
}

TEST_F(MmapFileTakenAwayTest, ReplacedByANewFileOfAnotherOwnerIsSharedWithHim) {
  ASSERT_EQ(0, unlink(path_.c_str()));
  MultiProcessSafetyMmapFile other;
  ASSERT_TRUE(OpenFile(other, path_));
  ASSERT_TRUE(Save(other, {"of the other"}));

  ASSERT_TRUE(Save(file_, {"a"}));
  file_.Close();
  other.Close();

  EXPECT_EQ((Packets{"of the other", "a"}), LoadMapped(path_));
}

// A file system of its own that is full.
class SmallDisk {
 public:
  explicit SmallDisk(const char* size) {
    mounted_ =
        mount("quenor-test", folder_.path().c_str(), "tmpfs", MS_NOSUID | MS_NODEV, size) == 0;
  }
  ~SmallDisk() {
    if (mounted_ && umount(folder_.path().c_str()) != 0) std::perror("umount");
  }
  bool is_mounted() const { return mounted_; }
  std::string File(const std::string& name) const { return folder_.File(name); }
  // Until nothing more fits.
  void Fill() const {
    std::FILE* const out = std::fopen(File("filler").c_str(), "wb");
    const std::string block(4096, 'f');
    while (std::fwrite(block.data(), 1, block.size(), out) == block.size() &&
           std::fflush(out) == 0) {
    }
    std::fclose(out);
  }
  void Free() const { std::remove(File("filler").c_str()); }

 private:
  TempFolder folder_;
  bool mounted_ = false;
};

TEST(MmapFileFullDiskTest, SavesUntilTheDiskIsFullAndAgainWhenThereIsRoom) {
  const SmallDisk disk("size=1m,mode=0700");
  if (!disk.is_mounted()) GTEST_SKIP() << "a file system can only be mounted by root";
  const std::string path = disk.File("channel.mmap");
  const TempFolder folder;
  MultiProcessSafetyMmapFile file;
  ASSERT_TRUE(OpenFile(file, path));
  Packets packets, confirmed;
  size_t refused_at = 0;
  int refused = 0;

  for (size_t i = 0; i < 400; ++i) {
    packets.push_back(NamedPacket("p", i, 4000));
    const bool saved = Save(file, packets);
    if (saved) confirmed = packets;
    if (!saved && refused++ == 0) refused_at = i;
    ASSERT_EQ(saved, file.IsSaveComplete());
    if (i % 20 != 0 && saved) continue;
    CopyAsIfKilled(path, folder.File("copy"));
    ASSERT_EQ(confirmed, LoadMapped(folder.File("copy"))) << i;
  }
  EXPECT_GT(refused, 100);
  EXPECT_GT(LinesWith(2, "No space left on device"), 0);
  disk.Fill();
  EXPECT_FALSE(Save(file, packets));
  // The same content, or less, fits where it is.
  EXPECT_TRUE(Save(file, confirmed));
  confirmed.pop_back();
  EXPECT_TRUE(Save(file, confirmed));
  disk.Free();
  EXPECT_TRUE(Save(file, NamedPackets("after", 20, 4000)));
  file.Close();

  EXPECT_EQ(NamedPackets("after", 20, 4000), LoadMapped(path));
  std::cout << "full disk of 1 MiB: the save of " << refused_at + 1
            << " packets of 4000 bytes was the "
            << "first that was refused" << std::endl;
}

TEST(MmapFileFullDiskTest, OpenOnAFullDiskFailsOrWorksAndRecovers) {
  const SmallDisk disk("size=1m,mode=0700");
  if (!disk.is_mounted()) GTEST_SKIP() << "a file system can only be mounted by root";
  const std::string path = disk.File("channel.mmap");
  MultiProcessSafetyMmapFile file;
  disk.Fill();

  const bool opened = OpenFile(file, path);
  EXPECT_FALSE(opened && Save(file, NamedPackets("p", 20, 4000)));
  disk.Free();
  ASSERT_TRUE(opened || OpenFile(file, path));

  EXPECT_TRUE(Save(file, NamedPackets("p", 20, 4000)));
  file.Close();
  EXPECT_EQ(NamedPackets("p", 20, 4000), LoadMapped(path));
}

TEST(MmapFileFullDiskTest, RepairOnAFullDiskLosesNothing) {
  const SmallDisk disk("size=1m,mode=0700");
  if (!disk.is_mounted()) GTEST_SKIP() << "a file system can only be mounted by root";
  const std::string path = disk.File("channel.mmap");
  const Packets all = NamedPackets("p", 20, 4000);
  {
    MultiProcessSafetyMmapFile file;
    ASSERT_TRUE(OpenFile(file, path));
    ASSERT_TRUE(Save(file, all));
  }
  std::string bytes = ReadWholeFile(path);
  const StoredPacket hit = FindPacket(bytes, all[7]).at(0);
  bytes[hit.end - 1] = static_cast<char>(bytes[hit.end - 1] ^ 1);
  ASSERT_TRUE(WriteWholeFile(path, bytes));
  Packets intact = all;
  intact.erase(intact.begin() + 7);
  disk.Fill();

  const Packets found = LoadMapped(path);
  EXPECT_TRUE(found == intact || found == Packets{"cannot open"}) << Show(found);
  disk.Free();

  EXPECT_EQ(intact, LoadMapped(path));
  EXPECT_TRUE(ReadWholeFile(SetAside(path)) == bytes);
}

}  // namespace
}  // namespace quenor::test
