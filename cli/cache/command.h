// "quenor-report cache": shows, checks and removes a cache file, of either kind, without being its
// owner. Nothing is written while the file is being read: a slow reader of our output must not hold
// a lock that a live owner waits for. Threads: one. Page: docs/guide/quenor-report.md.
#ifndef CLI_CACHE_COMMAND_H_
#define CLI_CACHE_COMMAND_H_

#include "cli/console.h"
#include "cli/fatal.h"
#include "cli/options/options.h"

namespace quenor::cli {

// Blocks on the file system. Writes what was asked for to `out_fd`, which it borrows; remarks for
// people go to the console. Throws Fatal when that could not be done.
ExitCode RunCacheCommand(const CacheCommand& command, int out_fd, Console& console);

}  // namespace quenor::cli

#endif  // CLI_CACHE_COMMAND_H_
