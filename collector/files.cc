#include "collector/files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>

namespace quenor::collector {

int WriteAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    bytes.remove_prefix(static_cast<size_t>(written));
  }
  return 0;
}

int ReadFileWhole(const std::string& path, std::string* bytes) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return errno;
  int error = 0;
  for (;;) {
    char step[64 * 1024];
    const ssize_t got = ::read(fd, step, sizeof(step));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) error = errno;
    if (got <= 0) break;
    bytes->append(step, static_cast<size_t>(got));
  }
  ::close(fd);
  return error;
}

int WriteFileWhole(const std::string& path, std::string_view bytes) {
  const std::string part = path + ".part";
  const int fd = ::open(part.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return errno;
  int error = WriteAll(fd, bytes);
  if (::close(fd) != 0 && error == 0) error = errno;
  if (error == 0 && std::rename(part.c_str(), path.c_str()) != 0) error = errno;
  if (error != 0) ::unlink(part.c_str());
  return error;
}

std::string ErrnoText(int error) { return std::generic_category().message(error); }

}  // namespace quenor::collector
