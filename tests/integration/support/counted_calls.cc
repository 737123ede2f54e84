#include "tests/integration/support/counted_calls.h"

#include <sys/syscall.h>

#include <atomic>

// Declared here: the C library's headers may define some of them inline.
extern "C" long syscall(long number, ...);

namespace {
std::atomic<size_t> g_calls{0};
std::atomic<size_t> g_writes{0};

template <typename... Arguments>
long Counted(long number, Arguments... arguments) {
  g_calls.fetch_add(1, std::memory_order_relaxed);
  return syscall(number, arguments...);
}
}  // namespace

extern "C" {
long read(int fd, void* bytes, size_t size) { return Counted(SYS_read, fd, bytes, size); }
long write(int fd, const void* bytes, size_t size) {
  g_writes.fetch_add(1, std::memory_order_relaxed);
  return Counted(SYS_write, fd, bytes, size);
}
long send(int fd, const void* bytes, size_t size, int flags) {
  return Counted(SYS_sendto, fd, bytes, size, flags, nullptr, 0);
}
long recv(int fd, void* bytes, size_t size, int flags) {
  return Counted(SYS_recvfrom, fd, bytes, size, flags, nullptr, nullptr);
}
int poll(void* fds, unsigned long count, int timeout_ms) {
  return static_cast<int>(Counted(SYS_poll, fds, count, timeout_ms));
}
}

namespace quenor::test {
size_t CountedCalls() { return g_calls.load(std::memory_order_relaxed); }
size_t CountedWrites() { return g_writes.load(std::memory_order_relaxed); }
}  // namespace quenor::test
