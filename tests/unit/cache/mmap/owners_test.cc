// Several owners of one file, all in this process: locks belong to the instance.
#include <memory>
#include <set>

#include "tests/unit/cache/mmap/mmap_file_fixture.h"

namespace quenor::test {
namespace {

class MmapFileOwnersTest : public MmapFileTest {
 protected:
  using Owner = std::unique_ptr<MultiProcessSafetyMmapFile>;

  Owner Join() {
    auto owner = std::make_unique<MultiProcessSafetyMmapFile>();
    EXPECT_TRUE(OpenFile(*owner, path_));
    return owner;
  }
};

TEST_F(MmapFileOwnersTest, AliveKeepTheirContentsApart) {
  const Owner first = Join();
  ASSERT_TRUE(Save(*first, {"of the first"}));

  const Owner second = Join();
  EXPECT_EQ(Packets{}, ReadAll(*second));
  ASSERT_TRUE(Save(*second, {"of the second"}));
  ASSERT_TRUE(Save(*first, {"of the first", "again"}));

  EXPECT_EQ(Packets{}, LoadMapped(path_));
}

TEST_F(MmapFileOwnersTest, DeadLeaveTheirContentsOldestFirst) {
  Owner first = Join(), second = Join(), third = Join();
  ASSERT_TRUE(Save(*third, {"3"}));
  ASSERT_TRUE(Save(*first, {"1", "1b"}));
  ASSERT_TRUE(Save(*second, {"2"}));
  first.reset();
  second.reset();
  third.reset();

  EXPECT_EQ((Packets{"3", "1", "1b", "2"}), LoadMapped(path_));
}

TEST_F(MmapFileOwnersTest, DeadAreReplacedByTheFirstSaveOfWhoTookThem) {
  Owner first = Join(), second = Join();
  ASSERT_TRUE(Save(*first, {"1"}));
  ASSERT_TRUE(Save(*second, {"2"}));
  first.reset();
  second.reset();
  Owner heir = Join();
  ASSERT_EQ((Packets{"1", "2"}), ReadAll(*heir));

  ASSERT_TRUE(Save(*heir, {"2", "new"}));
  heir.reset();

  EXPECT_EQ((Packets{"2", "new"}), LoadMapped(path_));
}

TEST_F(MmapFileOwnersTest, DeadAreTakenByOnlyOneOfTheLiving) {
  Leave({"a"});
  const Owner heir = Join();
  const Owner other = Join();

  EXPECT_EQ(Packets{"a"}, ReadAll(*heir));
  EXPECT_EQ(Packets{}, ReadAll(*other));
}

TEST_F(MmapFileOwnersTest, DeadAreTakenEvenWhenTheirHeirNeverRead) {
  Leave({"a"});
  Owner heir = Join();
  heir.reset();

  EXPECT_EQ(Packets{"a"}, LoadMapped(path_));
}

TEST_F(MmapFileOwnersTest, DeadAreLeftToTheNextWhenTwoHundredPacketsAreReached) {
  Owner first = Join(), second = Join(), third = Join();
  ASSERT_TRUE(Save(*first, NamedPackets("first", 199, 20)));
  ASSERT_TRUE(Save(*second, NamedPackets("second", 1, 20)));
  ASSERT_TRUE(Save(*third, NamedPackets("third", 500, 20)));
  first.reset();
  second.reset();
  third.reset();

  const Owner heir = Join();
  const size_t taken = ReadAll(*heir).size();
  const Owner next = Join();
  const size_t rest = ReadAll(*next).size();

  EXPECT_LT(taken, MultiProcessSafetyMmapFile::kMaxPacketsOfSeveralOwners);
  EXPECT_EQ(199u, taken);
  EXPECT_EQ(1u, rest);
  EXPECT_EQ(500u, LoadMapped(path_).size());
}

TEST_F(MmapFileOwnersTest, OneDeadIsTakenWhateverItsSize) {
  Leave(NamedPackets("p", 3000, 20));

  EXPECT_EQ(3000u, LoadMapped(path_).size());
}

TEST_F(MmapFileOwnersTest, BeyondSixtyThreeAreRefusedUntilOneLeaves) {
  std::vector<Owner> owners;
  for (int i = 0; i < MultiProcessSafetyMmapFile::kMaxOwners; ++i) {
    owners.push_back(Join());
    ASSERT_TRUE(Save(*owners.back(), {NamedPacket("of", static_cast<size_t>(i), 30)}));
  }
  RecordingLog::Clear();
  MultiProcessSafetyMmapFile late;
  EXPECT_FALSE(OpenFile(late, path_));
  EXPECT_EQ(1, LinesWith(2, path_));

  owners[20].reset();

  ASSERT_TRUE(OpenFile(late, path_));
  EXPECT_EQ(Packets{NamedPacket("of", 20, 30)}, ReadAll(late));
}

TEST_F(MmapFileOwnersTest, AllSixtyThreeDeadLeaveEveryPacket) {
  std::set<std::string> saved, found;
  {
    std::vector<Owner> owners;
    for (size_t i = 0; i < MultiProcessSafetyMmapFile::kMaxOwners; ++i) {
      owners.push_back(Join());
      const Packets packets = NamedPackets("of " + std::to_string(i), 5, 64);
      ASSERT_TRUE(Save(*owners.back(), packets));
      saved.insert(packets.begin(), packets.end());
    }
  }

  for (int generation = 0; generation < 10; ++generation) {
    MultiProcessSafetyMmapFile heir;
    ASSERT_TRUE(OpenFile(heir, path_));
    const Packets packets = ReadAll(heir);
    EXPECT_LT(packets.size(), 200u);
    found.insert(packets.begin(), packets.end());
    ASSERT_TRUE(Save(heir, {}));
  }

  EXPECT_EQ(saved, found);
  EXPECT_EQ(Packets{}, LoadMapped(path_));
}

TEST_F(MmapFileOwnersTest, DeadLeaveTheirPlacesOnceTheirHeirHasSaved) {
  std::vector<Owner> owners;
  for (size_t i = 0; i < MultiProcessSafetyMmapFile::kMaxOwners; ++i) {
    owners.push_back(Join());
    ASSERT_TRUE(Save(*owners.back(), {NamedPacket("of", i, 30)}));
  }
  owners.clear();
  const Owner heir = Join();
  ASSERT_EQ(static_cast<size_t>(MultiProcessSafetyMmapFile::kMaxOwners), ReadAll(*heir).size());

  ASSERT_TRUE(Save(*heir, {"new"}));

  while (owners.size() + 1 < MultiProcessSafetyMmapFile::kMaxOwners) {
    owners.push_back(Join());
    ASSERT_EQ(Packets{}, ReadAll(*owners.back()));
  }
}

TEST_F(MmapFileOwnersTest, WhoSavesNothingNeverReplacesTheDead) {
  Leave({"a"});
  {
    const Owner heir = Join();
    ASSERT_TRUE(heir->Clear(50));
    ASSERT_TRUE(Append(*heir, "void"));
    ASSERT_FALSE(Append(*heir, std::string(100, 'x')));
  }

  EXPECT_EQ(Packets{"a"}, LoadMapped(path_));
}

TEST_F(MmapFileOwnersTest, AliveSaveInTurnWithoutLoss) {
  Random random(4);
  Owner owners[3] = {Join(), Join(), Join()};
  Packets contents[3];
  for (int step = 0; step < 600; ++step) {
    const size_t who = Below(random, 3);
    contents[who].push_back(RandomBytes(random, 1 + Below(random, 300)));
    if (contents[who].size() > 20)
      contents[who].erase(contents[who].begin(), contents[who].begin() + 15);
    ASSERT_TRUE(Save(*owners[who], contents[who]));
    if (step % 20 != 0) continue;
    CopyAsIfKilled(path_, folder_.File("killed"));
    std::multiset<std::string> expected;
    for (const Packets& content : contents) expected.insert(content.begin(), content.end());
    const Packets found = LoadMapped(folder_.File("killed"));
    ASSERT_EQ(expected, std::multiset<std::string>(found.begin(), found.end())) << step;
  }
}

}  // namespace
}  // namespace quenor::test
