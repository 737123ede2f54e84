#include "tests/collector/support/record.h"

#include <stdexcept>

#include "tests/support/temp_folder.h"

namespace quenor::collector::test {

rapidjson::Document ParseObject(const std::string& line) {
  rapidjson::Document document;
  document.Parse<rapidjson::kParseValidateEncodingFlag>(line.data(), line.size());
  if (document.HasParseError() || !document.IsObject()) {
    throw std::runtime_error("not a JSON object: " + line);
  }
  return document;
}

std::vector<rapidjson::Document> ReadLog(const std::string& path, TornTail torn_tail) {
  std::string text = quenor::test::ReadWholeFile(path);
  if (!text.empty() && text.back() != '\n') {
    if (torn_tail == TornTail::kRefuse) throw std::runtime_error("torn last line in " + path);
    text.erase(text.rfind('\n') + 1);  // All of it if there is no line end at all.
  }
  std::vector<rapidjson::Document> lines;
  for (size_t begin = 0; begin < text.size();) {
    const size_t end = text.find('\n', begin);
    lines.push_back(ParseObject(text.substr(begin, end - begin)));
    begin = end + 1;
  }
  return lines;
}

}  // namespace quenor::collector::test
