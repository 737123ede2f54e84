#include "tests/crash/job.h"

#include <fcntl.h>
#include <spawn.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>

#include "quenor_base/platform/base/check.h"
#include "tests/support/patience.h"

extern char** environ;

namespace quenor::test {

Job::Job(const std::vector<std::string>& arguments) {
  int control[2];
  int events[2];
  QUENOR_CHECK(pipe2(control, O_CLOEXEC) == 0 && pipe2(events, O_CLOEXEC) == 0, "no pipe");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, control[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, events[1], STDOUT_FILENO);
  std::vector<char*> argv;
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  const int error = posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  QUENOR_CHECK(error == 0, "a program of the crash tests does not start");
  close(control[0]);
  close(events[1]);
  control_ = control[1];
  events_ = events[0];
}

Job::~Job() {
  Kill();
  Wait();
  Release();
  close(events_);
}

bool Job::Next(JobEvent* event) {
  if (!WaitForInput(events_, std::chrono::steady_clock::now() + kLongPatience)) Kill();
  ssize_t got;
  do {
    got = read(events_, event, sizeof(*event));
  } while (got < 0 && errno == EINTR);
  QUENOR_CHECK(got <= 0 || got == sizeof(*event), "half an event");
  return got > 0;
}

void Job::Credit() {
  const char byte = 1;
  (void)!write(control_, &byte, 1);
}

void Job::Release() {
  if (control_ >= 0) close(control_);
  control_ = -1;
}

void Job::Kill() {
  if (!ended_) kill(pid_, SIGKILL);
}

void Job::Stop() {
  if (!ended_) kill(pid_, SIGSTOP);
}

void Job::Continue() {
  if (!ended_) kill(pid_, SIGCONT);
}

int Job::Wait() {
  if (!ended_) result_ = ReapPatiently(pid_, kLongPatience);
  ended_ = true;
  return result_;
}

}  // namespace quenor::test
