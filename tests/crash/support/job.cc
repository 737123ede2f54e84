#include "tests/crash/support/job.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "quenor_base/platform/base/check.h"

namespace quenor::test {

Job::Job(const std::vector<std::string>& arguments)
    : process_(arguments, ChildProcess::Streams{control_.reader.get(), events_.writer.get(), -1}) {
  control_.reader.Reset();
  events_.writer.Reset();
}

bool Job::Next(JobEvent* event) {
  if (!WaitForInput(events_.reader.get(), Now() + kLongPatience)) Kill();
  ssize_t got;
  do {
    got = read(events_.reader.get(), event, sizeof(*event));
  } while (got < 0 && errno == EINTR);
  QUENOR_CHECK(got <= 0 || got == sizeof(*event), "half an event");
  return got > 0;
}

void Job::Credit() {
  const char byte = 1;
  (void)!write(control_.writer.get(), &byte, 1);
}

}  // namespace quenor::test
