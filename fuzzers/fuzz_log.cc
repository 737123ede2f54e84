// What LocalLog() is in the fuzzers that do not look at the log.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "quenor_base/platform/local_log.h"

QUENOR_NAMESPACE_BEGIN

// Only when asked for: what is said of bad inputs would drown the fuzzer's own lines.
void LocalLog(int, const char*, int, const char* format, ...) {
  static const bool shows = std::getenv("QUENOR_FUZZ_LOG") != nullptr;
  if (!shows) return;
  va_list arguments;
  va_start(arguments, format);
  std::vfprintf(stderr, format, arguments);
  va_end(arguments);
  std::fputc('\n', stderr);
}
const char* LocalLogImplementationName() { return "silent"; }

QUENOR_NAMESPACE_END
