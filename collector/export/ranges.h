// Ranges: which numbers have been seen, in as much memory as there are gaps between them.
// Threads: one at a time.
#ifndef COLLECTOR_EXPORT_RANGES_H_
#define COLLECTOR_EXPORT_RANGES_H_

#include <cstdint>
#include <iterator>
#include <map>

namespace quenor::collector {

class Ranges {
 public:
  // All from 1 to `last` have been seen.
  explicit Ranges(uint64_t last = 0) { runs_[0] = last; }

  bool Has(uint64_t number) const {
    const auto run = std::prev(runs_.upper_bound(number));
    return number <= run->second;
  }

  // False if it had been seen already.
  bool Add(uint64_t number) {
    const auto after = runs_.upper_bound(number);
    const auto run = std::prev(after);
    if (number <= run->second) return false;
    const bool joins_after = after != runs_.end() && after->first == number + 1;
    const uint64_t last = joins_after ? after->second : number;
    if (joins_after) runs_.erase(after);
    if (run->second + 1 == number) {
      run->second = last;
    } else {
      runs_[number] = last;
    }
    return true;
  }

  uint64_t runs() const { return runs_.size(); }

 private:
  std::map<uint64_t, uint64_t> runs_;  // First to last. That of 0 is always there.
};

}  // namespace quenor::collector

#endif  // COLLECTOR_EXPORT_RANGES_H_
