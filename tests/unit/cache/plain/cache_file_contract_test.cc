// What the plain cache file promises of each function while nothing goes wrong.
#include <gtest/gtest.h>

#include "quenor_base/platform/reliable_report_cache_file.h"
#include "tests/support/memory_faults.h"
#include "tests/unit/cache/plain/cache_file_test_support.h"

namespace quenor::test {
namespace {

class CacheFileContractTest : public CacheFileTest {};

TEST_F(CacheFileContractTest, AFileThatIsNotOpenRefusesEverything) {
  ReliableReportCacheFile file;

  EXPECT_EQ(file.GetNextDataPacket().data, nullptr);
  EXPECT_EQ(file.GetNextDataPacket().size, 0u);
  EXPECT_FALSE(file.Clear());
  EXPECT_FALSE(Append(&file, "a"));
  EXPECT_FALSE(file.IsSaveComplete());
  file.Close();
}

TEST_F(CacheFileContractTest, OpenCreatesAFileWithoutPackets) {
  ReliableReportCacheFile file;

  ASSERT_TRUE(file.Open(file_path()));

  EXPECT_TRUE(Exists(path()));
  EXPECT_EQ(file.GetNextDataPacket().data, nullptr);
  EXPECT_TRUE(file.IsSaveComplete());
  EXPECT_TRUE(Complaints().empty());
}

TEST_F(CacheFileContractTest, PacketsComeBackInTheOrderSaved) {
  const Packets packets = {"one", std::string("\0two\0", 5), std::string(100000, 'x'), "one", "z"};
  Write(packets);

  EXPECT_EQ(Reopened(), packets);
  EXPECT_EQ(Reopened(), packets);  // Reading changes nothing.
  EXPECT_TRUE(Complaints().empty());
}

TEST_F(CacheFileContractTest, EachSaveReplacesTheOneBeforeIt) {
  const std::vector<Packets> saves = {
      {"a", "b", "c"}, {"c", "b", "a"}, {"b", "new", "a"}, {"b", "b", "b"}, {}, {"b"}, {"x", "b"}};

  for (const Packets& packets : saves) {
    Write(packets);

    EXPECT_EQ(Reopened(), packets);
  }
}

TEST_F(CacheFileContractTest, ManySavesOfOneOwnerLeaveTheLast) {
  {
    ReliableReportCacheFile file;
    ASSERT_TRUE(file.Open(file_path()));
    ASSERT_TRUE(Save(&file, {"a", "b", "c"}));
    ASSERT_TRUE(Save(&file, {"b", "c", "a", "d"}));
    ASSERT_TRUE(Save(&file, {"d", "a", "a"}));
  }

  EXPECT_EQ(Reopened(), (Packets{"d", "a", "a"}));
}

TEST_F(CacheFileContractTest, PacketsOfOneContentAreKeptApart) {
  Write({"a", "a", "a"});
  {
    ReliableReportCacheFile file;
    ASSERT_TRUE(file.Open(file_path()));
    ASSERT_TRUE(Save(&file, {"a", "a", "a", "a", "a"}));
    ASSERT_TRUE(Save(&file, {"a", "a"}));
  }

  EXPECT_EQ(Reopened(), (Packets{"a", "a"}));
}

TEST_F(CacheFileContractTest, APacketOfNoBytesReadsAsAnEndMarkAndTheNextCallGoesOn) {
  Write({"before", "", "after"});
  ReliableReportCacheFile file;
  ASSERT_TRUE(file.Open(file_path()));

  EXPECT_EQ(ReadAll(&file), Packets{"before"});
  EXPECT_EQ(ReadAll(&file), Packets{"after"});
  EXPECT_EQ(file.GetNextDataPacket().size, 0u);
}

TEST_F(CacheFileContractTest, NullWithASizeIsRefusedAndVoidsTheSave) {
  Write({"old"});
  {
    ReliableReportCacheFile file;
    ASSERT_TRUE(file.Open(file_path()));
    ASSERT_TRUE(file.Clear());

    EXPECT_FALSE(file.AppendDataPacket({nullptr, 1}));

    EXPECT_FALSE(file.IsSaveComplete());
    EXPECT_FALSE(Append(&file, "more"));
  }
  EXPECT_EQ(Reopened(), Packets{"old"});
}

TEST_F(CacheFileContractTest, NullWithoutASizeIsAPacketOfNoBytes) {
  ReliableReportCacheFile file;
  ASSERT_TRUE(file.Open(file_path()));
  ASSERT_TRUE(file.Clear());

  EXPECT_TRUE(file.AppendDataPacket({nullptr, 0}));

  EXPECT_TRUE(file.IsSaveComplete());
}

TEST_F(CacheFileContractTest, AnAppendWithoutAClearIsRefused) {
  Write({"old"});
  ReliableReportCacheFile file;
  ASSERT_TRUE(file.Open(file_path()));

  EXPECT_FALSE(Append(&file, "a"));

  EXPECT_TRUE(file.IsSaveComplete());
  EXPECT_EQ(ReadAll(&file), Packets{"old"});
}

TEST_F(CacheFileContractTest, TheQuestionCompletesTheSaveWithOneSmallWrite) {
  ReliableReportCacheFile file;
  ASSERT_TRUE(file.Open(file_path()));
  ASSERT_TRUE(Save(&file, {"a", "b"}));
  const uint64_t bytes = FileBytes(path());
  const size_t calls = DiskCalls::Count();

  EXPECT_TRUE(file.IsSaveComplete());

  EXPECT_FALSE(Append(&file, "c")) << "it is complete";
  EXPECT_TRUE(file.IsSaveComplete());
  EXPECT_EQ(DiskCalls::Count() - calls, 1u);
  EXPECT_EQ(DiskCalls::CountOf("pwrite"), 4u);  // The header, two packets and this.
  EXPECT_LE(FileBytes(path()) - bytes, 64u);
  ASSERT_TRUE(file.Clear());
  EXPECT_EQ(DiskCalls::CountOf("pwrite"), 4u) << "it is complete already";
  ASSERT_TRUE(Append(&file, "b") && Append(&file, "c"));
  file.Close();
  EXPECT_EQ(Reopened(), (Packets{"b", "c"}));
}

TEST_F(CacheFileContractTest, ReadingEndsWithTheFirstClear) {
  Write({"a", "b"});
  ReliableReportCacheFile file;
  ASSERT_TRUE(file.Open(file_path()));
  ASSERT_EQ(file.GetNextDataPacket().size, 1u);

  ASSERT_TRUE(file.Clear());

  EXPECT_EQ(file.GetNextDataPacket().data, nullptr);
}

TEST_F(CacheFileContractTest, OpeningAgainClosesFirst) {
  const std::string other = folder_.File("other.cache");
  ReliableReportCacheFile file;
  ASSERT_TRUE(file.Open(file_path()));
  ASSERT_TRUE(Save(&file, {"a"}));

  ASSERT_TRUE(file.Open(base::FilePath(other)));

  EXPECT_EQ(Reopened(), Packets{"a"});
  ASSERT_TRUE(file.Open(file_path()));
  EXPECT_EQ(ReadAll(&file), Packets{"a"});
}

TEST_F(CacheFileContractTest, CloseTwiceAndUseAfterwardsAreHarmless) {
  ReliableReportCacheFile file;
  ASSERT_TRUE(file.Open(file_path()));
  ASSERT_TRUE(Save(&file, {"a"}));

  file.Close();
  file.Close();

  EXPECT_FALSE(file.Clear());
  EXPECT_FALSE(file.IsSaveComplete());
  EXPECT_EQ(Reopened(), Packets{"a"});
}

TEST_F(CacheFileContractTest, TheFileIsForItsUserAloneWhateverTheUmask) {
  for (const mode_t mask : {mode_t{0}, mode_t{0777}}) {
    const mode_t before = umask(mask);
    Write({"a"});
    umask(before);

    struct stat info;
    ASSERT_EQ(lstat(path().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, mode_t{0600});
    ASSERT_EQ(remove(path().c_str()), 0);
  }
}

TEST_F(CacheFileContractTest, ASaveThatOnlyRepeatsWritesFewBytes) {
  ReliableReportCacheFile file;
  ASSERT_TRUE(file.Open(file_path()));
  Packets packets;
  for (int i = 0; i < 200; ++i)
    packets.push_back("message " + std::to_string(i) + std::string(500, '.'));
  ASSERT_TRUE(Save(&file, packets));
  ASSERT_TRUE(Save(&file, packets));
  const uint64_t before = FileBytes(path());

  ASSERT_TRUE(Save(&file, packets));

  EXPECT_LE(FileBytes(path()) - before, 64u);
  EXPECT_EQ(DiskCalls::CountOf("rename"), 0u);
}

// The channel's own pattern: the oldest is acknowledged, a new one comes in.
TEST_F(CacheFileContractTest, ASaveInTheSteadyStateAllocatesNothing) {
  ReliableReportCacheFile file;
  ASSERT_TRUE(file.Open(file_path()));
  Packets all;
  for (int i = 0; i < 3000; ++i)
    all.push_back("message " + std::to_string(i) + std::string(400, '.'));
  size_t next = 0;
  const auto save = [&] {
    bool saved = file.Clear();
    for (size_t i = next; i < next + 100; ++i) saved = Append(&file, all[i]) && saved;
    ++next;
    return saved;
  };
  // Enough for the first time that the file is written anew.
  for (int i = 0; i < 1000; ++i) ASSERT_TRUE(save());

  const MemoryFaults::Counter allocations;
  bool saved = true;
  for (int i = 0; i < 1000; ++i) saved = save() && saved;
  const size_t count = allocations.count();

  EXPECT_TRUE(saved);
  EXPECT_EQ(count, 0u);
}

TEST_F(CacheFileContractTest, NamesItself) {
  EXPECT_STREQ(ReliableReportCacheFile::ImplementationName(), "posix");
}

}  // namespace
}  // namespace quenor::test
