#include "collector/reports/json.h"

#include <cstdio>

namespace quenor::collector {
namespace {

// Length of the valid UTF-8 sequence at the start of `text`, 0 if there is none. Over-long forms,
// surrogates and code points beyond U+10FFFF are not valid.
size_t Utf8SequenceBytes(std::string_view text) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const auto is_tail = [&](size_t i) { return i < text.size() && (byte(i) & 0xC0) == 0x80; };
  const unsigned char lead = byte(0);
  if (lead < 0x80) return 1;
  if (lead >= 0xC2 && lead <= 0xDF) return is_tail(1) ? 2 : 0;
  if (lead >= 0xE0 && lead <= 0xEF) {
    if (!is_tail(1) || !is_tail(2)) return 0;
    if (lead == 0xE0 && byte(1) < 0xA0) return 0;
    if (lead == 0xED && byte(1) > 0x9F) return 0;
    return 3;
  }
  if (lead >= 0xF0 && lead <= 0xF4) {
    if (!is_tail(1) || !is_tail(2) || !is_tail(3)) return 0;
    if (lead == 0xF0 && byte(1) < 0x90) return 0;
    if (lead == 0xF4 && byte(1) > 0x8F) return 0;
    return 4;
  }
  return 0;
}

}  // namespace

std::string JsonQuote(std::string_view text) {
  std::string quoted = "\"";
  while (!text.empty()) {
    const unsigned char first = static_cast<unsigned char>(text[0]);
    if (first == '"' || first == '\\') {
      quoted.push_back('\\');
      quoted.push_back(text[0]);
      text.remove_prefix(1);
    } else if (first < 0x20 || first == 0x7F) {
      char escape[8];
      std::snprintf(escape, sizeof(escape), "\\u%04x", first);
      quoted += escape;
      text.remove_prefix(1);
    } else if (const size_t bytes = Utf8SequenceBytes(text); bytes > 0) {
      quoted.append(text.substr(0, bytes));
      text.remove_prefix(bytes);
    } else {
      quoted += "\xEF\xBF\xBD";
      text.remove_prefix(1);
    }
  }
  quoted.push_back('"');
  return quoted;
}

void JsonObject::AddKey(std::string_view key) {
  if (text_.size() > 1) text_.push_back(',');
  text_ += JsonQuote(key);
  text_.push_back(':');
}

JsonObject& JsonObject::Add(std::string_view key, std::string_view text) {
  AddKey(key);
  text_ += JsonQuote(text);
  return *this;
}

JsonObject& JsonObject::AddNumber(std::string_view key, uint64_t number) {
  AddKey(key);
  text_ += std::to_string(number);
  return *this;
}

}  // namespace quenor::collector
