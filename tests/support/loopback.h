// A free port of 127.0.0.1, for the servers of tests and benchmarks. Threads: any.
#ifndef QUENOR_TESTS_SUPPORT_LOOPBACK_H_
#define QUENOR_TESTS_SUPPORT_LOOPBACK_H_

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>

#include "quenor_base/platform/base/check.h"

namespace quenor::test {

// A TCP socket bound to it: nobody else gets the port as long as the socket is open. The caller
// closes it, and listens on it or not. Ends the process when there is none.
inline int BindLoopback(uint16_t* port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  auto* const raw = reinterpret_cast<sockaddr*>(&address);
  socklen_t size = sizeof(address);
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  QUENOR_CHECK(fd >= 0 && bind(fd, raw, size) == 0 && getsockname(fd, raw, &size) == 0,
               "no free port");
  *port = ntohs(address.sin_port);
  return fd;
}

}  // namespace quenor::test

#endif  // QUENOR_TESTS_SUPPORT_LOOPBACK_H_
