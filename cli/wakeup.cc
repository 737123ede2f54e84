#include "cli/wakeup.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "cli/fatal.h"
#include "cli/text.h"

namespace quenor::cli {

Wakeup::Wakeup() {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) {
    throw Fatal(kExitInternal,
                "cannot make a pipe: " + ErrnoText(errno) + "; raise the limit on open files");
  }
  read_fd_ = fds[0];
  write_fd_ = fds[1];
}

Wakeup::~Wakeup() {
  ::close(read_fd_);
  ::close(write_fd_);
}

void Wakeup::Notify() {
  // acq_rel: pairs with Clear(), so that what was written before this call is seen after it.
  if (notified_.exchange(true, std::memory_order_acq_rel)) return;
  const char byte = 0;
  while (::write(write_fd_, &byte, 1) < 0 && errno == EINTR) {
  }
}

void Wakeup::Clear() {
  char bytes[16];
  while (::read(read_fd_, bytes, sizeof(bytes)) < 0 && errno == EINTR) {
  }
  // acq_rel: pairs with Notify(). After the read: a byte written in between stays for the next
  // poll.
  notified_.exchange(false, std::memory_order_acq_rel);
}

}  // namespace quenor::cli
