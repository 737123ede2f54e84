// Ranges that are in use, and the gaps between them: of a file, and of an extent. Numbers only: no
// file, no lock. Threads: one at a time.
#ifndef SERVICES_MMAP_FILE_POSIX_RANGES_H_
#define SERVICES_MMAP_FILE_POSIX_RANGES_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "services/cache_shared/nothrow_array.h"

QUENOR_NAMESPACE_BEGIN
namespace mmap_format {

struct Range {
  uint64_t begin;
  uint64_t end;
};

// By their begins.
void SortByBegin(Range* first, Range* last);

// Of [0, limit). Ranges are added in any order; Join() comes before anything is asked.
class UsedRanges {
 public:
  void Begin(uint64_t limit) {
    ranges_.Clear();
    limit_ = limit;
  }
  // False without memory, as Add(). For so many that are added then.
  [[nodiscard]] bool Reserve(size_t count) { return ranges_.Reserve(count); }
  // One that goes on where the one before it ends takes no memory.
  [[nodiscard]] bool Add(uint64_t begin, uint64_t end) {
    if (ranges_.empty() || ranges_.back().end != begin) return ranges_.Push({begin, end});
    ranges_.back().end = end;
    return true;
  }
  // Puts them in order; those that touch or overlap become one.
  void Join();

  // Behind the last one; 0 when there is none.
  uint64_t End() const { return ranges_.empty() ? 0 : ranges_[ranges_.size() - 1].end; }
  // Where the gap ends that begins at `at`; `at` when that is in use.
  uint64_t GapEnd(uint64_t at) const;
  bool Overlaps(Range range) const { return GapEnd(range.begin) < range.end; }
  // Gap i is what is behind range i; it is empty where the last range ends at the limit.
  size_t gaps() const { return ranges_.size(); }
  Range gap(size_t i) const {
    return {ranges_[i].end, i + 1 < ranges_.size() ? ranges_[i + 1].begin : limit_};
  }

 private:
  NothrowArray<Range> ranges_;
  uint64_t limit_ = 0;
};

}  // namespace mmap_format
QUENOR_NAMESPACE_END

#endif  // SERVICES_MMAP_FILE_POSIX_RANGES_H_
