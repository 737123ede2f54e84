// The two kinds of cache file, for typed tests that stand once over both.
// Threads: one.
#ifndef QUENOR_TESTS_CACHE_SUPPORT_CACHE_KIND_H_
#define QUENOR_TESTS_CACHE_SUPPORT_CACHE_KIND_H_

#include <gtest/gtest.h>

#include <string>

#include "tests/cache/support/cache_files.h"
#include "tests/cache/support/file_calls.h"
#include "tests/support/fakes/recording_log.h"
#include "tests/support/temp_folder.h"

namespace quenor::test {

struct Mapped {
  using File = MultiProcessSafetyMmapFile;
  static constexpr bool kIsPlain = false;
  static constexpr char kName[] = "mapped";
  static Packets Load(const std::string& path) { return LoadMapped(path); }
  static std::string NextHeader() { return NextMappedHeader(); }
};
struct Plain {
  using File = ReliableReportCacheFile;
  static constexpr bool kIsPlain = true;
  static constexpr char kName[] = "plain";
  static Packets Load(const std::string& path) { return LoadPlain(path); }
  static std::string NextHeader() { return NextPlainHeader(); }
};

using CacheKinds = ::testing::Types<Mapped, Plain>;

// The third argument of TYPED_TEST_SUITE: the tests are called SUITE/mapped.NAME, SUITE/plain.NAME.
struct CacheKindName {
  template <typename Kind>
  static std::string GetName(int) {
    return Kind::kName;
  }
};

// An empty folder, a path in it, an empty log, and calls of which none fails.
template <typename Kind>
class CacheKindTest : public ::testing::Test {
 protected:
  using File = typename Kind::File;

  CacheKindTest() {
    FileCalls::Reset();
    RecordingLog::Clear();
  }
  ~CacheKindTest() override { FileCalls::Reset(); }

  // The file then holds them, and nobody has it open.
  static bool SaveAt(const std::string& path, const Packets& packets) {
    File file;
    return OpenFile(file, path) && Save(file, packets);
  }

  TempFolder folder_;
  const std::string path_ = folder_.File("channel");
};

}  // namespace quenor::test

#endif  // QUENOR_TESTS_CACHE_SUPPORT_CACHE_KIND_H_
