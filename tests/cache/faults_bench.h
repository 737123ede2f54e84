// Fails each call that a cache file makes to the system, one at a time: what both kinds share.
// Threads: one.
#ifndef QUENOR_TESTS_CACHE_FAULTS_BENCH_H_
#define QUENOR_TESTS_CACHE_FAULTS_BENCH_H_

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <iostream>
#include <string>
#include <vector>

#include "tests/cache/support/cache_files.h"
#include "tests/cache/support/file_calls.h"
#include "tests/support/temp_folder.h"

namespace quenor::test {

struct Fault {
  Call call;
  int error;
};

const std::vector<Call>& FailingCalls();
const std::vector<int>& FailingErrors();
const char* ErrnoName(int error);

bool IsMemory(Call call);
// A call that the system interrupts and a caller repeats.
bool IsRepeated(const Fault& fault);
// What fails without any harm to a save: advice, and giving space back.
bool IsHarmless(Call call);
// True when the fault is part of this run: at full length all are; else each place fails in two
// ways, and all ways are met.
bool IsMet(const Fault& fault);

// From one place to the next. At less than full length some are left out of the calls that ask for
// the owners' locks, 63 in a row each time; over several rounds each owner has its turn.
int PlaceStep(Call call);

// What failed so far; printed for each kind of file when the program ends.
void CountFailure(const std::string& kind, const Fault& fault);
void CountPlaces(const std::string& kind, Call call, int places);

// What to do to a file. Life begins with a path and the content of the image, is armed with a
// fault, and says what was wrong afterwards.
template <typename Life>
struct FaultScenario {
  std::string image;  // Of the file at first; empty: none.
  Packets content;
  std::function<void(Life&)> run;
};

// Fails each call of each kind in turn until the scenario makes no more of them.
template <typename Life>
void FailEveryCall(const char* name, const FaultScenario<Life>& scenario, uint64_t durability) {
  const DurabilityScope scope(durability);
  const TempFolder folder;
  uint64_t lives = 0, failed_saves = 0, faults = 0;
  std::string places;
  for (const Call call : FailingCalls()) {
    int places_of_call = 0;
    for (const int error : FailingErrors()) {
      if (!IsMet({call, error})) continue;
      for (int nth = 1;; nth += PlaceStep(call)) {
        const std::string path = folder.File("channel");
        for (const char* suffix : {"", ".set-aside", ".recovered", ".killed"}) {
          std::remove((path + suffix).c_str());
        }
        ASSERT_TRUE(scenario.image.empty() || WriteWholeFile(path, scenario.image));
        FileCalls::Reset();
        Life life(path, scenario.content);
        life.Arm({call, error}, nth);
        scenario.run(life);
        ++lives;
        failed_saves += life.failed_saves();
        if (!life.error().empty()) {
          ++faults;
          const std::string fault = std::string(FileCalls::Name(call)) + " number " +
                                    std::to_string(nth) + " fails with " + ErrnoName(error) + ": " +
                                    life.error();
          if (faults <= 5) ADD_FAILURE() << name << ": " << fault;
        }
        places_of_call = std::max(places_of_call, nth - 1);
        if (!FileCalls::HasFailed()) break;
        CountFailure(Life::kKind, {call, error});
      }
    }
    CountPlaces(Life::kKind, call, places_of_call);
    if (places_of_call > 0) {
      places += std::string(" ") + FileCalls::Name(call) + " " + std::to_string(places_of_call);
    }
  }
  FileCalls::Reset();
  std::cout << Life::kKind << ", " << name << ", durability " << durability << ": " << lives
            << " lives, " << failed_saves << " saves failed, " << faults
            << " faults; places:" << places << std::endl;
}

}  // namespace quenor::test

#endif  // QUENOR_TESTS_CACHE_FAULTS_BENCH_H_
