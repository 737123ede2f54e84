// The power goes, at durability 2: sectors that were not flushed are there or not, old or new, in
// any order. What the last save that returned true wrote comes back, or the one under way, whole.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <string>

#include "tests/cache/torn_disk.h"
#include "tests/support/fakes/recording_log.h"
#include "tests/support/temp_folder.h"

namespace quenor::test {
namespace {

struct Tally {
  uint64_t cases = 0, confirmed = 0, under_way = 0, more = 0, lost = 0, moments = 0, flushes = 0;
  std::string first_more, first_loss;
};

Packets NextContent(const Packets& packets, Random& random, size_t* number) {
  Packets next = packets;
  switch (Below(random, 8)) {
    case 0:
      next.clear();
      break;
    case 1:
      for (int i = 0; i < 40; ++i) next.push_back(NamedPacket("grown", (*number)++, 700));
      break;
    case 2:
      if (next.size() > 3) next.resize(2);
      break;
    case 3:
      std::reverse(next.begin(), next.end());
      break;
    default:
      if (!next.empty()) next.erase(next.begin());
      next.push_back(NamedPacket("new", (*number)++, 1 + Below(random, 1500)));
      if (Below(random, 2) == 0) next.push_back(NamedPacket("new", (*number)++, 50));
  }
  return next;
}

void DrawLosses(const TornDisk& disk, const std::string& path, int cases, Random& random,
                Packets (*load)(const std::string&), Tally* tally) {
  FileCalls::Reset();
  tally->moments += disk.losses().size();
  tally->flushes += disk.flushes();
  for (int i = 0; i < cases; ++i) {
    const size_t moment = Below(random, disk.losses().size());
    const PowerLoss& loss = disk.losses()[moment];
    ASSERT_TRUE(WriteWholeFile(path, loss.Draw(random)));
    std::remove(SetAside(path).c_str());
    RecordingLog::Clear();

    const Packets found = load(path);

    ++tally->cases;
    if (found == loss.confirmed) {
      ++tally->confirmed;
    } else if (found == loss.under_way) {
      ++tally->under_way;
    } else {
      // Beside the whole content something that a former save had dropped: sent twice, not lost.
      const bool is_more = Includes(found, loss.confirmed) || Includes(found, loss.under_way);
      std::string* const first = is_more ? &tally->first_more : &tally->first_loss;
      if ((is_more ? tally->more : tally->lost)++ > 0) continue;
      *first = "moment " + std::to_string(moment) + " of " + std::to_string(disk.losses().size()) +
               ": found " + Show(found) + "\n  confirmed " + Show(loss.confirmed) +
               "\n  under way " + Show(loss.under_way);
      for (const std::string& line : RecordingLog::Texts()) *first += "\n  log: " + line;
    }
  }
}

enum class Allowed { kWholeOnly, kMore };
void Report(const char* name, const Tally& tally, Allowed allowed, uint64_t seed) {
  std::cout << name << ": " << tally.cases << " power losses at " << tally.moments << " moments ("
            << tally.flushes << " flushes), " << tally.confirmed << " left the confirmed content, "
            << tally.under_way << " the one under way, " << tally.more << " more than one of them, "
            << tally.lost << " less; QUENOR_TEST_SEED=" << seed << std::endl;
  EXPECT_EQ("", tally.first_loss);
  if (allowed == Allowed::kWholeOnly) {
    EXPECT_EQ("", tally.first_more);
  }
  EXPECT_GT(tally.under_way, 0u) << "the power went nowhere near a save";
}

TEST(TornWriteTest, MappedFileHoldsTheLastSaveThatReturned) {
  const uint64_t seed = TestSeed();
  Random random(seed);
  const DurabilityScope durability(2);
  Tally tally;
  for (int script = 0; script < (FullLength() ? 100 : 10); ++script) {
    const TempFolder folder;
    const std::string path = folder.File("channel.mmap");
    Packets packets;
    size_t number = 0;
    if (script % 2 == 0) {  // What two dead owners left is taken over.
      MultiProcessSafetyMmapFile first, second;
      ASSERT_TRUE(OpenFile(first, path) && OpenFile(second, path));
      packets = NamedPackets("left", 7, 400);
      ASSERT_TRUE(Save(first, Packets(packets.begin(), packets.begin() + 3)));
      ASSERT_TRUE(Save(second, Packets(packets.begin() + 3, packets.end())));
    } else {
      ASSERT_TRUE(WriteWholeFile(path, ""));
    }
    FileCalls::Reset();
    TornDisk disk(path);
    disk.SetContents(packets, packets);
    FileCalls::Observe(&disk);
    {
      MultiProcessSafetyMmapFile file;
      ASSERT_TRUE(OpenFile(file, path));
      ASSERT_EQ(packets, ReadAll(file));
      for (int save = 0; save < 12; ++save) {
        const Packets next = NextContent(packets, random, &number);
        disk.SetContents(packets, next);
        ASSERT_TRUE(file.Clear(AnnouncedSize(next)));
        disk.Look();
        for (const std::string& packet : next) {
          ASSERT_TRUE(Append(file, packet));
          if (next.size() < 10) disk.Look();
        }
        ASSERT_TRUE(file.IsSaveComplete());
        packets = next;
        disk.SetContents(packets, packets);
        disk.Look();
      }
    }
    disk.Look();
    FileCalls::Reset();
    DrawLosses(
        disk, folder.File("after"), FullLength() ? 100 : 50, random,
        [](const std::string& file) { return LoadMapped(file); }, &tally);
  }
  Report("torn writes, mapped file", tally, Allowed::kWholeOnly, seed);
}

TEST(TornWriteTest, PlainFileHoldsTheLastSaveThatWasComplete) {
  const uint64_t seed = TestSeed();
  Random random(seed);
  const DurabilityScope durability(2);
  Tally tally;
  for (int script = 0; script < (FullLength() ? 100 : 10); ++script) {
    const TempFolder folder;
    const std::string path = folder.File("channel.cache");
    ASSERT_TRUE(WriteWholeFile(path, ""));
    Packets before, packets;
    size_t number = 0;
    FileCalls::Reset();
    TornDisk disk(path);
    FileCalls::Observe(&disk);
    {
      ReliableReportCacheFile file;
      ASSERT_TRUE(OpenFile(file, path));
      for (int save = 0; save < 12; ++save) {
        const Packets next = NextContent(packets, random, &number);
        // Clear() completes the save before: either may be there until it returns.
        disk.SetContents(before, packets);
        ASSERT_TRUE(file.Clear());
        disk.SetContents(packets, next);
        disk.Look();
        for (const std::string& packet : next) ASSERT_TRUE(Append(file, packet));
        disk.Look();
        ASSERT_TRUE(file.IsSaveComplete());
        before = packets;
        packets = next;
      }
      disk.SetContents(before, packets);
    }
    disk.SetContents(packets, packets);
    disk.Look();
    FileCalls::Reset();
    DrawLosses(
        disk, folder.File("after"), FullLength() ? 100 : 50, random,
        [](const std::string& file) { return LoadPlain(file); }, &tally);
  }
  Report("torn writes, plain file", tally, Allowed::kMore, seed);
}

}  // namespace
}  // namespace quenor::test
