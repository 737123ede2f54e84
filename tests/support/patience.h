// How long a fixture waits for what must happen: far longer than anything here takes, and shorter
// than the limits in tests/CMakeLists.txt, so that the test itself says what it waited for.
#ifndef QUENOR_TESTS_SUPPORT_PATIENCE_H_
#define QUENOR_TESTS_SUPPORT_PATIENCE_H_

#include <poll.h>
#include <signal.h>
#include <sys/types.h>
#include <sys/wait.h>

#include <chrono>
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <stdexcept>
#include <string>

namespace quenor::test {

#ifdef QUENOR_SANITIZED
constexpr std::chrono::seconds kPatience{400};
#else
constexpr std::chrono::seconds kPatience{100};
#endif

// For programs that compute, each step traced.
constexpr std::chrono::seconds kLongPatience = 6 * kPatience;

// The tests' one clock.
inline std::chrono::steady_clock::time_point Now() { return std::chrono::steady_clock::now(); }

// Waits for `condition`, which `changed` tells and the mutex held guards. Throws when it does not
// come: the test fails, and its fixtures end what they have started.
template <typename Condition>
void WaitPatiently(std::condition_variable* changed, std::unique_lock<std::mutex>* hold,
                   const std::string& what, Condition condition) {
  if (changed->wait_for(*hold, kPatience, condition)) return;
  throw std::runtime_error("waited " + std::to_string(kPatience.count()) + " s in vain for " +
                           what);
}

// The same for what tells nobody.
template <typename Condition>
void PollPatiently(const std::string& what, Condition condition) {
  const auto end = Now() + kPatience;
  while (!condition()) {
    if (Now() > end) {
      throw std::runtime_error("waited " + std::to_string(kPatience.count()) + " s in vain for " +
                               what);
    }
    poll(nullptr, 0, 1);
  }
}

// The line `name` of /proc/PROCESS/status, which is about the main thread; empty when it is gone.
inline std::string StatusLine(pid_t process, const std::string& name) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.compare(0, name.size() + 2, name + ":\t") == 0) return line.substr(name.size() + 2);
  }
  return "";
}

// Waits for bytes or the end of a descriptor. False when neither comes before `end`.
inline bool WaitForInput(int fd, std::chrono::steady_clock::time_point end) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Now());
  pollfd waiting{fd, POLLIN, 0};
  return poll(&waiting, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0) != 0;
}

// The exit code of a child that has ended so, or minus the number of the signal that ended it.
inline int ResultOf(int status) {
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

// Waits for the end of a child, which is killed when it does not come. As ResultOf().
inline int ReapPatiently(pid_t child, std::chrono::seconds patience = kPatience) {
  const auto end = Now() + patience;
  int status = 0;
  while (waitpid(child, &status, WNOHANG) == 0) {
    if (Now() > end) kill(child, SIGKILL);
    poll(nullptr, 0, 1);
  }
  return ResultOf(status);
}

}  // namespace quenor::test

#endif  // QUENOR_TESTS_SUPPORT_PATIENCE_H_
