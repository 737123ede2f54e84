// Files that are not as we left them: every intact packet comes back, the rest is set aside.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <random>

#include "quenor_base/platform/reliable_report_cache_file.h"
#include "services/cache_file_posix/format.h"
#include "tests/unit/cache/plain/cache_file_test_support.h"

namespace quenor::test {
namespace {

using cache_file::kHeaderSize;
using cache_file::kRecordHeaderSize;

class CacheFileDamageTest : public CacheFileTest {
 protected:
  // Opens a file of these bytes, in a folder of nothing else.
  Packets Open(const std::string& bytes) {
    remove(aside().c_str());
    EXPECT_TRUE(WriteWholeFile(path(), bytes));
    RecordingLog::Clear();
    return Reopened();
  }
  void ExpectSetAside(const std::string& bytes, const std::string& word) {
    EXPECT_EQ(ReadWholeFile(aside()), bytes);
    EXPECT_FALSE(Exists(recovered()));
    ASSERT_EQ(Complaints().size(), 1u);
    EXPECT_NE(Complaints()[0].find(aside()), std::string::npos) << Complaints()[0];
    EXPECT_NE(Complaints()[0].find(word), std::string::npos) << Complaints()[0];
  }
  void ExpectNothingSetAside() {
    EXPECT_FALSE(Exists(aside()));
    EXPECT_TRUE(Complaints().empty());
  }
};

// a, b and c in a completed save, c and d in one that was killed.
std::string SmallFile(const TempFolder& folder) {
  const std::string path = folder.File("small");
  ReliableReportCacheFile file;
  EXPECT_TRUE(file.Open(base::FilePath(path)));
  EXPECT_TRUE(Save(&file, {"aaaa", "bbb", "cccccccc"}));
  EXPECT_TRUE(Save(&file, {"cccccccc", "dd"}));
  return ReadWholeFile(path);
}

TEST_F(CacheFileDamageTest, EveryFlippedBitCostsAtMostOnePacket) {
  const std::string whole = SmallFile(folder_);
  ASSERT_EQ(Sorted(Open(whole)), (Packets{"aaaa", "bbb", "cccccccc", "dd"}));
  const Packets all = Open(whole);

  for (size_t i = 0; i < whole.size(); ++i) {
    for (int bit = 0; bit < 8; bit += 1 + static_cast<int>(i % 3)) {
      std::string bytes = whole;
      bytes[i] = static_cast<char>(bytes[i] ^ (1 << bit));
      const Packets found = Open(bytes);

      EXPECT_GE(found.size() + 1, all.size()) << "byte " << i << " bit " << bit;
      EXPECT_TRUE(HoldsAll(all, found)) << "byte " << i << " bit " << bit;
      EXPECT_EQ(ReadWholeFile(aside()), bytes) << "byte " << i << " bit " << bit;
      EXPECT_EQ(Complaints().size(), 1u);
      RecordingLog::Clear();
      EXPECT_EQ(Reopened(), found);
      EXPECT_TRUE(Complaints().empty());  // Repaired.
    }
  }
}

TEST_F(CacheFileDamageTest, EveryLengthThatAKillMayLeaveIsNoDamage) {
  const std::string whole = SmallFile(folder_);
  const size_t a_end = kHeaderSize + kRecordHeaderSize + 4;
  const size_t b_end = a_end + kRecordHeaderSize + 3;
  const size_t c_end = b_end + kRecordHeaderSize + 8;

  for (size_t length = 0; length < whole.size(); ++length) {
    const Packets found = Open(whole.substr(0, length));

    Packets required;
    if (length >= a_end) required.push_back("aaaa");
    if (length >= b_end) required.push_back("bbb");
    if (length >= c_end) required.push_back("cccccccc");
    EXPECT_EQ(Sorted(found), required) << "length " << length;
    ExpectNothingSetAside();
  }
}

TEST_F(CacheFileDamageTest, ATornEndIsWrittenOver) {
  const std::string whole = SmallFile(folder_);
  ASSERT_TRUE(WriteWholeFile(path(), whole.substr(0, whole.size() - 1)));
  {
    ReliableReportCacheFile file;
    ASSERT_TRUE(file.Open(file_path()));
    ASSERT_TRUE(Save(&file, {"bbb", "e"}));
  }

  EXPECT_EQ(Reopened(), (Packets{"bbb", "e"}));
  ExpectNothingSetAside();
}

TEST_F(CacheFileDamageTest, EveryZeroedStretchLeavesThePacketsOutsideIt) {
  const std::string whole = SmallFile(folder_);
  const Packets all = Open(whole);

  for (size_t begin = 0; begin < whole.size(); begin += 5) {
    for (size_t size = 1; begin + size <= whole.size(); size += 13) {
      std::string bytes = whole;
      std::fill(bytes.begin() + begin, bytes.begin() + begin + size, '\0');
      const Packets found = Open(bytes);

      EXPECT_TRUE(HoldsAll(all, found));
      for (const std::string& packet : all) {
        const size_t body = whole.find(packet);
        const size_t record = body - kRecordHeaderSize;
        const bool touched = begin < body + packet.size() && record < begin + size;
        EXPECT_TRUE(touched || HoldsAll(found, {packet})) << packet << " " << begin << " " << size;
      }
    }
  }
}

TEST_F(CacheFileDamageTest, ADamagedBodyIsNamedAndTheOthersStay) {
  std::string bytes = SmallFile(folder_);
  bytes[bytes.find("bbb")] = 'x';

  EXPECT_EQ(Sorted(Open(bytes)), (Packets{"aaaa", "cccccccc", "dd"}));

  ExpectSetAside(bytes, "damaged packet at byte 68");
}

TEST_F(CacheFileDamageTest, FilesOfNothingButZerosAreSetAside) {
  for (const size_t size : {1, 31, 32, 33, 64, 5000, 200000}) {
    const std::string zeros(size, '\0');

    EXPECT_TRUE(Open(zeros).empty());

    ExpectSetAside(zeros, "no cache file");
  }
}

TEST_F(CacheFileDamageTest, AnEmptyFileIsANewOne) {
  EXPECT_TRUE(Open("").empty());

  ExpectNothingSetAside();
}

TEST_F(CacheFileDamageTest, AForeignFileIsSetAsideWithoutAChange) {
  const std::string text = "Dear diary,\n" + std::string(3000, 'Q') + "QcP\x1aQcS\x1a";

  EXPECT_TRUE(Open(text).empty());
  ExpectSetAside(text, "no cache file");

  Write({"a"});
  EXPECT_EQ(Reopened(), Packets{"a"});
}

TEST_F(CacheFileDamageTest, ANewerVersionIsSetAsideUnread) {
  std::string bytes = SmallFile(folder_);
  cache_file::FileHeader header = cache_file::MakeFileHeader();
  header.version = 7;
  header.check = cache_file::CheckOf(header);
  bytes.replace(0, sizeof header, reinterpret_cast<const char*>(&header), sizeof header);

  EXPECT_TRUE(Open(bytes).empty());

  ExpectSetAside(bytes, "version 7");
}

TEST_F(CacheFileDamageTest, AHugeHoleIsGivenUpOn) {
  ASSERT_TRUE(WriteWholeFile(path(), "foreign"));
  ASSERT_EQ(truncate(path().c_str(), off_t{1} << 40), 0);
  const size_t before = DiskCalls::CountOf("pread");

  EXPECT_TRUE(Reopened().empty());

  EXPECT_LE(DiskCalls::CountOf("pread") - before, 1100u);  // Windows of 64 KiB in 64 MiB.
  EXPECT_EQ(FileBytes(aside()), uint64_t{1} << 40);
}

TEST_F(CacheFileDamageTest, PacketsBehindALongGapAreFound) {
  const std::string large(1000000, 'Q');
  Write({"aaaa", large, "after"});
  std::string bytes = Bytes();
  bytes[kHeaderSize + kRecordHeaderSize + 4] ^= 1;  // The header of the large one.

  EXPECT_EQ(Open(bytes), (Packets{"aaaa", "after"}));
}

// A packet may hold a cache file, at the very place where it would count.
TEST_F(CacheFileDamageTest, RecordsInsideAPacketAreNoRecords) {
  const std::string inner = SmallFile(folder_);
  Write({inner + inner + inner, "after"});
  std::string bytes = Bytes();
  bytes[kHeaderSize] ^= 1;  // So that a search for records goes through the packet.

  EXPECT_EQ(Open(bytes), Packets{"after"});
}

TEST_F(CacheFileDamageTest, AForgedLengthAllocatesNothing) {
  std::string bytes = SmallFile(folder_);
  cache_file::RecordHeader header =
      cache_file::MakeRecordHeader(cache_file::kPacketMagic, 1000, UINT32_MAX, 0, bytes.size());
  bytes.append(reinterpret_cast<const char*>(&header), sizeof header);

  EXPECT_EQ(Sorted(Open(bytes)), (Packets{"aaaa", "bbb", "cccccccc", "dd"}));

  ExpectNothingSetAside();  // A kill leaves just this.
}

// Every check is right, every number is wrong.
TEST_F(CacheFileDamageTest, ForgedListsNeitherCrashNorHang) {
  const std::string start = SmallFile(folder_);
  const std::vector<std::vector<cache_file::Run>> lists = {
      {{0, 0}},
      {{0, UINT64_MAX}},
      {{UINT64_MAX, UINT64_MAX}},
      {{1, 3}, {1, 3}, {1, 3}},
      {{77, 2}},
      {{cache_file::kNumberLimit, 1}},
      {{2, 1}},
      {},
  };
  for (const uint32_t magic : {cache_file::kOrderMagic, cache_file::kSealMagic}) {
    for (const auto& runs : lists) {
      const uint32_t size = static_cast<uint32_t>(runs.size() * sizeof runs[0]);
      const cache_file::RecordHeader header = cache_file::MakeRecordHeader(
          magic, 9, size, cache_file::BodyCheckOf(runs.data(), size, start.size()), start.size());
      std::string bytes = start;
      bytes.append(reinterpret_cast<const char*>(&header), sizeof header);
      bytes.append(reinterpret_cast<const char*>(runs.data()), size);

      const Packets found = Open(bytes);
      EXPECT_TRUE(HoldsAll({"aaaa", "bbb", "cccccccc", "dd"}, found));
      // With a number that no packet has the list does not count.
      if (!runs.empty() && runs[0].first >= cache_file::kNumberLimit) {
        EXPECT_EQ(found.size(), 4u);
      }
    }
  }
}

// So many orders that following them all would take minutes are followed for a while: what only an
// earlier one names comes in the order of the file.
TEST_F(CacheFileDamageTest, ForgedOrdersWithoutEndAreGivenUpOn) {
  constexpr uint64_t kPackets = 4096;
  Write({});
  std::string bytes = Bytes();
  const auto add = [&](uint32_t magic, uint64_t number, const std::string& body) {
    const cache_file::RecordHeader header = cache_file::MakeRecordHeader(
        magic, number, static_cast<uint32_t>(body.size()),
        cache_file::BodyCheckOf(body.data(), body.size(), bytes.size()), bytes.size());
    bytes.append(reinterpret_cast<const char*>(&header), sizeof header);
    bytes += body;
  };
  const auto add_order = [&](const cache_file::Run& run) {
    add(cache_file::kOrderMagic, 9, std::string(reinterpret_cast<const char*>(&run), sizeof run));
  };
  for (uint64_t i = 1; i <= kPackets; ++i) add(cache_file::kPacketMagic, i, std::to_string(i));
  add_order({kPackets, 1});
  add_order({kPackets - 1, 1});
  for (uint64_t i = 0; i < kPackets + 8; ++i) add_order({1, kPackets - 2});

  const Packets found = Open(bytes);

  ASSERT_EQ(found.size(), kPackets);
  EXPECT_EQ(found[kPackets - 2], std::to_string(kPackets - 1));
  EXPECT_EQ(found[kPackets - 1], std::to_string(kPackets));
}

// Whoever counted on from such a number would write records that nobody reads.
TEST_F(CacheFileDamageTest, AForgedNumberDoesNotMakeTheNextSavesUnreadable) {
  const std::string start = SmallFile(folder_);
  for (const uint32_t magic : {cache_file::kPacketMagic, cache_file::kSealMagic}) {
    const cache_file::RecordHeader header = cache_file::MakeRecordHeader(
        magic, cache_file::kNumberLimit - 1, 0, cache_file::BodyCheckOf(nullptr, 0, start.size()),
        start.size());
    std::string bytes = start;
    bytes.append(reinterpret_cast<const char*>(&header), sizeof header);
    Open(bytes);
    ExpectSetAside(bytes, "numbers");

    RecordingLog::Clear();
    remove(aside().c_str());
    {
      ReliableReportCacheFile file;
      ASSERT_TRUE(file.Open(file_path()));
      ASSERT_TRUE(Save(&file, {"one"}));
      ASSERT_TRUE(Save(&file, {"one", "two"}));
    }

    EXPECT_EQ(Reopened(), (Packets{"one", "two"}));
    ExpectNothingSetAside();
  }
}

TEST_F(CacheFileDamageTest, RandomDamageNeverInventsAPacket) {
  const uint64_t seed =
      NumberOr("QUENOR_TEST_SEED",
               static_cast<uint64_t>(std::chrono::system_clock::now().time_since_epoch().count()));
  std::printf("QUENOR_TEST_SEED=%llu\n", static_cast<unsigned long long>(seed));
  std::mt19937_64 random(seed);
  const auto below = [&](size_t end) {
    return std::uniform_int_distribution<size_t>(0, end - 1)(random);
  };
  Packets all;
  {
    ReliableReportCacheFile file;
    ASSERT_TRUE(file.Open(file_path()));
    for (int i = 0; i < 30; ++i) {
      all.push_back("packet " + std::to_string(i) + std::string(below(300), 'x'));
      ASSERT_TRUE(Save(&file, all));
    }
  }
  const std::string whole = Bytes();

  for (int i = 0; i < 500 && !HasFailure(); ++i) {
    std::string bytes = whole;
    for (size_t n = 1 + below(4); n > 0; --n) {
      const size_t at = below(bytes.size());
      switch (below(4)) {
        case 0:
          bytes[at] = static_cast<char>(random());
          break;
        case 1:
          bytes.resize(at + 1);
          break;
        case 2:
          bytes.replace(at, std::min(below(2000), bytes.size() - at), below(2000), '\0');
          break;
        default:
          bytes.insert(at, bytes.substr(below(bytes.size()), below(200)));
      }
    }
    EXPECT_TRUE(HoldsAll(all, Open(bytes)));
  }
}

}  // namespace
}  // namespace quenor::test
