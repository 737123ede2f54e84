// What a cache file promises of its content when its process is killed, and whether what a killed
// one left keeps that promise. Threads: the test's own.
#ifndef QUENOR_TESTS_CRASH_SUPPORT_PROMISES_H_
#define QUENOR_TESTS_CRASH_SUPPORT_PROMISES_H_

#include <string>

#include "tests/crash/support/cache_files.h"
#include "tests/crash/support/contents.h"
#include "tests/crash/support/folder_state.h"
#include "tests/support/temp_folder.h"

namespace quenor::test {

// A save of `now` over `old` was under way, or complete, or not begun.
struct Expected {
  Content old;
  Content now;
};

enum class Found { kOld, kNow, kBetween, kBroken };

// The mapped file: kOld or kNow, whole and in order. The plain one: also kBetween, when whatever is
// in both is there, one of the two whole, and nothing from elsewhere.
Found Judge(FileKind kind, const Expected& expected, const Content& found);

// Opens copies of what killed processes left.
class Successor {
 public:
  explicit Successor(FileKind kind) : kind_(kind) {}

  // The path of the cache file in any folder.
  static std::string PathIn(const std::string& folder, FileKind kind);

  // Opens the state and reads it, saves something else and reads that back. What is wrong: empty
  // when nothing is. `found` may be null. Nothing is logged and set aside, unless `is_damaged`.
  std::string Check(const FolderState& state, const Expected& expected, Found* found,
                    bool is_damaged = false);

 private:
  std::string CheckContent(const Expected& expected, Found* found);
  std::string CheckNextSave();

  FileKind kind_;
  TempFolder folder_;
};

// Whether the run is the long one: QUENOR_CRASH_FULL is 1.
bool IsFullRun();

// A seed that differs in every run unless QUENOR_CRASH_SEED names one; printed.
unsigned Seed();

}  // namespace quenor::test

#endif  // QUENOR_TESTS_CRASH_SUPPORT_PROMISES_H_
