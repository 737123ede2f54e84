#include "services/cache_shared/file_calls_posix.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <utility>

#include "quenor_base/platform/base/fork.h"
#include "quenor_base/platform/config_center.h"
#include "quenor_base/platform/local_log.h"

QUENOR_NAMESPACE_BEGIN
namespace cache_io {
namespace {

constexpr char kLogSource[] = "services/cache_shared/file_calls_posix";
constexpr mode_t kFileMode = 0600;

template <typename Call>
auto Uninterrupted(Call call) {
  decltype(call()) result;
  do {
    result = call();
  } while (result == -1 && errno == EINTR);
  return result;
}

uint64_t PageSize() { return static_cast<uint64_t>(sysconf(_SC_PAGESIZE)); }

bool SetLock(int fd, short type, uint64_t offset, uint64_t size) {
  struct flock lock = {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = static_cast<off_t>(offset);
  lock.l_len = static_cast<off_t>(size);
  const bool set = Uninterrupted([&] { return fcntl(fd, F_OFD_SETLK, &lock); }) == 0;
  if (!set && errno == EACCES) errno = EAGAIN;  // Two names for "another has it".
  return set;
}

}  // namespace

// Every open descriptor, and the handlers that keep forked children out of them. While its lock is
// held no fork happens: whatever must be open and known, or mapped and marked, in one step.
struct ForkGuard {
  std::mutex lock;
  Descriptor* first = nullptr;

  const base::HeldAtFork held_at_fork{this, [](void* guard) { Of(guard).lock.lock(); },
                                      [](void* guard) { Of(guard).lock.unlock(); },
                                      [](void* guard) { Of(guard).InChild(); }};

  static ForkGuard& Of(void* guard) { return *static_cast<ForkGuard*>(guard); }
  static ForkGuard& Get() {
    static std::atomic<ForkGuard*> guard{nullptr};
    return *base::FindOrMake(&guard, [] { return new ForkGuard; });
  }

  void InChild() {
    while (first != nullptr) {
      Descriptor* const descriptor = first;
      first = descriptor->next_;
      close(descriptor->fd_);
      descriptor->fd_ = -1;
      descriptor->orphan_ = true;
      descriptor->previous_ = descriptor->next_ = nullptr;
    }
    lock.unlock();
  }
};

Durability ConfiguredDurability() {
  const std::string& key = config::BaseCfg().cache_durability;
  const uint64_t value =
      config::ConfigCenterImpl::GetInstance()->GetValueWithPriority(key, uint64_t{0}).value_or(0);
  switch (value) {
    case 0:
      return Durability::kProcess;
    case 1:
      return Durability::kStarted;
    case 2:
      return Durability::kOnDisk;
    default:
      LocalLog(2, kLogSource, __LINE__,
               "cache: %s=%llu means nothing and counts as 0; set it to 0, 1 or 2", key.c_str(),
               static_cast<unsigned long long>(value));
      return Durability::kProcess;
  }
}

bool Descriptor::Open(const std::string& path, How how) {
  Close();
  int flags = O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
  flags |= how == How::kReadOnly ? O_RDONLY : O_RDWR;
  if (how == How::kCreate) flags |= O_CREAT | O_EXCL;
  ForkGuard& guard = ForkGuard::Get();
  std::lock_guard<std::mutex> hold(guard.lock);
  const int fd = Uninterrupted([&] { return open(path.c_str(), flags, kFileMode); });
  if (fd < 0) return false;
  struct stat info;
  int error = 0;
  if (Uninterrupted([&] { return fstat(fd, &info); }) != 0) {
    error = errno;
  } else if (!S_ISREG(info.st_mode)) {
    error = S_ISDIR(info.st_mode) ? EISDIR : kNotRegular;
  } else if (how == How::kExisting && info.st_uid != geteuid() && (info.st_mode & S_IWOTH) != 0) {
    error = kOpenToAll;
  } else if (how == How::kCreate) {
    fchmod(fd, kFileMode);  // A umask may have taken bits that the next open needs.
  }
  if (error != 0) {
    close(fd);
    errno = error;
    return false;
  }
  fd_ = fd;
  device_ = info.st_dev;
  inode_ = info.st_ino;
  orphan_ = false;
  Link();
  return true;
}

void Descriptor::Close() {
  if (fd_ >= 0) {
    std::lock_guard<std::mutex> hold(ForkGuard::Get().lock);
    Unlink();
    close(fd_);
    fd_ = -1;
  }
  orphan_ = false;
}

bool Descriptor::IsSameAs(const struct stat& info) const {
  return info.st_dev == device_ && info.st_ino == inode_;
}

void Descriptor::Link() {
  ForkGuard& guard = ForkGuard::Get();
  previous_ = nullptr;
  next_ = guard.first;
  if (next_ != nullptr) next_->previous_ = this;
  guard.first = this;
}

void Descriptor::Unlink() {
  (previous_ != nullptr ? previous_->next_ : ForkGuard::Get().first) = next_;
  if (next_ != nullptr) next_->previous_ = previous_;
  previous_ = next_ = nullptr;
}

void Descriptor::swap(Descriptor& other) {
  std::lock_guard<std::mutex> hold(ForkGuard::Get().lock);
  if (fd_ >= 0) Unlink();
  if (other.fd_ >= 0) other.Unlink();
  std::swap(fd_, other.fd_);
  std::swap(device_, other.device_);
  std::swap(inode_, other.inode_);
  std::swap(orphan_, other.orphan_);
  if (fd_ >= 0) Link();
  if (other.fd_ >= 0) other.Link();
}

std::string WhyNotOpened(int error) {
  switch (error) {
    case ELOOP:
      return "it is a symbolic link, and none is followed; remove it";
    case EISDIR:
      return "it is a directory; remove it";
    case ENXIO:  // What open(2) says of a socket.
    case kNotRegular:
      return "it is a FIFO, a socket or a device, no regular file; remove it";
    case kOpenToAll:
      return "it belongs to another user, and everybody may write to it; remove it";
    default:
      return ErrnoText(error) + "; check the folder, its permissions and the disk";
  }
}

bool Mapping::Map(const Descriptor& file, uint64_t offset, uint64_t size) {
  Unmap();
  const uint64_t into_page = offset % PageSize();
  const size_t map_size = static_cast<size_t>(size + into_page);
  std::lock_guard<std::mutex> hold(ForkGuard::Get().lock);
  void* const base = mmap(nullptr, map_size, PROT_READ | PROT_WRITE, MAP_SHARED, file.fd(),
                          static_cast<off_t>(offset - into_page));
  if (base == MAP_FAILED) return false;
  // A child's copy of the mapping would keep the locks of a dead parent.
  if (madvise(base, map_size, MADV_DONTFORK) != 0) {
    const int error = errno;
    munmap(base, map_size);
    errno = error;
    return false;
  }
  fd_ = file.fd();
  file_offset_ = offset;
  map_base_ = static_cast<uint8_t*>(base);
  map_size_ = map_size;
  data_ = map_base_ + into_page;
  size_ = size;
  return true;
}

void Mapping::Unmap() {
  if (map_base_ != nullptr) munmap(map_base_, map_size_);
  Forget();
}

void Mapping::Forget() {
  fd_ = -1;
  data_ = map_base_ = nullptr;
  size_ = file_offset_ = 0;
  map_size_ = 0;
}

void Mapping::swap(Mapping& other) {
  std::swap(fd_, other.fd_);
  std::swap(file_offset_, other.file_offset_);
  std::swap(data_, other.data_);
  std::swap(size_, other.size_);
  std::swap(map_base_, other.map_base_);
  std::swap(map_size_, other.map_size_);
}

bool Mapping::Flush(uint64_t begin, uint64_t end, Durability durability) const {
  if (durability == Durability::kProcess || begin >= end) return true;
  if (durability == Durability::kStarted) {
    // msync(MS_ASYNC) starts nothing on Linux. Advice only: nobody was promised that it arrives.
    sync_file_range(fd_, static_cast<off_t>(file_offset_ + begin), static_cast<off_t>(end - begin),
                    SYNC_FILE_RANGE_WRITE);
    return true;
  }
  uint8_t* const first = data_ + begin;
  const size_t into_page = reinterpret_cast<uintptr_t>(first) % PageSize();
  return Uninterrupted([&] {
           return msync(first - into_page, static_cast<size_t>(end - begin) + into_page, MS_SYNC);
         }) == 0;
}

int64_t ReadAt(int fd, void* out, size_t size, uint64_t offset) {
  uint8_t* const bytes = static_cast<uint8_t*>(out);
  size_t done = 0;
  while (done < size) {
    const ssize_t got = Uninterrupted(
        [&] { return pread(fd, bytes + done, size - done, static_cast<off_t>(offset + done)); });
    if (got < 0) return -1;
    if (got == 0) break;
    done += static_cast<size_t>(got);
  }
  return static_cast<int64_t>(done);
}

bool WriteAt(int fd, const void* data, size_t size, uint64_t offset) {
  const uint8_t* const bytes = static_cast<const uint8_t*>(data);
  size_t done = 0;
  while (done < size) {
    const ssize_t put = Uninterrupted(
        [&] { return pwrite(fd, bytes + done, size - done, static_cast<off_t>(offset + done)); });
    if (put < 0) return false;
    if (put == 0) {
      errno = EIO;
      return false;
    }
    done += static_cast<size_t>(put);
  }
  return true;
}

bool Allocate(int fd, uint64_t offset, uint64_t size) {
  int error;
  do {
    error = posix_fallocate(fd, static_cast<off_t>(offset), static_cast<off_t>(size));
  } while (error == EINTR);
  errno = error;
  return error == 0;
}

bool Truncate(int fd, uint64_t size) {
  return Uninterrupted([&] { return ftruncate(fd, static_cast<off_t>(size)); }) == 0;
}

bool ZeroRange(int fd, uint64_t offset, uint64_t size) {
  const int punched = Uninterrupted([&] {
    return fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(offset),
                     static_cast<off_t>(size));
  });
  if (punched == 0) return true;
  static uint8_t zeros[4096];  // Never written. Not const: constants take room in the program.
  for (uint64_t end = offset + size; end > offset;) {
    const uint64_t part = std::min<uint64_t>(sizeof zeros, end - offset);
    if (!WriteAt(fd, zeros, part, end - part)) return false;
    end -= part;
  }
  return true;
}

uint64_t NextData(int fd, uint64_t begin, uint64_t end) {
  if (begin >= end) return end;
  const off_t data = lseek(fd, static_cast<off_t>(begin), SEEK_DATA);
  if (data < 0) return errno == ENXIO ? end : begin;  // ENXIO: nothing but a hole. Else: unknown.
  return std::min(static_cast<uint64_t>(data), end);
}

bool FileSize(int fd, uint64_t* size, uint64_t* links) {
  struct stat info;
  if (Uninterrupted([&] { return fstat(fd, &info); }) != 0) return false;
  *size = static_cast<uint64_t>(info.st_size);
  *links = static_cast<uint64_t>(info.st_nlink);
  return true;
}

Name AskName(int fd, const std::string& path, uint64_t* size_bytes) {
  struct stat open_file;
  struct stat named_file;
  if (Uninterrupted([&] { return fstat(fd, &open_file); }) != 0) return Name::kUnknown;
  const int named = Uninterrupted([&] { return lstat(path.c_str(), &named_file); });
  if (named != 0 && errno != ENOENT && errno != ENOTDIR) return Name::kUnknown;
  if (size_bytes != nullptr) *size_bytes = static_cast<uint64_t>(open_file.st_size);
  if (named != 0) return Name::kNobodys;
  const bool same = open_file.st_dev == named_file.st_dev && open_file.st_ino == named_file.st_ino;
  return same ? Name::kOurs : Name::kAnothers;
}

Name AskName(const Descriptor& file, const std::string& path, uint64_t* size_bytes) {
  struct stat named_file;
  if (Uninterrupted([&] { return lstat(path.c_str(), &named_file); }) != 0) {
    return errno == ENOENT || errno == ENOTDIR ? Name::kNobodys : Name::kUnknown;
  }
  *size_bytes = static_cast<uint64_t>(named_file.st_size);
  return file.IsSameAs(named_file) ? Name::kOurs : Name::kAnothers;
}

bool IsStillAt(int fd, const std::string& path) {
  return AskName(fd, path, nullptr) == Name::kOurs;
}

bool SyncFile(int fd) {
  return Uninterrupted([&] { return fsync(fd); }) == 0;
}

bool SyncFolderOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  const int fd =
      Uninterrupted([&] { return open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); });
  if (fd < 0) return false;
  const bool synced = SyncFile(fd);
  const int error = errno;
  close(fd);
  errno = error;
  return synced;
}

bool Rename(const std::string& from, const std::string& to) {
  return Uninterrupted([&] { return rename(from.c_str(), to.c_str()); }) == 0;
}

bool TryLock(int fd, uint64_t offset, uint64_t size) { return SetLock(fd, F_WRLCK, offset, size); }

bool WaitLock(int fd, uint64_t offset, uint64_t size, int wait_ms) {
  return KeepTrying([&] { return TryLock(fd, offset, size); }, wait_ms);
}

bool WaitSharedLock(int fd, uint64_t offset, uint64_t size, int wait_ms) {
  return KeepTrying([&] { return SetLock(fd, F_RDLCK, offset, size); }, wait_ms);
}

void Unlock(int fd, uint64_t offset, uint64_t size) { SetLock(fd, F_UNLCK, offset, size); }

int IsLockedByOther(int fd, uint64_t offset, uint64_t size) {
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  lock.l_start = static_cast<off_t>(offset);
  lock.l_len = static_cast<off_t>(size);
  if (Uninterrupted([&] { return fcntl(fd, F_OFD_GETLK, &lock); }) != 0) return -1;
  return lock.l_type == F_UNLCK ? 0 : 1;
}

std::string ErrnoText(int error) {
  char buffer[128];
  // The variant that may answer a text of its own instead of filling the buffer.
  return strerror_r(error, buffer, sizeof buffer);
}

}  // namespace cache_io
QUENOR_NAMESPACE_END
