// Which cache a run uses, and where. Page: docs/guide/quenor-report.md.
#ifndef CLI_OPTIONS_CACHE_USE_H_
#define CLI_OPTIONS_CACHE_USE_H_

#include <string>

#include "cli/options/options.h"

namespace quenor::cli {

// The folder that --cache-dir names: absolute, without links and "..". It need not exist. Throws
// Fatal with kExitUsage when it is none and could not become one, as far as that can be told
// without making anything.
std::string CacheFolder(const std::string& path);

struct CacheUse {
  CacheKind kind = CacheKind::kNone;
  std::string file;  // Of the channel; empty: no cache, or no folder for it.
};

// Before the process's first channel is made: sets the process's cache option and folder as the
// options ask, and answers what is then in force.
CacheUse ApplyCache(const Options& options);

// The line about a cache that could not be opened.
std::string CacheFailedLine(const CacheUse& cache);

}  // namespace quenor::cli

#endif  // CLI_OPTIONS_CACHE_USE_H_
