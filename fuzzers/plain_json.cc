#include "fuzzers/plain_json.h"

#include <climits>
#include <cstdint>

namespace quenor::fuzz {
namespace {

using Type = base::Value::Type;

class Reader {
 public:
  Reader(const std::string& text, int max_depth) : text_(text), max_depth_(max_depth) {}

  bool Document(PlainDocument* out) {
    std::string key;  // Of the outermost dictionary's member at hand.
    for (;;) {
      PlainValue value;
      const size_t depth = open_.size();
      Blanks();
      if (!Begin(&value)) return false;
      if (depth == 0) out->value = value;
      if (depth == 1 && open_[0] == '{') out->members[key] = value;
      if (!ToTheNext(open_.size() > depth)) return false;
      if (open_.empty()) return at_ == text_.size();
      if (open_.back() == '{' && !Key(&key)) return false;
    }
  }

 private:
  // The whole of a scalar, or the bracket that opens a container.
  bool Begin(PlainValue* out) {
    const int c = Peek();
    if (c == '{' || c == '[') {
      ++at_;
      out->type = c == '{' ? Type::kDictionary : Type::kList;
      open_ += static_cast<char>(c);
      return max_depth_ >= 0 && open_.size() <= static_cast<size_t>(max_depth_);
    }
    if (c == '"') {
      out->type = Type::kString;
      return String(&out->string);
    }
    if (c == '-' || (c >= '0' && c <= '9')) return Number(out);
    out->type = c == 'n' ? Type::kNull : Type::kBoolean;
    return Word("null") || Word("true") || Word("false");
  }

  // Over every bracket that closes and a comma, to where the next value or key begins, or to the
  // end. `is_first`: a container has just been opened.
  bool ToTheNext(bool is_first) {
    for (Blanks(); !open_.empty(); Blanks()) {
      if (!is_first && Take(',')) break;
      if (!Take(open_.back() == '{' ? '}' : ']')) return is_first;
      open_.pop_back();
      is_first = false;
    }
    return true;
  }

  // With the colon behind it. Into `out` when it is the outermost dictionary's.
  bool Key(std::string* out) {
    std::string key;
    Blanks();
    if (Peek() != '"' || !String(&key)) return false;
    if (open_.size() == 1) *out = key;
    Blanks();
    return Take(':');
  }

  bool Number(PlainValue* out) {
    const bool negative = Take('-');
    const size_t first = at_;
    int64_t value = 0;
    for (; IsDigit(); ++at_) {
      if (value <= UINT32_MAX) value = value * 10 + (text_[at_] - '0');
    }
    const size_t digits = at_ - first;
    if (digits == 0 || (digits > 1 && text_[first] == '0')) return false;
    bool is_integer = true;
    if (Take('.')) {
      is_integer = false;
      if (!Digits()) return false;
    }
    if (Take('e') || Take('E')) {
      is_integer = false;
      if (!Take('+')) Take('-');
      if (!Digits()) return false;
    }
    if (negative) value = -value;
    is_integer = is_integer && value >= INT_MIN && value <= INT_MAX;
    out->type = is_integer ? Type::kInteger : Type::kDouble;
    if (is_integer) out->integer = static_cast<int>(value);
    return true;
  }

  bool Digits() {
    const size_t first = at_;
    while (IsDigit()) ++at_;
    return at_ > first;
  }

  bool String(std::string* out) {
    for (++at_; at_ < text_.size();) {
      const unsigned char c = text_[at_];
      if (c == '"') {
        ++at_;
        return true;
      }
      if (c < 0x20) return false;
      if (c == '\\' ? !Escape(out) : !Character(out)) return false;
    }
    return false;
  }

  bool Escape(std::string* out) {
    ++at_;
    const int c = Peek();
    ++at_;
    static const std::string kNames = "\"\\/bfnrt";
    static const std::string kMeanings = "\"\\/\b\f\n\r\t";
    const size_t which = c < 0 ? std::string::npos : kNames.find(static_cast<char>(c));
    if (which != std::string::npos) {
      *out += kMeanings[which];
      return true;
    }
    uint32_t unit = 0;
    if (c != 'u' || !Unit(&unit)) return false;
    if (unit >= 0xDC00 && unit < 0xE000) return false;
    if (unit >= 0xD800 && unit < 0xDC00) {
      uint32_t low = 0;
      if (!Take('\\') || !Take('u') || !Unit(&low) || low < 0xDC00 || low >= 0xE000) return false;
      unit = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
    }
    if (unit < 0x80) {
      *out += static_cast<char>(unit);
      return true;
    }
    const int more = unit < 0x800 ? 1 : unit < 0x10000 ? 2 : 3;
    *out += static_cast<char>((more == 1 ? 0xC0 : more == 2 ? 0xE0 : 0xF0) | unit >> 6 * more);
    for (int i = more - 1; i >= 0; --i) *out += static_cast<char>(0x80 | (unit >> 6 * i & 0x3F));
    return true;
  }

  // Four hexadecimal digits.
  bool Unit(uint32_t* out) {
    for (int i = 0; i < 4; ++i, ++at_) {
      const int c = Peek();
      const int low = c | 0x20;
      if (c >= '0' && c <= '9') {
        *out = *out * 16 + (c - '0');
      } else if (c > 0 && low >= 'a' && low <= 'f') {
        *out = *out * 16 + (low - 'a' + 10);
      } else {
        return false;
      }
    }
    return true;
  }

  // One character of UTF-8, in its shortest form.
  bool Character(std::string* out) {
    const unsigned char lead = text_[at_];
    const int more = lead < 0x80 ? 0 : lead < 0xC0 ? -1 : lead < 0xE0 ? 1 : lead < 0xF0 ? 2 : 3;
    if (more < 0 || lead > 0xF7 || text_.size() - at_ <= static_cast<size_t>(more)) return false;
    uint32_t code = more == 0 ? lead : lead & (0x3F >> more);
    for (int i = 1; i <= more; ++i) {
      const unsigned char next = text_[at_ + i];
      if (next >> 6 != 2) return false;
      code = code << 6 | (next & 0x3F);
    }
    constexpr uint32_t kLeast[] = {0, 0x80, 0x800, 0x10000};
    if (code < kLeast[more] || code > 0x10FFFF || (code >= 0xD800 && code < 0xE000)) return false;
    out->append(text_, at_, more + 1);
    at_ += more + 1;
    return true;
  }

  void Blanks() {
    while (Peek() == ' ' || Peek() == '\t' || Peek() == '\n' || Peek() == '\r') ++at_;
  }
  bool Word(const std::string& word) {
    if (text_.compare(at_, word.size(), word) != 0) return false;
    at_ += word.size();
    return true;
  }
  bool Take(char c) {
    if (Peek() != c) return false;
    ++at_;
    return true;
  }
  bool IsDigit() const { return Peek() >= '0' && Peek() <= '9'; }
  // -1 at the end of the text.
  int Peek() const { return at_ < text_.size() ? static_cast<unsigned char>(text_[at_]) : -1; }

  const std::string& text_;
  const int max_depth_;
  std::string open_;  // The bracket of each container around `at_`: no depth of a text is recursed.
  size_t at_ = 0;
};

}  // namespace

bool ReadPlainJson(const std::string& text, int max_depth, PlainDocument* out) {
  return Reader(text, max_depth).Document(out);
}

}  // namespace quenor::fuzz
