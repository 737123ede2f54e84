#include "tests/support/process.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <system_error>
#include <utility>

extern char** environ;

namespace quenor::test {
namespace {

void Check(int error, const std::string& what) {
  if (error != 0) throw std::system_error(error, std::generic_category(), what);
}

std::vector<char*> Pointers(const std::vector<std::string>& words) {
  std::vector<char*> pointers;
  for (const std::string& word : words) pointers.push_back(const_cast<char*>(word.c_str()));
  return pointers;
}

// Servers are often not in a user's PATH.
std::string FindProgram(const std::string& name) {
  if (name.find('/') != std::string::npos) return name;
  for (const char* folder : {"/usr/local/sbin/", "/usr/local/bin/", "/usr/sbin/", "/usr/bin/"}) {
    if (::access((folder + name).c_str(), X_OK) == 0) return folder + name;
  }
  return name;
}

pid_t Spawn(const std::vector<std::string>& arguments, const ChildProcess::Streams& streams,
            const std::vector<std::string>& environment) {
  std::vector<char*> argv = Pointers(arguments);
  argv.push_back(nullptr);
  std::vector<char*> envp = Pointers(environment);
  for (char** entry = environ; *entry != nullptr; ++entry) envp.push_back(*entry);
  envp.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  const int fds[] = {streams.in, streams.out, streams.err};
  for (int stream = 0; stream < 3; ++stream) {
    if (fds[stream] >= 0) posix_spawn_file_actions_adddup2(&actions, fds[stream], stream);
  }
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigset_t defaults;
  sigemptyset(&none);
  sigfillset(&defaults);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  pid_t pid = -1;
  const int error = ::posix_spawnp(&pid, FindProgram(arguments[0]).c_str(), &actions, &attributes,
                                   argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  Check(error, "cannot start " + arguments[0]);
  return pid;
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

Fd AppendingTo(const std::string& file) {
  Fd fd(::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
  Check(fd.get() >= 0 ? 0 : errno, file);
  return fd;
}

ChildProcess::ChildProcess(const std::vector<std::string>& arguments, const Streams& streams,
                           const std::vector<std::string>& environment)
    : pid_(Spawn(arguments, streams, environment)) {}

ChildProcess::ChildProcess(const std::vector<std::string>& arguments,
                           const std::string& output_file,
                           const std::vector<std::string>& environment) {
  const Fd output = AppendingTo(output_file);
  pid_ = Spawn(arguments, {-1, output.get(), output.get()}, environment);
}

ChildProcess::~ChildProcess() {
  Signal(SIGKILL);
  Wait();
}

void ChildProcess::Signal(int number) const {
  if (!result_) ::kill(pid_, number);
}

void ChildProcess::WaitUntilAsleep() const {
  PollPatiently("sleep", [this] { return StatusLine(pid_, "State").front() == 'S'; });
}

int ChildProcess::Wait(std::chrono::seconds patience) {
  if (!result_) result_ = ReapPatiently(pid_, patience);
  return *result_;
}

bool ChildProcess::HasEnded() {
  int status = 0;
  if (!result_ && ::waitpid(pid_, &status, WNOHANG) == pid_) result_ = ResultOf(status);
  return result_.has_value();
}

Collected::Collected(Fd fd) : fd_(std::move(fd)), thread_(&Collected::Run, this) {}

Collected::~Collected() {
  stop_.writer.Reset();
  thread_.join();
}

void Collected::Run() {
  char bytes[65536];
  for (bool goes_on = true; goes_on;) {
    pollfd waiting[] = {{fd_.get(), POLLIN, 0}, {stop_.reader.get(), POLLIN, 0}};
    ::poll(waiting, 2, -1);
    const ssize_t got = waiting[0].revents != 0 ? ::read(fd_.get(), bytes, sizeof(bytes)) : -1;
    std::lock_guard<std::mutex> hold(mutex_);
    if (got > 0) text_.append(bytes, static_cast<size_t>(got));
    // A terminal ends with an error.
    goes_on = got > 0 || (waiting[0].revents == 0 && waiting[1].revents == 0);
    ended_ = !goes_on;
    changed_.notify_all();
  }
}

template <typename Condition>
void Collected::Await(std::unique_lock<std::mutex>* hold, Condition condition) {
  if (changed_.wait_for(*hold, kPatience, [&] { return ended_ || condition(); })) return;
  text_ += "\n(the test waits no longer for more)\n";
}

bool Collected::WaitFor(const std::string& text, size_t count) {
  std::unique_lock<std::mutex> hold(mutex_);
  Await(&hold, [&] { return CountIn(text_, text) >= count; });
  return CountIn(text_, text) >= count;
}

std::string Collected::FirstLine() {
  WaitFor("\n", 1);
  std::lock_guard<std::mutex> hold(mutex_);
  return text_.substr(0, text_.find('\n'));
}

std::optional<std::string> Collected::TakeLine() {
  if (!WaitFor("\n", 1)) return std::nullopt;
  std::string line = FirstLine();
  std::lock_guard<std::mutex> hold(mutex_);
  text_.erase(0, line.size() + 1);
  return line;
}

size_t Collected::LineAt(const std::string& begin) const {
  const size_t found = ("\n" + text_).find("\n" + begin);
  if (found == std::string::npos) return found;
  const size_t at = found + begin.size();
  return text_.find('\n', at) == std::string::npos ? std::string::npos : at;
}

std::string Collected::LineAfter(const std::string& begin) {
  std::unique_lock<std::mutex> hold(mutex_);
  Await(&hold, [&] { return LineAt(begin) != std::string::npos; });
  const size_t at = LineAt(begin);
  return at == std::string::npos ? "" : text_.substr(at, text_.find('\n', at) - at);
}

const std::string& Collected::Whole() {
  std::unique_lock<std::mutex> hold(mutex_);
  Await(&hold, [] { return false; });
  return text_;
}

Process::Process(const std::vector<std::string>& arguments, Fd standard_input, Fd standard_error)
    : child_(arguments, ChildProcess::Streams{standard_input.get(), out_pipe_.writer.get(),
                                              standard_error.get() >= 0 ? standard_error.get()
                                                                        : err_pipe_.writer.get()}),
      out_(std::move(out_pipe_.reader)),
      err_(std::move(err_pipe_.reader)) {
  out_pipe_.writer.Reset();
  err_pipe_.writer.Reset();
}

Process::~Process() {
  Signal(SIGKILL);
  Wait();
}

size_t CountIn(const std::string& text, const std::string& part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

}  // namespace quenor::test
