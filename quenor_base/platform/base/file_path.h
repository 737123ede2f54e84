// A file-system path, and the two questions the report channel asks about one.
#ifndef QUENOR_BASE_PLATFORM_BASE_FILE_PATH_H_
#define QUENOR_BASE_PLATFORM_BASE_FILE_PATH_H_

#include <string>
#include <utility>

#include "quenor_base/platform/base/abi.h"

QUENOR_NAMESPACE_BEGIN
namespace base {

class FilePath {
 public:
  FilePath() = default;
  explicit FilePath(std::string value) : value_(std::move(value)) {}

  bool empty() const { return value_.empty(); }
  const std::string& value() const { return value_; }

  // A path with `component` behind a separator. The component is taken as it is: whoever opens the
  // result checks where it leads.
  FilePath AppendASCII(const std::string& component) const {
    if (value_.empty()) return FilePath(component);
    if (value_.back() == '/') return FilePath(value_ + component);
    return FilePath(value_ + "/" + component);
  }

  // The path as UTF-8 text, for messages.
  std::string AsUTF8Unsafe() const { return value_; }

  bool operator==(const FilePath& other) const { return value_ == other.value_; }

 private:
  std::string value_;
};

// Any thread; blocks on the file system. True when something exists at `path`, of whatever kind;
// links are followed, so one that leads nowhere does not exist.
bool PathExists(const FilePath& path);

// Any thread; blocks on the file system. Creates the folder and its missing parents, mode 0700; a
// folder that exists is left as it is. True when a folder exists there afterwards, whoever created
// it; else false, errno says why, and the parents created so far remain.
[[nodiscard]] bool CreateDirectory(const FilePath& path);

}  // namespace base
QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_PLATFORM_BASE_FILE_PATH_H_
