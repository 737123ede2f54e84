// How a file is mapped.
#ifndef QUENOR_BASE_PLATFORM_BASE_MEMORY_MAPPED_FILE_H_
#define QUENOR_BASE_PLATFORM_BASE_MEMORY_MAPPED_FILE_H_

#include "quenor_base/platform/base/abi.h"

QUENOR_NAMESPACE_BEGIN
namespace base {

class MemoryMappedFile {
 public:
  enum Access {
    READ_ONLY = 0,
    READ_WRITE = 1,         // At its present size.
    READ_WRITE_EXTEND = 2,  // Grows to whatever is asked for later.
  };
};

}  // namespace base
QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_PLATFORM_BASE_MEMORY_MAPPED_FILE_H_
