// What every test of the plain file starts from: an empty folder, a path in it, an empty log.
#ifndef QUENOR_TESTS_UNIT_CACHE_PLAIN_PLAIN_FILE_FIXTURE_H_
#define QUENOR_TESTS_UNIT_CACHE_PLAIN_PLAIN_FILE_FIXTURE_H_

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "tests/cache/support/cache_kind.h"

namespace quenor::test {

// Clear() and every append. Nobody asks whether the save is complete: the next Clear() makes it so.
[[nodiscard]] inline bool SaveUnasked(ReliableReportCacheFile& file, const Packets& packets) {
  bool saved = file.Clear();
  for (const std::string& packet : packets) saved = Append(file, packet) && saved;
  return saved;
}

inline Packets Sorted(Packets packets) {
  std::sort(packets.begin(), packets.end());
  return packets;
}

class CacheFileTest : public CacheKindTest<Plain> {
 protected:
  // The file then holds them, and nobody has it open.
  void Leave(const Packets& packets) const { ASSERT_TRUE(SaveAt(path_, packets)); }
  Packets Reopened() const { return LoadPlain(path_); }
  // What an Open() would find if the process were killed now.
  Packets AfterKill() const {
    CopyAsIfKilled(path_, path_ + ".killed");
    return LoadPlain(path_ + ".killed");
  }
  std::string Bytes() const { return ReadWholeFile(path_); }
};

}  // namespace quenor::test

#endif  // QUENOR_TESTS_UNIT_CACHE_PLAIN_PLAIN_FILE_FIXTURE_H_
