// Job: a process that reports what it does on its standard output, and its end. Threads: one at a
// time.
#ifndef QUENOR_TESTS_CRASH_SUPPORT_JOB_H_
#define QUENOR_TESTS_CRASH_SUPPORT_JOB_H_

#include <csignal>
#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/process.h"

namespace quenor::test {

// What a job writes to its standard output, each in one write: a reader never sees half of one.
struct JobEvent {
  enum Kind : uint64_t {
    kReady = 1,         // It has opened what it was told to; `number`: packets found.
    kLoaded = 2,        // Message `number` came out of the file.
    kSaved = 3,         // A save that `number` names, or with message `number`, is complete.
    kAcknowledged = 4,  // Message `number` is delivered; no save without it is complete yet.
    kRetired = 5,       // A save without message `number` is complete.
    kFailed = 6,        // Something that must work did not.
    kSent = 7,          // Message `number` is on its way to the server.
  };
  Kind kind;
  uint64_t number;
};

class Job {
 public:
  // Starts `arguments[0]`, a path.
  explicit Job(const std::vector<std::string>& arguments);

  // Waits for the next event; false when the job has ended and there is none left. Kills one that
  // is silent for too long.
  bool Next(JobEvent* event);
  // What Next() reads from.
  int events_fd() const { return events_.reader.get(); }

  // One byte to its standard input; nothing when it has ended. SIGPIPE must be ignored.
  void Credit();
  // Ends its standard input: the sign to go, for those that wait for one.
  void Release() { control_.writer.Reset(); }
  // Nothing when it has ended.
  void Kill() { process_.Signal(SIGKILL); }
  void Stop() { process_.Signal(SIGSTOP); }
  void Continue() { process_.Signal(SIGCONT); }
  // Waits for its end, or kills it when that does not come: the exit code, or minus the number of
  // the signal that ended it.
  int Wait() { return process_.Wait(kLongPatience); }

 private:
  Pipe control_;
  Pipe events_;
  ChildProcess process_;
};

}  // namespace quenor::test

#endif  // QUENOR_TESTS_CRASH_SUPPORT_JOB_H_
