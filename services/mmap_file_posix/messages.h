// The one form of a line about a call that failed: what, at which path, why, and what to do.
#ifndef SERVICES_MMAP_FILE_POSIX_MESSAGES_H_
#define SERVICES_MMAP_FILE_POSIX_MESSAGES_H_

#include <string>

#include "quenor_base/platform/local_log.h"
#include "services/cache_shared/file_calls_posix.h"

QUENOR_NAMESPACE_BEGIN
namespace mmap_format {

constexpr char kTryLater[] = "it stays as it is; the next start tries again";

[[gnu::cold]] inline void LogFailure(const char* source, int line, const char* what,
                                     const std::string& path, int error, const char* advice) {
  LocalLog(2, source, line, "cache: cannot %s %s: %s; %s", what, path.c_str(),
           cache_io::ErrnoText(error).c_str(), advice);
}

}  // namespace mmap_format
QUENOR_NAMESPACE_END

#endif  // SERVICES_MMAP_FILE_POSIX_MESSAGES_H_
