// What goes in comes back: contents of every shape, over restarts.
#include <algorithm>
#include <iostream>

#include "tests/unit/cache/mmap/mmap_file_fixture.h"

namespace quenor::test {
namespace {

class MmapFileContentsTest : public MmapFileTest {};

TEST_F(MmapFileContentsTest, IsThereWhenTheProcessIsKilledAfterTheSave) {
  MultiProcessSafetyMmapFile file;
  ASSERT_TRUE(OpenFile(file, path_));
  ASSERT_TRUE(Save(file, {"a", "b"}));

  CopyAsIfKilled(path_, folder_.File("copy"));

  EXPECT_EQ((Packets{"a", "b"}), LoadMapped(folder_.File("copy")));
  EXPECT_EQ(0, LinesWith(2, ""));
}

TEST_F(MmapFileContentsTest, OfAnotherOwnerStaysUntilTheFirstSave) {
  Leave({"a", "b"});
  MultiProcessSafetyMmapFile file;
  ASSERT_TRUE(OpenFile(file, path_));
  ASSERT_EQ((Packets{"a", "b"}), ReadAll(file));

  CopyAsIfKilled(path_, folder_.File("copy"));
  EXPECT_EQ((Packets{"a", "b"}), LoadMapped(folder_.File("copy")));
  file.Close();

  EXPECT_EQ((Packets{"a", "b"}), LoadMapped(path_));
}

TEST_F(MmapFileContentsTest, OfEmptyPacketsAloneIsNoContent) {
  Leave({"", "", ""});

  EXPECT_EQ(Packets{}, LoadMapped(path_, 5));
  EXPECT_FALSE(Exists(SetAside(path_)));
}

TEST_F(MmapFileContentsTest, ReadingEndsAtTheFirstClear) {
  Leave({"a", "b", "c"});
  MultiProcessSafetyMmapFile file;
  ASSERT_TRUE(OpenFile(file, path_));
  ASSERT_EQ(1u, file.GetNextDataPacket().size);

  ASSERT_TRUE(file.Clear(5));

  EXPECT_EQ(Packets{}, ReadAll(file, 3));
}

TEST_F(MmapFileContentsTest, ReadPacketStaysAsItIsUntilTheNextCall) {
  Leave({NamedPacket("one", 1, 5000), NamedPacket("two", 2, 5000)});
  MultiProcessSafetyMmapFile file;
  ASSERT_TRUE(OpenFile(file, path_));

  const MmapDataPacket packet = file.GetNextDataPacket();
  ASSERT_EQ(Packets{}, LoadMapped(folder_.File("another")));

  EXPECT_EQ(NamedPacket("one", 1, 5000),
            std::string(reinterpret_cast<const char*>(packet.data), packet.size));
}

TEST_F(MmapFileContentsTest, OfEverySizeUpToAThousandComesBack) {
  Random random(1);
  Packets packets;
  for (size_t size = 1; size <= 1000; ++size) packets.push_back(RandomBytes(random, size));

  Leave(packets);

  EXPECT_EQ(packets, LoadMapped(path_));
}

TEST_F(MmapFileContentsTest, OfSizesAroundPagesAndUnitsComesBack) {
  Random random(2);
  Packets packets;
  for (size_t around : {4096, 8192, 16384, 32768, 65536, 262144}) {
    for (int delta = -33; delta <= 33; ++delta) {
      packets.assign(1, RandomBytes(random, around + static_cast<size_t>(delta)));
      Leave(packets);
      ASSERT_EQ(packets, LoadMapped(path_)) << around << " " << delta;
    }
  }
}

TEST_F(MmapFileContentsTest, OfOneBytePacketsComesBack) {
  Packets packets;
  for (int i = 0; i < 700; ++i) packets.emplace_back(1, static_cast<char>(i % 256));

  Leave(packets);

  EXPECT_EQ(packets, LoadMapped(path_));
}

TEST_F(MmapFileContentsTest, OfPacketsOfAMebibyteComesBack) {
  Random random(3);
  Packets packets;
  for (int i = 0; i < 4; ++i) packets.push_back(RandomBytes(random, 1 << 20));

  Leave(packets);

  EXPECT_EQ(packets, LoadMapped(path_));
}

TEST_F(MmapFileContentsTest, OfFiveThousandPacketsComesBackAndIsReplaced) {
  const Packets packets = NamedPackets("many", 5000, 40);

  Leave(packets);
  ASSERT_EQ(packets, LoadMapped(path_));
  Leave({"one"});

  EXPECT_EQ(Packets{"one"}, LoadMapped(path_));
}

TEST_F(MmapFileContentsTest, OfEqualLengthsAndOtherBytesIsTheNewOne) {
  Packets packets(20, std::string(100, 'x'));
  MultiProcessSafetyMmapFile file;
  ASSERT_TRUE(OpenFile(file, path_));
  ASSERT_TRUE(Save(file, packets));

  for (size_t i = 0; i < packets.size(); ++i) {
    packets[i][99] = 'y';
    ASSERT_TRUE(Save(file, packets));
    CopyAsIfKilled(path_, folder_.File("copy"));
    ASSERT_EQ(packets, LoadMapped(folder_.File("copy"))) << i;
  }
}

TEST_F(MmapFileContentsTest, WithAnotherByteAnywhereIsTheNewOne) {
  Packets packets(3, std::string(200, 'x'));
  MultiProcessSafetyMmapFile file;
  ASSERT_TRUE(OpenFile(file, path_));
  ASSERT_TRUE(Save(file, packets));

  for (size_t at = 0; at < 200; ++at) {
    packets[at % 3][at] = 'y';
    ASSERT_TRUE(Save(file, packets));
    CopyAsIfKilled(path_, folder_.File("copy"));
    ASSERT_EQ(packets, LoadMapped(folder_.File("copy"))) << at;
  }
}

// One acknowledged, one new, some put back, some dropped; every few saves the process is killed.
TEST_F(MmapFileContentsTest, OfAnyHistoryIsTheLastSaved) {
  const uint64_t seed = TestSeed();
  std::cout << "QUENOR_TEST_SEED=" << seed << std::endl;
  Random random(seed);
  Packets packets;
  size_t next = 0;
  MultiProcessSafetyMmapFile file;
  ASSERT_TRUE(OpenFile(file, path_));

  for (int step = 0; step < 1500; ++step) {
    switch (Below(random, 6)) {
      case 0:
        packets.insert(packets.begin(), RandomBytes(random, Below(random, 50)));
        break;
      case 1:
        if (!packets.empty())
          packets.erase(packets.begin() + static_cast<long>(Below(random, packets.size())));
        break;
      case 2:
        if (!packets.empty()) packets.push_back(packets[Below(random, packets.size())]);
        break;
      case 3:
        if (Below(random, 10) == 0) packets.clear();
        break;
      default:
        packets.push_back(NamedPacket("new", next++, 1 + Below(random, 1000)));
    }
    packets.erase(std::remove(packets.begin(), packets.end(), std::string()), packets.end());
    ASSERT_TRUE(Save(file, packets)) << step;
    if (Below(random, 10) != 0) continue;
    const bool killed = Below(random, 2) == 0;
    const std::string copy = folder_.File("copy");
    if (killed) CopyAsIfKilled(path_, copy);
    file.Close();
    const std::string& there = killed ? copy : path_;
    ASSERT_TRUE(OpenFile(file, there));
    ASSERT_EQ(packets, ReadAll(file)) << "step " << step << (killed ? ", killed" : ", closed");
    if (killed) {
      file.Close();
      ASSERT_TRUE(OpenFile(file, path_));
    }
  }
  EXPECT_EQ(0, LinesWith(2, ""));
}

}  // namespace
}  // namespace quenor::test
