// Every system call of both kinds of cache file fails, at every place where it is made, alone or
// with all after it: nothing that was confirmed is lost, and the next save works.
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "tests/cache/faults_bench.h"

namespace quenor::test {
namespace {

// What the scenarios begin with. The mapped file has it of two owners, who have died.
Packets OldContent() {
  return Union(NamedPackets("first", 5, 300), NamedPackets("second", 5, 300));
}

template <typename Kind>
std::string ImageOf(const Packets& packets) {
  const TempFolder folder;
  const long half = Kind::kIsPlain ? 0 : 5;
  typename Kind::File first, second;
  if (half > 0) {
    EXPECT_TRUE(OpenFile(first, folder.File("f")));
    EXPECT_TRUE(Save(first, Packets(packets.begin(), packets.begin() + half)));
  }
  EXPECT_TRUE(OpenFile(second, folder.File("f")));
  EXPECT_TRUE(Save(second, Packets(packets.begin() + half, packets.end())));
  return ReadWholeFile(folder.File("f"));
}

template <typename Kind>
class CacheFaultsTest : public CacheKindTest<Kind> {
 protected:
  // Whatever came before, the next owner finds it.
  static void CloseAndOpen(Life<Kind>& life) {
    life.Close();
    life.Open();
    life.Close();
  }
};
TYPED_TEST_SUITE(CacheFaultsTest, CacheKinds, CacheKindName);

template <typename Kind>
void OpenSaveGrowShrinkReopen(Life<Kind>& life) {
  life.Open();
  Packets packets = OldContent();
  packets.erase(packets.begin());
  packets.push_back(NamedPacket("new", 1, 500));
  life.SaveAs(packets);
  std::swap(packets.front(), packets.back());
  life.SaveAs(packets);
  for (const std::string& packet : NamedPackets("grown", FullLength() ? 60 : 15, 4000))
    packets.push_back(packet);
  if (Kind::kIsPlain) packets.push_back(NamedPacket("longer than is copied", 1, 100000));
  life.SaveAs(packets);
  packets.erase(packets.begin() + 3);
  life.SaveAs(packets);
  // Now the plain file is much longer than its content, and is written anew.
  life.SaveAs({NamedPacket("shrunk", 1, 200)});
  life.SaveAs({NamedPacket("shrunk", 1, 200), NamedPacket("shrunk", 2, 200)});
  life.SaveAs({});
  life.SaveAs({"last"});
  life.Close();
  life.Open();
  life.SaveAs({"last", "and new"});
  life.Close();
  life.Open();
  life.Close();
}

TYPED_TEST(CacheFaultsTest, AnyFailingCallLosesNothingThatWasConfirmed) {
  for (const uint64_t durability : {2, 1, 0}) {
    if (durability != 2 && !FullLength()) break;
    FailEveryCall<TypeParam>(
        "open, save, grow, shrink",
        {ImageOf<TypeParam>(OldContent()), OldContent(), OpenSaveGrowShrinkReopen<TypeParam>},
        durability);
  }
}

TYPED_TEST(CacheFaultsTest, AnyFailingCallInANewFileLosesNothing) {
  const auto run = [this](Life<TypeParam>& life) {
    life.Open();
    life.SaveAs({"a"});
    life.SaveAs({"a", "b"});
    this->CloseAndOpen(life);
  };
  FailEveryCall<TypeParam>("a new file", {"", {}, run}, 2);
}

TYPED_TEST(CacheFaultsTest, AnyFailingCallInARepairLosesNoIntactPacket) {
  Packets content = OldContent();
  std::string image = ImageOf<TypeParam>(content);
  const size_t hit = image.find(content[2]);
  ASSERT_NE(std::string::npos, hit);
  image[hit] = static_cast<char>(image[hit] ^ 1);
  content.erase(content.begin() + 2);
  const auto run = [&](Life<TypeParam>& life) {
    life.Open();
    life.Expect(ReadWholeFile(SetAside(life.path())) == image,
                "the file as it was is not set aside");
    life.SaveAs({"a"});
    this->CloseAndOpen(life);
  };
  FailEveryCall<TypeParam>("repair", {image, content, run}, 2);
}

TYPED_TEST(CacheFaultsTest, AnyFailingCallAfterARepairWasKilledLosesNothing) {
  const auto run = [this](Life<TypeParam>& life) {
    {
      const FileCalls::Unseen unseen;
      std::rename(life.path().c_str(), Recovered(life.path()).c_str());
    }
    life.Open();
    life.SaveAs({"a"});
    this->CloseAndOpen(life);
  };
  FailEveryCall<TypeParam>("a repair that was killed between its renames",
                           {ImageOf<TypeParam>(OldContent()), OldContent(), run}, 2);
}

TYPED_TEST(CacheFaultsTest, AnyFailingCallAfterTheFileWasTakenAwayLosesNothing) {
  for (const bool cut : {false, true}) {
    const auto run = [&](Life<TypeParam>& life) {
      life.Open();
      life.SaveAs(NamedPackets("p", 20, 1000));
      const std::string& path = life.path();
      life.Expect(cut ? truncate(path.c_str(), 5000) == 0 : std::remove(path.c_str()) == 0,
                  "cannot be taken away");
      life.SaveAnew({"a", "b"});
      life.SaveAs({"b", "c"});
      this->CloseAndOpen(life);
    };
    FailEveryCall<TypeParam>(cut ? "cut while open" : "deleted while open", {"", {}, run}, 0);
  }
}

// QUENOR_CACHE_FULL=1 for many more saves.
TYPED_TEST(CacheFaultsTest, RandomFaultsNeverCostWhatWasTaken) {
  constexpr size_t kMostPackets = 12;
  const uint64_t seed = TestSeed();
  Random random(seed);
  std::cout << "QUENOR_TEST_SEED=" << seed << std::endl;
  const size_t saves = FullLength() ? 5000 : 150;
  const DurabilityScope durability(Below(random, 3));
  Life<TypeParam> life(this->path_, {});
  life.Open();
  Packets store;

  for (size_t i = 0; i < saves && life.error().empty(); ++i) {
    if (store.size() == kMostPackets || (!store.empty() && Below(random, 2) == 0)) {
      store.erase(store.begin());
    }
    if (store.size() > 1 && Below(random, 9) == 0) std::swap(store.front(), store.back());
    store.push_back(NamedPacket("p", i, 8 + Below(random, Below(random, 8) == 0 ? 20000 : 500)));
    if (Below(random, 3) == 0) {
      Fault fault = {FailingCalls()[Below(random, FailingCalls().size())],
                     FailingErrors()[Below(random, FailingErrors().size())]};
      fault.for_good = !IsMemory(fault.call) && fault.error != EINTR && Below(random, 2) == 0;
      life.Arm(fault, 1 + static_cast<int>(Below(random, 12)));
    }
    // Some fail, and others after them, before the disk is well again.
    if (Below(random, 3) > 0) {
      life.SaveAs(store);
    } else {
      life.TrySave(store);
    }
  }
  FileCalls::Reset();
  life.SaveAs(store);
  life.Close();
  life.Open();

  EXPECT_EQ("", life.error());
  EXPECT_LT(life.failed_saves(), saves / 2);
  EXPECT_FALSE(Exists(SetAside(this->path_)));
}

}  // namespace
}  // namespace quenor::test
