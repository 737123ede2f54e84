#include "tests/cli/process.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "tests/support/patience.h"

extern char** environ;

namespace quenor::test {
namespace {

void Check(int error, const std::string& what) {
  if (error != 0) throw std::system_error(error, std::generic_category(), what);
}

}  // namespace

void Fd::Reset(int fd) {
  if (fd_ >= 0) ::close(fd_);
  fd_ = fd;
}

int Fd::Release() { return std::exchange(fd_, -1); }

Pipe::Pipe() {
  int fds[2];
  Check(::pipe2(fds, O_CLOEXEC) == 0 ? 0 : errno, "pipe2");
  reader.Reset(fds[0]);
  writer.Reset(fds[1]);
}

Collected::Collected(Fd fd) : fd_(std::move(fd)), thread_(&Collected::Run, this) {}

Collected::~Collected() { thread_.join(); }

void Collected::Run() {
  const auto end = std::chrono::steady_clock::now() + kPatience;
  char bytes[65536];
  for (;;) {
    const bool is_late = !WaitForInput(fd_.get(), end);
    const ssize_t got = is_late ? 0 : ::read(fd_.get(), bytes, sizeof(bytes));
    if (got < 0 && errno == EINTR) continue;
    std::lock_guard<std::mutex> hold(mutex_);
    if (got > 0) text_.append(bytes, static_cast<size_t>(got));
    if (is_late) text_ += "\n(the test waits no longer for more)\n";
    ended_ = got <= 0;  // A terminal ends with an error.
    changed_.notify_all();
    if (ended_) return;
  }
}

bool Collected::WaitFor(const std::string& text, size_t count) {
  std::unique_lock<std::mutex> hold(mutex_);
  changed_.wait(hold, [&] { return ended_ || CountIn(text_, text) >= count; });
  return CountIn(text_, text) >= count;
}

std::string Collected::FirstLine() {
  WaitFor("\n", 1);
  std::lock_guard<std::mutex> hold(mutex_);
  return text_.substr(0, text_.find('\n'));
}

size_t Collected::LineAt(const std::string& begin) const {
  const size_t found = ("\n" + text_).find("\n" + begin);
  if (found == std::string::npos) return found;
  const size_t at = found + begin.size();
  return text_.find('\n', at) == std::string::npos ? std::string::npos : at;
}

std::string Collected::LineAfter(const std::string& begin) {
  std::unique_lock<std::mutex> hold(mutex_);
  changed_.wait(hold, [&] { return ended_ || LineAt(begin) != std::string::npos; });
  const size_t at = LineAt(begin);
  return at == std::string::npos ? "" : text_.substr(at, text_.find('\n', at) - at);
}

const std::string& Collected::Whole() {
  std::unique_lock<std::mutex> hold(mutex_);
  changed_.wait(hold, [&] { return ended_; });
  return text_;
}

Process::Process(const std::vector<std::string>& arguments, Fd standard_input, Fd standard_error) {
  Pipe out;
  Pipe err;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, standard_input.get(), STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out.writer.get(), STDOUT_FILENO);
  const bool own_error = standard_error.get() >= 0;
  posix_spawn_file_actions_adddup2(&actions, own_error ? standard_error.get() : err.writer.get(),
                                   STDERR_FILENO);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigset_t defaults;
  sigemptyset(&none);
  sigfillset(&defaults);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  std::vector<char*> argv;
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  const int error = ::posix_spawnp(&pid_, argv[0], &actions, &attributes, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  Check(error, "cannot start " + arguments[0]);
  out_ = std::make_unique<Collected>(std::move(out.reader));
  if (!own_error) err_ = std::make_unique<Collected>(std::move(err.reader));
}

Process::~Process() {
  if (!ended_) {
    Signal(SIGKILL);
    Wait();
  }
}

void Process::Signal(int number) { ::kill(pid_, number); }

void Process::WaitUntilAsleep() {
  PollPatiently("sleep", [this] { return StatusLine(pid_, "State").front() == 'S'; });
}

int Process::Wait() {
  if (!ended_) result_ = ReapPatiently(pid_);
  ended_ = true;
  return result_;
}

Fd Containing(const std::string& bytes) {
  Fd fd(::memfd_create("input", MFD_CLOEXEC));
  Check(fd.get() >= 0 ? 0 : errno, "memfd_create");
  for (size_t written = 0; written < bytes.size();) {
    const ssize_t step = ::write(fd.get(), bytes.data() + written, bytes.size() - written);
    Check(step > 0 ? 0 : errno, "write");
    written += static_cast<size_t>(step);
  }
  ::lseek(fd.get(), 0, SEEK_SET);
  return fd;
}

size_t CountIn(const std::string& text, const std::string& part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

}  // namespace quenor::test
