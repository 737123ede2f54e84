// Reads back what a collector has recorded.
#ifndef TESTS_COLLECTOR_SUPPORT_RECORD_H_
#define TESTS_COLLECTOR_SUPPORT_RECORD_H_

// Its empty stack adds a size to null; clang's sanitizer would report that in every text.
#if defined(__clang__)
#pragma clang attribute push(__attribute__((no_sanitize("pointer-overflow"))), apply_to = function)
#endif
#include <rapidjson/document.h>
#if defined(__clang__)
#pragma clang attribute pop
#endif

#include <string>
#include <vector>

namespace quenor::collector::test {

// One line of JSON. Throws std::runtime_error if it is not exactly one object.
rapidjson::Document ParseObject(const std::string& line);

// Whether a last line without its end, as a kill in mid-write may leave it, is left out or an
// error.
enum class TornTail { kRefuse, kLeaveOut };

// All lines of a log. Throws if one of them is not one JSON object.
std::vector<rapidjson::Document> ReadLog(const std::string& path,
                                         TornTail torn_tail = TornTail::kRefuse);

}  // namespace quenor::collector::test

#endif  // TESTS_COLLECTOR_SUPPORT_RECORD_H_
