// Job: a process of quenor_crash_program, what it reports, and its end. It never outlives the
// object. Threads: one at a time.
#ifndef QUENOR_TESTS_CRASH_JOB_H_
#define QUENOR_TESTS_CRASH_JOB_H_

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace quenor::test {

// What a job writes to its standard output, each in one write: a reader never sees half of one.
struct JobEvent {
  enum Kind : uint64_t {
    kReady = 1,    // It has opened what it was told to; `number`: packets found.
    kSaved = 2,    // The save that `number` names is complete.
    kRetired = 3,  // A save without message `number` is complete.
    kFailed = 4,   // Something that must work did not.
  };
  Kind kind;
  uint64_t number;
};

class Job {
 public:
  // Starts the program with these arguments.
  explicit Job(const std::vector<std::string>& arguments);
  // Kills it if it still runs.
  ~Job();
  Job(const Job&) = delete;
  Job& operator=(const Job&) = delete;

  // Waits for the next event; false when the job has ended and there is none left.
  bool Next(JobEvent* event);
  // What Next() reads from.
  int events_fd() const { return events_; }

  // One byte to its standard input; nothing when it has ended.
  void Credit();
  // Ends its standard input: the sign to go, for those that wait for one.
  void Release();
  void Kill();
  // Waits for its end: the exit code, or minus the number of the signal that ended it.
  int Wait();

 private:
  pid_t pid_ = -1;
  int control_ = -1;
  int events_ = -1;
  bool ended_ = false;
  int result_ = 0;
};

}  // namespace quenor::test

#endif  // QUENOR_TESTS_CRASH_JOB_H_
