// Where a task or a timer came from; travels with every post, for traces and debuggers.
#ifndef QUENOR_BASE_PLATFORM_BASE_LOCATION_H_
#define QUENOR_BASE_PLATFORM_BASE_LOCATION_H_

#include "quenor_base/platform/base/abi.h"

QUENOR_NAMESPACE_BEGIN
namespace base {

class Location {
 public:
  Location() = default;

  // Any thread. Borrows `file` for the life of the process: pass a literal.
  static Location CreateFromHere(const char* file, int line) { return Location(file, line); }

  const char* file() const { return file_; }
  int line() const { return line_; }

 private:
  Location(const char* file, int line) : file_(file), line_(line) {}

  const char* file_ = "";
  int line_ = 0;
};

}  // namespace base
QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_PLATFORM_BASE_LOCATION_H_
