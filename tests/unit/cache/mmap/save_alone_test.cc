// A save by itself, on a temporary file: no table, no lock, no other owner. The test writes no
// seal, it only reads back what one would name.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "services/mmap_file_posix/reader.h"
#include "services/mmap_file_posix/save.h"
#include "tests/support/temp_folder.h"

namespace quenor::test {
namespace {

using namespace mmap_format;
using cache_io::Durability;
using Packets = std::vector<std::string>;

// Extents one behind the other, in a file of their own; says what it was asked for.
class Extents final : public ExtentSource {
 public:
  explicit Extents(const std::string& path) {
    EXPECT_TRUE(file.Open(path, cache_io::Descriptor::How::kCreate));
  }

  bool Take(uint64_t size, Extent* extent) override {
    if (!Ask("take ", size)) return false;
    extent->name = {end_, ++epoch_};
    if (!Map(size, extent)) return false;
    ExtentHeader* const head = extent->header();
    head->magic = kExtentMagic;
    head->owner = 1;
    head->epoch = epoch_;
    head->check = CheckOf(*head);
    head->length = LengthWord(size, epoch_);
    end_ += size;
    return true;
  }
  bool Lengthen(uint64_t size, Extent* extent) override {
    if (!Ask("lengthen ", size) || !Map(size, extent)) return false;
    extent->header()->length = LengthWord(size, extent->name.epoch);
    end_ = std::max(end_, extent->end());
    return true;
  }
  bool Shorten(uint64_t size, Extent* extent) override {
    asked += "shorten " + std::to_string(size / kUnit) + " ";
    extent->header()->length = LengthWord(size, extent->name.epoch);
    return Map(size, extent);
  }
  void Discard(Extent* extent) override {
    asked += "discard ";
    extent->Reset();
  }

  cache_io::Descriptor file;
  std::string asked;
  std::string refused;  // "take " or "lengthen ": is not to be had.

 private:
  bool Ask(const char* what, uint64_t size) {
    const bool done = refused.find(what) == std::string::npos;
    asked += (done ? "" : "no ") + std::string(what) + std::to_string(size / kUnit) + " ";
    errno = ENOSPC;
    return done;
  }
  bool Map(uint64_t size, Extent* extent) {
    return cache_io::Allocate(file.fd(), extent->name.offset, size) &&
           extent->map.Map(file, extent->name.offset, size);
  }

  uint64_t end_ = kTableSize;
  uint64_t epoch_ = 0;
};

MmapDataPacket PacketOf(const std::string& body) {
  return {reinterpret_cast<const uint8_t*>(body.data()), static_cast<uint32_t>(body.size())};
}

// Packets first, first + 1, ... of that size.
Packets Row(size_t first, size_t count, size_t size) {
  Packets packets;
  for (size_t i = first; i < first + count; ++i) {
    packets.push_back(std::to_string(i) + ".");
    packets.back().resize(size, static_cast<char>('a' + i % 26));
  }
  return packets;
}

class SaveAloneTest : public ::testing::Test {
 protected:
  bool Place(const Packets& packets, uint64_t more = 0) {
    uint64_t size = more;
    for (const std::string& packet : packets) size += packet.size() + 4;
    if (!save_.Begin(size, Durability::kProcess)) return false;
    return std::all_of(packets.begin(), packets.end(), [this](const std::string& packet) {
      const MmapDataPacket taken = PacketOf(packet);
      return save_.TakeNextOfOld(taken) || (save_.Expects(taken) && save_.Place(taken));
    });
  }
  bool Complete() {
    Seal seal = {};
    if (!save_.IsWhole() || !save_.MakeIndex() || !save_.WriteIndex(&seal)) return false;
    seal_ = seal;
    save_.ComeIntoForce();
    return true;
  }
  bool SaveAll(const Packets& packets) {
    if (Place(packets) && Complete()) return true;
    save_.Void();
    return false;
  }

  // What the seal names.
  Packets Found() {
    Reader reader(extents_.file.fd());
    PacketPlaces places;
    const char* damage = nullptr;
    uint32_t damaged_packets = 0;
    EXPECT_TRUE(reader.Load() && reader.ReadContent(1, seal_, &places, &damage, &damaged_packets));
    EXPECT_EQ(nullptr, damage);
    Packets packets;
    NothrowArray<uint8_t> body;
    for (const PacketPlace& place : places) {
      EXPECT_TRUE(reader.ReadBody(place, &body));
      packets.emplace_back(body.begin(), body.end());
    }
    return packets;
  }
  // Heads of packets in the content's extent: all, or those that no save has dropped.
  size_t Heads(const char* state = "") {
    const std::string head = std::string("QNP\x1a") + state;
    const uint8_t* const bytes = content_.extent.map.data();
    const uint8_t* const end = bytes + content_.extent.size();
    size_t count = 0;
    for (const uint8_t* at = bytes; at != end; count += at != end, at += at != end) {
      at = std::search(at, end, head.begin(), head.end());
    }
    return count;
  }

  TempFolder folder_;
  Extents extents_{folder_.File("extents")};
  Content content_;
  Save save_{content_, extents_, 0};
  Seal seal_ = {};
};

struct Case {
  const char* name;
  std::vector<Packets> contents;  // Saved one after the other.
  const char* asked;              // Of the source, in units.
  size_t written;                 // Heads in the last extent: what is named again is not written.
  const char* refused = "";       // From the second save on.
};

Packets Join(Packets a, const Packets& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}
Packets Reversed(Packets packets) {
  std::reverse(packets.begin(), packets.end());
  return packets;
}

const Case kCases[] = {
    {"New", {Row(1, 3, 100)}, "take 1 ", 3},
    {"Nothing", {{}}, "", 0},
    {"EmptyPackets", {{"", "a", "", ""}}, "take 1 ", 4},
    {"Unchanged", {Row(1, 3, 100), Row(1, 3, 100)}, "take 1 ", 3},
    {"Emptied", {Row(1, 3, 100), {}}, "take 1 ", 3},
    {"KeptPrefix", {Row(1, 3, 100), Row(1, 2, 100)}, "take 1 ", 3},
    {"KeptEndAndOneMore", {Row(1, 3, 100), Row(2, 3, 100)}, "take 1 ", 4},
    {"BehindWhatWasKept", {Row(1, 3, 100), Row(2, 2, 100), Row(2, 3, 100)}, "take 1 ", 4},
    {"Disordered", {Row(1, 9, 100), Reversed(Row(1, 9, 100))}, "take 1 ", 9},
    {"NewInFront", {Row(2, 3, 100), Row(1, 4, 100)}, "take 1 ", 4},
    {"TwiceThenOnce", {{"a", "b"}, {"a", "a"}, {"a"}}, "take 1 ", 2},
    {"OfOneLength", {Row(1, 3, 100), Row(4, 3, 100)}, "take 1 ", 6},
    {"OverTheDropped", {Row(1, 3, 3000), Row(4, 1, 3000), Row(5, 3, 3000)}, "take 2 ", 4},
    {"Lengthened", {Row(1, 1, 100), Row(1, 9, 3000)}, "take 1 lengthen 2 ", 10},
    {"Moved",
     {Row(1, 1, 100), Row(1, 9, 3000)},
     "take 1 no lengthen 2 no lengthen 2 take 3 ",
     9,
     "lengthen "},
    {"MovedWithWhatItHadPlaced",
     {Row(1, 3, 3000), Join(Row(2, 2, 3000), Row(4, 9, 3000))},
     "take 2 no lengthen 3 no lengthen 3 take 4 ",
     11,
     "lengthen "},
    {"ShortIndexFull", {Row(1, 252, 8)}, "take 1 ", 252},
    {"NewBeforeAFullShortIndex", {Row(2, 252, 8), Row(1, 253, 8)}, "take 1 ", 253},
    {"LongIndex", {Row(1, 253, 8)}, "take 1 ", 253},
    {"LongIndexes", {Row(1, 300, 8), Row(2, 300, 8), Row(3, 300, 8)}, "take 1 lengthen 2 ", 302},
    {"LongThenShort", {Row(1, 253, 8), Row(2, 252, 8)}, "take 1 ", 253},
};
void PrintTo(const Case& one, std::ostream* out) { *out << one.name; }

class SaveAloneCaseTest : public SaveAloneTest, public ::testing::WithParamInterface<Case> {};

TEST_P(SaveAloneCaseTest, IsReadBackAndAsksForSoMuch) {
  for (const Packets& packets : GetParam().contents) {
    ASSERT_TRUE(SaveAll(packets));
    ASSERT_EQ(packets, Found());
    extents_.refused = GetParam().refused;
  }

  EXPECT_EQ(GetParam().asked, extents_.asked);
  EXPECT_EQ(GetParam().written, content_.extent ? Heads() : 0);
  const Packets& last = GetParam().contents.back();
  const std::set<std::string> different(last.begin(), last.end());
  // One that is there twice may have been written twice.
  EXPECT_GE(content_.extent ? Heads("LIVE") : 0, different.size());
  EXPECT_LE(content_.extent ? Heads("LIVE") : 0, last.size());
}

INSTANTIATE_TEST_SUITE_P(, SaveAloneCaseTest, ::testing::ValuesIn(kCases),
                         [](const auto& one) { return std::string(one.param.name); });

// Whatever it was about to do.
TEST_F(SaveAloneTest, ThatIsVoidLeavesTheOldContentAndItsRoom) {
  const Packets old = Row(1, 3, 100);
  ASSERT_TRUE(SaveAll(old));
  const Packets begun[] = {Row(2, 2, 100), Row(4, 3, 100), Reversed(old), Row(4, 9, 3000), {}};
  for (const char* const refused : {"", "lengthen ", "lengthen take "}) {
    extents_.refused = refused;
    for (const Packets& packets : begun) {
      const bool is_placed = Place(packets, 5);
      EXPECT_TRUE(is_placed || *refused != '\0');
      EXPECT_FALSE(save_.IsWhole());
      EXPECT_FALSE(is_placed && save_.Expects(PacketOf("two")));
      save_.Void();

      ASSERT_EQ(old, Found());
      ASSERT_EQ(3u, Heads("LIVE")) << extents_.asked;
      ASSERT_EQ(kUnit, content_.extent.size());
    }
  }
}

TEST_F(SaveAloneTest, OfEverySizeAndWithAnotherByteAnywhereIsTheNewOne) {
  Packets packets;
  for (size_t size = 0; size <= 700; ++size) packets.push_back(Row(size, 1, size)[0]);
  for (size_t around : {4096, 16384, 65536}) {
    for (size_t size = around - 33; size <= around + 33; size += 11) {
      packets.push_back(Row(1, 1, size)[0]);
    }
  }
  ASSERT_TRUE(SaveAll(packets));
  ASSERT_EQ(packets, Found());
  packets = Row(1, 3, 64);

  for (size_t at = 0; at < 64; ++at) {
    packets[at % 3][at] = '!';
    ASSERT_TRUE(SaveAll(packets));
    ASSERT_EQ(packets, Found()) << at;
  }
}

// In the 12 KiB that there are: of 8 bytes they leave room for it.
TEST_F(SaveAloneTest, WhoseLongIndexFindsNoRoomLeavesTheOldContent) {
  for (const size_t size : {8, 16, 24}) {
    extents_.refused.clear();
    ASSERT_TRUE(SaveAll({}) && SaveAll({"old"}));
    extents_.refused = "take lengthen ";

    EXPECT_EQ(size == 8, SaveAll(Row(1, 253, size))) << size;

    EXPECT_EQ(size == 8 ? Row(1, 253, size) : Packets{"old"}, Found()) << size;
  }
}

// Where nothing else is to be had, new packets go to where dropped ones were.
TEST_F(SaveAloneTest, InAGapThatIsAWordTooShortLeavesWhatIsBehindTheGap) {
  const auto packet = [](char letter, size_t room) {
    return std::string(room - sizeof(PacketHeader), letter);
  };
  for (const size_t more : {0, 8}) {
    extents_.refused.clear();
    ASSERT_TRUE(SaveAll({}) && SaveAll({packet('d', 2000), packet('k', 400)}));
    const std::string to_the_end = packet('e', content_.extent.size() - kPacketsBegin - 2400);
    const Packets old = {packet('k', 400), to_the_end};
    ASSERT_TRUE(SaveAll(Join({packet('d', 2000)}, old)) && SaveAll(old));
    extents_.refused = "take lengthen ";
    const Packets next = Join(old, {packet('1', 800), packet('2', 1200 + more)});

    EXPECT_EQ(more == 0, SaveAll(next)) << more;

    EXPECT_TRUE(Found() == (more == 0 ? next : old)) << more;
  }
}

// Until it comes into force, which one that is killed behind its index never does.
TEST_F(SaveAloneTest, WithItsIndexWrittenLeavesTheOldOne) {
  for (const size_t packets : {3, 300}) {
    for (size_t round = 0; round < 4; ++round) {
      const Packets old = Row(round, packets, 8);
      ASSERT_TRUE(SaveAll(old));
      Seal never_written = {};
      ASSERT_TRUE(Place(Row(round + 1, packets, 8)) && save_.MakeIndex());
      ASSERT_TRUE(save_.WriteIndex(&never_written));

      EXPECT_EQ(old, Found()) << packets << " packets, round " << round;

      save_.Void();
    }
  }
}

TEST_F(SaveAloneTest, CutsOffWhatItsContentHasNoUseFor) {
  ASSERT_TRUE(SaveAll(Row(1, 12, 20000)));
  ASSERT_TRUE(SaveAll(Row(1, 1, 20000)));
  EXPECT_TRUE(save_.IsWasteful());

  EXPECT_TRUE(save_.CutOff());

  EXPECT_FALSE(save_.IsWasteful());
  EXPECT_EQ(Row(1, 1, 20000), Found());
}

TEST_F(SaveAloneTest, ComesNearerToTheFrontToBeCutOff) {
  ASSERT_TRUE(SaveAll(Row(1, 12, 20000)));
  ASSERT_TRUE(SaveAll(Row(12, 1, 20000)));
  ASSERT_FALSE(save_.CutOff());

  ASSERT_TRUE(save_.PlaceAgain() && Complete());

  EXPECT_TRUE(save_.CutOff());
  EXPECT_EQ(Row(12, 1, 20000), Found());
}

// An old packet in each of the ways that a save can have it: at its place, elsewhere, twice, not at
// all; and new ones between them.
Packets ShuffledAndMixed(std::mt19937_64& random, Packets packets, size_t* number) {
  const auto below = [&](size_t limit) { return static_cast<long>(random() % limit); };
  const long how = below(6);
  if (how == 0) std::shuffle(packets.begin(), packets.end(), random);
  if (how == 1 && !packets.empty()) {
    std::rotate(packets.begin(), packets.end() - 1, packets.end());
  }
  for (long i = below(4); i > 0 && !packets.empty(); --i) {
    packets.erase(packets.begin() + (how == 2 ? 0 : below(packets.size())));
  }
  for (long i = below(4); i > 0 && packets.size() < 60; --i) {
    const long where = how == 2 ? static_cast<long>(packets.size()) : below(packets.size() + 1);
    const Packets fresh = Row((*number)++, 1, 20 + static_cast<size_t>(below(60)));
    packets.insert(packets.begin() + where, fresh[0]);
  }
  if (how == 3 && !packets.empty()) {
    const std::string twin = packets[static_cast<size_t>(below(packets.size()))];
    packets.push_back(twin);
  }
  return packets;
}

TEST_F(SaveAloneTest, OfOldPacketsInAnyOrderKeepsThemAndMarksTheOthersAsDropped) {
  const char* const given = std::getenv("QUENOR_TEST_SEED");
  const uint64_t seed = given != nullptr ? std::stoull(given) : std::random_device()();
  std::mt19937_64 random(seed);
  Packets packets;
  size_t number = 0;
  // So much room that no save has to begin anew elsewhere, which leaves some behind.
  Save roomy(content_, extents_, 40000);
  ASSERT_TRUE(roomy.Begin(12, Durability::kProcess) && roomy.Place(PacketOf("a packet")));
  ASSERT_TRUE(roomy.MakeIndex() && roomy.WriteIndex(&seal_));
  roomy.ComeIntoForce();

  for (int step = 0; step < 200; ++step) {
    packets = ShuffledAndMixed(random, packets, &number);
    ASSERT_TRUE(SaveAll(packets)) << step;

    ASSERT_EQ(packets, Found()) << "step " << step << ", QUENOR_TEST_SEED=" << seed;
    const std::set<std::string> different(packets.begin(), packets.end());
    // A packet that is there twice may have been copied once for each.
    ASSERT_GE(Heads("LIVE"), different.size()) << step << ", QUENOR_TEST_SEED=" << seed;
    ASSERT_LE(Heads("LIVE"), packets.size()) << step << ", QUENOR_TEST_SEED=" << seed;
  }
}

}  // namespace
}  // namespace quenor::test
