// ChildProcess: a program that a test runs beside itself, and ways to read what it writes. None
// outlives its object. Threads: one for each object. What cannot be had throws std::runtime_error.
#ifndef QUENOR_TESTS_SUPPORT_PROCESS_H_
#define QUENOR_TESTS_SUPPORT_PROCESS_H_

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/patience.h"

namespace quenor::test {

// A descriptor that closes itself; close-on-exec.
class Fd {
 public:
  explicit Fd(int fd = -1) : fd_(fd) {}
  Fd(Fd&& other) noexcept : fd_(other.Release()) {}
  Fd& operator=(Fd&& other) noexcept {
    Reset(other.Release());
    return *this;
  }
  ~Fd() { Reset(); }

  int get() const { return fd_; }
  void Reset(int fd = -1);
  int Release();

 private:
  int fd_;
};

struct Pipe {
  Pipe();
  Fd reader;
  Fd writer;
};

// A descriptor that reads `bytes` and then ends.
Fd Containing(const std::string& bytes);
// One that writes at the end of a file, which is made when there is none.
Fd AppendingTo(const std::string& file);

class ChildProcess {
 public:
  // What becomes its standard streams, borrowed for the call; -1: the test's own.
  struct Streams {
    int in = -1;
    int out = -1;
    int err = -1;
  };
  // Starts `arguments[0]`, searched in the usual bin and sbin folders, with default signal settings
  // and with `environment` ("NAME=value") added to ours.
  ChildProcess(const std::vector<std::string>& arguments, const Streams& streams,
               const std::vector<std::string>& environment = {});
  // What it writes goes to `output_file`.
  ChildProcess(const std::vector<std::string>& arguments, const std::string& output_file,
               const std::vector<std::string>& environment = {});
  // Kills it if it still runs.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  // Nothing when it has ended.
  void Signal(int number) const;
  // Waits until its main thread sleeps.
  void WaitUntilAsleep() const;
  // Waits for its end, or kills it when that does not come: the exit code, or minus the number of
  // the signal that ended it.
  int Wait(std::chrono::seconds patience = kPatience);
  bool HasEnded();

 private:
  pid_t pid_ = -1;
  std::optional<int> result_;
};

// Reads a descriptor on a thread of its own. Who waits for something in vain, for kPatience, takes
// that for the end.
class Collected {
 public:
  explicit Collected(Fd fd);
  ~Collected();

  // Waits until `text` has come `count` times, or the end. False at the end.
  bool WaitFor(const std::string& text, size_t count);
  // Waits until a line is whole, or the end; the line without its end.
  std::string FirstLine();
  // The same, and takes it away; nothing at the end.
  std::optional<std::string> TakeLine();
  // Waits until a line that begins with `begin` is whole, or the end; what follows `begin` in it.
  std::string LineAfter(const std::string& begin);
  // Waits for the end; everything that came and was not taken.
  const std::string& Whole();

 private:
  void Run();
  // Waits until this is so, or the end.
  template <typename Condition>
  void Await(std::unique_lock<std::mutex>* hold, Condition condition);
  // The mutex is held. Where what follows `begin` starts, npos before its line is whole.
  size_t LineAt(const std::string& begin) const;

  Fd fd_;
  Pipe stop_;  // Its writer is closed when nobody wants to read on.
  std::mutex mutex_;
  std::condition_variable changed_;
  std::string text_;
  bool ended_ = false;
  std::thread thread_;
};

// A program of which everything that it writes is collected while it runs.
class Process {
 public:
  // Takes what it is to read and, unless -1, where its standard error goes.
  Process(const std::vector<std::string>& arguments, Fd standard_input, Fd standard_error = Fd());
  // Kills it if it still runs.
  ~Process();

  pid_t pid() const { return child_.pid(); }
  void Signal(int number) const { child_.Signal(number); }
  void WaitUntilAsleep() const { child_.WaitUntilAsleep(); }
  int Wait() { return child_.Wait(); }

  Collected& out() { return out_; }
  Collected& err() { return err_; }  // Empty with a standard error of its own.

 private:
  Pipe out_pipe_;
  Pipe err_pipe_;
  ChildProcess child_;
  Collected out_;
  Collected err_;
};

// How often `part` stands in `text`.
size_t CountIn(const std::string& text, const std::string& part);

}  // namespace quenor::test

#endif  // QUENOR_TESTS_SUPPORT_PROCESS_H_
