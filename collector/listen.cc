#include "collector/listen.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "collector/fatal.h"
#include "collector/files.h"
#include "collector/http/connection.h"

namespace quenor::collector {
namespace {

// Returns a descriptor, or -1 with errno.
int Open(const addrinfo& entry, int backlog) {
  const int fd = ::socket(entry.ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  // Reuse of an address in TIME_WAIT, but never a port that another server listens on.
  const int on = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  if (::bind(fd, entry.ai_addr, entry.ai_addrlen) == 0 && ::listen(fd, backlog) == 0) return fd;
  const int error = errno;
  ::close(fd);
  errno = error;
  return -1;
}

}  // namespace

Listening ListenOn(const std::string& host, int port, int backlog) {
  const auto fail = [&](const std::string& reason) -> Fatal {
    return Fatal(kExitUnavailable, "cannot listen on " + HostAndPort(host, port) + ": " + reason +
                                       "; give --listen a local address and a free port (0: any)");
  };
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  const int code = ::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
  if (code != 0) throw fail(::gai_strerror(code));
  const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> owner(found, &::freeaddrinfo);
  Listening listening;
  for (const addrinfo* entry = found; entry != nullptr && listening.fd < 0;
       entry = entry->ai_next) {
    listening.fd = Open(*entry, backlog);
  }
  if (listening.fd < 0) throw fail(ErrnoText(errno));
  sockaddr_storage bound{};
  socklen_t bytes = sizeof(bound);
  ::getsockname(listening.fd, reinterpret_cast<sockaddr*>(&bound), &bytes);
  // sin_port and sin6_port lie at the same place.
  listening.port = ntohs(reinterpret_cast<const sockaddr_in*>(&bound)->sin_port);
  return listening;
}

}  // namespace quenor::collector
