// A JSON reader of the fuzzers' own, straight from the grammar: what the library's is compared
// with. One thread.
#ifndef QUENOR_FUZZERS_PLAIN_JSON_H_
#define QUENOR_FUZZERS_PLAIN_JSON_H_

#include <map>
#include <string>

#include "quenor_base/platform/base/values.h"

namespace quenor::fuzz {

struct PlainValue {
  base::Value::Type type = base::Value::Type::kNull;
  int integer = 0;     // kInteger
  std::string string;  // kString
};

struct PlainDocument {
  PlainValue value;
  std::map<std::string, PlainValue> members;  // Of the outermost dictionary, the last of each key.
};

// False unless `text` is one JSON value in valid UTF-8 with at most `max_depth` levels.
bool ReadPlainJson(const std::string& text, int max_depth, PlainDocument* out);

}  // namespace quenor::fuzz

#endif  // QUENOR_FUZZERS_PLAIN_JSON_H_
