// Stands between the library and the system's calls on files: counts them, fails the n-th, ends a
// disk's space, and stops the world before and in the middle of each that changes something.
// Threads: one while anything but the initial state is set.
#ifndef QUENOR_TESTS_UNIT_CACHE_PLAIN_DISK_CALLS_H_
#define QUENOR_TESTS_UNIT_CACHE_PLAIN_DISK_CALLS_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace quenor::test {

class DiskCalls {
 public:
  // From the start, or since the last Reset().
  static size_t Count();
  static size_t CountOf(const std::string& name);

  // The n-th call from now (1: the next) fails with `error`; with `for_ever` so do all after it.
  static void FailNth(size_t n, int error, bool for_ever);
  static bool HasFailed();
  // Calls of this name fail with `error`, all of them.
  static void FailAll(const std::string& name, int error);
  // So many more bytes can be written; a write that does not fit is shortened, then ENOSPC.
  static void SetSpace(uint64_t bytes);
  // No write takes more than this.
  static void SetLongestWrite(size_t bytes);

  // Called at each moment at which a kill may leave something else than at the one before: ahead of
  // every write, cut, rename and removal, and with a write begun, half done and almost done. Calls
  // that `look` causes are passed on.
  static void AtEachChange(std::function<void()> look);

  // Passes everything on.
  static void Reset();
};

}  // namespace quenor::test

#endif  // QUENOR_TESTS_UNIT_CACHE_PLAIN_DISK_CALLS_H_
