// Remembers which environment variables a program and the shared libraries that it uses (libcurl,
// OpenSSL) ask for: a program that links traced_getenv.cc and exports its symbols puts these
// functions before the C library's. What the C library asks for itself is not seen. Threads: any.
#ifndef QUENOR_TESTS_INTEGRATION_SUPPORT_TRACED_GETENV_H_
#define QUENOR_TESTS_INTEGRATION_SUPPORT_TRACED_GETENV_H_

#include <set>
#include <string>

namespace quenor::test {

std::set<std::string> VariablesAskedFor();

}  // namespace quenor::test

#endif  // QUENOR_TESTS_INTEGRATION_SUPPORT_TRACED_GETENV_H_
