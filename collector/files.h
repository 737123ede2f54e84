// Files that appear whole or not at all, and lines that are appended whole.
#ifndef COLLECTOR_FILES_H_
#define COLLECTOR_FILES_H_

#include <string>
#include <string_view>

namespace quenor::collector {

// Any thread, if no two calls share `path`. Writes `bytes` to `path`.part and renames it to `path`,
// so that a process killed at any moment leaves no half file under `path`. Not synced: this
// outlives the process, not a power cut. Returns 0 or an errno; on failure `path` is as before.
[[nodiscard]] int WriteFileWhole(const std::string& path, std::string_view bytes);

// Appends the whole of `path` to *bytes. Returns 0 or an errno; on failure *bytes is undefined.
[[nodiscard]] int ReadFileWhole(const std::string& path, std::string* bytes);

// Writes all of `bytes` to descriptor `fd`. Returns 0 or an errno.
[[nodiscard]] int WriteAll(int fd, std::string_view bytes);

// The system's words for an errno, without the shared buffer of strerror. Any thread.
std::string ErrnoText(int error);

}  // namespace quenor::collector

#endif  // COLLECTOR_FILES_H_
