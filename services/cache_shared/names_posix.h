// The names beside a cache file's own. PATH.recovered: what a repair makes, complete before it
// takes the name PATH. PATH.set-aside, PATH.set-aside.2, ...: files that a repair, or a version
// that knows less, found at PATH, as they were. Whatever others have put under these names is
// neither followed nor written to, and nothing set aside is ever replaced. Functions that fail
// answer false with errno set. Threads: any. Pages: docs/design/cache-file.md,
// docs/design/mmap-file.md.
#ifndef SERVICES_CACHE_SHARED_NAMES_POSIX_H_
#define SERVICES_CACHE_SHARED_NAMES_POSIX_H_

#include <string>

#include "services/cache_shared/file_calls_posix.h"

QUENOR_NAMESPACE_BEGIN
namespace cache_io {

// Empty when a cache file may be opened at `path`; else why not, for a message.
std::string WhyPathIsRefused(const std::string& path);

std::string RecoveredPath(const std::string& path);
// Creates a file of that name in place of whatever has it.
[[nodiscard]] bool CreateRecovered(const std::string& recovered_path, Descriptor* file);
// Opens PATH.recovered, for whoever finds nothing at PATH. What no repair leaves (a link, a second
// name of a file, what is no file or open to everybody) is removed and counts as ENOENT.
[[nodiscard]] bool OpenRecovered(const std::string& path, Descriptor* file);

// Renames unless something is at `to`: then false with errno EEXIST.
[[nodiscard]] bool RenameToFree(const std::string& from, const std::string& to);
// Gives the file at `path` the first of its set-aside names that is free. `*name` is that name; on
// failure, why there is none and what to do, for a message.
[[nodiscard]] bool SetAside(const std::string& path, std::string* name);
// Removes what is under all those names; the file at `path` itself stays. On failure `*name` is
// what could not be removed.
[[nodiscard]] bool RemoveBeside(const std::string& path, std::string* name);

}  // namespace cache_io
QUENOR_NAMESPACE_END

#endif  // SERVICES_CACHE_SHARED_NAMES_POSIX_H_
