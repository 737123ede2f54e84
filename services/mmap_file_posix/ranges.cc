#include "services/mmap_file_posix/ranges.h"

QUENOR_NAMESPACE_BEGIN
namespace mmap_format {

void SortByBegin(Range* first, Range* last) {
  const auto comes_before = [](Range a, Range b) { return a.begin < b.begin; };
  std::make_heap(first, last, comes_before);
  std::sort_heap(first, last, comes_before);
}

void UsedRanges::Join() {
  SortByBegin(ranges_.begin(), ranges_.end());
  size_t last = 0;
  for (size_t i = 1; i < ranges_.size(); ++i) {
    if (ranges_[i].begin > ranges_[last].end) {
      ranges_[++last] = ranges_[i];
    } else {
      ranges_[last].end = std::max(ranges_[last].end, ranges_[i].end);
    }
  }
  (void)ranges_.Resize(std::min(ranges_.size(), last + 1));  // Fewer than before.
}

uint64_t UsedRanges::GapEnd(uint64_t at) const {
  for (const Range& range : ranges_) {
    if (range.end > at) return std::max(at, range.begin);
  }
  return limit_;
}

}  // namespace mmap_format
QUENOR_NAMESPACE_END
