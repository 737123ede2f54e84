#include "tests/cache/support/file_calls.h"

#include <fcntl.h>
#include <stdarg.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <iterator>
#include <new>
#include <numeric>

#include "tests/support/memory_faults.h"

extern "C" {
int __real_open(const char*, int, ...);
int __real_close(int);
int __real_posix_fallocate(int, off_t, off_t);
int __real_fallocate(int, int, off_t, off_t);
void* __real_mmap(void*, size_t, int, int, int, off_t);
int __real_madvise(void*, size_t, int);
int __real_munmap(void*, size_t);
int __real_fcntl(int, int, ...);
int __real_fsync(int);
int __real_fdatasync(int);
int __real_msync(void*, size_t, int);
int __real_sync_file_range(int, off_t, off_t, unsigned);
int __real_rename(const char*, const char*);
int __real_renameat2(int, const char*, int, const char*, unsigned);
int __real_unlink(const char*);
int __real_ftruncate(int, off_t);
ssize_t __real_pread(int, void*, size_t, off_t);
ssize_t __real_pwrite(int, const void*, size_t, off_t);
int __real_fstat(int, struct stat*);
int __real_lstat(const char*, struct stat*);
void* __real_realloc(void*, size_t);
void* __real__ZnwmRKSt9nothrow_t(size_t, const std::nothrow_t&);
}

namespace quenor::test {
namespace {

constexpr uint64_t kPage = 4096;
constexpr int kKinds = static_cast<int>(Call::kHowMany);

uint64_t g_counts[kKinds];
Call g_failing = Call::kHowMany;
int g_fail_in = 0;  // 1: the next one of that kind; 0: none.
int g_error = 0;
bool g_for_good = false;
bool g_all_fail = false;
bool g_has_failed = false;
uint64_t g_space = UINT64_MAX;
size_t g_longest_write = SIZE_MAX;
Call g_failing_always = Call::kHowMany;
int g_error_always = 0;
ino_t g_bad_inode = 0;
uint64_t g_bad_page = 0;
CallObserver* g_observer = nullptr;
bool g_in_observer = false;

// The errno with which a call has to fail, or 0.
int NextError(Call call) {
  ++g_counts[static_cast<int>(call)];
  if (call == g_failing_always) return g_error_always;
  const bool gives_back = call == Call::kClose || call == Call::kMunmap;
  if (g_all_fail && call < Call::kMalloc && !gives_back) return g_error;
  if (call != g_failing || g_fail_in == 0 || --g_fail_in > 0) return 0;
  g_has_failed = true;
  g_all_fail = g_for_good;
  return g_error;
}

template <typename Function>
void Tell(Function function) {
  if (g_observer == nullptr || g_in_observer) return;
  g_in_observer = true;
  const int error = errno;
  function(g_observer);
  errno = error;
  g_in_observer = false;
}

// `real` carries the call out; `failed` is what a failure answers.
template <typename Result, typename Real>
Result Pass(const CallInfo& info, Result failed, Real real) {
  if (g_in_observer) return real();
  if (const int error = NextError(info.call)) {
    errno = error;
    return failed;
  }
  Tell([&](CallObserver* observer) { observer->Before(info); });
  const Result result = real();
  if (result != failed) Tell([&](CallObserver* observer) { observer->After(info); });
  return result;
}

}  // namespace

void FileCalls::Reset() {
  for (uint64_t& count : g_counts) count = 0;
  Heal();
  g_failing = Call::kHowMany;
  g_has_failed = false;
  g_longest_write = SIZE_MAX;
  g_bad_inode = 0;
  g_observer = nullptr;
  MemoryFaults::FailMalloc(0);
}

void FileCalls::Fail(Call call, int nth, int error, bool for_good) {
  g_failing = call;
  g_fail_in = nth;
  g_error = error;
  g_for_good = for_good;
  g_all_fail = false;
  g_has_failed = false;
  MemoryFaults::FailMalloc(call == Call::kMalloc ? static_cast<size_t>(nth) : 0);
}

void FileCalls::FailEach(Call call, int error) {
  g_failing_always = call;
  g_error_always = error;
}

void FileCalls::SetSpace(uint64_t bytes) { g_space = bytes; }
void FileCalls::SetLongestWrite(size_t bytes) { g_longest_write = bytes; }

void FileCalls::Heal() {
  g_fail_in = 0;
  g_all_fail = false;
  g_failing_always = Call::kHowMany;
  g_space = UINT64_MAX;
}

void FileCalls::SetBadPage(const std::string& path, uint64_t offset) {
  struct stat info;
  g_bad_inode = __real_lstat(path.c_str(), &info) == 0 ? info.st_ino : 0;
  g_bad_page = offset / kPage * kPage;
}

bool FileCalls::HasFailed() {
  return g_failing == Call::kMalloc ? MemoryFaults::HasFailed() : g_has_failed;
}

uint64_t FileCalls::Count(Call call) { return g_counts[static_cast<int>(call)]; }

uint64_t FileCalls::CountAll() {
  return std::accumulate(std::begin(g_counts), std::end(g_counts), uint64_t{0});
}

FileCalls::Unseen::Unseen() : before_(g_in_observer) { g_in_observer = true; }
FileCalls::Unseen::~Unseen() { g_in_observer = before_; }

void FileCalls::Observe(CallObserver* observer) { g_observer = observer; }

const char* FileCalls::Name(Call call) {
  static const char* const names[kKinds] = {"open",
                                            "close",
                                            "posix_fallocate",
                                            "fallocate",
                                            "mmap",
                                            "madvise",
                                            "munmap",
                                            "fcntl",
                                            "fsync",
                                            "fdatasync",
                                            "msync",
                                            "sync_file_range",
                                            "rename",
                                            "renameat2",
                                            "unlink",
                                            "ftruncate",
                                            "pread",
                                            "pwrite",
                                            "fstat",
                                            "lstat",
                                            "malloc",
                                            "operator new (nothrow)",
                                            "realloc"};
  return names[static_cast<int>(call)];
}

std::vector<Call> FileCalls::All() {
  std::vector<Call> all;
  for (int i = 0; i < kKinds; ++i) all.push_back(static_cast<Call>(i));
  return all;
}

namespace {

CallInfo Info(Call call, int fd = -1, uint64_t offset = 0, uint64_t size = 0,
              const void* address = nullptr) {
  CallInfo info;
  info.call = call;
  info.fd = fd;
  info.offset = offset;
  info.size = size;
  info.address = address;
  return info;
}

}  // namespace

extern "C" {

int __wrap_open(const char* path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
  va_end(rest);
  return Pass(Info(Call::kOpen), -1, [&] { return __real_open(path, flags, mode); });
}
int __wrap_close(int fd) {
  return Pass(Info(Call::kClose, fd), -1, [&] { return __real_close(fd); });
}
// Answers the error instead of setting errno.
int __wrap_posix_fallocate(int fd, off_t offset, off_t size) {
  if (g_in_observer) return __real_posix_fallocate(fd, offset, size);
  if (const int error = NextError(Call::kPosixFallocate)) return error;
  const CallInfo info =
      Info(Call::kPosixFallocate, fd, static_cast<uint64_t>(offset), static_cast<uint64_t>(size));
  Tell([&](CallObserver* observer) { observer->Before(info); });
  const int error = __real_posix_fallocate(fd, offset, size);
  if (error == 0) Tell([&](CallObserver* observer) { observer->After(info); });
  return error;
}
int __wrap_fallocate(int fd, int mode, off_t offset, off_t size) {
  return Pass(
      Info(Call::kFallocate, fd, static_cast<uint64_t>(offset), static_cast<uint64_t>(size)), -1,
      [&] { return __real_fallocate(fd, mode, offset, size); });
}
void* __wrap_mmap(void* address, size_t size, int protection, int flags, int fd, off_t offset) {
  if (g_in_observer) return __real_mmap(address, size, protection, flags, fd, offset);
  if (const int error = NextError(Call::kMmap)) {
    errno = error;
    return MAP_FAILED;
  }
  void* const result = __real_mmap(address, size, protection, flags, fd, offset);
  if (result != MAP_FAILED) {
    const CallInfo info = Info(Call::kMmap, fd, static_cast<uint64_t>(offset), size, result);
    Tell([&](CallObserver* observer) { observer->After(info); });
  }
  return result;
}
int __wrap_madvise(void* address, size_t size, int advice) {
  return Pass(Info(Call::kMadvise, -1, 0, size, address), -1,
              [&] { return __real_madvise(address, size, advice); });
}
int __wrap_munmap(void* address, size_t size) {
  return Pass(Info(Call::kMunmap, -1, 0, size, address), -1,
              [&] { return __real_munmap(address, size); });
}
int __wrap_fcntl(int fd, int command, ...) {
  va_list rest;
  va_start(rest, command);
  void* const argument = va_arg(rest, void*);
  va_end(rest);
  CallInfo info = Info(Call::kFcntl, fd);
  if (command == F_OFD_SETLK) {
    const struct flock* const lock = static_cast<const struct flock*>(argument);
    info.offset = static_cast<uint64_t>(lock->l_start);
    info.size = lock->l_type == F_UNLCK ? 0 : static_cast<uint64_t>(lock->l_len);
  }
  return Pass(info, -1, [&] { return __real_fcntl(fd, command, argument); });
}
int __wrap_fsync(int fd) {
  return Pass(Info(Call::kFsync, fd), -1, [&] { return __real_fsync(fd); });
}
int __wrap_fdatasync(int fd) {
  return Pass(Info(Call::kFdatasync, fd), -1, [&] { return __real_fdatasync(fd); });
}
int __wrap_msync(void* address, size_t size, int flags) {
  return Pass(Info(Call::kMsync, -1, 0, size, address), -1,
              [&] { return __real_msync(address, size, flags); });
}
int __wrap_sync_file_range(int fd, off_t offset, off_t size, unsigned flags) {
  return Pass(
      Info(Call::kSyncFileRange, fd, static_cast<uint64_t>(offset), static_cast<uint64_t>(size)),
      -1, [&] { return __real_sync_file_range(fd, offset, size, flags); });
}
int __wrap_rename(const char* from, const char* to) {
  return Pass(Info(Call::kRename), -1, [&] { return __real_rename(from, to); });
}
int __wrap_renameat2(int from_folder, const char* from, int to_folder, const char* to,
                     unsigned flags) {
  return Pass(Info(Call::kRenameat2), -1,
              [&] { return __real_renameat2(from_folder, from, to_folder, to, flags); });
}
int __wrap_unlink(const char* path) {
  return Pass(Info(Call::kUnlink), -1, [&] { return __real_unlink(path); });
}
int __wrap_ftruncate(int fd, off_t size) {
  return Pass(Info(Call::kFtruncate, fd, static_cast<uint64_t>(size)), -1,
              [&] { return __real_ftruncate(fd, size); });
}
ssize_t __wrap_pread(int fd, void* out, size_t size, off_t offset) {
  struct stat info;
  const uint64_t begin = static_cast<uint64_t>(offset);
  if (g_bad_inode != 0 && begin < g_bad_page + kPage && begin + size > g_bad_page &&
      __real_fstat(fd, &info) == 0 && info.st_ino == g_bad_inode) {
    if (begin >= g_bad_page) {
      errno = EIO;
      return -1;
    }
    size = g_bad_page - begin;
  }
  return Pass(Info(Call::kPread, fd, static_cast<uint64_t>(offset), size), ssize_t{-1},
              [&] { return __real_pread(fd, out, size, offset); });
}
ssize_t __wrap_pwrite(int fd, const void* data, size_t size, off_t offset) {
  if (!g_in_observer) {
    if (g_space == 0 && size > 0) {
      g_has_failed = true;
      errno = ENOSPC;
      return -1;
    }
    size = static_cast<size_t>(std::min<uint64_t>({size, g_longest_write, g_space}));
    if (g_space != UINT64_MAX) g_space -= size;
  }
  return Pass(Info(Call::kPwrite, fd, static_cast<uint64_t>(offset), size, data), ssize_t{-1},
              [&] { return __real_pwrite(fd, data, size, offset); });
}
int __wrap_fstat(int fd, struct stat* info) {
  return Pass(Info(Call::kFstat, fd), -1, [&] { return __real_fstat(fd, info); });
}
int __wrap_lstat(const char* path, struct stat* info) {
  return Pass(Info(Call::kLstat), -1, [&] { return __real_lstat(path, info); });
}
void* __wrap__ZnwmRKSt9nothrow_t(size_t size, const std::nothrow_t& tag) {
  if (!g_in_observer && NextError(Call::kNothrowNew) != 0) return nullptr;
  return __real__ZnwmRKSt9nothrow_t(size, tag);
}
void* __wrap_realloc(void* memory, size_t size) {
  if (g_in_observer) return __real_realloc(memory, size);
  if (const int error = NextError(Call::kRealloc)) {
    errno = error;
    return nullptr;
  }
  return __real_realloc(memory, size);
}

}  // extern "C"

}  // namespace quenor::test
