// Reads back what a collector has recorded.
#ifndef TESTS_COLLECTOR_SUPPORT_RECORD_H_
#define TESTS_COLLECTOR_SUPPORT_RECORD_H_

#include <rapidjson/document.h>

#include <string>
#include <vector>

namespace quenor::collector::test {

// One line of JSON. Throws std::runtime_error if it is not exactly one object.
rapidjson::Document ParseObject(const std::string& line);

// All lines of a log. Throws if one of them is not one JSON object, or if the last one is torn.
std::vector<rapidjson::Document> ReadLog(const std::string& path);

}  // namespace quenor::collector::test

#endif  // TESTS_COLLECTOR_SUPPORT_RECORD_H_
