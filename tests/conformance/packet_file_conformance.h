// What both kinds of cache file must do. An embedder runs it on his own by linking that and writing
//   INSTANTIATE_TYPED_TEST_SUITE_P(Mine, PacketFileConformance, LinkedCacheFile);
// in namespace quenor::conformance (or LinkedMmapFile); what one kind alone promises stands in
// cache_file_conformance.h and mmap_file_conformance.h.
#ifndef QUENOR_TESTS_CONFORMANCE_PACKET_FILE_CONFORMANCE_H_
#define QUENOR_TESTS_CONFORMANCE_PACKET_FILE_CONFORMANCE_H_

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "quenor_base/platform/multi_process_safety_mmap_file.h"
#include "quenor_base/platform/reliable_report_cache_file.h"
#include "tests/conformance/captured_log.h"

namespace quenor::conformance {

using Packets = std::vector<std::string>;

// The plain cache file that is linked.
struct LinkedCacheFile {
  using File = ReliableReportCacheFile;
  static bool Open(File& file, const std::string& path) { return file.Open(base::FilePath(path)); }
  // Begins a save of these packets.
  static bool Clear(File& file, const Packets&) { return file.Clear(); }
};

// The mapped cache file that is linked.
struct LinkedMmapFile {
  using File = MultiProcessSafetyMmapFile;
  static bool Open(File& file, const std::string& path) {
    return file.Open(base::FilePath(path), base::MemoryMappedFile::READ_WRITE_EXTEND, 0);
  }
  static bool Clear(File& file, const Packets& packets) {
    int64_t size = 0;
    for (const std::string& packet : packets) size += static_cast<int64_t>(packet.size()) + 4;
    return file.Clear(size);
  }
};

// A path in a folder of the test's own, where nothing is; the folder goes with the test.
template <typename Kind>
class PacketFileConformance : public testing::Test {
 protected:
  using File = typename Kind::File;

  PacketFileConformance() {
    if (mkdtemp(folder_.data()) == nullptr) ADD_FAILURE() << "cannot create " << folder_;
    path_ = folder_ + "/channel";
  }
  ~PacketFileConformance() override {
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
  }

  static bool Append(File& file, const std::string& bytes) {
    return file.AppendDataPacket(
        {reinterpret_cast<const uint8_t*>(bytes.data()), static_cast<uint32_t>(bytes.size())});
  }
  // True when every packet was taken and the save is complete.
  static bool Save(File& file, const Packets& packets) {
    bool saved = Kind::Clear(file, packets);
    for (const std::string& packet : packets) saved = Append(file, packet) && saved;
    return file.IsSaveComplete() && saved;
  }
  // Up to the next end mark.
  static Packets ReadAll(File& file) {
    Packets packets;
    for (auto packet = file.GetNextDataPacket(); packet.size > 0; packet = file.GetNextDataPacket())
      packets.emplace_back(reinterpret_cast<const char*>(packet.data), packet.size);
    return packets;
  }
  // What the next owner finds; the file stays as it is.
  static Packets Found(const std::string& path) {
    File file;
    return Kind::Open(file, path) ? ReadAll(file) : Packets{"cannot open"};
  }
  Packets Found() const { return Found(path_); }
  // A content that an owner which is gone has saved.
  void Leave(const Packets& packets) const {
    File file;
    ASSERT_TRUE(Kind::Open(file, path_) && Save(file, packets));
  }
  static void ExpectNothingWorks(File& file) {
    EXPECT_EQ(nullptr, file.GetNextDataPacket().data);
    EXPECT_EQ(0u, file.GetNextDataPacket().size);
    EXPECT_FALSE(Kind::Clear(file, {}));
    EXPECT_FALSE(Append(file, "x"));
    EXPECT_FALSE(file.IsSaveComplete());
  }

  std::string folder_ = testing::TempDir() + "/quenor_packets_XXXXXX";
  std::string path_;
};
TYPED_TEST_SUITE_P(PacketFileConformance);

TYPED_TEST_P(PacketFileConformance, RefusesEverythingWhileItIsNotOpen) {
  typename TypeParam::File file;
  this->ExpectNothingWorks(file);
  ASSERT_TRUE(TypeParam::Open(file, this->path_) && this->Save(file, {"a"}));

  file.Close();
  file.Close();

  this->ExpectNothingWorks(file);
  EXPECT_EQ(Packets{"a"}, this->Found());
}

TYPED_TEST_P(PacketFileConformance, FindsNothingInANewFileAndCountsItAsSaved) {
  const CapturedLog log;
  typename TypeParam::File file;

  ASSERT_TRUE(TypeParam::Open(file, this->path_));

  EXPECT_EQ(Packets{}, this->ReadAll(file));
  EXPECT_TRUE(file.IsSaveComplete());
  EXPECT_TRUE(log.lines().empty());
}

TYPED_TEST_P(PacketFileConformance, GivesPacketsBackInTheOrderSavedHoweverOftenItIsOpened) {
  const Packets packets = {"c", std::string("\0b\0", 3), std::string(100000, 'x'), "c", "a"};
  this->Leave(packets);

  for (int i = 0; i < 3; ++i) {
    typename TypeParam::File file;
    ASSERT_TRUE(TypeParam::Open(file, this->path_));
    EXPECT_EQ(packets, this->ReadAll(file));
    EXPECT_EQ(Packets{}, this->ReadAll(file)) << "behind the last there are only end marks";
    EXPECT_TRUE(file.IsSaveComplete());
  }
}

TYPED_TEST_P(PacketFileConformance, ReplacesAContentWholeInEverySave) {
  const std::vector<Packets> saves = {
      {"a", "b", "c"}, {"c", "b", "a"},      {"b", "new", "a"}, {"b", "new", "a"}, {},
      {"b", "b", "b"}, {"b", "a", "b", "a"}, {"b", "b"},        {"x", "b"},        {"y", "b"}};
  typename TypeParam::File stays;
  ASSERT_TRUE(TypeParam::Open(stays, this->path_ + ".stays"));
  for (const Packets& packets : saves) {
    this->Leave(packets);
    EXPECT_EQ(packets, this->Found());
    EXPECT_TRUE(this->Save(stays, packets));
  }
  stays.Close();
  EXPECT_EQ(saves.back(), this->Found(this->path_ + ".stays"));
}

TYPED_TEST_P(PacketFileConformance, ReadsAnEmptyPacketLikeAnEndAndGoesOnBehindIt) {
  typename TypeParam::File file;
  ASSERT_TRUE(TypeParam::Open(file, this->path_));
  ASSERT_TRUE(TypeParam::Clear(file, {"a", "", "", "b"}));
  EXPECT_TRUE(this->Append(file, "a") && this->Append(file, ""));
  EXPECT_TRUE(file.AppendDataPacket({nullptr, 0}));
  EXPECT_TRUE(this->Append(file, "b") && file.IsSaveComplete());
  ASSERT_TRUE(TypeParam::Open(file, this->path_));

  std::vector<uint32_t> sizes;
  for (int i = 0; i < 6; ++i) sizes.push_back(file.GetNextDataPacket().size);

  EXPECT_EQ((std::vector<uint32_t>{1, 0, 0, 1, 0, 0}), sizes);
}

TYPED_TEST_P(PacketFileConformance, TakesNoPacketBeforeTheFirstClear) {
  this->Leave({"old"});
  typename TypeParam::File file;
  ASSERT_TRUE(TypeParam::Open(file, this->path_));

  EXPECT_FALSE(this->Append(file, "x"));

  EXPECT_EQ(Packets{"old"}, this->ReadAll(file));
  file.Close();
  EXPECT_EQ(Packets{"old"}, this->Found());
}

TYPED_TEST_P(PacketFileConformance, TakesNoPacketBehindACompleteSave) {
  typename TypeParam::File file;
  ASSERT_TRUE(TypeParam::Open(file, this->path_) && this->Save(file, {"a"}));

  EXPECT_FALSE(this->Append(file, "x"));
  EXPECT_FALSE(this->Append(file, ""));

  file.Close();
  EXPECT_EQ(Packets{"a"}, this->Found());
}

TYPED_TEST_P(PacketFileConformance, KeepsTheOldContentWhenAPacketIsRefused) {
  for (const size_t taken : {0, 1}) {
    this->Leave({"old", "older"});
    typename TypeParam::File file;
    ASSERT_TRUE(TypeParam::Open(file, this->path_));
    ASSERT_TRUE(TypeParam::Clear(file, {"one", "two", "three"}));
    for (size_t i = 0; i < taken; ++i) EXPECT_TRUE(this->Append(file, "one"));

    EXPECT_FALSE(file.AppendDataPacket({nullptr, 3}));

    EXPECT_FALSE(file.IsSaveComplete());
    EXPECT_FALSE(this->Append(file, "three")) << "the save is void";
    file.Close();
    Packets found = this->Found();  // What was taken may stand beside it.
    found.erase(std::remove(found.begin(), found.end(), "one"), found.end());
    EXPECT_EQ((Packets{"old", "older"}), found);
    ASSERT_TRUE(TypeParam::Open(file, this->path_));
    EXPECT_TRUE(this->Save(file, {"next"}));
    file.Close();
    EXPECT_EQ(Packets{"next"}, this->Found());
  }
}

TYPED_TEST_P(PacketFileConformance, SavesAgainAfterARefusedPacket) {
  typename TypeParam::File file;
  ASSERT_TRUE(TypeParam::Open(file, this->path_) && TypeParam::Clear(file, {"x"}));
  ASSERT_FALSE(file.AppendDataPacket({nullptr, 1}));

  EXPECT_TRUE(this->Save(file, {"next"}));

  file.Close();
  EXPECT_EQ(Packets{"next"}, this->Found());
}

TYPED_TEST_P(PacketFileConformance, BorrowsAPacketOnlyUntilTheAppendReturns) {
  typename TypeParam::File file;
  ASSERT_TRUE(TypeParam::Open(file, this->path_));
  std::string packet(3000, 'a');
  ASSERT_TRUE(TypeParam::Clear(file, {packet, packet}));

  EXPECT_TRUE(this->Append(file, packet));
  packet.assign(3000, 'b');
  EXPECT_TRUE(this->Append(file, packet) && file.IsSaveComplete());

  file.Close();
  EXPECT_EQ((Packets{std::string(3000, 'a'), std::string(3000, 'b')}), this->Found());
}

TYPED_TEST_P(PacketFileConformance, OpenClosesWhatIsOpen) {
  this->Leave({"a", "b"});
  typename TypeParam::File file;
  ASSERT_TRUE(TypeParam::Open(file, this->path_));
  ASSERT_EQ(1u, file.GetNextDataPacket().size);

  ASSERT_TRUE(TypeParam::Open(file, this->path_));
  EXPECT_EQ((Packets{"a", "b"}), this->ReadAll(file)) << "from the first packet again";
  ASSERT_TRUE(TypeParam::Open(file, this->path_ + ".other"));

  EXPECT_EQ((Packets{"a", "b"}), this->Found()) << "nobody is an owner there";
  EXPECT_EQ(Packets{}, this->ReadAll(file));
}

TYPED_TEST_P(PacketFileConformance, ARefusedOpenClosesWhatIsOpenAndSaysWhy) {
  const CapturedLog log;
  this->Leave({"a"});
  typename TypeParam::File file;
  ASSERT_TRUE(TypeParam::Open(file, this->path_));
  const std::string through_parent = this->folder_ + "/../channel";

  EXPECT_FALSE(TypeParam::Open(file, through_parent));

  this->ExpectNothingWorks(file);
  EXPECT_EQ(Packets{"a"}, this->Found());
  ASSERT_EQ(1u, log.lines().size());
  EXPECT_EQ(2, log.lines()[0].level);
  EXPECT_NE(std::string::npos, log.lines()[0].text.find(through_parent));
}

REGISTER_TYPED_TEST_SUITE_P(PacketFileConformance, RefusesEverythingWhileItIsNotOpen,
                            FindsNothingInANewFileAndCountsItAsSaved,
                            GivesPacketsBackInTheOrderSavedHoweverOftenItIsOpened,
                            ReplacesAContentWholeInEverySave,
                            ReadsAnEmptyPacketLikeAnEndAndGoesOnBehindIt,
                            TakesNoPacketBeforeTheFirstClear, TakesNoPacketBehindACompleteSave,
                            KeepsTheOldContentWhenAPacketIsRefused, SavesAgainAfterARefusedPacket,
                            BorrowsAPacketOnlyUntilTheAppendReturns, OpenClosesWhatIsOpen,
                            ARefusedOpenClosesWhatIsOpenAndSaysWhy);

}  // namespace quenor::conformance

#endif  // QUENOR_TESTS_CONFORMANCE_PACKET_FILE_CONFORMANCE_H_
