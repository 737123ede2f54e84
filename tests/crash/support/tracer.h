// Runs a program one machine instruction at a time and notes every instant at which the files of a
// folder change: each store into a mapping of one of them, and each system call. What a SIGKILL at
// such an instant would leave can then be rebuilt, any number of times, without running it again.
// x86-64 Linux only. Threads: the one that started the program.
#ifndef QUENOR_TESTS_CRASH_SUPPORT_TRACER_H_
#define QUENOR_TESTS_CRASH_SUPPORT_TRACER_H_

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/crash/support/folder_state.h"

namespace quenor::test {

struct KillPoint {
  enum class Kind {
    kStore,  // One instruction changed bytes of a mapped file.
    kEntry,  // A system call is about to be made.
    kTorn,   // Inside one: part of the bytes that it writes are written. No ptrace stop; derived.
    kExit,   // A system call has returned.
  };
  Kind kind = Kind::kStore;
  size_t phase = 0;   // How many marks the program passed since the first.
  uint64_t step = 0;  // How many steps it made since the first mark.
  // The instruction, and how often it was reached since the first mark, this time included. No
  // instruction for what a trace of calls cannot tell.
  uint64_t address = 0;
  uint64_t visit = 0;
  std::string call;   // Name of the system call.
  std::string file;   // kStore: name of the file,
  size_t offset = 0;  // where the change begins,
  std::string bytes;  // and what the file holds there from now on.
  bool bulk = false;  // kStore: one of a long row of adjacent ones.
  // What the folder holds from now on; null when this changed nothing, and for kStore.
  std::shared_ptr<const FolderState> state;
};

struct Trace {
  std::string error;  // Why there is no trace; else empty.
  FolderState begin;  // At the first mark.
  FolderState end;    // At the last.
  std::vector<KillPoint> points;
  uint64_t steps = 0;
  // Changes that were found late, not after the instruction that made them: 0, or a step is
  // missing.
  uint64_t missed = 0;

  uint64_t stores() const;
  std::map<std::string, int> calls() const;  // Name to how often.
};

// Empty when programs can be traced here, else the reason.
std::string WhyNoTracing();

// What is a step: an instruction; or a system call, many times faster, and then what is stored
// between two calls is seen at the second one.
enum class Detail { kInstructions, kCalls };

// Runs `arguments`, which stops itself with SIGSTOP as a mark, `marks` times at least, and then
// ends it. What comes before the first mark runs at full speed. `folder`: where the files are.
Trace TraceProgram(const std::vector<std::string>& arguments, const std::string& folder,
                   size_t marks, Detail detail = Detail::kInstructions);

// True when KillProgramAt() can end a program at this point: not inside a call.
bool CanKillAt(const KillPoint& point);
// Runs it at full speed and ends it with SIGKILL at this point of its trace. True when it came
// there.
bool KillProgramAt(const std::vector<std::string>& arguments, const KillPoint& point);

}  // namespace quenor::test

#endif  // QUENOR_TESTS_CRASH_SUPPORT_TRACER_H_
