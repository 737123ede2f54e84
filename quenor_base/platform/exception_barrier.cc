// The one source of the library that is compiled with exceptions (CMakeLists.txt says so).
#include "quenor_base/platform/exception_barrier.h"

#include <cxxabi.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <typeinfo>

QUENOR_NAMESPACE_BEGIN
namespace base::internal {

namespace {

[[noreturn]] void End(const char* whose, const char* what) {
  const std::type_info* const type = abi::__cxa_current_exception_type();
  const char* const raw = type != nullptr ? type->name() : "a foreign exception";
  int status = 0;
  const char* const name = abi::__cxa_demangle(raw, nullptr, nullptr, &status);  // Null: no memory.
  const char* const kind = name != nullptr ? name : raw;
  const bool says_more = what[0] != '\0' && std::strcmp(what, kind) != 0;
  std::fprintf(stderr, "quenor: fatal: an exception left %s: %s%s%s\n", whose, kind,
               says_more ? ": " : "", says_more ? what : "");
  std::fflush(stderr);
  std::abort();
}

}  // namespace

void CallBehindBarrier(const char* whose, void (*call)(void*), void* context) {
  try {
    call(context);
  } catch (const std::exception& exception) {
    End(whose, exception.what());
  } catch (abi::__forced_unwind&) {
    End(whose, "the thread was cancelled or ended inside");
  } catch (...) {
    End(whose, "");
  }
}

}  // namespace base::internal
QUENOR_NAMESPACE_END
