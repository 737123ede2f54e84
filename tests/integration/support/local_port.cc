#include "tests/integration/support/local_port.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

namespace {
std::atomic<uint16_t> g_port{0};
}  // namespace

extern "C" int connect(int fd, const sockaddr* address, socklen_t length) {
  const uint16_t port = g_port;
  if (port != 0 && address->sa_family == AF_INET) {
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    sockaddr_in from{};
    from.sin_family = AF_INET;
    from.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    from.sin_port = htons(port);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&from), sizeof(from)) != 0) return -1;
  }
  return static_cast<int>(syscall(SYS_connect, fd, address, length));
}

namespace quenor::test {
void ConnectFrom(uint16_t port) { g_port = port; }
}  // namespace quenor::test
