#include "services/cache_shared/names_posix.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

QUENOR_NAMESPACE_BEGIN
namespace cache_io {
namespace {

constexpr int kMostSetAside = 99;
constexpr size_t kLongestSuffix = sizeof(".set-aside.99") - 1;
constexpr long kUsualNameMax = 255;

std::string SetAsidePath(const std::string& path, int number) {
  return path + ".set-aside" + (number == 1 ? "" : "." + std::to_string(number));
}

size_t LongestName(const std::string& path) {
  const size_t slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  const long longest = pathconf(folder.c_str(), _PC_NAME_MAX);
  return static_cast<size_t>(longest > 0 ? longest : kUsualNameMax);
}

// Not what a repair leaves; nothing that anybody needs goes with the name.
bool IsPlanted(int error) {
  return error == ELOOP || error == ENXIO || error == kNotRegular || error == kOpenToAll;
}

}  // namespace

std::string WhyPathIsRefused(const std::string& path) {
  if (path.empty()) return "the path is empty";
  if (path.find('\0') != std::string::npos) return "the path has a NUL byte in it";
  if (("/" + path + "/").find("/../") != std::string::npos) {
    return "a \"..\" in it would lead out of the cache folder; choose another channel name";
  }
  const size_t size = path.size() - (path.rfind('/') + 1);  // npos + 1 is 0.
  const size_t limit = LongestName(path) - kLongestSuffix;
  if (size <= limit) return std::string();
  return "its file name has " + std::to_string(size) + " bytes, and at most " +
         std::to_string(limit) +
         " leave room for names like FILE.set-aside.99 beside it; shorten " +
         "the channel name by " + std::to_string(size - limit);
}

std::string RecoveredPath(const std::string& path) { return path + ".recovered"; }

bool CreateRecovered(const std::string& recovered_path, Descriptor* file) {
  unlink(recovered_path.c_str());
  return file->Open(recovered_path, Descriptor::How::kCreate);
}

bool OpenRecovered(const std::string& path, Descriptor* file) {
  const std::string recovered = RecoveredPath(path);
  if (file->Open(recovered, Descriptor::How::kExisting)) {
    uint64_t size;
    uint64_t links;
    if (!FileSize(file->fd(), &size, &links)) return false;
    if (links <= 1) return true;
    file->Close();
  } else if (!IsPlanted(errno)) {
    if (errno == EISDIR) errno = ENOENT;
    return false;
  }
  if (unlink(recovered.c_str()) == 0) errno = ENOENT;
  return false;
}

bool RenameToFree(const std::string& from, const std::string& to) {
  int result;
  do {
    result = renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE);
  } while (result != 0 && errno == EINTR);
  if (result == 0) return true;
  if (errno != EINVAL && errno != ENOSYS) return false;
  // A file system that cannot; whoever creates `to` right now is not seen.
  struct stat info;
  if (lstat(to.c_str(), &info) == 0) {
    errno = EEXIST;
    return false;
  }
  return errno == ENOENT && Rename(from, to);
}

bool SetAside(const std::string& path, std::string* name) {
  for (int number = 1; number <= kMostSetAside; ++number) {
    *name = SetAsidePath(path, number);
    if (RenameToFree(path, *name)) return true;
    if (errno == EEXIST) continue;
    *name = ErrnoText(errno) + "; make its folder writable";
    return false;
  }
  *name = std::to_string(kMostSetAside) + " files were set aside before; remove " +
          SetAsidePath(path, 1) + " and those after it";
  errno = EEXIST;
  return false;
}

bool RemoveBeside(const std::string& path, std::string* name) {
  *name = RecoveredPath(path);
  for (int number = 0; number <= kMostSetAside; ++number) {
    if (number > 0) *name = SetAsidePath(path, number);
    if (unlink(name->c_str()) != 0 && errno != ENOENT) return false;
  }
  return true;
}

}  // namespace cache_io
QUENOR_NAMESPACE_END
