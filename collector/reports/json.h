// Writes flat JSON objects: the replies, the log lines and the statistics.
// Whatever bytes go in, one line of valid JSON in valid UTF-8 comes out.
#ifndef COLLECTOR_REPORTS_JSON_H_
#define COLLECTOR_REPORTS_JSON_H_

#include <cstdint>
#include <string>
#include <string_view>

namespace quenor::collector {

// Any thread. `text` as a JSON string with its quotes. Control characters are escaped; each byte
// that is not part of valid UTF-8 becomes U+FFFD.
std::string JsonQuote(std::string_view text);

// Builds one object, members in the order they were added. Keys are not checked for repetition.
class JsonObject {
 public:
  JsonObject& Add(std::string_view key, std::string_view text);
  JsonObject& AddNumber(std::string_view key, uint64_t number);

  // The object without a line end.
  std::string Finish() const { return text_ + "}"; }

 private:
  void AddKey(std::string_view key);

  std::string text_ = "{";
};

}  // namespace quenor::collector

#endif  // COLLECTOR_REPORTS_JSON_H_
