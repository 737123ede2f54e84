// Room in the file, as a list of ranges: what owners take, lengthen, shorten and give back, and
// which ranges are then in use. On a table of their own; no packet, no save.
#include "services/mmap_file_posix/room.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/temp_folder.h"

namespace quenor::test {
namespace {

using namespace mmap_format;
using How = cache_io::Descriptor::How;

// Owner a, b or c of the file, each as if in a process of its own.
struct OneOwner {
  OneOwner(const std::string& path, uint32_t own, How how) {
    EXPECT_TRUE(file.Open(path, how));
    const Room::Locked locked(room, 0);
    EXPECT_TRUE(locked && room.MapTable());
    table.PrepareHeader(0);
    room.Begin(own, cache_io::Durability::kProcess);
  }

  cache_io::Descriptor file;
  Table table;
  Room room{file, table};
  Extent extent;
  ExtentName left;
};

struct Case {
  const char* steps;
  const char* used;  // In units behind the table, and behind the bar how many the file has.
};

// +N takes, >N lengthens to, <N shortens to so many units; - gives back; ! seals it; ? dies
// filling it; # loses the seal that it had; % has a damaged record; * leaves it, and comes to give
// it back at ~. Whether the last step was refused is told.
const Case kCases[] = {
    {"a+1", "a0-1 | 1"},
    {"a+1 b+2 c+1", "a0-1 b1-3 c3-4 | 4"},
    {"a+2 b+1 a- c+1", "c0-1 b2-3 | 3"},  // The first gap,
    {"a+1 b+1 a- c+2", "b1-2 c2-4 | 4"},  // if it is long enough.
    {"a+1 b+1 c+1 a- b- a+2", "a0-2 c2-3 | 3"},
    {"a+1 b+3 b-", "a0-1 | 1"},
    {"a+1 b+1 a-", "b1-2 | 2"},
    {"a+1 b+1 a- b-", " | 0"},
    {"a+1 a>3", "a0-3 | 3"},
    {"a+1 b+1 c+1 b- a>2", "a0-2 c2-3 | 3"},
    {"a+1 b+1 a>2", "a0-1 b1-2 | 2 refused"},
    {"a+1 b+1 c+1 b- a>3", "a0-1 c2-3 | 3 refused"},
    {"a+3 b+1 a<1 c+2", "a0-1 c1-3 b3-4 | 4"},
    {"a+3 a<1", "a0-1 | 1"},
    {"a+1 a! b+1 a>2", "a0-1 b1-2 | 2 refused"},
    {"a+2 a! a<1 a>3 b+1", "a0-3 b3-4 | 4"},
    {"a+2 b+1 a? c+1", "c0-1 b2-3 | 3"},
    {"a+1 b+1 c? b? a>2", "a0-2 | 2"},
    {"a+1 b+1 a# c+1", "b1-2 c2-3 | 3"},
    {"a+2 b+1 b# a>3", "a0-2 | 3 refused"},
    {"a+1 b+1 b? b% c+1", "a0-1 c2-3 | 3"},
    {"a+1 b+1 a* a~", "b1-2 | 2"},
    {"a+1 b+1 a* b- c+2 c# a~", " | 2"},  // By then it is another's.
};

class RoomTest : public ::testing::TestWithParam<Case> {
 protected:
  bool Do(const std::string& step) {
    OneOwner& owner = *owners_[static_cast<size_t>(step[0] - 'a')];
    const uint32_t own = static_cast<uint32_t>(step[0] - 'a' + 1);
    const uint64_t size = step.size() > 2 ? std::stoull(step.substr(2)) * kUnit : 0;
    if (step[1] == '+') return owner.room.Take(size, &owner.extent);
    if (step[1] == '>') return owner.room.Lengthen(size, &owner.extent);
    if (step[1] == '<') return owner.room.Shorten(size, &owner.extent);
    if (step[1] == '-') return owner.room.Discard(&owner.extent), true;
    if (step[1] == '!') {
      Seal seal = {};
      seal.save_number = owner.table.NextSaveNumber();
      owner.table.WriteSeal(own, 0, seal);  // A record's first is of nothing.
      seal.save_number = owner.table.NextSaveNumber();
      seal.extent_offset = owner.extent.name.offset;
      seal.extent_size = owner.extent.size();
      seal.extent_epoch = owner.extent.name.epoch;
      seal.index_at = ShortIndexAt(0);
      owner.table.WriteSeal(own, 1, seal);
    }
    if (step[1] == '%') std::memset(owner.table.record(own)->seals, 'x', 2 * sizeof(Seal));
    if (step[1] == '*') owner.left = MarkFree(&owner.extent);
    if (step[1] == '~') owner.room.GiveBack(owner.left);
    if (step[1] == '#') owner.extent.header()->state = kInUse;
    const bool has_left = owner.left.offset != 0;
    owner.room.DropReservation(has_left ? owner.left.offset : owner.extent.name.offset);
    return true;
  }

  // As the records have it, in the order of the file.
  std::string Used() {
    const Table& table = owners_[0]->table;
    std::vector<std::pair<uint64_t, std::string>> ranges;
    for (uint32_t own = 1; own <= 3; ++own) {
      const OwnerView view = table.View(own);
      Range range = view.reserved[0];
      if (view.in_force >= 0) {
        ExtentHeader head;
        EXPECT_EQ(
            static_cast<int64_t>(sizeof head),
            cache_io::ReadAt(owners_[0]->file.fd(), &head, sizeof head, view.seal().extent_offset));
        range = {view.seal().extent_offset, view.seal().extent_offset + SizeOf(head)};
      }
      if (range.end == 0) continue;
      const auto units = [](uint64_t at) { return std::to_string((at - kTableSize) / kUnit); };
      const std::string name(1, static_cast<char>('a' + own - 1));
      ranges.emplace_back(range.begin, name + units(range.begin) + "-" + units(range.end) + " ");
    }
    std::sort(ranges.begin(), ranges.end());
    std::string text;
    for (const auto& range : ranges) text += range.second;
    uint64_t size = 0, links = 0;
    EXPECT_TRUE(cache_io::FileSize(owners_[0]->file.fd(), &size, &links));
    return (text.empty() ? " " : text) + "| " + std::to_string((size - kTableSize) / kUnit);
  }

  TempFolder folder_;
  std::vector<std::unique_ptr<OneOwner>> owners_;
};

TEST_P(RoomTest, HasTheseRangesInUse) {
  for (uint32_t own = 1; own <= 3; ++own) {
    const How how = own == 1 ? How::kCreate : How::kExisting;
    owners_.push_back(std::make_unique<OneOwner>(folder_.File("room"), own, how));
  }
  std::istringstream steps(GetParam().steps);
  bool done = true;

  for (std::string step; steps >> step;) done = Do(step);

  EXPECT_EQ(GetParam().used, Used() + (done ? "" : " refused"));
}

TEST(UsedRangesTest, WhatTouchesOrOverlapsBecomesOneInWhateverOrder) {
  UsedRanges used;
  used.Begin(100);
  for (const Range range : {Range{40, 50}, Range{10, 30}, Range{15, 20}, Range{30, 32}}) {
    ASSERT_TRUE(used.Add(range.begin, range.end));
  }

  used.Join();

  EXPECT_EQ(used.GapEnd(20), 20u);  // One of them ended there, inside another.
  EXPECT_EQ(used.GapEnd(32), 40u);
  EXPECT_EQ(used.End(), 50u);
  EXPECT_EQ(used.gaps(), 2u);
}

INSTANTIATE_TEST_SUITE_P(, RoomTest, ::testing::ValuesIn(kCases));

}  // namespace
}  // namespace quenor::test
