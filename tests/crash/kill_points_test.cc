// A process that saves is killed at every instruction that changes its cache file, and before,
// inside and after every system call. Whoever opens the file next finds what the file promises: the
// mapped one the whole old or the whole new content, the plain one no less than that. The instants
// are noted in one run under ptrace. What a SIGKILL leaves at each is rebuilt from the notes, and
// at a sample of them (in the long run: at nearly all) a process of its own is killed for it, and
// the two must be the same, byte for byte. The inside of a call is only rebuilt. In the long run
// every point is listed in a file, whose name is printed.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "services/mmap_file_posix/format.h"
#include "tests/crash/support/promises.h"
#include "tests/crash/support/tracer.h"

namespace quenor::test {
namespace {

using Commands = std::vector<std::string>;

// Where the content that was saved last is.
struct Placement {
  uint64_t extent = 0;
  uint64_t extent_size = 0;
  uint64_t last_packet = 0;  // In the extent.
  bool operator==(const Placement& other) const {
    return extent == other.extent && extent_size == other.extent_size;
  }
};

Placement PlacementIn(const FolderState& state) {
  namespace format = mmap_format;
  const std::string& bytes = state.files.at("c.mmap");
  Placement placement;
  uint64_t latest = 0;
  for (uint32_t owner = 1; owner <= format::kOwners; ++owner) {
    format::OwnerRecord record;
    std::memcpy(&record, &bytes[format::RecordOffset(owner)], sizeof(record));
    for (const format::Seal& seal : record.seals) {
      if (seal.check != format::CheckOf(seal) || seal.save_number < latest) continue;
      latest = seal.save_number;
      placement = {seal.extent_offset, 0, 0};
      if (seal.extent_offset == 0) continue;
      format::ExtentHeader head;
      std::memcpy(&head, &bytes[seal.extent_offset], sizeof(head));
      placement.extent_size = format::SizeOf(head);
      if (seal.packets == 0) continue;
      const uint64_t last = seal.extent_offset + seal.index_at + (seal.packets - 1) * 8;
      std::memcpy(&placement.last_packet, &bytes[last], sizeof(placement.last_packet));
    }
  }
  return placement;
}

struct Transition {
  std::string name;
  // Makes the file, on this process's own; may be null.
  std::function<void(const std::string& path)> prepare;
  // For the program. The first mark is where the kills begin, each further one ends a phase.
  Commands commands;
  std::vector<Expected> phases;
  // Whether the run was what the name says; may be null.
  std::function<bool(const Trace&)> is_proven;
  // The file is damaged from the start; what is expected is what is intact in it.
  bool is_damaged = false;
  // In the short run only its calls are looked at: it takes too many instructions.
  bool is_long = false;
};

void SaveAsOwner(const std::string& path, const std::string& content) {
  const auto owner = CacheFile::Create(FileKind::kMapped);
  ASSERT_TRUE(owner->Open(path));
  ASSERT_TRUE(owner->Save(ContentOf(content)));
}

// Three owners, alive at the same time, who have died since.
void LeaveThreeOwners(const std::string& path) {
  const auto first = CacheFile::Create(FileKind::kMapped);
  const auto second = CacheFile::Create(FileKind::kMapped);
  const auto third = CacheFile::Create(FileKind::kMapped);
  ASSERT_TRUE(first->Open(path) && second->Open(path) && third->Open(path));
  ASSERT_TRUE(first->Save(ContentOf("1-3x200")));
  ASSERT_TRUE(second->Save(ContentOf("11-14x90")));
  ASSERT_TRUE(third->Save(ContentOf("21-22x700")));
}

Expected From(const std::string& old, const std::string& now) {
  return Expected{ContentOf(old), ContentOf(now)};
}

// Without an older save, the seal that is written has no valid one to replace.
constexpr char kOlder[] = "701-704x150";
Commands SaveThrice(const std::string& old, const std::string& now) {
  return {"open",        "load", std::string("save:") + kOlder, "save:" + old, "mark",
          "save:" + now, "mark"};
}

// A live owner, in this process, beside the one that is killed. He stays until the next one.
void LiveBeside(const std::string& path, const std::string& content) {
  static std::unique_ptr<CacheFile> live;
  live = CacheFile::Create(FileKind::kMapped);
  ASSERT_TRUE(live->Open(path));
  ASSERT_TRUE(live->Save(ContentOf(content)));
}

// A content of which a byte is not what its owner wrote; the mapped file's has died beside another.
void LeaveDamage(FileKind kind, const std::string& path, const std::string& damaged) {
  {
    const auto first = CacheFile::Create(kind);
    const auto second = CacheFile::Create(kind);
    ASSERT_TRUE(first->Open(path) && first->Save(ContentOf("1x200+" + damaged + "+3x200")));
    if (kind == FileKind::kMapped) {
      ASSERT_TRUE(second->Open(path) && second->Save(ContentOf("11-14x90")));
    }
  }
  std::string bytes = ReadWholeFile(path);
  const size_t at = bytes.find(ContentOf(damaged).front());
  ASSERT_NE(std::string::npos, at);
  bytes[at + 50] = static_cast<char>(~bytes[at + 50]);
  ASSERT_TRUE(WriteWholeFile(path, bytes));
}

Transition Repairing(FileKind kind) {
  const bool is_mapped = kind == FileKind::kMapped;
  const std::string intact = is_mapped ? "1x200+3x200+11-14x90" : "1x200+3x200";
  Transition repairing;
  repairing.name = "repairing";
  repairing.prepare = [kind](const std::string& path) { LeaveDamage(kind, path, "2x200"); };
  repairing.commands = {"mark", "open", "mark"};
  repairing.phases = {From(intact, intact)};
  repairing.is_proven = [is_mapped](const Trace& trace) {
    return trace.end.files.count(is_mapped ? "c.mmap.set-aside" : "c.cache.set-aside") > 0;
  };
  repairing.is_damaged = repairing.is_long = true;
  return repairing;
}

Transition Simple(const std::string& name, const std::string& old, const std::string& now) {
  return {name, nullptr, SaveThrice(old, now), {From(old, now)}, nullptr};
}

// With nothing in the file, not even room for it.
Transition FromNothing(const std::string& name, const std::string& now) {
  return {name,
          nullptr,
          {"open", "load", "save:", "mark", "save:" + now, "mark"},
          {From("", now)},
          nullptr};
}

// The steady case again and again: one message acknowledged in the middle, one new at the end.
std::string SteadyContent(int round) {
  std::string name;
  for (int i = 0; i < 12; ++i) {
    const int number = round + i < 6 ? i : round + i - (i < 6 ? 1 : 0);
    name += (i == 0 ? "" : "+") + std::to_string(100 + number) + "x400";
  }
  return name;
}

// Saves until one of them goes elsewhere in the way that is asked for; the commands end with it.
Transition Steady(const std::string& name,
                  const std::function<bool(const Placement&, const Placement&)>& is_asked_for) {
  Transition steady;
  steady.name = name;
  TempFolder folder;
  const auto file = CacheFile::Create(FileKind::kMapped);
  EXPECT_TRUE(file->Open(Successor::PathIn(folder.path(), FileKind::kMapped)));
  steady.commands = {"open", "load", std::string("save:") + kOlder};
  EXPECT_TRUE(file->Save(ContentOf(kOlder)));
  EXPECT_TRUE(file->Save(ContentOf(SteadyContent(0))));
  steady.commands.push_back("save:" + SteadyContent(0));
  Placement last = PlacementIn(FolderState::Of(folder.path()));
  for (int round = 1; round < 500; ++round) {
    EXPECT_TRUE(file->Save(ContentOf(SteadyContent(round))));
    const Placement now = PlacementIn(FolderState::Of(folder.path()));
    if (is_asked_for(last, now)) {
      steady.commands.insert(steady.commands.end(),
                             {"mark", "save:" + SteadyContent(round), "mark"});
      steady.phases = {From(SteadyContent(round - 1), SteadyContent(round))};
      break;
    }
    steady.commands.push_back("save:" + SteadyContent(round));
    last = now;
  }
  EXPECT_FALSE(steady.phases.empty()) << name << " never happened";
  steady.is_proven = [is_asked_for](const Trace& trace) {
    return is_asked_for(PlacementIn(trace.begin), PlacementIn(trace.end));
  };
  return steady;
}

using Maker = std::function<Transition()>;
struct NamedMaker {
  const char* name;
  Maker make;
};
void PrintTo(const NamedMaker& maker, std::ostream* out) { *out << maker.name; }

bool HasMoved(const Trace& trace) {
  return PlacementIn(trace.begin).extent != PlacementIn(trace.end).extent;
}
bool HasGrown(const Trace& trace) {
  return !HasMoved(trace) &&
         PlacementIn(trace.begin).extent_size < PlacementIn(trace.end).extent_size;
}
bool IsCutOff(const Trace& trace) {
  return !HasMoved(trace) &&
         PlacementIn(trace.begin).extent_size > PlacementIn(trace.end).extent_size;
}

// But for the process that holds the table's lock, whose number differs in every run. A first
// Open() writes it before the file's magic, so that nothing but the name tells a mapped file.
FolderState WithoutHolder(FolderState state) {
  const size_t at = offsetof(mmap_format::Header, lock_holder);
  const size_t size = sizeof(mmap_format::Header::lock_holder);
  for (auto& [name, bytes] : state.files) {
    const bool is_mapped_file = name.compare(0, 6, "c.mmap") == 0 && bytes.size() >= at + size;
    if (is_mapped_file) bytes.replace(at, size, size, '\0');
  }
  return state;
}

const std::vector<NamedMaker>& MappedTransitions() {
  static const std::vector<NamedMaker> makers = {
      {"Growing", [] { return Simple("growing", "1-4x300", "1-9x300"); }},
      {"ShrinkingALittle", [] { return Simple("shrinking a little", "1-9x300", "4-6x300"); }},
      {"ShrinkingMuch",
       [] {
         Transition much = Simple("shrinking much", "1-12x20000", "5x100");
         much.is_proven = IsCutOff;
         return much;
       }},
      {"ShrinkingToWhatIsAtTheEnd",
       [] {
         Transition to_front = Simple("shrinking to what is at the end", "1-12x9000", "12x9000");
         to_front.is_proven = [](const Trace& trace) {
           return IsCutOff(trace) &&
                  PlacementIn(trace.begin).last_packet > PlacementIn(trace.end).last_packet;
         };
         return to_front;
       }},
      {"Equal", [] { return Simple("equal", "1-9x300", "1-9x300"); }},
      {"Emptied", [] { return Simple("emptied", "1-9x300", ""); }},
      {"StillEmpty", [] { return FromNothing("still empty", ""); }},
      {"FromNothing", [] { return FromNothing("from nothing", "1-9x300"); }},
      {"FromEmpty", [] { return Simple("from empty", "", "1-9x300"); }},
      {"FirstEver",
       [] {
         Transition first = {
             "first ever",
             nullptr,
             {"mark", "open", "load", "mark", "save:1-5x300", "mark", "close", "mark"},
             {From("", ""), From("", "1-5x300"), From("1-5x300", "1-5x300")},
             nullptr};
         first.is_long = true;
         return first;
       }},
      {"Reordered", [] { return Simple("reordered", "1-9x300", "9-1x300"); }},
      {"Steady",
       [] {
         return Steady("steady", [](const Placement& a, const Placement& b) { return a == b; });
       }},
      {"BeginningAgainAtTheFront",
       [] {
         return Steady("beginning again at the front", [](const Placement& a, const Placement& b) {
           return a == b && b.last_packet < a.last_packet;
         });
       }},
      {"MovingToALargerExtent",
       [] {
         const std::string large = IsFullRun() ? "5-9x60000" : "5-6x4000";
         Transition moving = Simple("moving to a larger extent", "1-4x300", "");
         moving.prepare = [](const std::string& path) {
           const auto first = CacheFile::Create(FileKind::kMapped);
           ASSERT_TRUE(first->Open(path) && first->Save(ContentOf("1-4x300")));
           LiveBeside(path, "11-13x200");  // Behind it.
         };
         moving.commands = {"open", "load", "mark", "save:1-4x300+" + large, "mark"};
         moving.phases = {From("1-4x300+11-13x200", "11-13x200+1-4x300+" + large)};
         moving.is_proven = HasMoved;
         return moving;
       }},
      {"Lengthening",
       [] {
         const std::string large = IsFullRun() ? "5-9x60000" : "5-7x4000";
         Transition longer = Simple("lengthening", "1-4x300", "1-4x300+" + large);
         longer.is_proven = HasGrown;
         return longer;
       }},
      {"TakingOver",
       [] {
         return Transition{
             "taking over",
             LeaveThreeOwners,
             {"open", "load", "mark", "save:1x200+3x200+11-14x90+21-22x700+31x50", "mark",
              "save:31x50", "mark"},
             {From("1-3x200+11-14x90+21-22x700", "1x200+3x200+11-14x90+21-22x700+31x50"),
              From("1x200+3x200+11-14x90+21-22x700+31x50", "31x50")},
             nullptr};
       }},
      {"OpeningAndClosing",
       [] {
         const std::string all = "1-3x200+11-14x90+21-22x700";
         Transition opening = {"opening and closing",
                               LeaveThreeOwners,
                               {"mark", "open", "mark", "load", "close", "mark"},
                               {From(all, all), From(all, all)},
                               nullptr};
         opening.is_long = true;
         return opening;
       }},
      {"BesideALiveOwner",
       [] {
         Transition beside = Simple("beside a live owner", "1-4x300", "2-5x300");
         beside.prepare = [](const std::string& path) { LiveBeside(path, "11-13x200"); };
         beside.phases = {From("11-13x200+1-4x300", "11-13x200+2-5x300")};
         return beside;
       }},
      {"OnDisk",
       [] {
         Transition on_disk = Simple("on disk", "1-4x300", "");
         on_disk.commands = {
             "on-disk", "open",         "load", std::string("save:") + kOlder, "save:1-4x300",
             "mark",    "save:2-5x300", "mark", "save:2-5x300+6x20000",        "mark"};
         on_disk.phases = {From("1-4x300", "2-5x300"), From("2-5x300", "2-5x300+6x20000")};
         on_disk.is_long = true;
         on_disk.is_proven = [](const Trace& trace) { return trace.calls().count("msync") > 0; };
         return on_disk;
       }},
      {"TakingOverOnDisk",
       [] {
         const std::string all = "1-3x200+11-14x90+21-22x700";
         Transition taking = {"taking over, on disk",
                              LeaveThreeOwners,
                              {"on-disk", "open", "load", "mark", "save:2x200+31x50", "mark"},
                              {From(all, "2x200+31x50")},
                              nullptr};
         taking.is_long = true;
         return taking;
       }},
      {"Repairing", [] { return Repairing(FileKind::kMapped); }},
      {"EmptiedAndClosed",
       [] {
         return Transition{"emptied and closed",
                           [](const std::string& path) { SaveAsOwner(path, "1-5x300"); },
                           {"open", "load", "mark", "save:", "mark", "close", "mark"},
                           {From("1-5x300", ""), From("", "")},
                           nullptr};
       }},
  };
  return makers;
}

// The plain file: `now` saved over `old`, and closed, which completes it.
Transition Plain(const std::string& name, const std::string& old, const std::string& now) {
  return {name,
          nullptr,
          {"open", "load", "save:" + old, "mark", "save:" + now, "mark", "close", "mark"},
          {From(old, now), From(now, now)},
          nullptr};
}

const std::vector<NamedMaker>& PlainTransitions() {
  static const std::vector<NamedMaker> makers = {
      {"Growing", [] { return Plain("growing", "1-4x300", "1-9x300"); }},
      {"ShrinkingALittle", [] { return Plain("shrinking a little", "1-9x300", "4-6x300"); }},
      {"Equal", [] { return Plain("equal", "1-9x300", "1-9x300"); }},
      {"Emptied", [] { return Plain("emptied", "1-9x300", ""); }},
      {"StillEmpty", [] { return Plain("still empty", "", ""); }},
      {"FromEmpty", [] { return Plain("from empty", "", "1-9x300"); }},
      {"Reordered", [] { return Plain("reordered", "1-9x300", "9-1x300"); }},
      {"Steady", [] { return Plain("steady", "1-12x400", "1-5x400+7-13x400"); }},
      {"LargePackets", [] { return Plain("large packets", "1-2x100", "1x100+3-5x30000+2x100"); }},
      {"WrittenAnew",
       [] {
         // What was large is no longer needed once the save after it is complete.
         const std::string old = "1-5x30000+6x100";
         Transition anew = Plain("written anew", old, "6-8x100");
         anew.commands = {"open", "load",         "save:" + old, "mark",  "save:6-8x100",
                          "mark", "save:7-9x100", "mark",        "close", "mark"};
         anew.phases = {From(old, "6-8x100"), From("6-8x100", "7-9x100"),
                        From("7-9x100", "7-9x100")};
         anew.is_proven = [](const Trace& trace) {
           const auto calls = trace.calls();
           return calls.count("rename") + calls.count("renameat2") > 0;
         };
         return anew;
       }},
      {"Repairing", [] { return Repairing(FileKind::kPlain); }},
      {"FirstEver",
       [] {
         return Transition{
             "first ever",
             nullptr,
             {"mark", "open", "load", "mark", "save:1-5x300", "mark", "close", "mark"},
             {From("", ""), From("", "1-5x300"), From("1-5x300", "1-5x300")},
             nullptr};
       }},
      {"OpenedAgain",
       [] {
         // What the killed one before it left counts as saved, and is kept by opening it.
         return Transition{
             "opened again",
             [](const std::string& path) {
               const auto file = CacheFile::Create(FileKind::kPlain);
               ASSERT_TRUE(file->Open(path) && file->Save(ContentOf("1-5x300")));
             },
             {"mark", "open", "load", "mark", "save:2-6x300", "mark", "close", "mark"},
             {From("1-5x300", "1-5x300"), From("1-5x300", "2-6x300"), From("2-6x300", "2-6x300")},
             nullptr};
       }},
  };
  return makers;
}

// Every point, but of long rows of adjacent stores no more than `most_bulk`, evenly taken.
std::vector<bool> Chosen(const std::vector<KillPoint>& points, size_t most_bulk) {
  const size_t bulk = static_cast<size_t>(
      std::count_if(points.begin(), points.end(), [](const KillPoint& p) { return p.bulk; }));
  std::vector<bool> chosen(points.size(), true);
  if (bulk <= most_bulk) return chosen;
  size_t seen = 0;
  for (size_t i = 0; i < points.size(); ++i) {
    if (!points[i].bulk) continue;
    chosen[i] = seen * most_bulk / bulk != (seen + 1) * most_bulk / bulk;
    ++seen;
  }
  return chosen;
}

struct Tally {
  size_t looked_at = 0;
  size_t torn = 0;
  size_t killed = 0;
  size_t lost = 0;
  std::unordered_set<std::string> states;
  std::map<Found, size_t> found;
};

void Apply(const KillPoint& point, FolderState* state) {
  if (point.kind == KillPoint::Kind::kStore) {
    state->files.at(point.file).replace(point.offset, point.bytes.size(), point.bytes);
  } else if (point.state != nullptr) {
    *state = *point.state;
  }
}

std::string WhereIs(const KillPoint& point) {
  static const char* const kinds[] = {"after a store", "before", "inside", "after"};
  return std::string(kinds[static_cast<int>(point.kind)]) + " " + point.call + " at step " +
         std::to_string(point.step) + ", phase " + std::to_string(point.phase) + ", offset " +
         std::to_string(point.offset) + ", " + std::to_string(point.bytes.size()) + " bytes";
}

std::string KeyOf(const FolderState& state) {
  std::string key;
  for (const auto& [name, bytes] : state.files) {
    key += name + std::to_string(mmap_format::Check(bytes.data(), bytes.size())) + "/";
  }
  return key;
}

const char* NameOf(Found found) {
  static const char* const names[] = {"old", "new", "between", "BROKEN"};
  return names[static_cast<int>(found)];
}

// Where the long run lists its points; null in the short one. A line each: number, kind, system
// call, instruction, visit of it, phase, offset in the file, bytes stored, what a successor finds,
// and whether a process was killed for it.
class PointList {
 public:
  explicit PointList(const std::string& name) {
    if (!IsFullRun()) return;
    std::filesystem::create_directories(QUENOR_CRASH_LISTS);
    path_ = std::string(QUENOR_CRASH_LISTS) + "/" + name + ".txt";
    out_.open(path_);
    EXPECT_TRUE(out_.is_open()) << path_;
  }

  void Add(size_t number, const KillPoint& point, Found found, bool killed) {
    if (path_.empty()) return;
    static const char* const kinds[] = {"store", "before", "inside", "after"};
    out_ << number << ' ' << kinds[static_cast<int>(point.kind)] << ' '
         << (point.call.empty() ? "-" : point.call) << std::hex << " 0x" << point.address
         << std::dec << " visit=" << point.visit << " phase=" << point.phase
         << " offset=" << point.offset << " bytes=" << point.bytes.size() << ' ' << NameOf(found)
         << (killed ? " killed\n" : " rebuilt\n");
  }

  const std::string& path() const { return path_; }

 private:
  std::string path_;
  std::ofstream out_;
};

class KillPoints : public ::testing::TestWithParam<NamedMaker> {
 protected:
  // The program's command line on a fresh folder of its own.
  std::vector<std::string> Prepare(const std::string& folder) {
    const std::string path = Successor::PathIn(folder, kind_);
    if (transition_.prepare != nullptr) transition_.prepare(path);
    std::vector<std::string> line = {QUENOR_CRASH_PROGRAM, "steps", NameOf(kind_), path};
    line.insert(line.end(), transition_.commands.begin(), transition_.commands.end());
    return line;
  }

  Trace MakeTrace() {
    // A file that nobody maps is changed by calls only; the long run sees to it that this is so.
    const bool calls_only = !IsFullRun() && (transition_.is_long || kind_ == FileKind::kPlain);
    TempFolder folder;
    return TraceProgram(Prepare(folder.path()), folder.path(), transition_.phases.size() + 1,
                        calls_only ? Detail::kCalls : Detail::kInstructions);
  }

  // What a process leaves that is really killed there.
  FolderState Kill(const KillPoint& point) {
    TempFolder folder;
    const auto line = Prepare(folder.path());
    EXPECT_TRUE(KillProgramAt(line, point)) << "was not reached: " << WhereIs(point);
    ++tally_.killed;
    return FolderState::Of(folder.path());
  }

  // Which points a process is killed at: at most so many, evenly taken from a random one on.
  std::vector<bool> Killable(const Trace& trace, const std::vector<bool>& chosen, size_t most) {
    std::vector<size_t> places;
    for (size_t i = 0; i < chosen.size(); ++i) {
      if (chosen[i] && CanKillAt(trace.points[i])) places.push_back(i);
    }
    std::vector<bool> killable(chosen.size(), false);
    const size_t count = std::min(most, places.size());
    const size_t first = places.size() > most ? std::minstd_rand(Seed())() % places.size() : 0;
    for (size_t i = 0; i < count; ++i) {
      killable[places[(first + i * places.size() / count) % places.size()]] = true;
    }
    return killable;
  }

  // What a successor finds at each point: whole, and never the old content again after the new one.
  void LookAtEachPoint(const Trace& trace, size_t most_kills, PointList* list) {
    constexpr int kMostFailures = 5;
    Successor successor(kind_);
    FolderState state = trace.begin;
    const std::vector<bool> chosen = Chosen(trace.points, IsFullRun() ? 20000 : 100);
    const std::vector<bool> kills = Killable(trace, chosen, most_kills);
    size_t phase = 0;
    bool is_sealed = false;
    int failures = 0;
    Found found = Found::kBroken;
    for (size_t i = 0; i < trace.points.size() && failures < kMostFailures; ++i) {
      const KillPoint& point = trace.points[i];
      Apply(point, &state);
      if (!chosen[i]) continue;
      ++tally_.looked_at;
      tally_.torn += point.kind == KillPoint::Kind::kTorn;
      if (kills[i] && !(WithoutHolder(Kill(point)) == WithoutHolder(state))) {
        ++failures;
        ADD_FAILURE() << "a SIGKILL leaves something else, " << WhereIs(point);
      }
      if (point.phase != phase) is_sealed = false;
      const Expected& expected = transition_.phases[phase = point.phase];
      if (tally_.states.insert(std::to_string(phase) + KeyOf(state)).second) {
        found = Found::kBroken;
        const std::string wrong = successor.Check(state, expected, &found, transition_.is_damaged);
        ++tally_.found[found];
        tally_.lost += found == Found::kBroken;
        EXPECT_EQ("", wrong) << WhereIs(point);
        EXPECT_FALSE(is_sealed && found == Found::kOld) << "old after new, " << WhereIs(point);
        failures += !wrong.empty();
        is_sealed = found == Found::kNow && !(expected.old == expected.now);
      }
      list->Add(i, point, found, kills[i]);
    }
    EXPECT_TRUE(failures == kMostFailures || state == trace.end)
        << "the notes do not lead to where the run ended";
  }

  void Run(FileKind kind) {
    const std::string why_not = WhyNoTracing();
    if (!why_not.empty()) GTEST_SKIP() << "not traced: " << why_not;
    kind_ = kind;
    transition_ = GetParam().make();
    const Trace trace = MakeTrace();
    ASSERT_EQ("", trace.error);
    EXPECT_EQ(0u, trace.missed);
    EXPECT_TRUE(kind == FileKind::kMapped || trace.stores() == 0) << "its calls are not all";
    const bool proven = transition_.is_proven == nullptr || transition_.is_proven(trace);
    EXPECT_TRUE(proven) << "the run was not what it is called";
    PointList list(std::string(NameOf(kind)) + "." + GetParam().name);
    LookAtEachPoint(trace, IsFullRun() ? 1000 : 10, &list);
    std::string wrong = Successor(kind).Check(
        trace.end, Expected{transition_.phases.back().now, transition_.phases.back().now}, nullptr,
        transition_.is_damaged);
    EXPECT_EQ("", wrong) << "at the end";
    Print(trace, list);
  }

  void Print(const Trace& trace, const PointList& list) {
    std::string calls;
    for (const auto& [call, count] : trace.calls())
      calls += " " + call + "=" + std::to_string(count);
    std::printf(
        "kill points: %s %s: points=%zu (inside calls %zu) killed=%zu different=%zu old=%zu "
        "new=%zu between=%zu lost=%zu; steps=%llu stores=%llu calls:%s\n",
        NameOf(kind_), transition_.name.c_str(), tally_.looked_at, tally_.torn, tally_.killed,
        tally_.states.size(), tally_.found[Found::kOld], tally_.found[Found::kNow],
        tally_.found[Found::kBetween], tally_.lost, static_cast<unsigned long long>(trace.steps),
        static_cast<unsigned long long>(trace.stores()), calls.c_str());
    if (!list.path().empty()) std::printf("kill points: list=%s\n", list.path().c_str());
  }

 private:
  FileKind kind_ = FileKind::kMapped;
  Transition transition_;
  Tally tally_;
};

class MappedKillPoints : public KillPoints {};
TEST_P(MappedKillPoints, LeaveTheWholeOldOrTheWholeNewContent) { Run(FileKind::kMapped); }
INSTANTIATE_TEST_SUITE_P(Each, MappedKillPoints, ::testing::ValuesIn(MappedTransitions()),
                         [](const auto& each) { return each.param.name; });

class PlainKillPoints : public KillPoints {};
TEST_P(PlainKillPoints, LeaveTheOldOrTheNewContentWhole) { Run(FileKind::kPlain); }
INSTANTIATE_TEST_SUITE_P(Each, PlainKillPoints, ::testing::ValuesIn(PlainTransitions()),
                         [](const auto& each) { return each.param.name; });

}  // namespace
}  // namespace quenor::test
