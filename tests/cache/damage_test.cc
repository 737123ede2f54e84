// Damaged files: whatever happens to their bytes, every packet whose own bytes are intact comes
// back, nothing that was never saved does, and nobody crashes or hangs. QUENOR_CACHE_FULL=1 for all
// cases.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>

#include "services/mmap_file_posix/format.h"
#include "services/mmap_file_posix/reader.h"
#include "tests/cache/damage_bench.h"
#include "tests/cache/support/cache_kind.h"

namespace quenor::test {
namespace {

Packets Slice(const Packets& packets, size_t begin, size_t end) {
  return Packets(packets.begin() + static_cast<long>(begin),
                 packets.begin() + static_cast<long>(end));
}

// One owner's file with a past: dropped packets, two seals, a content that has moved about.
DamageBench AgedMapped() {
  const TempFolder folder;
  const Packets all = NamedPackets("aged", 12, 90);
  MultiProcessSafetyMmapFile file;
  EXPECT_TRUE(OpenFile(file, folder.File("f")));
  EXPECT_TRUE(Save(file, Slice(all, 0, 4)));
  EXPECT_TRUE(Save(file, Slice(all, 1, 7)));
  EXPECT_TRUE(Save(file, Slice(all, 3, 9)));
  return DamageBench(kMappedKind, ReadWholeFile(folder.File("f")), Slice(all, 3, 9),
                     Slice(all, 0, 3));
}

// Three owners' contents, each saved a few times, one begun and not completed.
DamageBench CrowdedMapped() {
  const TempFolder folder;
  Packets content, former;
  MultiProcessSafetyMmapFile owners[3];
  for (size_t i = 0; i < 3; ++i) {
    const Packets all = NamedPackets("owner " + std::to_string(i), 30, 150 + 100 * i);
    EXPECT_TRUE(OpenFile(owners[i], folder.File("f")));
    EXPECT_TRUE(Save(owners[i], Slice(all, 0, 20)));
    EXPECT_TRUE(Save(owners[i], Slice(all, 5, 30)));
    for (const std::string& packet : Slice(all, 5, 30)) content.push_back(packet);
    for (const std::string& packet : Slice(all, 0, 5)) former.push_back(packet);
  }
  EXPECT_TRUE(owners[1].Clear(1000));
  EXPECT_TRUE(Append(owners[1], NamedPacket("never complete", 0, 300)));
  former.push_back(NamedPacket("never complete", 0, 300));
  return DamageBench(kMappedKind, ReadWholeFile(folder.File("f")), content, former);
}

// A plain file with a past: dropped packets, seals, an order, a save that a kill has cut short.
DamageBench AgedPlain() {
  const TempFolder folder;
  const Packets all = NamedPackets("aged", 40, 130);
  ReliableReportCacheFile file;
  EXPECT_TRUE(OpenFile(file, folder.File("f")));
  EXPECT_TRUE(Save(file, Slice(all, 0, 10)));
  EXPECT_TRUE(Save(file, Slice(all, 3, 25)));
  EXPECT_TRUE(Save(file, Slice(all, 8, 38)));
  EXPECT_TRUE(file.Clear() && Append(file, all[30]) && Append(file, all[20]));
  EXPECT_TRUE(Append(file, all[38]) && Append(file, all[39]));
  return DamageBench(kPlainKind, ReadWholeFile(folder.File("f")), Slice(all, 8, 40),
                     Slice(all, 0, 8));
}

void Report(const char* test, const DamageBench& bench, uint64_t seed = 0) {
  std::cout << test << ": " << bench;
  if (seed != 0) std::cout << "; QUENOR_TEST_SEED=" << seed;
  std::cout << std::endl;
  EXPECT_EQ("", bench.fault());
}

std::string At(const char* what, uint64_t at) { return what + (" at " + std::to_string(at)); }

// What is not `thorough` leaves out most bytes that mean nothing and have none that do around them,
// and most bits but the lowest.
void FlipEveryByte(DamageBench& bench, bool thorough) {
  std::string bytes = bench.image();
  const auto matters = [&](size_t at) {
    for (size_t i = at < 8 ? 0 : at - 8; i < std::min(at + 8, bytes.size()); ++i) {
      if (bytes[i] != 0) return true;
    }
    return at % 61 == 0;
  };
  for (size_t at = 0; at < bytes.size(); ++at) {
    if (!thorough && !matters(at)) continue;
    for (const char mask : {char(0x01), char(0x80), char(0xff)}) {
      if (!thorough && mask != 0x01 && at % 7 != 0) continue;
      bytes[at] = static_cast<char>(bytes[at] ^ mask);
      bench.Try(bytes, At("a flip", at));
      bytes[at] = static_cast<char>(bytes[at] ^ mask);
    }
  }
}

void CutAtEveryLength(DamageBench& bench) {
  const std::string& image = bench.image();
  for (size_t size = 0; size < image.size(); size += FullLength() || size < 300 ? 1 : 37) {
    bench.Try(image.substr(0, size), At("cut", size));
  }
}

void ZeroRanges(DamageBench& bench, Random& random) {
  const std::string& image = bench.image();
  for (const size_t unit : {size_t{512}, size_t{4096}, size_t{16384}}) {
    for (size_t at = 0; at < image.size(); at += unit) {
      std::string bytes = image;
      bytes.replace(at, unit, std::min(unit, image.size() - at), '\0');
      bench.Try(bytes, At("zeros", at) + " of " + std::to_string(unit));
    }
  }
  for (int i = 0; i < (FullLength() ? 5000 : 300); ++i) {
    const size_t at = Below(random, image.size());
    const size_t size = 1 + Below(random, Below(random, 2) == 0 ? 300 : image.size() - at);
    const size_t fits = std::min(size, image.size() - at);
    std::string bytes = image;
    bytes.replace(at, fits, fits, '\0');
    bench.Try(bytes, At("zeros", at) + " of " + std::to_string(fits));
  }
}

void CorruptAtRandom(DamageBench& bench, Random& random, int cases) {
  const std::string& image = bench.image();
  for (int i = 0; i < cases; ++i) {
    std::string bytes = image;
    std::string what = "corruption " + std::to_string(i) + ":";
    for (uint64_t wounds = 1 + Below(random, 4); wounds > 0 && !bytes.empty(); --wounds) {
      // Rather where something is than in the empty rest.
      size_t at = Below(random, bytes.size());
      for (int tries = 0; tries < 8 && bytes[at] == 0; ++tries) at = Below(random, bytes.size());
      const size_t most = std::min<size_t>(bytes.size() - at, 1 + Below(random, 3000));
      what += " " + std::to_string(at) + "+" + std::to_string(most);
      switch (Below(random, 7)) {
        case 0:
          bytes[at] = static_cast<char>(random());
          what += " byte";
          break;
        case 1:
          bytes.replace(at, most, RandomBytes(random, most));
          what += " noise";
          break;
        case 2:
          bytes.replace(at, most, most, '\0');
          what += " zeros";
          break;
        case 3: {  // A sector of the file itself, in another place.
          if (bytes.size() < 512) break;
          const size_t from = Below(random, bytes.size() / 512) * 512;
          const size_t to = Below(random, bytes.size() / 512) * 512;
          bytes.replace(to, 512, bytes.substr(from, 512));
          what += " sector " + std::to_string(from) + " to " + std::to_string(to);
          break;
        }
        case 4:
          bytes.replace(at, most, most, '\xff');
          what += " ones";
          break;
        case 5:
          for (size_t byte = at; byte < at + std::min<size_t>(most, 64); ++byte) {
            bytes[byte] = static_cast<char>(bytes[byte] ^ (1 << Below(random, 8)));
          }
          what += " flips";
          break;
        default:
          if (Below(random, 4) == 0) {
            bytes.resize(at);
            what += " cut";
          } else {
            bytes.append(RandomBytes(random, Below(random, 40000)));
            what += " more";
          }
      }
    }
    bench.Try(bytes, what);
  }
}

TEST(MmapFileDamageTest, AnyByteFlippedCostsOnlyThePacketItIsIn) {
  DamageBench bench = AgedMapped();
  FlipEveryByte(bench, FullLength());
  Report("flips, one owner", bench);
}

TEST(MmapFileDamageTest, AnyByteFlippedAmongSeveralOwnersCostsOnlyThePacketItIsIn) {
  if (!FullLength()) GTEST_SKIP() << "only with QUENOR_CACHE_FULL=1";
  DamageBench bench = CrowdedMapped();
  FlipEveryByte(bench, false);  // Thorough, it takes as long as all other tests of damage.
  Report("flips, three owners", bench);
}

TEST(MmapFileDamageTest, CutAtAnyLengthKeepsWhatIsBeforeTheCut) {
  DamageBench aged = AgedMapped();
  CutAtEveryLength(aged);
  Report("cuts, one owner", aged);
  if (!FullLength()) return;
  DamageBench crowded = CrowdedMapped();
  CutAtEveryLength(crowded);
  Report("cuts, three owners", crowded);
}

TEST(MmapFileDamageTest, ZeroedRangesCostOnlyWhatIsInThem) {
  const uint64_t seed = TestSeed();
  Random random(seed);
  DamageBench aged = AgedMapped();
  ZeroRanges(aged, random);
  Report("zeros, one owner", aged, seed);
  DamageBench crowded = CrowdedMapped();
  ZeroRanges(crowded, random);
  Report("zeros, three owners", crowded, seed);
}

TEST(MmapFileDamageTest, RandomCorruptionCostsOnlyWhatItHits) {
  const uint64_t seed = TestSeed();
  Random random(seed);
  const int cases = FullLength() ? 5000 : 400;
  DamageBench aged = AgedMapped();
  CorruptAtRandom(aged, random, cases);
  Report("corruption, one owner", aged, seed);
  DamageBench crowded = CrowdedMapped();
  CorruptAtRandom(crowded, random, cases);
  Report("corruption, three owners", crowded, seed);
}

// As after a write to the wrong place: whose seal it is, only the extent that it names tells.
TEST(MmapFileDamageTest, SealsInAnotherOwnersRecordCostNothingThatIsIntact) {
  using mmap_format::kRecordSize;
  using mmap_format::RecordOffset;
  DamageBench bench = CrowdedMapped();
  for (uint32_t from = 1; from <= 3; ++from) {
    for (uint32_t to = 1; to <= 3; ++to) {
      std::string bytes = bench.image();
      bytes.replace(RecordOffset(to), kRecordSize, bench.image(), RecordOffset(from), kRecordSize);
      bench.Try(bytes, "record " + std::to_string(from) + " at " + std::to_string(to));
    }
  }
  Report("records that moved", bench);
}

// The owner's record is gone, and so is all that the extent held.
TEST(MmapFileDamageTest, HeadOfAnExtentInUseIsEnoughToTellOfALoss) {
  using namespace mmap_format;
  DamageBench bench = AgedMapped();
  std::string bytes = bench.image();
  bytes.replace(RecordOffset(1), kRecordSize, kRecordSize, '\0');
  bytes.resize(kTableSize + sizeof(ExtentHeader));
  bench.Try(bytes, "nothing but a head");
  Report("nothing but a head", bench);
}

TEST(PlainFileDamageTest, AnyDamageCostsOnlyThePacketsItHits) {
  const uint64_t seed = TestSeed();
  Random random(seed);
  DamageBench flips = AgedPlain();
  FlipEveryByte(flips, FullLength());
  Report("flips", flips);
  DamageBench cuts = AgedPlain();
  CutAtEveryLength(cuts);
  Report("cuts", cuts);
  DamageBench zeros = AgedPlain();
  ZeroRanges(zeros, random);
  Report("zeros", zeros, seed);
  DamageBench corruption = AgedPlain();
  CorruptAtRandom(corruption, random, FullLength() ? 10000 : 400);
  Report("corruption", corruption, seed);
}

// Files that were never ours, or of a version that we do not know: put aside as they are, and what
// follows is as with no file.
template <typename Kind>
class CacheForeignTest : public CacheKindTest<Kind> {
 protected:
  void ExpectSetAside(const std::string& content) {
    std::remove(SetAside(this->path_).c_str());
    ASSERT_TRUE(WriteWholeFile(this->path_, content));
    RecordingLog::Clear();
    typename Kind::File file;

    ASSERT_TRUE(OpenFile(file, this->path_));

    EXPECT_EQ(Packets{}, ReadAll(file));
    EXPECT_TRUE(content == ReadWholeFile(SetAside(this->path_)));
    EXPECT_GE(LinesWith(2, SetAside(this->path_)), 1);
    EXPECT_FALSE(Exists(Recovered(this->path_)));
    EXPECT_TRUE(Save(file, {"new"}));
    file.Close();
    EXPECT_EQ(Packets{"new"}, Kind::Load(this->path_));
  }
};
TYPED_TEST_SUITE(CacheForeignTest, CacheKinds, CacheKindName);

TYPED_TEST(CacheForeignTest, TextIsSetAside) {
  this->ExpectSetAside("Dear reader,\n");
  this->ExpectSetAside("Dear diary,\n" + std::string(50000, 'Q') + "QcP\x1aQcS\x1a");
}

TYPED_TEST(CacheForeignTest, AnotherProgramsBinaryIsSetAside) {
  this->ExpectSetAside(ReadWholeFile("/proc/self/exe"));
}

TYPED_TEST(CacheForeignTest, OfTheNextVersionIsKeptAsItIs) {
  ASSERT_TRUE(this->SaveAt(this->path_, {"a", "b"}));
  const std::string header = TypeParam::NextHeader();
  this->ExpectSetAside(ReadWholeFile(this->path_).replace(0, header.size(), header));
}

TYPED_TEST(CacheForeignTest, SparseAndHugeIsSetAsideWithoutReadingItAll) {
  ASSERT_TRUE(WriteWholeFile(this->path_, "something"));
  ASSERT_EQ(0, truncate(this->path_.c_str(), off_t{1} << 40));
  const uint64_t before = FileCalls::Count(Call::kPread);
  typename TypeParam::File file;

  ASSERT_TRUE(OpenFile(file, this->path_));

  EXPECT_EQ(Packets{}, ReadAll(file));
  EXPECT_LE(FileCalls::Count(Call::kPread) - before, 1100u);  // Windows of 64 KiB in 64 MiB.
  EXPECT_EQ(uint64_t{1} << 40, SizeOf(SetAside(this->path_)));
  EXPECT_TRUE(Save(file, {"new"}));
}

// Damage of someone else's while the file is in use, and what the mapped one is searched for.
class MmapFileForeignTest : public CacheKindTest<Mapped> {};

TEST_F(MmapFileForeignTest, NothingButZerosIsNoLoss) {
  for (const size_t size : {1, 100, 16384, 16385, 100000}) {
    ASSERT_TRUE(WriteWholeFile(path_, std::string(size, '\0')));
    EXPECT_EQ(Packets{}, LoadMapped(path_));
    EXPECT_TRUE(SaveAt(path_, {"new"})) << size;
    EXPECT_EQ(Packets{"new"}, LoadMapped(path_)) << size;
  }
}

TEST_F(MmapFileForeignTest, OursGrownToAHugeSparseFileKeepsItsContent) {
  ASSERT_TRUE(SaveAt(path_, {"a", "b"}));
  ASSERT_EQ(0, truncate(path_.c_str(), off_t{1} << 40));

  EXPECT_EQ((Packets{"a", "b"}), LoadMapped(path_));
  EXPECT_EQ((Packets{"a", "b"}), LoadMapped(path_));
}

// Without its table, packets are found by their own bytes alone; `hole` bytes further back.
void LoseTheTable(const std::string& path, uint64_t hole = 0) {
  const std::string extents = ReadWholeFile(path).substr(mmap_format::kTableSize);
  ASSERT_TRUE(WriteWholeFile(path, ""));
  ASSERT_TRUE(WriteInto(path, mmap_format::kTableSize + hole, extents));
}

TEST_F(MmapFileForeignTest, PacketsBehindALongHoleAreFound) {
  ASSERT_TRUE(SaveAt(path_, {"a", "b"}));
  ASSERT_NO_FATAL_FAILURE(LoseTheTable(path_, 2 * mmap_format::Reader::kMaxSearchedBytes));

  EXPECT_EQ((Packets{"a", "b"}), LoadMapped(path_));
}

// At the place where one would stand, in the second unit of the outer one.
TEST_F(MmapFileForeignTest, APacketInsideAPacketIsNone) {
  ASSERT_TRUE(SaveAt(path_, {"inner"}));
  const std::string bytes = ReadWholeFile(path_);
  const StoredPacket inner = FindPacket(bytes, "inner").at(0);
  std::string outer(24000, 'o');
  outer.replace(16000, inner.end - inner.begin, bytes, inner.begin, inner.end - inner.begin);
  ASSERT_TRUE(SaveAt(path_, {outer, "after"}));
  ASSERT_NO_FATAL_FAILURE(LoseTheTable(path_));

  EXPECT_TRUE((Packets{outer, "after"}) == LoadMapped(path_));
}

TEST_F(MmapFileForeignTest, ABadPageCostsOnlyThePacketsThatAreInIt) {
  Packets packets = NamedPackets("p", 40, 1000);
  ASSERT_TRUE(SaveAt(path_, packets));
  const uint64_t page = FindPacket(ReadWholeFile(path_), packets[20]).at(0).begin / 4096 * 4096;
  ASSERT_NO_FATAL_FAILURE(LoseTheTable(path_));
  const std::string bytes = ReadWholeFile(path_);
  packets.erase(std::remove_if(packets.begin(), packets.end(),
                               [&](const std::string& packet) {
                                 const StoredPacket at = FindPacket(bytes, packet).at(0);
                                 return at.begin < page + 4096 && at.end > page;
                               }),
                packets.end());
  FileCalls::SetBadPage(path_, page);

  EXPECT_EQ(packets, LoadMapped(path_));
  EXPECT_GE(packets.size(), 34u);
}

TEST_F(MmapFileForeignTest, ASearchReadsOnceMoreWhatTheDiskFailedToRead) {
  ASSERT_TRUE(SaveAt(path_, {"a", "b"}));
  ASSERT_NO_FATAL_FAILURE(LoseTheTable(path_));
  const std::string bytes = ReadWholeFile(path_);
  for (int nth = 1;; ++nth) {
    std::remove(SetAside(path_).c_str());
    ASSERT_TRUE(WriteWholeFile(path_, bytes));
    FileCalls::Reset();
    FileCalls::Fail(Call::kPread, nth, EIO);
    ASSERT_EQ((Packets{"a", "b"}), LoadMapped(path_)) << nth;
    if (!FileCalls::HasFailed()) break;
  }
}

TEST_F(MmapFileForeignTest, DamageIsLeftAloneWhileAnotherOwnerLives) {
  auto living = std::make_unique<MultiProcessSafetyMmapFile>();
  ASSERT_TRUE(OpenFile(*living, path_));
  ASSERT_TRUE(Save(*living, {"of the living"}));
  {
    MultiProcessSafetyMmapFile dead;
    ASSERT_TRUE(OpenFile(dead, path_));
    ASSERT_TRUE(Save(dead, NamedPackets("of the dead", 10, 100)));
  }
  const StoredPacket hit =
      FindPacket(ReadWholeFile(path_), NamedPacket("of the dead", 3, 100)).at(0);
  ASSERT_TRUE(WriteInto(path_, hit.end - 1, std::string(1, '\0')));
  RecordingLog::Clear();

  const Packets found = LoadMapped(path_);

  EXPECT_FALSE(Exists(SetAside(path_)));
  Packets intact = NamedPackets("of the dead", 10, 100);
  intact.erase(intact.begin() + 3);
  // Or it is left for a time when nobody lives.
  if (!found.empty()) {
    EXPECT_EQ(intact, found);
  }
  ASSERT_TRUE(Save(*living, {"of the living", "again"}));
  living.reset();

  Packets all = LoadMapped(path_);
  std::sort(all.begin(), all.end());
  Packets expected = intact;
  expected.insert(expected.end(), {"of the living", "again"});
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(expected, all);
  EXPECT_TRUE(Exists(SetAside(path_)));
  EXPECT_GE(LinesWith(2, SetAside(path_)), 1);
}

TEST_F(MmapFileForeignTest, HeirOfADamagedContentDoesNotReplaceWhatHeCouldNotRead) {
  auto living = std::make_unique<MultiProcessSafetyMmapFile>();
  ASSERT_TRUE(OpenFile(*living, path_));
  {
    MultiProcessSafetyMmapFile dead;
    ASSERT_TRUE(OpenFile(dead, path_));
    ASSERT_TRUE(Save(dead, NamedPackets("of the dead", 10, 100)));
  }
  std::string bytes = ReadWholeFile(path_);
  mmap_format::Seal seal;
  // The index of the dead one's content: no packet is touched, and none can be found by it.
  for (uint32_t owner = 1; owner <= mmap_format::kOwners; ++owner) {
    for (const size_t which : {0, 1}) {
      std::memcpy(&seal, bytes.data() + mmap_format::RecordOffset(owner) + which * sizeof seal,
                  sizeof seal);
      if (seal.check != mmap_format::CheckOf(seal) || seal.packets != 10) continue;
      ASSERT_TRUE(WriteInto(path_, seal.extent_offset + seal.index_at, "\x01"));
    }
  }
  {
    MultiProcessSafetyMmapFile heir;
    ASSERT_TRUE(OpenFile(heir, path_));
    ReadAll(heir);
    ASSERT_TRUE(Save(heir, {"of the heir"}));
  }
  EXPECT_FALSE(Exists(SetAside(path_)));
  ASSERT_TRUE(Save(*living, {}));
  living.reset();

  Packets all = LoadMapped(path_);
  std::sort(all.begin(), all.end());
  Packets expected = NamedPackets("of the dead", 10, 100);
  expected.push_back("of the heir");
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(expected, all);
}

}  // namespace
}  // namespace quenor::test
