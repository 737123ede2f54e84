// KnownIds: which of the latest messages' ids have come, "process-counter". A process counts on
// from 1, so its ids are ranges of numbers with few gaps. What came `capacity` ids ago is still
// known, what came twice as many ago no more. Threads: one at a time.
#ifndef COLLECTOR_EXPORT_KNOWN_IDS_H_
#define COLLECTOR_EXPORT_KNOWN_IDS_H_

#include <charconv>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "collector/export/ranges.h"

namespace quenor::collector {

class KnownIds {
 public:
  explicit KnownIds(uint64_t capacity) : capacity_(capacity) {}

  // False if it has come already. One that is not of that form is taken for new.
  bool Add(std::string_view id) {
    const size_t hyphen = id.rfind('-');
    uint64_t number = 0;
    if (hyphen == std::string_view::npos || !ParseNumber(id.substr(hyphen + 1), &number))
      return true;
    const std::string process(id.substr(0, hyphen));
    const auto before = before_.find(process);
    if (before != before_.end() && before->second.Has(number)) return false;
    if (!present_[process].Add(number)) return false;
    if (++count_ == capacity_) {
      before_ = std::exchange(present_, {});
      count_ = 0;
    }
    return true;
  }

 private:
  static bool ParseNumber(std::string_view text, uint64_t* number) {
    const char* const end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, *number);
    return parsed.ec == std::errc() && parsed.ptr == end && *number > 0;
  }

  const uint64_t capacity_;
  std::unordered_map<std::string, Ranges> present_;
  std::unordered_map<std::string, Ranges> before_;  // Of the `capacity` ids before those.
  uint64_t count_ = 0;                              // In present_.
};

}  // namespace quenor::collector

#endif  // COLLECTOR_EXPORT_KNOWN_IDS_H_
