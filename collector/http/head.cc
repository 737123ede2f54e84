#include "collector/http/head.h"

#include <algorithm>

namespace quenor::collector {
namespace {

constexpr int kBadRequest = 400;
constexpr int kTargetTooLong = 414;
constexpr int kHeadTooLarge = 431;

bool IsControl(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte < 0x20 || byte == 0x7f;
}

// What a header's name may be made of.
bool IsTokenByte(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
         std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}

bool IsRequestLine(std::string_view line) {
  return std::none_of(line.begin(), line.end(), IsControl) &&
         std::count(line.begin(), line.end(), ' ') == 2;
}

bool IsHeaderLine(std::string_view line) {
  const size_t colon = line.find(':');
  if (colon == std::string_view::npos || colon == 0) return false;
  const std::string_view value = line.substr(colon + 1);
  return std::all_of(line.begin(), line.begin() + static_cast<std::ptrdiff_t>(colon),
                     IsTokenByte) &&
         std::none_of(value.begin(), value.end(), [](char c) { return c != '\t' && IsControl(c); });
}

}  // namespace

HeadCheck::Result HeadCheck::Refuse(int status) {
  status_ = status;
  return Result::kRefused;
}

// `line` ends with its line feed. The status to refuse it with, or 0.
int HeadCheck::JudgeLine(std::string_view line) const {
  if (line.size() > kMaxLineBytes) return is_first_line_ ? kTargetTooLong : kHeadTooLarge;
  if (line.size() < 2 || line[line.size() - 2] != '\r') return kBadRequest;
  line.remove_suffix(2);
  if (is_first_line_) return IsRequestLine(line) ? 0 : kBadRequest;
  return line.empty() || IsHeaderLine(line) ? 0 : kBadRequest;
}

HeadCheck::Result HeadCheck::Check(std::string_view input) {
  if (status_ != 0) return Result::kRefused;
  for (;;) {
    const size_t line_end = input.find('\n', line_begin_);
    if (line_end == std::string_view::npos) break;
    const size_t next = line_end + 1;
    const int status = JudgeLine(input.substr(line_begin_, next - line_begin_));
    if (status != 0) return Refuse(status);
    if (next > kMaxHeadBytes) return Refuse(kHeadTooLarge);
    const bool is_empty = next - line_begin_ == 2;
    line_begin_ = next;
    if (is_empty && !is_first_line_) return Result::kWhole;
    is_first_line_ = false;
  }
  // At the limit and without its end, so it can only become longer.
  if (input.size() - line_begin_ >= kMaxLineBytes) {
    return Refuse(is_first_line_ ? kTargetTooLong : kHeadTooLarge);
  }
  return input.size() >= kMaxHeadBytes ? Refuse(kHeadTooLarge) : Result::kMore;
}

}  // namespace quenor::collector
