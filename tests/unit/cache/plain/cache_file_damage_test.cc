// Files that are not as we left them, and what only this kind of file makes of them.
#include <cstdio>

#include "services/cache_file_posix/format.h"
#include "tests/unit/cache/plain/plain_file_fixture.h"

namespace quenor::test {
namespace {

using cache_file::kHeaderSize;
using cache_file::kRecordHeaderSize;

class CacheFileDamageTest : public CacheFileTest {
 protected:
  // Opens a file of these bytes, in a folder of nothing else.
  Packets Open(const std::string& bytes) {
    remove(SetAside(path_).c_str());
    EXPECT_TRUE(WriteWholeFile(path_, bytes));
    RecordingLog::Clear();
    return Reopened();
  }
  void ExpectSetAside(const std::string& bytes, const std::string& word) {
    EXPECT_EQ(ReadWholeFile(SetAside(path_)), bytes);
    EXPECT_FALSE(Exists(Recovered(path_)));
    EXPECT_EQ(1, LinesWith(2, ""));
    EXPECT_EQ(1, LinesWith(2, SetAside(path_)));
    EXPECT_EQ(1, LinesWith(2, word));
  }
  void ExpectNothingSetAside() {
    EXPECT_FALSE(Exists(SetAside(path_)));
    EXPECT_EQ(0, LinesWith(2, ""));
  }
};

// a, b and c in a completed save, c and d in one that was killed.
std::string SmallFile(const TempFolder& folder) {
  const std::string path = folder.File("small");
  ReliableReportCacheFile file;
  EXPECT_TRUE(OpenFile(file, path));
  EXPECT_TRUE(SaveUnasked(file, {"aaaa", "bbb", "cccccccc"}));
  EXPECT_TRUE(SaveUnasked(file, {"cccccccc", "dd"}));
  return ReadWholeFile(path);
}

TEST_F(CacheFileDamageTest, ATornEndIsWrittenOver) {
  const std::string whole = SmallFile(folder_);
  ASSERT_TRUE(WriteWholeFile(path_, whole.substr(0, whole.size() - 1)));
  {
    ReliableReportCacheFile file;
    ASSERT_TRUE(OpenFile(file, path_));
    ASSERT_TRUE(SaveUnasked(file, {"bbb", "e"}));
  }

  EXPECT_EQ(Reopened(), (Packets{"bbb", "e"}));
  ExpectNothingSetAside();
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

TEST_F(CacheFileDamageTest, PacketsBehindALongGapAreFound) {
  const std::string large(1000000, 'Q');
  Leave({"aaaa", large, "after"});
  std::string bytes = Bytes();
  bytes[kHeaderSize + kRecordHeaderSize + 4] ^= 1;  // The header of the large one.

  EXPECT_EQ(Open(bytes), (Packets{"aaaa", "after"}));
}

// A packet may hold a cache file, at the very place where it would count.
TEST_F(CacheFileDamageTest, RecordsInsideAPacketAreNoRecords) {
  const std::string inner = SmallFile(folder_);
  Leave({inner + inner + inner, "after"});
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
      EXPECT_TRUE(Includes({"aaaa", "bbb", "cccccccc", "dd"}, found));
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
  Leave({});
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
    remove(SetAside(path_).c_str());
    {
      ReliableReportCacheFile file;
      ASSERT_TRUE(OpenFile(file, path_));
      ASSERT_TRUE(SaveUnasked(file, {"one"}));
      ASSERT_TRUE(SaveUnasked(file, {"one", "two"}));
    }

    EXPECT_EQ(Reopened(), (Packets{"one", "two"}));
    ExpectNothingSetAside();
  }
}

}  // namespace
}  // namespace quenor::test
