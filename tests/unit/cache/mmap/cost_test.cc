// What the file costs: disk space against its content, memory, flushes.
#include <algorithm>
#include <cerrno>
#include <iostream>

#include "tests/support/memory_faults.h"
#include "tests/unit/cache/mmap/mmap_file_fixture.h"

namespace quenor::test {
namespace {

class MmapFileCostTest : public MmapFileTest {};

// What a content of one owner may take on the disk, its packets counted with their heads and their
// places in the index; and 4 KiB that some file systems take for a file with holes.
uint64_t MostOnDisk(const Packets& packets) {
  uint64_t needed = 0;
  for (const std::string& packet : packets) needed += (packet.size() + 31) / 8 * 8 + 16;
  return 5 * needed / 2 + (64 << 10) + 4096;
}

TEST_F(MmapFileCostTest, DiskSpaceIsBoundedByTheContentOverTenThousandSaves) {
  const uint64_t seed = TestSeed();
  Random random(seed);
  MultiProcessSafetyMmapFile file;
  ASSERT_TRUE(OpenFile(file, path_));
  Packets packets;
  double worst = 0;
  uint64_t worst_disk = 0, worst_content = 0, least = 0;

  uint64_t most = 200, longest = 300;

  for (int step = 0; step < 10000; ++step) {
    if (Below(random, 50) == 0) {  // Another load: few or many packets, short or long.
      most = 1 + Below(random, Below(random, 3) == 0 ? 5 : 200);
      longest = 1 + Below(random, Below(random, 8) == 0 ? 10000 : 400);
    }
    const size_t removed = Below(random, std::min<uint64_t>(packets.size(), 20) + 1);
    packets.erase(packets.begin(), packets.begin() + static_cast<long>(removed));
    for (uint64_t added = Below(random, 20); added > 0; --added) {
      packets.push_back(RandomBytes(random, 1 + Below(random, longest)));
    }
    if (packets.size() > most)
      packets.erase(packets.begin(), packets.end() - static_cast<long>(most));
    ASSERT_TRUE(Save(file, packets)) << step;
    const uint64_t content = static_cast<uint64_t>(AnnouncedSize(packets));
    const uint64_t disk = BytesOnDisk(path_);
    if (packets.empty()) least = std::max(least, disk);
    // What is spent whatever the content, and what is spent for each byte of it.
    ASSERT_LE(disk, MostOnDisk(packets)) << step;
    const double ratio = static_cast<double>(disk) / static_cast<double>(content + (64 << 10));
    if (ratio > worst) worst = ratio, worst_disk = disk, worst_content = content;
  }
  file.Close();

  std::cout << "size bound: 10000 saves, at most " << worst
            << " x (content + 64 KiB): " << worst_disk << " bytes on disk for " << worst_content
            << "; at most " << least << " for an empty content; QUENOR_TEST_SEED=" << seed
            << std::endl;
  EXPECT_EQ(packets, LoadMapped(path_));
}

// However it comes, and however much of it is new in each save.
TEST_F(MmapFileCostTest, OfLongPacketsIsBoundedByTwoAndAHalfTimesTheContent) {
  const Packets all = NamedPackets("long", 300, 65536);
  MultiProcessSafetyMmapFile file;
  ASSERT_TRUE(OpenFile(file, path_));
  const auto expect_bounded = [&](size_t first, size_t count) {
    const Packets packets(all.begin() + static_cast<long>(first),
                          all.begin() + static_cast<long>(first + count));
    ASSERT_TRUE(Save(file, packets)) << first << " " << count;
    ASSERT_LE(BytesOnDisk(path_), MostOnDisk(packets)) << first << " " << count;
    ASSERT_LE(SizeOf(path_), MostOnDisk(packets)) << first << " " << count;
  };

  for (size_t count = 20; count <= 200; count += 20) expect_bounded(0, count);
  for (size_t first = 5; first <= 100; first += 5) expect_bounded(first, 200);
  for (size_t first : {0, 150, 0, 150, 0}) expect_bounded(first, 150);
  for (size_t count : {100, 30, 10, 1, 0, 200}) expect_bounded(60, count);
  file.Close();

  EXPECT_EQ(200u, LoadMapped(path_).size());
}

TEST_F(MmapFileCostTest, AnOwnerThatClosesWithoutContentGivesItsRoomBack) {
  MultiProcessSafetyMmapFile file;
  ASSERT_TRUE(OpenFile(file, path_));
  ASSERT_TRUE(Save(file, NamedPackets("p", 5, 1000)) && Save(file, {}));
  ASSERT_GT(SizeOf(path_), 16384u);

  file.Close();

  EXPECT_EQ(16384u, SizeOf(path_)) << "more than the table";
}

// Even where a live owner's room is behind it.
TEST_F(MmapFileCostTest, RoomOfDeadOwnersReadsAsZerosOnceTheirHeirHasSaved) {
  MultiProcessSafetyMmapFile last, heir;
  {
    MultiProcessSafetyMmapFile first, second;
    ASSERT_TRUE(OpenFile(first, path_) && Save(first, {"first"}));
    ASSERT_TRUE(OpenFile(second, path_) && Save(second, {"second"}));
    ASSERT_TRUE(OpenFile(last, path_) && Save(last, {"last"}));
  }
  ASSERT_TRUE(OpenFile(heir, path_));
  ASSERT_EQ((Packets{"first", "second"}), ReadAll(heir));

  ASSERT_TRUE(Save(heir, {"heir"}));

  EXPECT_EQ(0u, FindPacket(ReadWholeFile(path_), "second").size());
  EXPECT_EQ(1u, FindPacket(ReadWholeFile(path_), "last").size());
}

// The content goes to and fro between two gaps, none of which makes the file shorter.
TEST_F(MmapFileCostTest, AnExtentThatCannotBeCutOffIsTriedOnce) {
  const Packets packets = NamedPackets("p", 200, 5000);
  MultiProcessSafetyMmapFile file;
  ASSERT_TRUE(OpenFile(file, path_) && Save(file, packets));
  FileCalls::FailEach(Call::kMmap, ENOMEM);

  EXPECT_TRUE(Save(file, {packets[0]}));

  FileCalls::Reset();
  file.Close();
  EXPECT_EQ(Packets{packets[0]}, LoadMapped(path_));
}

TEST_F(MmapFileCostTest, NoAllocationPerSaveInTheSteadyState) {
  Packets packets = NamedPackets("p", 150, 256);
  std::vector<std::string> fresh = NamedPackets("fresh", 400, 256);
  MultiProcessSafetyMmapFile file;
  ASSERT_TRUE(OpenFile(file, path_));
  size_t next = 0;
  const auto save_one_new = [&] {
    std::rotate(packets.begin(), packets.begin() + 1, packets.end());
    packets.back().swap(fresh[next++]);
    return Save(file, packets);
  };
  for (int i = 0; i < 200; ++i) ASSERT_TRUE(save_one_new());
  FileCalls::Reset();
  const MemoryFaults::Counter counter;

  bool saved = true;
  for (int i = 0; i < 200; ++i) saved = save_one_new() && saved;

  EXPECT_EQ(0u, counter.count());
  EXPECT_EQ(0u, FileCalls::Count(Call::kRealloc));
  EXPECT_TRUE(saved);
  // Nor does it map, allocate or flush: only locks and looks.
  for (const Call call : {Call::kOpen, Call::kMmap, Call::kMunmap, Call::kPosixFallocate,
                          Call::kFsync, Call::kMsync, Call::kPwrite}) {
    EXPECT_EQ(0u, FileCalls::Count(call)) << FileCalls::Name(call);
  }
}

uint64_t Flushes() {
  return FileCalls::Count(Call::kMsync) + FileCalls::Count(Call::kFsync) +
         FileCalls::Count(Call::kFdatasync);
}

TEST_F(MmapFileCostTest, DurabilityZeroFlushesNothing) {
  const DurabilityScope durability(0);
  MultiProcessSafetyMmapFile file;

  ASSERT_TRUE(OpenFile(file, path_));
  for (size_t i = 1; i < 30; ++i) ASSERT_TRUE(Save(file, NamedPackets("p", i, 1000)));

  file.Close();
  ASSERT_TRUE(WriteInto(path_, 0, "damaged"));
  EXPECT_EQ(29u, LoadMapped(path_).size());

  EXPECT_EQ(0u, Flushes());
  EXPECT_EQ(0u, FileCalls::Count(Call::kSyncFileRange));
}

TEST_F(MmapFileCostTest, DurabilityOneStartsWritingAndWaitsForNothing) {
  const DurabilityScope durability(1);
  MultiProcessSafetyMmapFile file;
  ASSERT_TRUE(OpenFile(file, path_));
  ASSERT_TRUE(Save(file, {"a"}));
  FileCalls::Reset();

  for (int i = 0; i < 10; ++i) ASSERT_TRUE(Save(file, NamedPackets("p", 10, 1000)));

  EXPECT_EQ(0u, Flushes());
  EXPECT_GE(FileCalls::Count(Call::kSyncFileRange), 10u);
}

class StartedRanges : public CallObserver {
 public:
  StartedRanges() { FileCalls::Observe(this); }
  ~StartedRanges() override { FileCalls::Observe(nullptr); }
  void After(const CallInfo& info) override {
    if (info.call == Call::kSyncFileRange) ranges_.push_back(info);
  }
  bool Has(const StoredPacket& packet) const {
    return std::any_of(ranges_.begin(), ranges_.end(), [&](const CallInfo& info) {
      return info.offset <= packet.begin && packet.end <= info.offset + info.size;
    });
  }

 private:
  std::vector<CallInfo> ranges_;
};

TEST_F(MmapFileCostTest, DurabilityOneStartsWritingOfEachPacketWhereItIs) {
  const DurabilityScope durability(1);
  MultiProcessSafetyMmapFile file;
  ASSERT_TRUE(OpenFile(file, path_));
  for (const char* packet : {"first", "second"}) {
    const StartedRanges started;
    ASSERT_TRUE(Save(file, {packet}));
    EXPECT_TRUE(started.Has(FindPacket(ReadWholeFile(path_), packet).at(0))) << packet;
  }
}

TEST_F(MmapFileCostTest, DurabilityTwoFlushesEverySave) {
  const DurabilityScope durability(2);
  MultiProcessSafetyMmapFile file;
  ASSERT_TRUE(OpenFile(file, path_));

  for (size_t i = 0; i < 10; ++i) {
    const uint64_t before = FileCalls::Count(Call::kMsync);
    ASSERT_TRUE(Save(file, NamedPackets("p", i, 1000)));
    EXPECT_GE(FileCalls::Count(Call::kMsync), before + 1) << i;
  }
  std::cout << "flushes of 10 saves at durability 2: " << Flushes() << std::endl;
}

TEST_F(MmapFileCostTest, DurabilityIsReadAtOpenOnly) {
  MultiProcessSafetyMmapFile file;
  ASSERT_TRUE(OpenFile(file, path_));
  const DurabilityScope durability(2);

  ASSERT_TRUE(Save(file, {"a"}));

  EXPECT_EQ(0u, FileCalls::Count(Call::kMsync));
}

TEST_F(MmapFileCostTest, DurabilityThatMeansNothingIsLoggedAndCountsAsZero) {
  const DurabilityScope durability(3);
  MultiProcessSafetyMmapFile file;

  ASSERT_TRUE(OpenFile(file, path_));
  ASSERT_TRUE(Save(file, {"a"}));

  EXPECT_EQ(1, LinesWith(2, "quenor.report.cache_durability=3"));
  EXPECT_EQ(0u, Flushes());
}

}  // namespace
}  // namespace quenor::test
