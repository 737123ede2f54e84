#include "tests/crash/support/contents.h"

#include <cstdlib>

#include "quenor_base/platform/base/check.h"

namespace quenor::test {
namespace {

// A number at *at; moves behind it.
uint64_t TakeNumber(const std::string& text, size_t* at) {
  char* end = nullptr;
  const uint64_t number = std::strtoull(text.c_str() + *at, &end, 10);
  const size_t now = static_cast<size_t>(end - text.c_str());
  QUENOR_CHECK(now > *at, "no number in the name of a content");
  *at = now;
  return number;
}

bool Take(const std::string& text, size_t* at, char mark) {
  if (*at >= text.size() || text[*at] != mark) return false;
  ++*at;
  return true;
}

}  // namespace

std::string Message(uint64_t number, size_t size) {
  std::string message = "m" + std::to_string(number) + ":";
  uint64_t state = number * 0x9e3779b97f4a7c15u + size;
  while (message.size() < size) {
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    message.push_back(static_cast<char>(state >> 32));
  }
  return message;
}

uint64_t NumberOf(const std::string& message) {
  if (message.empty() || message[0] != 'm') return 0;
  const uint64_t number = std::strtoull(message.c_str() + 1, nullptr, 10);
  return message == Message(number, message.size()) ? number : 0;
}

Content ContentOf(const std::string& name) {
  Content content;
  size_t at = 0;
  while (at < name.size()) {
    uint64_t number = TakeNumber(name, &at);
    const uint64_t last = Take(name, &at, '-') ? TakeNumber(name, &at) : number;
    QUENOR_CHECK(Take(name, &at, 'x'), "no size in the name of a content");
    const uint64_t size = TakeNumber(name, &at);
    for (;; number += number < last ? 1 : -1) {
      content.push_back(Message(number, size));
      if (number == last) break;
    }
    QUENOR_CHECK(Take(name, &at, '+') || at == name.size(), "the name of a content goes on");
  }
  return content;
}

Content ContentOfSave(uint64_t number) {
  Content content;
  if (number % 61 == 0) return content;
  const uint64_t width = number % 97 == 0 ? 150 : 5 + number / 16 % 24;
  for (uint64_t i = number; i < number + width; ++i) {
    if ((i * 2654435761u >> 7) % 5 < (i - number) % 4) continue;  // Acknowledged, out of order.
    const uint64_t size = i % 43 == 0 ? 9000 : 40 + i * 37 % 900;
    content.push_back(Message(i, size));
  }
  return content;
}

std::string Describe(const Content& content) {
  std::string text;
  for (size_t i = 0; i < content.size();) {
    const uint64_t first = NumberOf(content[i]);
    size_t end = i + 1;
    int64_t step = 0;
    while (first != 0 && end < content.size()) {
      const int64_t next =
          static_cast<int64_t>(NumberOf(content[end]) - NumberOf(content[end - 1]));
      if ((next != 1 && next != -1) || (step != 0 && next != step)) break;
      step = next;
      ++end;
    }
    if (!text.empty()) text += ",";
    text += first == 0 ? "?" : std::to_string(first);
    if (end > i + 1) text += "-" + std::to_string(NumberOf(content[end - 1]));
    i = end;
  }
  return text.empty() ? "nothing" : text;
}

}  // namespace quenor::test
