#include "cli/send/saved_list.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "cli/console.h"
#include "cli/fatal.h"
#include "cli/text.h"

namespace quenor::cli {

SavedList::SavedList(std::string path) : path_(std::move(path)) {
  fd_ = ::open(path_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NOCTTY | O_CLOEXEC, 0666);
  if (fd_ >= 0) return;
  throw Fatal(kExitUsage, "cannot open " + Printable(path_) + ", which --saved-list names: " +
                              ErrnoText(errno) + "; nothing was sent");
}

SavedList::~SavedList() {
  if (fd_ >= 0) ::close(fd_);
}

std::string SavedList::Append(const std::vector<std::string>& ids) {
  if (fd_ < 0 || ids.empty()) return "";
  std::string lines;
  for (const std::string& id : ids) lines += id + "\n";
  if (WriteAll(fd_, lines)) return "";
  const int error = errno;
  ::close(std::exchange(fd_, -1));
  return "cannot write to " + Printable(path_) + ": " + ErrnoText(error) +
         "; from here on it lacks what was saved, and a last line without its end does not count";
}

}  // namespace quenor::cli
