// Clear() and AppendDataPacket(): when a save begins, completes and is void.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <set>

#include "tests/unit/cache/mmap/mmap_file_fixture.h"

namespace quenor::test {
namespace {

class MmapFileSaveTest : public MmapFileTest {
 protected:
  void SetUp() override {
    MmapFileTest::SetUp();
    ASSERT_TRUE(OpenFile(file_, path_));
    ASSERT_TRUE(Save(file_, {"old one", "old two"}));
  }

  // What another process finds when this one is killed now.
  Packets Found() {
    CopyAsIfKilled(path_, folder_.File("killed"));
    return LoadMapped(folder_.File("killed"));
  }
  const Packets old_ = {"old one", "old two"};
  MultiProcessSafetyMmapFile file_;
};

TEST_F(MmapFileSaveTest, OfMorePacketsThanTheRoomWishedForHasPlacesComesBack) {
  const std::string path = folder_.File("roomy.mmap");
  // Much room, and few places in its index.
  MultiProcessSafetyMmapFile file;
  ASSERT_TRUE(file.Open(base::FilePath(path), base::MemoryMappedFile::READ_WRITE_EXTEND, 200000));

  Packets packets;
  for (size_t count = 0; count < 600; ++count) {
    packets.push_back(NamedPacket("p", count, 20));
    ASSERT_TRUE(Save(file, packets)) << count;
    if (count % 64 > 2) continue;
    CopyAsIfKilled(path, folder_.File("copy"));
    ASSERT_EQ(packets, LoadMapped(folder_.File("copy"))) << count;
  }
  file.Close();

  EXPECT_EQ(packets, LoadMapped(path));
}

TEST_F(MmapFileSaveTest, ClearedBeforeCompletionLeavesTheOldContent) {
  ASSERT_TRUE(file_.Clear(100));
  ASSERT_TRUE(Append(file_, "never complete"));

  ASSERT_TRUE(file_.Clear(AnnouncedSize({"a", "b"})));
  EXPECT_EQ(old_, Found());
  ASSERT_TRUE(Append(file_, "a"));
  EXPECT_EQ(old_, Found());
  ASSERT_TRUE(Append(file_, "b"));

  EXPECT_EQ((Packets{"a", "b"}), Found());
}

TEST_F(MmapFileSaveTest, ClearedAHundredTimesWithoutCompletionDoesNotGrowTheFile) {
  const std::string packet(20000, 'p');
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(file_.Clear(AnnouncedSize({packet, packet})));
    ASSERT_TRUE(Append(file_, packet));
  }
  const uint64_t size = SizeOf(path_);

  for (int i = 0; i < 100; ++i) {
    ASSERT_TRUE(file_.Clear(AnnouncedSize({packet, packet})));
    ASSERT_TRUE(Append(file_, packet));
  }

  EXPECT_EQ(size, SizeOf(path_));
  EXPECT_EQ(old_, Found());
}

TEST_F(MmapFileSaveTest, BeyondAnyDiskIsRefusedAndLeavesTheOldContent) {
  const uint64_t on_disk = BytesOnDisk(path_);
  const int64_t most = int64_t{1} << 40;
  EXPECT_TRUE(file_.Clear(most));
  for (const int64_t size :
       {most + 1, int64_t{1} << 46, int64_t{1} << 61, std::numeric_limits<int64_t>::max() - 5000,
        std::numeric_limits<int64_t>::max()}) {
    EXPECT_FALSE(file_.Clear(size)) << size;
    EXPECT_FALSE(file_.IsSaveComplete());
    EXPECT_EQ(old_, Found()) << size;
  }
  EXPECT_LE(BytesOnDisk(path_), on_disk + (1 << 20));
  EXPECT_TRUE(Save(file_, {"next"}));
  EXPECT_EQ(Packets{"next"}, Found());
}

TEST_F(MmapFileSaveTest, TakesAPacketThatIsItsOwnMappedContent) {
  file_.Close();
  ASSERT_TRUE(OpenFile(file_, path_));
  Packets read;
  for (MmapDataPacket p = file_.GetNextDataPacket(); p.size != 0; p = file_.GetNextDataPacket()) {
    read.emplace_back(reinterpret_cast<const char*>(p.data), p.size);
  }

  ASSERT_TRUE(Save(file_, {read[1], read[0], read[1]}));

  EXPECT_EQ((Packets{"old two", "old one", "old two"}), Found());
}

// An old packet in each of the ways that a save can have it: at its place, elsewhere, twice, not at
// all; and new ones between them.
Packets ShuffledAndMixed(Random& random, const Packets& old, size_t* number) {
  Packets packets = old;
  const uint64_t how = Below(random, 6);
  if (how == 0) std::shuffle(packets.begin(), packets.end(), random);
  if (how == 1 && packets.size() > 1)
    std::rotate(packets.begin(), packets.end() - 1, packets.end());
  for (uint64_t i = Below(random, 4); i > 0 && !packets.empty(); --i) {
    const long at = how == 2 ? 0 : static_cast<long>(Below(random, packets.size()));
    packets.erase(packets.begin() + at);
  }
  for (uint64_t i = Below(random, 4); i > 0 && packets.size() < 60; --i) {
    const uint64_t where = how == 2 ? packets.size() : Below(random, packets.size() + 1);
    packets.insert(packets.begin() + static_cast<long>(where),
                   NamedPacket("p", (*number)++, 20 + Below(random, 60)));
  }
  if (how == 3 && !packets.empty()) packets.push_back(packets[Below(random, packets.size())]);
  return packets;
}

// Headers of packets that no completed save has dropped, wherever they are in the file.
size_t LivePackets(const std::string& bytes) {
  const std::string live("QNP\x1aLIVE");
  size_t count = 0;
  for (size_t at = bytes.find(live); at != std::string::npos; at = bytes.find(live, at + 1))
    ++count;
  return count;
}

TEST_F(MmapFileSaveTest, OfOldPacketsInAnyOrderKeepsThemAndMarksTheOthersAsDropped) {
  const uint64_t seed = TestSeed();
  Random random(seed);
  Packets packets = old_;
  size_t number = 0;
  // So much room that no save has to begin anew elsewhere, which leaves some behind.
  file_.Close();
  ASSERT_TRUE(file_.Open(base::FilePath(path_), base::MemoryMappedFile::READ_WRITE_EXTEND, 40000));
  ASSERT_TRUE(Save(file_, NamedPackets("first", 1, 20000)));

  for (int step = 0; step < 150; ++step) {
    packets = ShuffledAndMixed(random, packets, &number);
    ASSERT_TRUE(Save(file_, packets)) << step;

    ASSERT_EQ(packets, Found()) << "step " << step << ", QUENOR_TEST_SEED=" << seed;
    const std::set<std::string> different(packets.begin(), packets.end());
    // A packet that is there twice may have been copied once for each.
    const size_t live = LivePackets(ReadWholeFile(path_));
    ASSERT_GE(live, different.size()) << "step " << step << ", QUENOR_TEST_SEED=" << seed;
    ASSERT_LE(live, packets.size()) << "step " << step << ", QUENOR_TEST_SEED=" << seed;
  }
}

TEST_F(MmapFileSaveTest, OfANewPacketBeforeAsManyOldOnesAsTheIndexHolds) {
  MultiProcessSafetyMmapFile file;
  const std::string path = folder_.File("wished.mmap");
  // Room for many more packets than the 256 places of the smallest index.
  ASSERT_TRUE(file.Open(base::FilePath(path), base::MemoryMappedFile::READ_WRITE_EXTEND, 100000));
  ASSERT_TRUE(Save(file, {NamedPacket("p", 0, 16)}));
  Packets packets = NamedPackets("p", 256, 16);
  ASSERT_TRUE(Save(file, packets));

  packets.insert(packets.begin(), NamedPacket("new", 0, 16));
  ASSERT_TRUE(Save(file, packets));

  file.Close();
  EXPECT_EQ(packets, LoadMapped(path));
}

// In whatever order, after saves of new ones, and by the next owner too.
TEST_F(MmapFileSaveTest, OfKnownPacketsWritesNoneOfThemAgain) {
  const Packets known = NamedPackets("known", 20, 100);
  ASSERT_TRUE(Save(file_, known));
  Packets packets = known;
  for (int round = 0; round < 4; ++round) {
    std::reverse(packets.begin(), packets.begin() + 20);
    packets.resize(20);
    packets.push_back(NamedPacket("new", static_cast<size_t>(round), 10));
    ASSERT_TRUE(Save(file_, packets));
    for (const std::string& packet : known) {
      ASSERT_EQ(1u, FindPacket(ReadWholeFile(path_), packet).size()) << round;
    }
    file_.Close();
    ASSERT_TRUE(OpenFile(file_, path_));
  }
}

TEST_F(MmapFileSaveTest, OfAPacketTwiceThenOnceKeepsItsOnlyCopyLive) {
  for (const Packets& packets : {Packets{"a", "b"}, Packets{"a", "a"}, Packets{"a"}}) {
    ASSERT_TRUE(Save(file_, packets));
    file_.Close();
    ASSERT_TRUE(OpenFile(file_, path_));
  }

  ASSERT_EQ(1u, FindPacket(ReadWholeFile(path_), "a").size());
  EXPECT_EQ(1u, LivePackets(ReadWholeFile(path_)));
}

TEST_F(MmapFileSaveTest, ThatIsVoidAfterItHasMovedLeavesTheFileInUse) {
  MultiProcessSafetyMmapFile neighbour;
  ASSERT_TRUE(OpenFile(neighbour, path_) && Save(neighbour, {"behind the old extent"}));
  const Packets large = NamedPackets("large", 10, 4000);
  ASSERT_TRUE(file_.Clear(AnnouncedSize(large) + 5));
  for (const std::string& packet : large) ASSERT_TRUE(Append(file_, packet));
  ASSERT_FALSE(Append(file_, "too much"));

  EXPECT_TRUE(Save(file_, {"next"}));

  EXPECT_EQ(0, LinesWith(2, ""));
  EXPECT_EQ((Packets{"behind the old extent", "next"}), Found());
}

TEST_F(MmapFileSaveTest, ForWhichTheSystemHasNoRoomSaysWhy) {
  FileCalls::FailEach(Call::kPosixFallocate, EDQUOT);

  EXPECT_FALSE(Save(file_, NamedPackets("large", 50, 1000)));

  EXPECT_EQ(1, LinesWith(2, std::strerror(EDQUOT)));
  FileCalls::Reset();
  EXPECT_EQ(old_, Found());
}

// Of more packets than a short index has places, in the 12 KiB that there are.
TEST_F(MmapFileSaveTest, WhoseIndexFindsNoRoomLeavesTheOldContent) {
  for (const size_t size : {8, 16, 24}) {
    MultiProcessSafetyMmapFile file;
    const std::string path = folder_.File(std::to_string(size));
    const Packets packets = NamedPackets("p", 253, size);
    ASSERT_TRUE(OpenFile(file, path) && Save(file, {"old"}));
    FileCalls::FailEach(Call::kPosixFallocate, ENOSPC);

    const bool saved = Save(file, packets);
    FileCalls::Reset();

    EXPECT_EQ(size == 8, saved) << size;
    CopyAsIfKilled(path, folder_.File("killed"));
    EXPECT_EQ(saved ? packets : Packets{"old"}, LoadMapped(folder_.File("killed"))) << size;
    EXPECT_TRUE(Save(file, packets)) << size;
  }
}

TEST_F(MmapFileSaveTest, OfTheOldPacketsIsVoidWhenOneTooMuchComes) {
  ASSERT_TRUE(file_.Clear(AnnouncedSize(old_) + 3));
  ASSERT_TRUE(Append(file_, "old one"));
  ASSERT_TRUE(Append(file_, "old two"));

  EXPECT_FALSE(Append(file_, "old two"));
  EXPECT_FALSE(Append(file_, "old one"));

  EXPECT_FALSE(file_.IsSaveComplete());
  EXPECT_EQ(old_, Found());
  ASSERT_TRUE(Save(file_, {"old two"}));
  EXPECT_EQ(Packets{"old two"}, Found());
}

TEST_F(MmapFileSaveTest, RefusesAnOldPacketWithoutItsBytes) {
  ASSERT_TRUE(file_.Clear(AnnouncedSize(old_)));
  ASSERT_TRUE(Append(file_, "old one"));

  EXPECT_FALSE(file_.AppendDataPacket({nullptr, 7}));

  EXPECT_EQ(old_, Found());
}

}  // namespace
}  // namespace quenor::test
