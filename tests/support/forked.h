// A copy of the running process, for what only a fork shows. Programs are started by process.h.
#ifndef QUENOR_TESTS_SUPPORT_FORKED_H_
#define QUENOR_TESTS_SUPPORT_FORKED_H_

#include <unistd.h>

#include "quenor_base/platform/base/check.h"
#include "tests/support/patience.h"

namespace quenor::test {

// As fork(), where the child goes on behind it, too; there the answer is 0.
inline pid_t ForkAndGoOn() {
  const pid_t child = fork();
  QUENOR_CHECK(child >= 0, "fork failed");
  return child;
}

// A child that runs `body`, whose answer is its exit code. Nothing runs behind that: neither the
// test's own end nor its output is the child's.
template <typename Body>
pid_t ForkChild(Body body) {
  const pid_t child = ForkAndGoOn();
  if (child == 0) _exit(body());
  return child;
}

// The same, and how it ended; as ReapPatiently().
template <typename Body>
int ResultOfChild(Body body) {
  return ReapPatiently(ForkChild(body));
}

}  // namespace quenor::test

#endif  // QUENOR_TESTS_SUPPORT_FORKED_H_
