#include "cli/send/metrics_file.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "cli/console.h"
#include "cli/text.h"

namespace quenor::cli {

std::string MetricsFile::Write(Time now, const std::string& text) {
  due_ = now + kPeriod;
  const int error = Replace(text);
  if (error == 0) return "";
  return "cannot write " + Printable(path_) + ", which --metrics-file names: " + ErrnoText(error);
}

int MetricsFile::Replace(const std::string& text) const {
  std::string beside = path_ + ".XXXXXX";  // Not one of the names that scrapers look for.
  const int fd = ::mkostemp(beside.data(), O_CLOEXEC);
  if (fd < 0) return errno;
  const bool is_written = ::fchmod(fd, 0644) == 0 && WriteAll(fd, text);
  int error = is_written ? 0 : errno;
  if (::close(fd) != 0 && error == 0) error = errno;
  if (error == 0 && std::rename(beside.c_str(), path_.c_str()) != 0) error = errno;
  if (error != 0) ::unlink(beside.c_str());
  return error;
}

}  // namespace quenor::cli
