// What a mapped cache file must do beside what both kinds must: announced sizes, and several
// owners. An embedder runs it on his own by linking that and writing
//   INSTANTIATE_TYPED_TEST_SUITE_P(Mine, PacketFileConformance, LinkedMmapFile);
//   INSTANTIATE_TYPED_TEST_SUITE_P(Mine, MmapFileConformance, LinkedMmapFile);
// in namespace quenor::conformance.
#ifndef QUENOR_TESTS_CONFORMANCE_MMAP_FILE_CONFORMANCE_H_
#define QUENOR_TESTS_CONFORMANCE_MMAP_FILE_CONFORMANCE_H_

#include <limits>
#include <memory>

#include "tests/conformance/packet_file_conformance.h"

namespace quenor::conformance {

template <typename Kind>
class MmapFileConformance : public PacketFileConformance<Kind> {
 protected:
  using Owner = std::unique_ptr<typename Kind::File>;

  Owner Join() {
    auto owner = std::make_unique<typename Kind::File>();
    EXPECT_TRUE(Kind::Open(*owner, this->path_));
    return owner;
  }
  static Packets Numbered(const std::string& name, int count) {
    Packets packets;
    for (int i = 0; i < count; ++i) packets.push_back(name + " " + std::to_string(i));
    return packets;
  }
};
TYPED_TEST_SUITE_P(MmapFileConformance);

// --- The announced size --------------------------------------------------------------------------

TYPED_TEST_P(MmapFileConformance, CompletesWithThePacketThatReachesTheAnnouncedSize) {
  const auto file = this->Join();
  ASSERT_TRUE(file->Clear(14));
  EXPECT_FALSE(file->IsSaveComplete());
  EXPECT_TRUE(this->Append(*file, "one"));
  EXPECT_FALSE(file->IsSaveComplete());

  EXPECT_TRUE(this->Append(*file, "two"));

  EXPECT_TRUE(file->IsSaveComplete());
  file->Close();
  EXPECT_EQ((Packets{"one", "two"}), this->Found());
}

TYPED_TEST_P(MmapFileConformance, CompletesASaveOfNothingAtOnceAndTakesNoPacket) {
  this->Leave({"old"});
  const auto file = this->Join();

  EXPECT_TRUE(file->Clear(0));

  EXPECT_TRUE(file->IsSaveComplete());
  EXPECT_FALSE(this->Append(*file, ""));
  file->Close();
  EXPECT_EQ(Packets{}, this->Found());
}

TYPED_TEST_P(MmapFileConformance, KeepsTheOldContentWhileAnnouncedBytesAreMissing) {
  this->Leave({"old"});
  const auto file = this->Join();
  for (int half = 0; half < 2; ++half) {  // Two of them make no whole one.
    ASSERT_TRUE(file->Clear(14));
    ASSERT_TRUE(this->Append(*file, "one"));
  }
  EXPECT_FALSE(file->IsSaveComplete());

  ASSERT_TRUE(TypeParam::Open(*file, this->path_));

  EXPECT_TRUE(file->IsSaveComplete()) << "none is begun";
  EXPECT_FALSE(this->Append(*file, "two"));
  EXPECT_EQ(Packets{"old"}, this->ReadAll(*file));
}

TYPED_TEST_P(MmapFileConformance, KeepsTheOldContentWhenMoreComesThanWasAnnounced) {
  this->Leave({"old"});
  const auto file = this->Join();
  for (const int64_t size : {1, 3, 7, 12}) {
    SCOPED_TRACE(size);
    ASSERT_TRUE(file->Clear(size));
    EXPECT_TRUE(size < 12 || this->Append(*file, "one"));

    EXPECT_FALSE(this->Append(*file, "four"));

    EXPECT_FALSE(this->Append(*file, "")) << "the save is void";
    EXPECT_FALSE(file->IsSaveComplete());
  }
  file->Close();
  EXPECT_EQ(Packets{"old"}, this->Found());
}

TYPED_TEST_P(MmapFileConformance, RefusesANegativeSizeAndEndsTheSaveUnderWay) {
  this->Leave({"old"});
  const auto file = this->Join();
  for (const int64_t size : {int64_t{-1}, std::numeric_limits<int64_t>::min()}) {
    ASSERT_TRUE(file->Clear(7));

    EXPECT_FALSE(file->Clear(size));

    EXPECT_FALSE(this->Append(*file, "one"));
    EXPECT_FALSE(file->IsSaveComplete());
  }
  file->Close();
  EXPECT_EQ(Packets{"old"}, this->Found());
}

TYPED_TEST_P(MmapFileConformance, OutlivesAnAnnouncementBeyondAnyDisk) {
  this->Leave({"old"});
  const auto file = this->Join();
  for (const int64_t less : {0, 5000}) {
    const bool begun = file->Clear(std::numeric_limits<int64_t>::max() - less);
    EXPECT_TRUE(begun || !this->Append(*file, "one"));
    EXPECT_FALSE(file->IsSaveComplete());
  }
  file->Close();
  EXPECT_EQ(Packets{"old"}, this->Found());

  EXPECT_TRUE(this->Save(*this->Join(), {"next"}));

  EXPECT_EQ(Packets{"next"}, this->Found());
}

// --- Opening and owners --------------------------------------------------------------------------

TYPED_TEST_P(MmapFileConformance, RefusesEveryAccessButExtend) {
  using base::MemoryMappedFile;
  for (const auto access : {MemoryMappedFile::READ_ONLY, MemoryMappedFile::READ_WRITE}) {
    const CapturedLog log;
    typename TypeParam::File file;

    EXPECT_FALSE(file.Open(base::FilePath(this->path_), access, 0));

    EXPECT_EQ(1u, log.lines().size());
  }
}

TYPED_TEST_P(MmapFileConformance, KeepsTheContentsOfLiveOwnersApart) {
  const auto first = this->Join();
  ASSERT_TRUE(this->Save(*first, {"of the first"}));

  const auto second = this->Join();
  EXPECT_EQ(Packets{}, this->ReadAll(*second));
  EXPECT_TRUE(this->Save(*second, {"of the second"}));
  EXPECT_TRUE(this->Save(*first, {"of the first", "again"}));

  EXPECT_EQ(Packets{}, this->Found());
}

TYPED_TEST_P(MmapFileConformance, GivesAnHeirWhatTheDeadLeftOldestSaveFirst) {
  auto first = this->Join(), second = this->Join(), third = this->Join();
  ASSERT_TRUE(this->Save(*third, {"3"}) && this->Save(*first, {"1", "1b"}));
  ASSERT_TRUE(this->Save(*second, {"2"}));
  first.reset();
  second.reset();
  third.reset();

  const auto heir = this->Join();
  EXPECT_EQ(Packets{}, this->ReadAll(*this->Join())) << "one heir has it";
  EXPECT_EQ((Packets{"3", "1", "1b", "2"}), this->ReadAll(*heir));
  EXPECT_TRUE(this->Save(*heir, {"2", "new"}));

  heir->Close();
  EXPECT_EQ((Packets{"2", "new"}), this->Found());
}

TYPED_TEST_P(MmapFileConformance, LeavesWhatAnHeirDidNotReplaceToTheNext) {
  this->Leave({"old"});
  this->Join().reset();
  {
    const auto heir = this->Join();
    ASSERT_TRUE(heir->Clear(50) && this->Append(*heir, "void"));
    ASSERT_FALSE(this->Append(*heir, std::string(100, 'x')));
  }

  EXPECT_EQ(Packets{"old"}, this->Found());
}

TYPED_TEST_P(MmapFileConformance, GivesAnHeirFewerThanTwoHundredPacketsOfSeveralOwners) {
  auto first = this->Join(), second = this->Join(), third = this->Join();
  ASSERT_TRUE(this->Save(*first, this->Numbered("first", 199)));
  ASSERT_TRUE(this->Save(*second, this->Numbered("second", 1)));
  ASSERT_TRUE(this->Save(*third, this->Numbered("third", 500)));
  first.reset();
  second.reset();
  third.reset();

  const auto heir = this->Join(), next = this->Join();

  EXPECT_EQ(199u, this->ReadAll(*heir).size());
  EXPECT_EQ(1u, this->ReadAll(*next).size());
  EXPECT_EQ(500u, this->Found().size()) << "of one owner, whatever its size";
}

TYPED_TEST_P(MmapFileConformance, RefusesAnOwnerTooManyUntilOneLeaves) {
  std::vector<typename TestFixture::Owner> owners;
  for (int i = 0; i < TypeParam::File::kMaxOwners; ++i) {
    owners.push_back(this->Join());
    ASSERT_TRUE(this->Save(*owners.back(), {std::to_string(i)}));
  }
  const CapturedLog log;
  typename TypeParam::File late;
  EXPECT_FALSE(TypeParam::Open(late, this->path_));
  EXPECT_EQ(1u, log.lines().size());

  owners[20].reset();

  ASSERT_TRUE(TypeParam::Open(late, this->path_));
  EXPECT_EQ(Packets{"20"}, this->ReadAll(late));
}

REGISTER_TYPED_TEST_SUITE_P(
    MmapFileConformance, CompletesWithThePacketThatReachesTheAnnouncedSize,
    CompletesASaveOfNothingAtOnceAndTakesNoPacket, KeepsTheOldContentWhileAnnouncedBytesAreMissing,
    KeepsTheOldContentWhenMoreComesThanWasAnnounced, RefusesANegativeSizeAndEndsTheSaveUnderWay,
    OutlivesAnAnnouncementBeyondAnyDisk, RefusesEveryAccessButExtend,
    KeepsTheContentsOfLiveOwnersApart, GivesAnHeirWhatTheDeadLeftOldestSaveFirst,
    LeavesWhatAnHeirDidNotReplaceToTheNext, GivesAnHeirFewerThanTwoHundredPacketsOfSeveralOwners,
    RefusesAnOwnerTooManyUntilOneLeaves);

}  // namespace quenor::conformance

#endif  // QUENOR_TESTS_CONFORMANCE_MMAP_FILE_CONFORMANCE_H_
