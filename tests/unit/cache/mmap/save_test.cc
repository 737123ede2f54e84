// Clear() and AppendDataPacket(): when a save begins, completes and is void.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

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

// Headers of packets that no completed save has dropped, wherever they are in the file.
size_t LivePackets(const std::string& bytes) {
  const std::string live("QNP\x1aLIVE");
  size_t count = 0;
  for (size_t at = bytes.find(live); at != std::string::npos; at = bytes.find(live, at + 1))
    ++count;
  return count;
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

// Whole packets are in the extent that it had moved to; nothing names them.
TEST_F(MmapFileSaveTest, ThatWasKilledAfterItHasMovedDoesNotComeBackInARepair) {
  MultiProcessSafetyMmapFile neighbour;
  ASSERT_TRUE(OpenFile(neighbour, path_) && Save(neighbour, {"behind the old extent"}));
  const Packets large = NamedPackets("large", 10, 4000);
  ASSERT_TRUE(file_.Clear(AnnouncedSize(large) + 5));
  for (const std::string& packet : large) ASSERT_TRUE(Append(file_, packet));
  CopyAsIfKilled(path_, folder_.File("killed"));
  std::string bytes = ReadWholeFile(folder_.File("killed"));
  ASSERT_NE(std::string::npos, bytes.find(large.back()));
  const size_t damaged = bytes.find("old one");
  ASSERT_NE(std::string::npos, damaged);
  bytes[damaged] = '!';
  ASSERT_TRUE(WriteWholeFile(folder_.File("killed"), bytes));

  EXPECT_EQ((Packets{"old two", "behind the old extent"}), LoadMapped(folder_.File("killed")));
}

TEST_F(MmapFileSaveTest, ForWhichTheSystemHasNoRoomSaysWhy) {
  FileCalls::FailEach(Call::kPosixFallocate, EDQUOT);

  EXPECT_FALSE(Save(file_, NamedPackets("large", 50, 1000)));

  EXPECT_EQ(1, LinesWith(2, std::strerror(EDQUOT)));
  FileCalls::Reset();
  EXPECT_EQ(old_, Found());
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
