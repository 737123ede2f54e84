// Counts the system calls by which a program and the shared libraries that it uses (libcurl,
// OpenSSL) move bytes and wait for them: a program that links counted_calls.cc and exports its
// symbols puts these functions before the C library's. Futexes are not seen.
// Threads: any.
#ifndef QUENOR_TESTS_INTEGRATION_SUPPORT_COUNTED_CALLS_H_
#define QUENOR_TESTS_INTEGRATION_SUPPORT_COUNTED_CALLS_H_

#include <cstddef>

namespace quenor::test {

// Calls of read, write, send, recv and poll since the program began.
size_t CountedCalls();
// Those of write: libcurl sends, so they are what wakes a thread.
size_t CountedWrites();

}  // namespace quenor::test

#endif  // QUENOR_TESTS_INTEGRATION_SUPPORT_COUNTED_CALLS_H_
