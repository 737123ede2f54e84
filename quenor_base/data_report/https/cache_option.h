// Which cache the process's channels keep their messages in, and the folder that it stands in.
// Threads and blocking: see each.
#ifndef QUENOR_BASE_DATA_REPORT_HTTPS_CACHE_OPTION_H_
#define QUENOR_BASE_DATA_REPORT_HTTPS_CACHE_OPTION_H_

#include <string>

#include "quenor_base/platform/base/file_path.h"

QUENOR_NAMESPACE_BEGIN

// The values of the cache option; under any other the cache cannot be opened.
constexpr int kCacheNone = 0;
constexpr int kCacheFile = 1;
constexpr int kCacheMmap = 2;

// Any thread. The low 32 bits of the configured value; read once, so that every channel and every
// load and save of the process agree on one backend.
int GetCacheOption();

// Queue thread; blocks on the file system. The folder of that name in which all channels keep their
// files, created if it was missing; empty, and logged, on failure.
base::FilePath GetCacheFolerPath(const std::string& folder_name);

QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_DATA_REPORT_HTTPS_CACHE_OPTION_H_
