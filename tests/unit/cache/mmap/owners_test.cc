// Several owners of one file, all in this process: locks belong to the instance.
#include <algorithm>
#include <cstdio>
#include <iostream>
#include <memory>
#include <set>

#include "tests/unit/cache/mmap/mmap_file_fixture.h"

namespace quenor::test {
namespace {

class MmapFileOwnersTest : public MmapFileTest {
 protected:
  using Owner = std::unique_ptr<MultiProcessSafetyMmapFile>;

  Owner Join() {
    auto owner = std::make_unique<MultiProcessSafetyMmapFile>();
    EXPECT_TRUE(OpenFile(*owner, path_));
    return owner;
  }
};

TEST_F(MmapFileOwnersTest, AllSixtyThreeDeadLeaveEveryPacket) {
  std::set<std::string> saved, found;
  {
    std::vector<Owner> owners;
    for (size_t i = 0; i < MultiProcessSafetyMmapFile::kMaxOwners; ++i) {
      owners.push_back(Join());
      const Packets packets = NamedPackets("of " + std::to_string(i), 5, 64);
      ASSERT_TRUE(Save(*owners.back(), packets));
      saved.insert(packets.begin(), packets.end());
    }
  }

  for (int generation = 0; generation < 10; ++generation) {
    MultiProcessSafetyMmapFile heir;
    ASSERT_TRUE(OpenFile(heir, path_));
    const Packets packets = ReadAll(heir);
    EXPECT_LT(packets.size(), 200u);
    found.insert(packets.begin(), packets.end());
    ASSERT_TRUE(Save(heir, {}));
  }

  EXPECT_EQ(saved, found);
  EXPECT_EQ(Packets{}, LoadMapped(path_));
}

TEST_F(MmapFileOwnersTest, DeadLeaveTheirPlacesOnceTheirHeirHasSaved) {
  std::vector<Owner> owners;
  for (size_t i = 0; i < MultiProcessSafetyMmapFile::kMaxOwners; ++i) {
    owners.push_back(Join());
    ASSERT_TRUE(Save(*owners.back(), {NamedPacket("of", i, 30)}));
  }
  owners.clear();
  const Owner heir = Join();
  ASSERT_EQ(static_cast<size_t>(MultiProcessSafetyMmapFile::kMaxOwners), ReadAll(*heir).size());

  ASSERT_TRUE(Save(*heir, {"new"}));

  while (owners.size() + 1 < MultiProcessSafetyMmapFile::kMaxOwners) {
    owners.push_back(Join());
    ASSERT_EQ(Packets{}, ReadAll(*owners.back()));
  }
}

TEST_F(MmapFileOwnersTest, DeadStayApartInARepair) {
  {
    const Owner first = Join(), second = Join();
    ASSERT_TRUE(Save(*first, NamedPackets("first", 150, 20)));
    ASSERT_TRUE(Save(*second, NamedPackets("second", 150, 20)));
  }
  ASSERT_TRUE(WriteInto(path_, 0, "damaged"));

  const Owner heir = Join(), next = Join();

  EXPECT_EQ(NamedPackets("first", 150, 20), ReadAll(*heir));
  EXPECT_EQ(NamedPackets("second", 150, 20), ReadAll(*next));
}

// Three owners of one file, each led through steps that it may take at any time, and what the file
// has to hold.
class MmapFileTurnsTest : public MmapFileOwnersTest {
 protected:
  static constexpr size_t kHowMany = 3;
  using Sorted = std::multiset<std::string>;

  void SetUp() override {
    MmapFileOwnersTest::SetUp();
    for (One& one : ones_) one.file = Join();
  }

  struct One {
    Owner file;
    Packets content;  // Of its last complete save.
    bool is_under_way = false;
  };

  // Old packets in their order or not, and new ones: mostly few and short, at times long or many.
  Packets NextContent(const Packets& old) {
    Packets next = old;
    const uint64_t how = Below(random_, 12);
    if (how == 0) next.clear();
    if (how == 1) std::shuffle(next.begin(), next.end(), random_);
    const size_t dropped = Below(random_, std::min<size_t>(next.size(), how < 6 ? 400 : 4) + 1);
    next.erase(next.begin(), next.begin() + static_cast<long>(dropped));
    const size_t longest = how == 6 ? 30000 : 300;
    for (uint64_t n = how == 7 && next.size() < 200 ? 280 : Below(random_, 6); n > 0; --n) {
      next.push_back(NamedPacket("p", number_++, 12 + Below(random_, longest)));
    }
    return next;
  }

  void SaveWhole(One& one) {
    one.content = NextContent(one.content);
    ASSERT_TRUE(Save(*one.file, one.content));
    one.is_under_way = false;
  }

  // Announces more than it appends. Then it is left so, or ended by what is refused.
  void Abandon(One& one) {
    const uint64_t on_disk = BytesOnDisk(path_);
    Packets part = NextContent(one.content);
    const int64_t more =
        1 + static_cast<int64_t>(Below(random_, Below(random_, 4) == 0 ? 500000 : 90));
    ASSERT_TRUE(one.file->Clear(AnnouncedSize(part) + more));
    part.resize(part.size() - Below(random_, std::min<size_t>(part.size(), 3) + 1));
    for (const std::string& packet : part) ASSERT_TRUE(Append(*one.file, packet));
    ASSERT_FALSE(one.file->IsSaveComplete());
    const uint64_t end = Below(random_, 4);
    one.is_under_way = end != 0;
    if (end == 0) {
      ASSERT_FALSE(Append(*one.file, std::string(600000, 'x')));
      // Some file systems take 4 KiB for a file with holes.
      ASSERT_LE(BytesOnDisk(path_), on_disk + 4096);
    }
    if (end == 1) {
      ASSERT_FALSE(one.file->Clear(-1));
    }
    if (end > 1) return;
    for (const std::string& packet : one.content) ASSERT_FALSE(Append(*one.file, packet));
  }

  void ComeBack(One& one) {
    one.file.reset();
    one.file = Join();
    one.is_under_way = false;
    ASSERT_EQ(one.content, ReadAll(*one.file));
  }

  // What is found when all are killed: every content, and where nothing tells whose a packet is,
  // none that was in no complete save or was dropped since.
  void CheckKilled() {
    Sorted wanted;
    bool is_any_under_way = false;
    for (const One& one : ones_) {
      wanted.insert(one.content.begin(), one.content.end());
      is_any_under_way = is_any_under_way || one.is_under_way;
    }
    const std::string copy = folder_.File("killed");
    CopyAsIfKilled(path_, copy);
    ASSERT_EQ("", Difference(Found(copy), wanted));
    if (is_any_under_way) return;
    CheckSize();
    std::string bytes = ReadWholeFile(path_);
    std::fill(bytes.begin() + 256, bytes.begin() + 16384, '\0');
    ASSERT_TRUE(WriteWholeFile(copy, bytes));
    const Sorted found = Found(copy);
    ASSERT_EQ("", Difference(found, wanted));
    std::remove(SetAside(copy).c_str());
  }

  static std::string Difference(const Sorted& found, const Sorted& wanted) {
    std::string text;
    for (const std::string& packet : found) {
      if (found.count(packet) > wanted.count(packet)) text += Show({packet}) + " too often\n";
    }
    for (const std::string& packet : wanted) {
      if (found.count(packet) < wanted.count(packet)) text += Show({packet}) + " too seldom\n";
    }
    return text;
  }

  // By as many owners as it takes, each of whom passes over what would be too much.
  Sorted Found(const std::string& path) {
    Sorted found;
    std::vector<Owner> heirs;
    for (size_t i = 0; i < kHowMany; ++i) {
      heirs.push_back(std::make_unique<MultiProcessSafetyMmapFile>());
      EXPECT_TRUE(OpenFile(*heirs.back(), path));
      const Packets packets = ReadAll(*heirs.back());
      found.insert(packets.begin(), packets.end());
    }
    return found;
  }

  // While no save is under way. With 24 bytes of head and 16 of indexes for each packet.
  void CheckSize() {
    uint64_t most = 16384;
    for (const One& one : ones_) {
      uint64_t content = 0;
      for (const std::string& packet : one.content) content += (packet.size() + 31) / 8 * 8 + 16;
      most += content * 5 / 2 + (64 << 10);
    }
    ASSERT_LE(BytesOnDisk(path_), most);
  }

  const uint64_t seed_ = TestSeed();
  Random random_{seed_};
  One ones_[kHowMany];
  size_t number_ = 0;
};

TEST_F(MmapFileTurnsTest, SavesWholeAndAbandonedLoseNothingAndBringNothingBack) {
  SCOPED_TRACE("QUENOR_TEST_SEED=" + std::to_string(seed_));
  uint64_t checks = 0;
  for (int step = 0; step < 1000 && !HasFatalFailure(); ++step) {
    SCOPED_TRACE(step);
    One& one = ones_[Below(random_, kHowMany)];
    const uint64_t draw = Below(random_, 10);
    if (draw < 5) {
      SaveWhole(one);
    } else if (draw < 9) {
      Abandon(one);
    } else {
      ComeBack(one);
    }
    if (HasFatalFailure() || Below(random_, 3) != 0) continue;
    CheckKilled();
    ++checks;
  }
  for (One& one : ones_) SaveWhole(one);
  CheckSize();
  for (One& one : ones_) ASSERT_TRUE(Save(*one.file, one.content = {}));
  CheckSize();
  for (One& one : ones_) one.file.reset();

  EXPECT_EQ(16384u, SizeOf(path_));
  std::cout << "abandoned saves: 1000 steps, " << checks
            << " times killed; QUENOR_TEST_SEED=" << seed_ << std::endl;
}

}  // namespace
}  // namespace quenor::test
