// A parsed JSON value. Immutable, deep-copied never: a Value is moved.
// Threads: one thread at a time.
#ifndef QUENOR_BASE_PLATFORM_BASE_VALUES_H_
#define QUENOR_BASE_PLATFORM_BASE_VALUES_H_

#include <memory>
#include <string>
#include <string_view>

#include "quenor_base/platform/base/optional.h"

QUENOR_NAMESPACE_BEGIN
namespace base {

class Value {
 public:
  enum class Type { kNull, kBoolean, kInteger, kDouble, kString, kDictionary, kList };

  // A value's document, as the linked JSON reader keeps it.
  struct Rep;

  explicit Value(std::unique_ptr<Rep, void (*)(Rep*)> rep) : rep_(std::move(rep)) {}
  Value(Value&&) noexcept = default;
  Value& operator=(Value&&) noexcept = default;

  // kInteger only for a number written as an integer that fits 32 bits, signed; every other number
  // is kDouble. (So 3000.0, 1e3 and 4294967296 are not integers; -0 is, and is 0.)
  Type type() const;
  bool is_dict() const { return type() == Type::kDictionary; }

  // The string under `key`, borrowed until this value is moved or destroyed; null when this is not
  // a dictionary, the key is missing or its value is not a string. Of duplicate keys the last wins,
  // whatever its type.
  const std::string* FindStringKey(std::string_view key) const;

  // The integer under `key`; empty when this is not a dictionary, the key is missing or its value
  // is not an integer of 32 bits.
  Optional<int> FindIntKey(std::string_view key) const;

 private:
  std::unique_ptr<Rep, void (*)(Rep*)> rep_;
};

}  // namespace base
QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_PLATFORM_BASE_VALUES_H_
