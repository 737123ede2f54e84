// System calls of the two cache files, each carried through interruptions and short transfers.
// Functions that fail answer false with errno set. Locks are open-file-description locks (Linux
// 3.15): they belong to the descriptor, not the process, exclude two instances of one process too,
// and are dropped by the kernel when the last reference to the description goes, SIGKILL included.
// A forked child must be no such reference: see Descriptor.
// Threads: any, each object by one at a time.
#ifndef SERVICES_CACHE_SHARED_FILE_CALLS_POSIX_H_
#define SERVICES_CACHE_SHARED_FILE_CALLS_POSIX_H_

#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <string>

#include "quenor_base/platform/base/abi.h"
#include "quenor_base/platform/base/monotonic_time.h"

QUENOR_NAMESPACE_BEGIN
namespace cache_io {

// What a save survives besides the end of the process.
enum class Durability { kProcess, kStarted, kOnDisk };
// From the configuration; a value that means nothing is logged and counts as kProcess.
Durability ConfiguredDurability();

// An open file that ends with this process: a child that forks has it closed before fork() returns
// in it, so that neither its locks nor its bytes live on there. Never closed by accident twice: the
// number may by then be another's.
class Descriptor {
 public:
  Descriptor() = default;
  ~Descriptor() { Close(); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  // Opens a regular file for reading and writing; never through a symbolic link as last component,
  // never waiting for a device, and not when it is another user's and everybody may write to it.
  // kCreate: must not exist; mode 0600 whatever the umask. kReadOnly: whoever's it is.
  enum class How { kExisting, kCreate, kReadOnly };
  [[nodiscard]] bool Open(const std::string& path, How how);
  void Close();

  bool is_open() const { return fd_ >= 0; }
  int fd() const { return fd_; }
  bool IsSameAs(const struct stat& info) const;
  // In a forked child, of a descriptor that was open in its parent: nothing may be done with what
  // was mapped or remembered of the file, not even unmapping (the addresses may be another's).
  bool is_orphan() const { return orphan_; }
  void swap(Descriptor& other);

 private:
  friend struct ForkGuard;
  void Link();
  void Unlink();

  int fd_ = -1;
  uint64_t device_ = 0;  // Of the open file, whose number nothing else gets while it is open.
  uint64_t inode_ = 0;
  bool orphan_ = false;
  Descriptor* previous_ = nullptr;  // In the list that the fork handlers walk; under its lock.
  Descriptor* next_ = nullptr;
};

// What Descriptor::Open() leaves in errno beside what open(2) does, which has no use for these.
constexpr int kNotRegular = EINVAL;  // A FIFO, a socket, a device.
constexpr int kOpenToAll = EXDEV;    // Another user's, and everybody may write to it.
// Why Descriptor::Open() failed, and what to do, for a message. Any thread.
std::string WhyNotOpened(int error);

// Maps `size` bytes at `offset` (of any alignment), shared and writable, not inherited by a forked
// child. Null with errno on failure. The space must have been allocated.
class Mapping {
 public:
  Mapping() = default;
  ~Mapping() { Unmap(); }
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;

  [[nodiscard]] bool Map(const Descriptor& file, uint64_t offset, uint64_t size);
  void Unmap();
  // In a forked child, where nothing is mapped: forgets it.
  void Forget();
  void swap(Mapping& other);

  uint8_t* data() const { return data_; }
  uint64_t size() const { return size_; }
  // Writes what [begin, end) of it holds: starts it, or waits until it is on the disk.
  [[nodiscard]] bool Flush(uint64_t begin, uint64_t end, Durability durability) const;

 private:
  int fd_ = -1;  // Borrowed.
  uint64_t file_offset_ = 0;
  uint8_t* data_ = nullptr;
  uint64_t size_ = 0;
  uint8_t* map_base_ = nullptr;  // `data_` rounded down to a page.
  size_t map_size_ = 0;
};

// How many bytes were read: fewer than `size` only at the end of the file; -1 on an error.
[[nodiscard]] int64_t ReadAt(int fd, void* out, size_t size, uint64_t offset);
// All of them or none that counts: false may leave some written.
[[nodiscard]] bool WriteAt(int fd, const void* data, size_t size, uint64_t offset);
// Makes the file at least offset + size long, with disk space for that range.
[[nodiscard]] bool Allocate(int fd, uint64_t offset, uint64_t size);
[[nodiscard]] bool Truncate(int fd, uint64_t size);
// Makes a range inside the file read as zeros, and gives its disk space back where the file system
// can. From its end to its begin, when a kill can come between.
[[nodiscard]] bool ZeroRange(int fd, uint64_t offset, uint64_t size);
// Where, in [begin, end), something may be that is not a hole: the first such place, or `end`.
uint64_t NextData(int fd, uint64_t begin, uint64_t end);
[[nodiscard]] bool FileSize(int fd, uint64_t* size, uint64_t* links);
// Who has the name `path`, asked by whoever has a file open that had it: others may have removed or
// replaced the file or its folder, or have left it under another name only.
enum class Name {
  kOurs,      // It names the file that `fd` has open.
  kNobodys,   // Nothing is there.
  kAnothers,  // Something else is there.
  kUnknown,   // It could not be asked; errno says why. Nothing may be concluded from it.
};
// `*size_bytes`, which may be null, is the open file's length; set unless the answer is kUnknown.
Name AskName(int fd, const std::string& path, uint64_t* size_bytes);
// In one system call, of the file as it was opened; the length only with kOurs.
Name AskName(const Descriptor& file, const std::string& path, uint64_t* size_bytes);
// AskName() says kOurs.
bool IsStillAt(int fd, const std::string& path);
// Waits until a file's content, or a folder's names, are on the disk.
[[nodiscard]] bool SyncFile(int fd);
[[nodiscard]] bool SyncFolderOf(const std::string& path);
[[nodiscard]] bool Rename(const std::string& from, const std::string& to);

// Calls `attempt` at growing intervals while it answers false with errno EAGAIN, for `wait_ms` at
// most. Answers what the last call did, errno as it left it.
template <typename Try>
[[nodiscard]] bool KeepTrying(Try attempt, int wait_ms) {
  constexpr int64_t kFirstPauseNs = 50 * 1000;
  constexpr int64_t kLongestPauseNs = 2 * 1000000;
  if (attempt()) return true;
  const int64_t deadline_ns = base::MonotonicNs() + int64_t{wait_ms} * 1000000;
  for (int64_t pause_ns = kFirstPauseNs; errno == EAGAIN;
       pause_ns = std::min(2 * pause_ns, kLongestPauseNs)) {
    if (base::MonotonicNs() >= deadline_ns) {
      errno = EAGAIN;
      return false;
    }
    const struct timespec pause = {0, static_cast<long>(pause_ns)};
    nanosleep(&pause, nullptr);
    if (attempt()) return true;
  }
  return false;
}

// Exclusive locks on a byte range. Try: false with errno EAGAIN when another has it. Wait: asks
// again at growing intervals for at most `wait_ms`; a holder may be frozen for ever.
[[nodiscard]] bool TryLock(int fd, uint64_t offset, uint64_t size);
[[nodiscard]] bool WaitLock(int fd, uint64_t offset, uint64_t size, int wait_ms);
void Unlock(int fd, uint64_t offset, uint64_t size);
// As WaitLock(), of a lock that readers share; the file may be open for reading only.
[[nodiscard]] bool WaitSharedLock(int fd, uint64_t offset, uint64_t size, int wait_ms);
// 1 another holds a lock in the range, 0 nobody else does, -1 an error.
[[nodiscard]] int IsLockedByOther(int fd, uint64_t offset, uint64_t size);

// The system's text for an errno value. Any thread.
std::string ErrnoText(int error);

}  // namespace cache_io
QUENOR_NAMESPACE_END

#endif  // SERVICES_CACHE_SHARED_FILE_CALLS_POSIX_H_
