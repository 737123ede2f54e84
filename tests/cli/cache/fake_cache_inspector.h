// A cache-file inspector whose file is a script of the test: linked in place of the real one.
#ifndef TESTS_CLI_CACHE_FAKE_CACHE_INSPECTOR_H_
#define TESTS_CLI_CACHE_FAKE_CACHE_INSPECTOR_H_

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "quenor_base/platform/cache_file_inspector.h"

namespace quenor::test {

struct FakeCacheFile {
  CacheFileInspector::Result result = CacheFileInspector::Result::kOk;
  std::string error;
  CacheFileInspector::Summary summary;
  // The numbers of packets and bytes are counted, not taken from the owner.
  std::vector<std::pair<CacheFileInspector::Owner, std::vector<std::string>>> owners;
  std::function<void()> before_inspect_returns = [] {};  // The locks are held.

  // What was asked for.
  std::string path;
  int purges = 0;
};

// The one file there is.
FakeCacheFile& GetFakeCacheFile();

}  // namespace quenor::test

#endif  // TESTS_CLI_CACHE_FAKE_CACHE_INSPECTOR_H_
