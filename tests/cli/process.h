// A program that a test has started: its output is collected while it runs, and it does not outlive
// the test. Threads: the test's own.
#ifndef TESTS_CLI_PROCESS_H_
#define TESTS_CLI_PROCESS_H_

#include <sys/types.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace quenor::test {

// A descriptor that closes itself.
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

// Reads a descriptor on a thread of its own, to its end or until a test's patience is over, which
// it takes for the end.
class Collected {
 public:
  explicit Collected(Fd fd);
  ~Collected();

  // Waits until `text` has come `count` times, or the end. False at the end.
  bool WaitFor(const std::string& text, size_t count);

  // Waits until a line is whole, or the end; the line without its end.
  std::string FirstLine();

  // Waits until a line that begins with `begin` is whole, or the end; what follows `begin` in it.
  std::string LineAfter(const std::string& begin);

  // Waits for the end; everything that came.
  const std::string& Whole();

 private:
  void Run();
  // The mutex is held. Where what follows `begin` starts, npos before its line is whole.
  size_t LineAt(const std::string& begin) const;

  Fd fd_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::string text_;
  bool ended_ = false;
  std::thread thread_;
};

class Process {
 public:
  // Starts `arguments[0]` with default signal settings. Takes what it is to read and, unless -1,
  // where its standard error goes.
  Process(const std::vector<std::string>& arguments, Fd standard_input, Fd standard_error = Fd());
  // Kills it if it still runs.
  ~Process();

  void Signal(int number);

  // Waits until its main thread sleeps.
  void WaitUntilAsleep();

  // Waits for its end, or kills it when that does not come: the exit code, or minus the number of
  // the signal that ended it.
  int Wait();

  Collected& out() { return *out_; }
  Collected& err() { return *err_; }  // Only without a standard error of its own.

 private:
  pid_t pid_ = -1;
  bool ended_ = false;
  int result_ = 0;
  std::unique_ptr<Collected> out_;
  std::unique_ptr<Collected> err_;
};

// A descriptor that reads `bytes` and then ends.
Fd Containing(const std::string& bytes);

// How often `part` stands in `text`.
size_t CountIn(const std::string& text, const std::string& part);

}  // namespace quenor::test

#endif  // TESTS_CLI_PROCESS_H_
