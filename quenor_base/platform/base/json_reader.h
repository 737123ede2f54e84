// Reads JSON texts (RFC 8259, strictly).
#ifndef QUENOR_BASE_PLATFORM_BASE_JSON_READER_H_
#define QUENOR_BASE_PLATFORM_BASE_JSON_READER_H_

#include <string_view>

#include "quenor_base/platform/base/optional.h"
#include "quenor_base/platform/base/values.h"

QUENOR_NAMESPACE_BEGIN
namespace base {

class JSONReader {
 public:
  // Any thread. Parses the whole text, any bytes; empty when it is not exactly one JSON value in
  // valid UTF-8 (no byte-order mark, nothing but white space after it), or when arrays and objects
  // nest deeper than `max_depth` (200 levels parse under 200, 201 do not). An escape for half a
  // surrogate pair fails the text too, since no UTF-8 can hold it. `options` must be 0: no
  // relaxation exists, any other value is logged and yields nothing. Never recurses with the depth
  // of the text, and takes memory in proportion to its size only. A number too large for a double
  // is a number and no integer; it does not fail the text.
  static Optional<Value> Read(std::string_view text, int options, int max_depth);

  // Any thread. Names the implementation that is linked.
  static const char* ImplementationName();
};

}  // namespace base
QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_PLATFORM_BASE_JSON_READER_H_
