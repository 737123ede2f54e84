// Lives of a cache file of either kind, in which calls to the system fail: one at one place, or all
// of them from there on.
// Threads: one.
#ifndef QUENOR_TESTS_CACHE_FAULTS_BENCH_H_
#define QUENOR_TESTS_CACHE_FAULTS_BENCH_H_

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <iostream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "tests/cache/support/cache_kind.h"

namespace quenor::test {

struct Fault {
  Call call = Call::kOpen;
  int error = 0;
  bool for_good = false;  // Until somebody has noticed.
};

const std::vector<Call>& FailingCalls();
const std::vector<int>& FailingErrors();

bool IsMemory(Call call);
// A call that the system interrupts and a caller repeats.
bool IsRepeated(const Fault& fault);
// What fails without any harm to a save: advice, and giving space back.
bool IsHarmless(const Fault& fault);
// True when the fault is part of this run: at full length all are; else each place fails in two
// ways, and all ways are met.
bool IsMet(const Fault& fault);

// From one place to the next. At less than full length some are left out of the calls that ask for
// the owners' locks, 63 in a row each time, where over several rounds each owner has its turn, and
// of long rows of reads.
int PlaceStep(const Fault& fault, int nth);

// What to do with a file, and what was wrong. The mapped one keeps the old or the new content
// whole; the plain one all of the old content and each packet that was taken, until a save is
// whole.
template <typename Kind>
class Life {
 public:
  using File = typename Kind::File;

  // `content` is what the file at `path` has.
  Life(const std::string& path, const Packets& content) : path_(path), content_(content) {
    Know(content);
  }

  void Arm(const Fault& fault, int nth) {
    fault_ = fault;
    is_reopened_ = nth % 2 == 0;
    is_healed_ = false;
    FileCalls::Fail(fault.call, nth, fault.error, fault.for_good);
  }

  void Open() {
    for (int attempt = 0; error_.empty(); ++attempt) {
      file_ = std::make_unique<File>();
      RecordingLog::Clear();
      if (!OpenFile(*file_, path_)) {
        Expect(FileCalls::HasFailed() && attempt == 0, "Open() fails without a reason");
        Expect(LinesWith(2, path_) > 0 || IsMemory(fault_.call), "Open() fails without a line");
        Expect(!IsRepeated(fault_), "Open() gives up when interrupted");
        Expect(!Kind::kIsPlain || !IsHarmless(fault_), "Open() fails without need");
        Heal();
        continue;
      }
      const Packets found = ReadAll(*file_);
      Expect(IsKnown(found), "a packet that nobody saved", found);
      // More only where a fault has kept a save from being completed.
      if (IsKept(found, !FileCalls::HasFailed())) return Settle(found);
      // Cut short by the fault: then nothing may be replaced, and the next start finds it all.
      // Where owners have places of their own, one may save beside what it could not read.
      Expect(FileCalls::HasFailed() && attempt == 0, "the content is another", found);
      Expect(LinesWith(2, path_) > 0, "a packet is not read and no line says so");
      Heal();
      if (!Save(*file_, {"beside"})) continue;
      Expect(!Kind::kIsPlain, "a save replaces what could not be read");
      Know({"beside"});
      content_.push_back("beside");
      for (Packets& packets : attempts_) packets.push_back("beside");
    }
  }

  // False: it failed, as it may.
  bool TrySave(const Packets& packets) {
    if (!error_.empty()) return true;
    Know(packets);
    attempts_.push_back(packets);
    // What goes on failing for one reason is told once, even by a save that works without it.
    if (!FileCalls::HasFailed()) RecordingLog::Clear();
    const bool had_failed = fault_.for_good ? is_healed_ : FileCalls::HasFailed();
    bool complete = BeginSave(*file_, packets);
    Packets taken;
    for (const std::string& packet : packets) {
      complete = complete && Append(*file_, packet);
      if (complete) taken.push_back(packet);
    }
    const bool sealed = file_->IsSaveComplete();
    Expect(complete || !sealed, "a save is not complete and says otherwise");
    if (sealed) {
      Settle(packets);
      CheckKilled("after a save that worked");
      return true;
    }
    taken_ = Union(taken_, taken);
    Expect(FileCalls::HasFailed() && !had_failed, "a save fails without a reason");
    Expect(!IsRepeated(fault_) && !IsHarmless(fault_), "a save fails without need");
    Expect(LinesWith(2, path_) > 0 || attempts_.size() > 1, "a save fails without a line");
    Expect((complete && Kind::kIsPlain) || !Append(*file_, "x"), "a void save takes packets");
    ++failed_saves_;
    CheckKilled("after a failed save");
    return false;
  }

  // And again when it failed, by the same owner or the next.
  void SaveAs(const Packets& packets) {
    if (TrySave(packets)) return;
    if (fault_.for_good && is_reopened_) Close();
    Heal();
    if (file_ == nullptr) Open();
    Expect(TrySave(packets), "the save after the failed one fails too");
  }

  // After somebody took the file away: until a save works there is no content to keep.
  void SaveAnew(const Packets& packets) {
    if (!error_.empty()) return;
    Know(packets);
    if (!Save(*file_, packets)) {
      Expect(FileCalls::HasFailed(), "a save fails without a reason");
      Heal();
      Expect(Save(*file_, packets), "the save after the failed one fails too");
    }
    Settle(packets);
    CheckKilled("after the file was made anew");
  }

  void Close() { file_.reset(); }
  void Heal() {
    FileCalls::Heal();
    is_healed_ = true;
  }

  void Expect(bool holds, const std::string& what, const Packets& found = {}) {
    if (holds || !error_.empty()) return;
    error_ = what + (found.empty() ? "" : "; found " + Show(found));
    for (const std::string& line : RecordingLog::Texts()) error_ += "\n  log: " + line;
  }

  const std::string& path() const { return path_; }
  const std::string& error() const { return error_; }
  uint64_t failed_saves() const { return failed_saves_; }

 private:
  void Know(const Packets& packets) { known_.insert(packets.begin(), packets.end()); }
  bool IsKnown(const Packets& packets) const {
    return std::all_of(packets.begin(), packets.end(),
                       [&](const std::string& packet) { return known_.count(packet) > 0; });
  }
  void Settle(const Packets& packets) {
    content_ = packets;
    attempts_.clear();
    taken_.clear();
  }
  bool IsKept(const Packets& found, bool is_settled) const {
    if (found == content_) return true;
    if (!Kind::kIsPlain) {
      return std::find(attempts_.begin(), attempts_.end(), found) != attempts_.end();
    }
    return !is_settled && Includes(found, Union(content_, taken_)) && IsKnown(found);
  }
  void CheckKilled(const std::string& when) {
    const FileCalls::Unseen unseen;
    if (IsMemory(fault_.call) && !FileCalls::HasFailed()) return;  // It would be hit instead.
    const std::string copy = path_ + ".killed";
    CopyAsIfKilled(path_, copy);
    const Packets found = Kind::Load(copy);
    Expect(IsKept(found, attempts_.empty()), "killed " + when + ", another content", found);
  }

  const std::string path_;
  Fault fault_;
  bool is_reopened_ = false;  // After a fault for good, else the same owner goes on.
  bool is_healed_ = false;
  Packets content_;                // Of the last whole save.
  std::vector<Packets> attempts_;  // Of the saves since, which failed, or are under way,
  Packets taken_;                  // and which packets they took.
  std::set<std::string> known_;
  std::unique_ptr<File> file_;
  uint64_t failed_saves_ = 0;
  std::string error_;
};

template <typename Kind>
struct FaultScenario {
  std::string image;  // Of the file at first; empty: none.
  Packets content;
  std::function<void(Life<Kind>&)> run;
};

// Fails each call of each kind in turn until the scenario makes no more of them: it alone, and all
// from there on.
template <typename Kind>
void FailEveryCall(const char* name, const FaultScenario<Kind>& scenario, uint64_t durability) {
  const DurabilityScope scope(durability);
  const TempFolder folder;
  const std::string path = folder.File("channel");
  uint64_t lives = 0, failed_saves = 0, faults = 0;
  std::string places;
  const auto fails_in_a_life = [&](const Fault& fault, int nth) {
    for (const char* suffix : {"", ".set-aside", ".recovered", ".killed"}) {
      std::remove((path + suffix).c_str());
    }
    EXPECT_TRUE(scenario.image.empty() || WriteWholeFile(path, scenario.image));
    FileCalls::Reset();
    Life<Kind> life(path, scenario.content);
    life.Arm(fault, nth);
    scenario.run(life);
    ++lives;
    failed_saves += life.failed_saves();
    if (!life.error().empty() && ++faults <= 5) {
      ADD_FAILURE() << name << ": " << FileCalls::Name(fault.call) << " number " << nth
                    << (fault.for_good ? " and all after it fail: " : " fails: ")
                    << std::strerror(fault.error) << ": " << life.error();
    }
    return FileCalls::HasFailed();
  };
  for (const Call call : FailingCalls()) {
    int places_of_call = 0;
    for (const int error : FailingErrors()) {
      for (const bool for_good : {false, true}) {
        const Fault fault = {call, error, for_good};
        int nth = 1;
        while (IsMet(fault) && fails_in_a_life(fault, nth)) nth += PlaceStep(fault, nth);
        places_of_call = std::max(places_of_call, nth - 1);
      }
    }
    if (places_of_call == 0) continue;
    places += std::string(" ") + FileCalls::Name(call) + " " + std::to_string(places_of_call);
  }
  FileCalls::Reset();
  std::cout << Kind::kName << ", " << name << ", durability " << durability << ": " << lives
            << " lives, " << failed_saves << " saves failed, " << faults
            << " faults; places:" << places << std::endl;
}

}  // namespace quenor::test

#endif  // QUENOR_TESTS_CACHE_FAULTS_BENCH_H_
