#include "collector/page/form.h"

namespace quenor::collector {
namespace {

int DigitOf(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string Decoded(std::string_view text) {
  std::string decoded;
  for (size_t i = 0; i < text.size(); ++i) {
    const int high = text[i] == '%' && i + 2 < text.size() ? DigitOf(text[i + 1]) : -1;
    const int low = high >= 0 ? DigitOf(text[i + 2]) : -1;
    if (low >= 0) {
      decoded.push_back(static_cast<char>(16 * high + low));
      i += 2;
    } else {
      decoded.push_back(text[i] == '+' ? ' ' : text[i]);
    }
  }
  return decoded;
}

}  // namespace

Form::Form(std::string_view body) {
  while (!body.empty()) {
    const std::string_view pair = body.substr(0, body.find('&'));
    body.remove_prefix(pair.size() < body.size() ? pair.size() + 1 : pair.size());
    const size_t equals = pair.find('=');
    if (equals == std::string_view::npos) continue;
    values_[Decoded(pair.substr(0, equals))] = Decoded(pair.substr(equals + 1));
  }
}

std::string Form::Get(const std::string& name) const {
  const auto found = values_.find(name);
  return found == values_.end() ? std::string() : found->second;
}

}  // namespace quenor::collector
