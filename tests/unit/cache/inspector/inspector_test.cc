#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>

#include "quenor_base/platform/cache_file_inspector.h"
#include "services/mmap_file_posix/format.h"
#include "tests/cache/support/cache_files.h"
#include "tests/cache/support/file_calls.h"
#include "tests/support/fakes/recording_log.h"
#include "tests/support/temp_folder.h"

namespace quenor::test {
namespace {

using mmap_format::OwnerRecord;
using mmap_format::Seal;
using Result = CacheFileInspector::Result;

struct Shown : CacheFileInspector::Visitor {
  Result result = Result::kUnreadable;
  CacheFileInspector::Summary summary;
  std::string error;
  std::map<uint32_t, CacheFileInspector::Owner> owners;
  std::map<uint32_t, Packets> packets;

  explicit Shown(const std::string& path) {
    result = CacheFileInspector::Inspect(base::FilePath(path), this, &summary, &error);
  }
  void OnOwner(const CacheFileInspector::Owner& owner) override {
    EXPECT_TRUE(owners.emplace(owner.number, owner).second);
  }
  void OnPacket(const CacheFileInspector::Owner& owner, const uint8_t* data,
                uint32_t size) override {
    packets[owner.number].emplace_back(reinterpret_cast<const char*>(data), size);
  }

  Packets All() const {
    Packets all;
    for (const auto& [owner, of_owner] : packets) {
      all.insert(all.end(), of_owner.begin(), of_owner.end());
    }
    std::sort(all.begin(), all.end());
    return all;
  }
  bool AgreesWithItself() const {
    for (const auto& [number, owner] : owners) {
      const auto found = packets.find(number);
      if (owner.packets != (found == packets.end() ? 0 : found->second.size())) return false;
    }
    return true;
  }
};

Packets Sorted(Packets packets) {
  std::sort(packets.begin(), packets.end());
  return packets;
}

class InspectorTest : public ::testing::Test {
 protected:
  void SetUp() override { RecordingLog::Clear(); }
  void TearDown() override { FileCalls::Reset(); }

  void LeaveMapped(const Packets& packets) {
    MultiProcessSafetyMmapFile file;
    ASSERT_TRUE(OpenFile(file, mapped_) && Save(file, packets));
  }

  bool SavePlain(const Packets& packets) {
    ReliableReportCacheFile file;
    return OpenFile(file, plain_) && Save(file, packets);
  }

  // Lets a test write into an owner's record as a writer would, or as no writer would.
  template <typename Change>
  void ChangeRecord(uint32_t owner, const Change& change) {
    std::string bytes = ReadWholeFile(mapped_);
    OwnerRecord record;
    char* const at = bytes.data() + mmap_format::RecordOffset(owner);
    std::memcpy(static_cast<void*>(&record), at, sizeof record);
    change(&record);
    std::memcpy(at, static_cast<const void*>(&record), sizeof record);
    ASSERT_TRUE(WriteWholeFile(mapped_, bytes));
  }
  static Seal* InForce(OwnerRecord* record) {
    Seal* newest = nullptr;
    for (Seal& seal : record->seals) {
      const bool valid = seal.check == mmap_format::CheckOf(seal);
      if (valid && (newest == nullptr || seal.save_number > newest->save_number)) newest = &seal;
    }
    return newest;
  }
  // What is in force of that heir says so.
  void LetStandFor(uint32_t heir, uint32_t owner) {
    ChangeRecord(heir, [owner](OwnerRecord* record) {
      Seal* const seal = InForce(record);
      ASSERT_NE(nullptr, seal);
      seal->superseded = uint64_t{1} << owner;
      seal->check = mmap_format::CheckOf(*seal);
    });
  }

  TempFolder folder_;
  const std::string mapped_ = folder_.File("channel.mmap");
  const std::string plain_ = folder_.File("channel.cache");
};

TEST_F(InspectorTest, ShowsEachOwnerWithItsPacketsInOrderAndWhetherItLives) {
  MultiProcessSafetyMmapFile live;
  {
    MultiProcessSafetyMmapFile dead;
    ASSERT_TRUE(OpenFile(dead, mapped_) && OpenFile(live, mapped_));
    ASSERT_TRUE(Save(dead, {"one", "two"}) && Save(live, {"b", "a"}));
  }

  const Shown shown(mapped_);

  ASSERT_EQ(Result::kOk, shown.result) << shown.error;
  EXPECT_FALSE(shown.summary.damaged);
  EXPECT_TRUE(shown.summary.mapped);
  ASSERT_EQ(2u, shown.owners.size());
  EXPECT_FALSE(shown.owners.at(1).live);
  EXPECT_TRUE(shown.owners.at(2).live);
  EXPECT_LT(shown.owners.at(1).save_number, shown.owners.at(2).save_number);
  EXPECT_EQ((Packets{"one", "two"}), shown.packets.at(1));
  EXPECT_EQ((Packets{"b", "a"}), shown.packets.at(2));
  EXPECT_EQ(6u, shown.owners.at(1).bytes);
}

TEST_F(InspectorTest, LeavesTheFileAsItIs) {
  LeaveMapped({"one", "two"});
  const std::string before = ReadWholeFile(mapped_);

  const Shown shown(mapped_);

  EXPECT_EQ(before, ReadWholeFile(mapped_));
  EXPECT_EQ((Packets{"one", "two"}), LoadMapped(mapped_));
}

TEST_F(InspectorTest, WhatAnHeirHasClaimedIsShownOnce) {
  LeaveMapped({"left"});
  MultiProcessSafetyMmapFile heir;
  ASSERT_TRUE(OpenFile(heir, mapped_));

  EXPECT_EQ((Packets{"left"}), Shown(mapped_).All());
  ASSERT_TRUE(Save(heir, {"left", "new"}));
  EXPECT_EQ((Packets{"left", "new"}), Shown(mapped_).All());
}

// In a file that nobody has open: exactly what the next start will find, whatever byte was hit.
TEST_F(InspectorTest, ShowsOfADamagedMappedFileWhatTheNextOpenFinds) {
  LeaveMapped({"one", "two", "three"});
  {
    MultiProcessSafetyMmapFile first, second;
    ASSERT_TRUE(OpenFile(first, mapped_) && OpenFile(second, mapped_));
    ASSERT_TRUE(Save(first, {"two", "three", "four"}) && Save(second, {"x", "yy"}));
    ASSERT_TRUE(Save(first, {"three", "four"}));
  }
  const std::string good = ReadWholeFile(mapped_);
  size_t damaged = 0;
  for (size_t at = 0; at < good.size(); ++at) {
    // The table's used part and the extents' used parts; the rest is zeros.
    if (good[at] == 0 && at % 512 != 0) continue;
    std::string bytes = good;
    bytes[at] = static_cast<char>(bytes[at] ^ 0x40);
    ASSERT_TRUE(WriteWholeFile(mapped_, bytes));

    const Shown shown(mapped_);

    ASSERT_EQ(Result::kOk, shown.result) << at << " " << shown.error;
    EXPECT_TRUE(shown.AgreesWithItself());
    damaged += shown.summary.damaged ? 1 : 0;
    EXPECT_EQ(shown.All(), Sorted(LoadMapped(mapped_))) << "byte " << at;
    std::remove(SetAside(mapped_).c_str());
    if (HasFailure()) return;
  }
  EXPECT_GT(damaged, 200u);
}

TEST_F(InspectorTest, ShowsOfADamagedPlainFileWhatTheNextOpenFinds) {
  {
    ReliableReportCacheFile file;
    ASSERT_TRUE(OpenFile(file, plain_));
    ASSERT_TRUE(Save(file, {"one", "two", "three"}) && Save(file, {"two", "three", "four"}));
  }
  const std::string good = ReadWholeFile(plain_);
  size_t damaged = 0;
  for (size_t at = 0; at < good.size(); ++at) {
    std::string bytes = good;
    bytes[at] = static_cast<char>(bytes[at] ^ 0x40);
    ASSERT_TRUE(WriteWholeFile(plain_, bytes));

    const Shown shown(plain_);

    // A file that does not say what it is is nobody's; Open() knows it by its name.
    if (shown.result == Result::kNotOurs) continue;
    ASSERT_EQ(Result::kOk, shown.result) << at << " " << shown.error;
    damaged += shown.summary.damaged ? 1 : 0;
    EXPECT_EQ(shown.All(), Sorted(LoadPlain(plain_))) << "byte " << at;
    std::remove(SetAside(plain_).c_str());
  }
  EXPECT_GT(damaged, good.size() / 2);
}

// No writer leaves it, and its check is right: it must neither stop every start nor grow the file.
TEST_F(InspectorTest, SealOfNothingInAnExtentBehindTheEndIsRepaired) {
  LeaveMapped({"one"});
  {
    MultiProcessSafetyMmapFile file;
    ASSERT_TRUE(OpenFile(file, mapped_) && Save(file, {"two"}));
    ASSERT_TRUE(Save(file, {}));
    CopyAsIfKilled(mapped_, folder_.File("copy"));
  }
  ASSERT_EQ(0, rename(folder_.File("copy").c_str(), mapped_.c_str()));
  ChangeRecord(1, [](OwnerRecord* record) {
    Seal* const seal = InForce(record);
    ASSERT_NE(nullptr, seal);
    ASSERT_EQ(0u, seal->packets);
    seal->extent_offset = uint64_t{1} << 49;
    seal->check = mmap_format::CheckOf(*seal);
  });

  const Shown shown(mapped_);
  EXPECT_TRUE(shown.summary.damaged);
  const Packets found = LoadMapped(mapped_);

  EXPECT_EQ(shown.All(), Sorted(found));
  EXPECT_NE(Packets{"cannot open"}, found);
  EXPECT_LT(SizeOf(mapped_), uint64_t{1} << 20);
}

// Zeros where the older seal was, as a disk leaves them: what else they were written over is not
// known, so the file is read and written anew.
TEST_F(InspectorTest, EmptiedSealIsDamage) {
  {
    MultiProcessSafetyMmapFile file;
    ASSERT_TRUE(OpenFile(file, mapped_) && Save(file, {"one"}) && Save(file, {"one", "two"}));
    CopyAsIfKilled(mapped_, folder_.File("copy"));
  }
  ASSERT_EQ(0, rename(folder_.File("copy").c_str(), mapped_.c_str()));
  ChangeRecord(1, [](OwnerRecord* record) {
    Seal* const seal = InForce(record);
    ASSERT_NE(nullptr, seal);
    (seal == &record->seals[0] ? record->seals[1] : record->seals[0]) = Seal();
  });

  EXPECT_TRUE(Shown(mapped_).summary.damaged);
  EXPECT_EQ((Packets{"one", "two"}), LoadMapped(mapped_));
}

// The next number is under no check: numbers that began again would put old content in force.
TEST_F(InspectorTest, NumbersNearTheirEndDoNotBeginAgain) {
  for (const uint64_t number : {UINT64_MAX, uint64_t{1} << 63, mmap_format::kSaveNumberLimit}) {
    LeaveMapped({"old"});
    std::string bytes = ReadWholeFile(mapped_);
    std::memcpy(bytes.data() + offsetof(mmap_format::Header, next_save_number), &number,
                sizeof number);
    ASSERT_TRUE(WriteWholeFile(mapped_, bytes));
    {
      MultiProcessSafetyMmapFile file;
      ASSERT_TRUE(OpenFile(file, mapped_) && Save(file, {"new"}) && Save(file, {"newer"}));
    }
    EXPECT_EQ(Packets{"newer"}, LoadMapped(mapped_)) << number;
    EXPECT_FALSE(Exists(SetAside(mapped_)));
  }
}

TEST_F(InspectorTest, SealWithANumberBeyondAnyFileIsRepaired) {
  for (const bool again : {false, true}) {  // In either of the record's seals.
    LeaveMapped({"one"});
    if (again) LeaveMapped({"one"});
    ChangeRecord(1, [](OwnerRecord* record) {
      Seal* const seal = InForce(record);
      ASSERT_NE(nullptr, seal);
      seal->save_number = 2 * mmap_format::kSaveNumberLimit - 1;
      seal->check = mmap_format::CheckOf(*seal);
    });
    {
      MultiProcessSafetyMmapFile file;
      ASSERT_TRUE(OpenFile(file, mapped_));
      EXPECT_EQ(Packets{"one"}, ReadAll(file));
      EXPECT_EQ(0, unlink(SetAside(mapped_).c_str())) << again;
      ASSERT_TRUE(Save(file, {"two"}) && Save(file, {"three"}));
    }
    EXPECT_EQ(Packets{"three"}, LoadMapped(mapped_)) << again;
    EXPECT_FALSE(Exists(SetAside(mapped_))) << again;
    ASSERT_EQ(0, unlink(mapped_.c_str()));
  }
}

// Nothing is shown of a file that cannot be read to its end.
TEST_F(InspectorTest, WhateverTheSystemRefusesIsToldOrDoesNotMatter) {
  MultiProcessSafetyMmapFile dead, live;
  const std::string damaged = folder_.File("damaged.mmap");
  ASSERT_TRUE(OpenFile(dead, mapped_) && Save(dead, {"one", "two"}));
  ASSERT_TRUE(WriteWholeFile(damaged, ReadWholeFile(mapped_)) && WriteInto(damaged, 0, "damage"));
  ASSERT_TRUE(OpenFile(live, mapped_) && Save(live, {"three"}));
  ASSERT_TRUE(SavePlain({"four", "five"}));
  for (const std::string& path : {mapped_, damaged, plain_}) {
    FileCalls::Reset();
    const Shown undisturbed(path);
    const Packets all = undisturbed.All();
    ASSERT_GE(all.size(), 2u) << undisturbed.error;
    EXPECT_LT(FileCalls::Count(Call::kPread), 1000u) << "it is read again for nothing";
    for (const Call call : {Call::kPread, Call::kFstat, Call::kFcntl}) {
      int harmless = 0;  // The answer to what kind of file it is, or a lock that is not to be had.
      for (int nth = 1;; ++nth) {
        FileCalls::Fail(call, nth, EACCES);
        const Shown shown(path);
        if (!FileCalls::HasFailed()) break;
        SCOPED_TRACE(path + ", " + FileCalls::Name(call) + " number " + std::to_string(nth));
        if (shown.result == Result::kOk) {
          ASSERT_EQ(all, shown.All());
          ASSERT_EQ(1, ++harmless);
          continue;
        }
        ASSERT_EQ(Result::kUnreadable, shown.result);
        ASSERT_NE(std::string::npos, shown.error.find(std::strerror(EACCES))) << shown.error;
      }
    }
  }
}

// A dead heir's seal stands for that record: once settled it must not come back to life.
TEST_F(InspectorTest, DamagedRecordThatAnotherStandsForIsEmptiedAtTheNextOpen) {
  LeaveMapped({"mine"});
  {
    MultiProcessSafetyMmapFile first, second;
    ASSERT_TRUE(OpenFile(first, mapped_) && OpenFile(second, mapped_));
    ASSERT_TRUE(Save(second, {"left"}) && Save(first, {"mine"}));
  }
  LetStandFor(1, 2);
  ChangeRecord(2, [](OwnerRecord* record) {
    for (Seal& seal : record->seals) seal.check ^= 1;
  });

  EXPECT_EQ((Packets{"mine"}), LoadMapped(mapped_));
  EXPECT_EQ((Packets{"mine"}), LoadMapped(mapped_));
  EXPECT_FALSE(Shown(mapped_).summary.damaged);
  EXPECT_FALSE(Exists(SetAside(mapped_)));
}

// No writer wrote that; either of the two seals may be the one in force.
TEST_F(InspectorTest, NoSealStandsForItsOwnContent) {
  for (const Packets& saved : {Packets{"a"}, Packets{"a", "b"}}) {
    unlink(mapped_.c_str());
    {
      MultiProcessSafetyMmapFile file;
      ASSERT_TRUE(OpenFile(file, mapped_));
      for (const std::string& packet : saved) ASSERT_TRUE(Save(file, {packet}));
    }
    LetStandFor(1, 1);

    EXPECT_EQ(Packets{saved.back()}, Shown(mapped_).All());
  }
}

// Killed while it is written, the next seal must have the other one to fall back on.
TEST_F(InspectorTest, AnHeirsNextSaveLeavesTheSealBeforeItWhole) {
  {
    MultiProcessSafetyMmapFile first, second;
    ASSERT_TRUE(OpenFile(first, mapped_) && OpenFile(second, mapped_));
    ASSERT_TRUE(Save(first, {"one"}) && Save(second, {"two"}));
  }
  {
    MultiProcessSafetyMmapFile heir;
    ASSERT_TRUE(OpenFile(heir, mapped_) && Save(heir, {"two"}) && Save(heir, {"three"}));
  }
  ChangeRecord(1, [](OwnerRecord* record) {
    for (const Seal& seal : record->seals) EXPECT_EQ(mmap_format::CheckOf(seal), seal.check);
  });
}

TEST_F(InspectorTest, WhatTheLastRecordStandsForIsShownOnce) {
  {
    MultiProcessSafetyMmapFile owners[mmap_format::kOwners];
    for (MultiProcessSafetyMmapFile& owner : owners) ASSERT_TRUE(OpenFile(owner, mapped_));
    ASSERT_TRUE(Save(owners[0], {"left"}));
    ASSERT_TRUE(Save(owners[mmap_format::kOwners - 1], {"left", "new"}));
  }
  LetStandFor(mmap_format::kOwners, 1);

  EXPECT_EQ((Packets{"left", "new"}), Shown(mapped_).All());
  EXPECT_EQ((Packets{"left", "new"}), LoadMapped(mapped_));
}

TEST_F(InspectorTest, PurgeLeavesALiveOwnersFileAlone) {
  MultiProcessSafetyMmapFile live;
  ASSERT_TRUE(OpenFile(live, mapped_) && Save(live, {"a"}));
  uint64_t packets = 0;
  std::string error;

  EXPECT_EQ(Result::kInUse, CacheFileInspector::Purge(base::FilePath(mapped_), &packets, &error));
  EXPECT_NE(std::string::npos, error.find(mapped_));
  EXPECT_TRUE(Exists(mapped_));

  live.Close();
  EXPECT_EQ(Result::kOk, CacheFileInspector::Purge(base::FilePath(mapped_), &packets, &error));
  EXPECT_EQ(1u, packets);
  EXPECT_FALSE(Exists(mapped_));
}

TEST_F(InspectorTest, PurgeRemovesWhatWasSetAsideToo) {
  ASSERT_TRUE(SavePlain({"a", "b"}));
  ASSERT_TRUE(WriteWholeFile(SetAside(plain_), "old"));
  uint64_t packets = 0;
  std::string error;

  EXPECT_EQ(Result::kOk, CacheFileInspector::Purge(base::FilePath(plain_), &packets, &error));

  EXPECT_EQ(2u, packets);
  EXPECT_FALSE(Exists(plain_) || Exists(SetAside(plain_)));
}

TEST_F(InspectorTest, NamesWhatIsNoCacheFile) {
  ASSERT_TRUE(WriteWholeFile(folder_.File("notes.txt"), std::string(40000, 'n')));
  EXPECT_EQ(Result::kNotOurs, Shown(folder_.File("notes.txt")).result);
  const Shown missing(folder_.File("nothing"));
  EXPECT_EQ(Result::kNotFound, missing.result);
  EXPECT_NE(std::string::npos, missing.error.find("nothing"));
  EXPECT_NE(std::string::npos, missing.error.find("; give the path of a cache file"));
}

}  // namespace
}  // namespace quenor::test
