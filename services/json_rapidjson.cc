// JSON by RapidJSON's event reader. No document is built: a Value can be asked only for its own
// type and its own members, so those are all that is kept, and nothing nests or recurses.
#include <charconv>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>

#include "quenor_base/platform/base/json_reader.h"
#include "quenor_base/platform/base/values.h"
#include "quenor_base/platform/local_log.h"

// A copy of RapidJSON under a name of our own: an application that uses RapidJSON with other
// settings must not share its inline functions with ours. Lengths are size_t, so that no text is
// too long.
#define RAPIDJSON_NAMESPACE quenor::base::internal::rapidjson
#define RAPIDJSON_NAMESPACE_BEGIN QUENOR_NAMESPACE_BEGIN namespace base::internal::rapidjson {
#define RAPIDJSON_NAMESPACE_END \
  }                             \
  QUENOR_NAMESPACE_END
#define RAPIDJSON_NO_SIZETYPEDEFINE
RAPIDJSON_NAMESPACE_BEGIN
using SizeType = std::size_t;
RAPIDJSON_NAMESPACE_END
// Its assertions guard against wrong use, which the code below excludes; a text cannot reach them.
// They must not be able to end the host's process all the same.
#undef RAPIDJSON_ASSERT
#define RAPIDJSON_ASSERT(condition) ((void)0)
// Its stack, still empty, compares null plus a size with null before it first allocates; clang's
// sanitizer would report that in every text.
#if defined(__clang__)
#pragma clang attribute push(__attribute__((no_sanitize("pointer-overflow"))), apply_to = function)
#endif
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>
#if defined(__clang__)
#pragma clang attribute pop
#endif

QUENOR_NAMESPACE_BEGIN
namespace base {
namespace {

namespace rj = internal::rapidjson;

constexpr char kLogSource[] = "services/json_rapidjson";
constexpr size_t kStackBytes = 1024;  // What reading a usual text takes, beside its values.
constexpr unsigned kFlags = rj::kParseIterativeFlag | rj::kParseValidateEncodingFlag;

struct Member {
  Value::Type type = Value::Type::kNull;
  int integer = 0;     // kInteger
  std::string string;  // kString
};

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// The end of the digits that start at `p`.
const char* SkipDigits(const char* p, const char* end) {
  while (p != end && IsDigit(*p)) ++p;
  return p;
}

// Whether [begin, end) is a number by JSON's grammar.
bool IsNumber(const char* begin, const char* end) {
  const char* p = begin;
  if (p != end && *p == '-') ++p;
  const char* const digits = p;
  p = SkipDigits(p, end);
  if (p == digits || (*digits == '0' && p - digits > 1)) return false;
  if (p != end && *p == '.') {
    const char* const fraction = ++p;
    p = SkipDigits(p, end);
    if (p == fraction) return false;
  }
  if (p != end && (*p == 'e' || *p == 'E')) {
    ++p;
    if (p != end && (*p == '+' || *p == '-')) ++p;
    const char* const exponent = p;
    p = SkipDigits(p, end);
    if (p == exponent) return false;
  }
  return p == end;
}

// Whether [begin, end) is a number written as an integer that fits `int`.
bool IsInt(const char* begin, const char* end) {
  int value = 0;
  const std::from_chars_result result = std::from_chars(begin, end, value);
  return result.ec == std::errc() && result.ptr == end;
}

// The end of the string that starts with the quote at `p`.
const char* SkipString(const char* p, const char* end) {
  for (++p; p != end; ++p) {
    if (*p == '"') return p + 1;
    if (*p == '\\' && ++p == end) break;
  }
  return end;
}

const char* SkipNumberCharacters(const char* p, const char* end) {
  while (p != end &&
         (IsDigit(*p) || *p == '-' || *p == '+' || *p == '.' || *p == 'e' || *p == 'E')) {
    ++p;
  }
  return p;
}

// Puts "0.5" in the place of every number of `text` that is not an integer of 32 bits and returns
// true with the result in `out`; false, and `out` empty, when there is none. Nothing asks for such
// a number's value, and RapidJSON would fail the text for 1e400 and overflow an int on
// 0.01e-2147483647. A text is valid afterwards exactly if it was before: up to its first error the
// strings and numbers found here are those of the grammar, and only a number becomes another.
bool ReplaceOtherNumbers(std::string_view text, std::string* out) {
  const char* const end = text.data() + text.size();
  const char* copied = text.data();  // Everything before it is in `out`.
  const char* p = copied;
  while (p != end) {
    if (*p == '"') {
      p = SkipString(p, end);
    } else if (*p == '-' || IsDigit(*p)) {
      const char* const number = p;
      p = SkipNumberCharacters(p, end);
      if (IsInt(number, p) || !IsNumber(number, p)) continue;
      out->append(copied, number).append("0.5");
      copied = p;
    } else {
      ++p;
    }
  }
  if (copied == text.data()) return false;
  out->append(copied, end);
  return true;
}

// Whether UTF-8 bytes hold a surrogate, which UTF-8 must not: it comes from an escape such as
// \udc00 without its other half.
bool HasSurrogate(const char* text, size_t size) {
  for (size_t i = 0; i + 1 < size; ++i) {
    if (static_cast<unsigned char>(text[i]) == 0xED &&
        static_cast<unsigned char>(text[i + 1]) >= 0xA0) {
      return true;
    }
  }
  return false;
}

}  // namespace

struct Value::Rep {
  Type type = Type::kNull;
  std::map<std::string, Member, std::less<>> members;  // kDictionary
};

namespace {

// Receives RapidJSON's events. Each returns whether to go on.
class Handler {
 public:
  Handler(int max_depth, Value::Rep* rep) : max_depth_(max_depth), rep_(rep) {}

  bool Null() { return Scalar(Value::Type::kNull); }
  bool Bool(bool) { return Scalar(Value::Type::kBoolean); }
  bool Int(int value) { return Integer(value); }
  bool Uint(unsigned value) {
    return value <= unsigned{INT_MAX} ? Integer(static_cast<int>(value)) : Double(value);
  }
  bool Int64(int64_t) { return Double(0); }
  bool Uint64(uint64_t) { return Double(0); }
  bool Double(double) { return Scalar(Value::Type::kDouble); }
  bool RawNumber(const char*, size_t, bool) { return false; }  // Its flag is not set.
  bool String(const char* text, size_t size, bool) {
    if (HasSurrogate(text, size)) return false;
    if (Member* member = Enter(Value::Type::kString)) member->string.assign(text, size);
    return true;
  }
  bool Key(const char* text, size_t size, bool) {
    if (HasSurrogate(text, size)) return false;
    if (depth_ == 1) key_.assign(text, size);
    return true;
  }
  bool StartObject() { return Open(Value::Type::kDictionary); }
  bool EndObject(size_t) { return Close(); }
  bool StartArray() { return Open(Value::Type::kList); }
  bool EndArray(size_t) { return Close(); }

 private:
  // Notes the type of a value that begins here. The member it is, when it is one of the outermost
  // dictionary's; of equal keys the last one's type and value stand. Else null.
  Member* Enter(Value::Type type) {
    if (depth_ == 0) rep_->type = type;
    if (depth_ != 1 || rep_->type != Value::Type::kDictionary) return nullptr;
    Member& member = rep_->members[key_];
    member.type = type;
    return &member;
  }

  bool Scalar(Value::Type type) {
    Enter(type);
    return true;
  }

  bool Integer(int value) {
    if (Member* member = Enter(Value::Type::kInteger)) member->integer = value;
    return true;
  }

  bool Open(Value::Type type) {
    Enter(type);
    if (depth_ >= max_depth_) return false;
    ++depth_;
    return true;
  }

  bool Close() {
    --depth_;
    return true;
  }

  const int max_depth_;
  Value::Rep* const rep_;
  int depth_ = 0;    // Arrays and objects that are open.
  std::string key_;  // The outermost dictionary's member that is being read.
};

void DeleteRep(Value::Rep* rep) { delete rep; }

// The member of `rep` under `key` if it is a `type`; else null.
const Member* FindMember(const Value::Rep& rep, std::string_view key, Value::Type type) {
  const auto found = rep.members.find(key);
  if (found == rep.members.end() || found->second.type != type) return nullptr;
  return &found->second;
}

}  // namespace

Value::Type Value::type() const { return rep_->type; }

const std::string* Value::FindStringKey(std::string_view key) const {
  const Member* const member = FindMember(*rep_, key, Type::kString);
  return member == nullptr ? nullptr : &member->string;
}

Optional<int> Value::FindIntKey(std::string_view key) const {
  const Member* const member = FindMember(*rep_, key, Type::kInteger);
  if (member == nullptr) return nullopt;
  return member->integer;
}

Optional<Value> JSONReader::Read(std::string_view text, int options, int max_depth) {
  if (options != 0) {
    LocalLog(2, kLogSource, __LINE__,
             "json: a text of %zu bytes is not read: options %d are unknown; pass 0", text.size(),
             options);
    return nullopt;
  }
  if (max_depth < 0) return nullopt;
  std::unique_ptr<Value::Rep, void (*)(Value::Rep*)> rep(new Value::Rep, DeleteRep);
  std::string replaced;
  const std::string_view source = ReplaceOtherNumbers(text, &replaced) ? replaced : text;
  rj::MemoryStream stream(source.data(), source.size());
  alignas(std::max_align_t) char room[kStackBytes];
  rj::MemoryPoolAllocator<> memory(room, sizeof(room), kStackBytes);
  rj::GenericReader<rj::UTF8<>, rj::UTF8<>, rj::MemoryPoolAllocator<>> reader(&memory);
  Handler handler(max_depth, rep.get());
  if (reader.Parse<kFlags>(stream, handler).IsError()) return nullopt;
  // RapidJSON takes a NUL byte for the end of the text.
  if (stream.Tell() != source.size()) return nullopt;
  return Value(std::move(rep));
}

const char* JSONReader::ImplementationName() { return "RapidJSON " RAPIDJSON_VERSION_STRING; }

}  // namespace base
QUENOR_NAMESPACE_END
