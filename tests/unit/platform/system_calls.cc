#include "tests/unit/platform/system_calls.h"

#include <dlfcn.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace quenor::system_calls {

std::atomic<bool> interrupt_every_second_folder_call{false};
std::atomic<int> folder_calls{0};
std::atomic<int> mkdir_calls{0};
std::atomic<int> fail_mkdir_number{0};
std::atomic<int> fail_mkdir_errno{0};
std::atomic<bool> create_before_mkdir{false};
std::atomic<size_t> user_entry_bytes{0};

namespace {

std::atomic<bool> stderr_scripted{false};
std::vector<WriteStep> stderr_script;
std::string stderr_taken;
int stderr_calls = 0;

// The system's own function of that name.
template <typename Function>
Function Next(const char* name) {
  void* const found = dlsym(RTLD_NEXT, name);
  if (found == nullptr) std::abort();
  return reinterpret_cast<Function>(found);
}

bool Interrupt() {
  const int call = folder_calls.fetch_add(1);
  if (!interrupt_every_second_folder_call.load() || call % 2 != 0) return false;
  errno = EINTR;
  return true;
}

ssize_t FollowScript(const struct iovec* parts, int count) {
  const size_t last = stderr_script.size() - 1;
  const WriteStep step = stderr_script[std::min(static_cast<size_t>(stderr_calls), last)];
  ++stderr_calls;
  if (step.error != 0) {
    errno = step.error;
    return -1;
  }
  size_t left = step.most_bytes;
  for (int i = 0; i < count && left > 0; ++i) {
    const size_t size = std::min(left, parts[i].iov_len);
    stderr_taken.append(static_cast<const char*>(parts[i].iov_base), size);
    left -= size;
  }
  return static_cast<ssize_t>(step.most_bytes - left);
}

}  // namespace

void ScriptStderr(const std::vector<WriteStep>& script) {
  stderr_script = script;
  stderr_taken.clear();
  stderr_calls = 0;
  stderr_scripted.store(true);
}

const std::string& StderrTaken() { return stderr_taken; }
int StderrCalls() { return stderr_calls; }

void Reset() {
  interrupt_every_second_folder_call.store(false);
  folder_calls.store(0);
  mkdir_calls.store(0);
  fail_mkdir_number.store(0);
  fail_mkdir_errno.store(0);
  create_before_mkdir.store(false);
  user_entry_bytes.store(0);
  stderr_scripted.store(false);
}

}  // namespace quenor::system_calls

namespace calls = quenor::system_calls;

extern "C" int mkdir(const char* path, mode_t mode) {
  static const auto next = calls::Next<int (*)(const char*, mode_t)>("mkdir");
  if (calls::Interrupt()) return -1;
  if (calls::mkdir_calls.fetch_add(1) + 1 == calls::fail_mkdir_number.load()) {
    errno = calls::fail_mkdir_errno.load();
    return -1;
  }
  if (calls::create_before_mkdir.load()) next(path, mode);
  return next(path, mode);
}

extern "C" int stat(const char* path, struct stat* info) {
  static const auto next = calls::Next<int (*)(const char*, struct stat*)>("stat");
  if (calls::Interrupt()) return -1;
  return next(path, info);
}

extern "C" int getpwuid_r(uid_t user, struct passwd* entry, char* room, size_t size,
                          struct passwd** found) {
  static const auto next =
      calls::Next<int (*)(uid_t, struct passwd*, char*, size_t, struct passwd**)>("getpwuid_r");
  const size_t wanted = calls::user_entry_bytes.load();
  if (wanted == 0) return next(user, entry, room, size, found);
  static char home[] = "/some/home";
  entry->pw_dir = home;
  *found = size < wanted ? nullptr : entry;
  if (calls::folder_calls.fetch_add(1) == 0) return EINTR;
  return size < wanted ? ERANGE : 0;
}

extern "C" ssize_t writev(int fd, const struct iovec* parts, int count) {
  static const auto next = calls::Next<ssize_t (*)(int, const struct iovec*, int)>("writev");
  if (fd == 2 && calls::stderr_scripted.load()) return calls::FollowScript(parts, count);
  return next(fd, parts, count);
}
