#include "tests/unit/cache/plain/disk_calls.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <map>
#include <utility>

extern "C" {
int __real_open(const char* path, int flags, ...);
ssize_t __real_pread(int fd, void* out, size_t size, off_t offset);
ssize_t __real_pwrite(int fd, const void* data, size_t size, off_t offset);
int __real_ftruncate(int fd, off_t size);
int __real_rename(const char* from, const char* to);
int __real_renameat2(int from_fd, const char* from, int to_fd, const char* to, unsigned flags);
int __real_unlink(const char* path);
int __real_fstat(int fd, struct stat* info);
int __real_lstat(const char* path, struct stat* info);
int __real_fcntl(int fd, int command, ...);
int __real_sync_file_range(int fd, off64_t offset, off64_t size, unsigned flags);

int __wrap_open(const char* path, int flags, ...);
ssize_t __wrap_pread(int fd, void* out, size_t size, off_t offset);
ssize_t __wrap_pwrite(int fd, const void* data, size_t size, off_t offset);
int __wrap_ftruncate(int fd, off_t size);
int __wrap_fsync(int fd);
int __wrap_rename(const char* from, const char* to);
int __wrap_renameat2(int from_fd, const char* from, int to_fd, const char* to, unsigned flags);
int __wrap_unlink(const char* path);
int __wrap_fstat(int fd, struct stat* info);
int __wrap_lstat(const char* path, struct stat* info);
int __wrap_fcntl(int fd, int command, ...);
int __wrap_sync_file_range(int fd, off64_t offset, off64_t size, unsigned flags);
}

namespace quenor::test {
namespace {

struct Plan {
  std::map<std::string, size_t> counts;
  size_t count = 0;
  size_t fail_in = 0;  // 1: the next one; 0: none.
  int error = 0;
  bool for_ever = false;
  bool failed = false;
  std::map<std::string, int> failing;
  bool space_is_limited = false;
  uint64_t space = 0;
  size_t longest_write = SIZE_MAX;
  std::function<void()> look;
  bool looking = false;
};

Plan& Current() {
  static Plan* const plan = new Plan;
  return *plan;
}

// False, with errno, when this call has to fail.
bool MayGo(const char* name) {
  Plan& plan = Current();
  if (plan.looking) return true;
  ++plan.count;
  ++plan.counts[name];
  const auto failing = plan.failing.find(name);
  if (failing != plan.failing.end()) {
    plan.failed = true;
    errno = failing->second;
    return false;
  }
  if (plan.fail_in == 0) return true;
  if (plan.fail_in > 1) {
    --plan.fail_in;
    return true;
  }
  if (!plan.for_ever) plan.fail_in = 0;
  plan.failed = true;
  errno = plan.error;
  return false;
}

void Look() {
  Plan& plan = Current();
  if (plan.looking || !plan.look) return;
  const int error = errno;
  plan.looking = true;
  plan.look();
  plan.looking = false;
  errno = error;
}

}  // namespace

size_t DiskCalls::Count() { return Current().count; }
size_t DiskCalls::CountOf(const std::string& name) { return Current().counts[name]; }
void DiskCalls::FailNth(size_t n, int error, bool for_ever) {
  Plan& plan = Current();
  plan.fail_in = n;
  plan.error = error;
  plan.for_ever = for_ever;
  plan.failed = false;
}
bool DiskCalls::HasFailed() { return Current().failed; }
void DiskCalls::FailAll(const std::string& name, int error) { Current().failing[name] = error; }
void DiskCalls::SetSpace(uint64_t bytes) {
  Current().space_is_limited = true;
  Current().space = bytes;
}
void DiskCalls::SetLongestWrite(size_t bytes) { Current().longest_write = bytes; }
void DiskCalls::AtEachChange(std::function<void()> look) { Current().look = std::move(look); }
void DiskCalls::Reset() { Current() = Plan(); }

}  // namespace quenor::test

using quenor::test::Current;
using quenor::test::Look;
using quenor::test::MayGo;

extern "C" int __wrap_open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  if (!MayGo("open")) return -1;
  // Not looked at: the library holds its lock against forks here. The next change shows what a
  // creation leaves.
  return __real_open(path, flags, mode);
}

extern "C" ssize_t __wrap_pread(int fd, void* out, size_t size, off_t offset) {
  return MayGo("pread") ? __real_pread(fd, out, size, offset) : -1;
}

extern "C" ssize_t __wrap_pwrite(int fd, const void* data, size_t size, off_t offset) {
  if (!MayGo("pwrite")) return -1;
  auto& plan = Current();
  if (plan.looking) return __real_pwrite(fd, data, size, offset);
  Look();
  size = std::min(size, plan.longest_write);
  if (plan.space_is_limited) {
    if (plan.space == 0 && size > 0) {
      plan.failed = true;
      errno = ENOSPC;
      return -1;
    }
    size = static_cast<size_t>(std::min<uint64_t>(size, plan.space));
    plan.space -= size;
  }
  if (plan.look) {
    for (const size_t part : {size_t{1}, size / 2, size - std::min<size_t>(size, 1)}) {
      if (part == 0 || part >= size) continue;
      if (__real_pwrite(fd, data, part, offset) != static_cast<ssize_t>(part)) return -1;
      Look();
    }
  }
  return __real_pwrite(fd, data, size, offset);
}

extern "C" int __wrap_ftruncate(int fd, off_t size) {
  if (!MayGo("ftruncate")) return -1;
  Look();
  return __real_ftruncate(fd, size);
}

// Counted and failed, never waited for: no test here takes the machine's power away, and a busy
// disk needs a second for each.
extern "C" int __wrap_fsync(int) { return MayGo("fsync") ? 0 : -1; }

extern "C" int __wrap_rename(const char* from, const char* to) {
  if (!MayGo("rename")) return -1;
  Look();
  return __real_rename(from, to);
}

extern "C" int __wrap_renameat2(int from_fd, const char* from, int to_fd, const char* to,
                                unsigned flags) {
  if (!MayGo("renameat2")) return -1;
  Look();
  return __real_renameat2(from_fd, from, to_fd, to, flags);
}

extern "C" int __wrap_unlink(const char* path) {
  if (!MayGo("unlink")) return -1;
  Look();
  return __real_unlink(path);
}

extern "C" int __wrap_fstat(int fd, struct stat* info) {
  return MayGo("fstat") ? __real_fstat(fd, info) : -1;
}

extern "C" int __wrap_lstat(const char* path, struct stat* info) {
  return MayGo("lstat") ? __real_lstat(path, info) : -1;
}

extern "C" int __wrap_fcntl(int fd, int command, ...) {
  va_list arguments;
  va_start(arguments, command);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  return MayGo("fcntl") ? __real_fcntl(fd, command, argument) : -1;
}

extern "C" int __wrap_sync_file_range(int fd, off64_t offset, off64_t size, unsigned flags) {
  return MayGo("sync_file_range") ? __real_sync_file_range(fd, offset, size, flags) : -1;
}
