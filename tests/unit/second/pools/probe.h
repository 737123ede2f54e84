// Probe: what one thread does with the heap and with mutexes while it lives, in the order done.
// The executable's own operator new and delete tell it, and the linker redirects the mutex calls by
// --wrap. Threads: a probe belongs to the thread that made it, and to one at a time.
#ifndef QUENOR_TESTS_UNIT_SECOND_POOLS_PROBE_H_
#define QUENOR_TESTS_UNIT_SECOND_POOLS_PROBE_H_

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <vector>

namespace quenor::test {

enum class Act { kLock, kUnlock, kNewNothrowArray, kNewArray, kNewObject, kDeleteArray };

struct Seen {
  Act act;
  const void* what;  // The mutex or the memory.
  size_t size;       // What was asked for; 0 where nothing was.
};

std::ostream& operator<<(std::ostream& out, const Seen& seen);

class Probe {
 public:
  // Every new array is filled with this byte while a probe lives, so that clearing would show.
  static constexpr uint8_t kFill = 0xC3;

  Probe();
  ~Probe();
  Probe(const Probe&) = delete;
  Probe& operator=(const Probe&) = delete;

  std::vector<Seen> All() const;
  size_t Count(Act act) const;
  // The memory or the mutexes of every such act, in order.
  std::vector<const void*> Whats(Act act) const;
  std::vector<size_t> Sizes(Act act) const;
  // Forgets what has been seen.
  void Clear();

  // From now on, as long as the probe lives: the non-throwing array allocations number `first` to
  // `last` (1 is the next one) answer null.
  void FailNothrowArrays(size_t first, size_t last);
  // From now on, as long as the probe lives, every throwing array allocation throws.
  void FailThrowingArrays();
};

}  // namespace quenor::test

#endif  // QUENOR_TESTS_UNIT_SECOND_POOLS_PROBE_H_
