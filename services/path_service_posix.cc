// Paths and well-known folders by POSIX calls.
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "quenor_base/platform/base/fork.h"
#include "quenor_base/platform/base/lock.h"
#include "quenor_base/platform/base/path_service.h"
#include "quenor_base/platform/base/thread_annotations.h"
#include "quenor_base/platform/exception_barrier.h"

QUENOR_NAMESPACE_BEGIN
namespace base {
namespace {

constexpr mode_t kFolderMode = 0700;  // Reports are nobody else's business.
constexpr size_t kMaxPasswdBytes = 1 << 20;

// The system would read a path only up to its first NUL byte, that is, another path.
bool IsUsable(const std::string& path) {
  if (!path.empty() && path.find('\0') == std::string::npos) return true;
  errno = path.empty() ? ENOENT : EINVAL;
  return false;
}

bool IsAbsolute(const std::string& path) { return !path.empty() && path[0] == '/'; }

// Follows links. 0, or -1 with errno.
int StatPath(const std::string& path, struct stat* info) {
  int result;
  do {
    result = stat(path.c_str(), info);
  } while (result != 0 && errno == EINTR);
  return result;
}

bool IsFolder(const std::string& path) {
  struct stat info;
  return StatPath(path, &info) == 0 && S_ISDIR(info.st_mode);
}

// True when `path` is a folder afterwards, whoever created it; else false with errno. Its parent
// must exist.
bool EnsureFolder(const std::string& path) {
  if (IsFolder(path)) return true;
  int result;
  do {
    result = mkdir(path.c_str(), kFolderMode);
  } while (result != 0 && errno == EINTR);
  if (result == 0) return true;
  // Another thread or process may have been quicker; it is the folder that counts.
  const int mkdir_errno = errno;
  if (IsFolder(path)) return true;
  errno = mkdir_errno == EEXIST ? ENOTDIR : mkdir_errno;
  return false;
}

std::string EnvironmentPath(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? std::string() : std::string(value);
}

// The home folder of the process's user by the user database; empty when there is none.
std::string HomeFromUserDatabase() {
  std::vector<char> buffer(1024);
  for (;;) {
    struct passwd entry;
    struct passwd* found = nullptr;
    const int error = getpwuid_r(geteuid(), &entry, buffer.data(), buffer.size(), &found);
    if (error == EINTR) continue;
    if (error == ERANGE && buffer.size() < kMaxPasswdBytes) {
      buffer.resize(buffer.size() * 2);
      continue;
    }
    if (error != 0 || found == nullptr || found->pw_dir == nullptr) return std::string();
    return found->pw_dir;
  }
}

// Relative values of the variables are no folders of the user's: they would follow the process's
// working folder about.
FilePath DefaultReportFolder() {
  const std::string state_home = EnvironmentPath("XDG_STATE_HOME");
  if (IsAbsolute(state_home)) return FilePath(state_home).AppendASCII("quenor");
  std::string home = EnvironmentPath("HOME");
  if (!IsAbsolute(home)) home = HomeFromUserDatabase();
  if (!IsAbsolute(home)) return FilePath();
  return FilePath(home).AppendASCII(".local/state/quenor");
}

constexpr char kInPaths[] = "quenor's path service";

struct Overrides {
  Lock lock;
  const HeldAtFork held_at_fork{&lock};
  std::map<int, FilePath> paths QUENOR_GUARDED_BY(lock);
};

Overrides& GetOverrides() {
  static std::atomic<Overrides*> overrides{nullptr};
  return *FindOrMake(&overrides, [] { return new Overrides; });
}

bool IsKnown(int key) { return key == DIR_RELIABLE_REPORT; }

}  // namespace

bool PathExists(const FilePath& path) {
  struct stat info;
  return IsUsable(path.value()) && StatPath(path.value(), &info) == 0;
}

bool CreateDirectory(const FilePath& path) {
  const std::string& full = path.value();
  if (!IsUsable(full)) return false;
  // Parents first, each ending before a separator; a separator in front is the root.
  for (size_t end = full.find('/', 1); end != std::string::npos; end = full.find('/', end + 1)) {
    if (!EnsureFolder(full.substr(0, end))) return false;
  }
  return EnsureFolder(full);
}

bool PathService::Get(int key, FilePath* out) {
  if (!IsKnown(key)) return false;
  FilePath path;
  EndOnException(kInPaths, [&] {
    Overrides& overrides = GetOverrides();
    AutoLock hold(overrides.lock);
    const auto found = overrides.paths.find(key);
    if (found != overrides.paths.end()) path = found->second;
  });
  if (path.empty()) path = DefaultReportFolder();
  if (path.empty()) return false;
  *out = std::move(path);
  return true;
}

bool PathService::Override(int key, const FilePath& path) {
  if (!IsKnown(key)) return false;
  const bool take_back = path.empty();
  if (!take_back && !(IsAbsolute(path.value()) && IsUsable(path.value()))) return false;
  EndOnException(kInPaths, [&] {
    Overrides& overrides = GetOverrides();
    AutoLock hold(overrides.lock);
    if (take_back) {
      overrides.paths.erase(key);
    } else {
      overrides.paths[key] = path;
    }
  });
  return true;
}

const char* PathService::ImplementationName() { return "posix"; }

}  // namespace base
QUENOR_NAMESPACE_END
