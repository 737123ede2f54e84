#include "services/http_client_curl/sockets/sockets_linux.h"

// Not <netinet/tcp.h>, whose tcp_info ends before the counts of bytes.
#include <arpa/inet.h>
#include <linux/sockios.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

QUENOR_NAMESPACE_BEGIN
namespace {

constexpr size_t kCutsRemembered = 16;

HttpEnds::End EndOf(int fd, int (*ask)(int fd, sockaddr* address, socklen_t* length)) {
  union {
    sockaddr any;
    sockaddr_in v4;
    sockaddr_in6 v6;
  } address{};
  socklen_t length = sizeof(address);
  if (ask(fd, &address.any, &length) != 0) return {"", 0};
  char text[INET6_ADDRSTRLEN] = "";
  if (address.any.sa_family == AF_INET) {
    inet_ntop(AF_INET, &address.v4.sin_addr, text, sizeof(text));
  } else if (address.any.sa_family == AF_INET6) {
    inet_ntop(AF_INET6, &address.v6.sin6_addr, text, sizeof(text));
  }
  return {text, ntohs(address.v4.sin_port)};  // In the same place for IPv6.
}

// How many bytes have been read from a TCP connection; 0 when that cannot be known.
uint64_t ReadBytes(int fd) {
  tcp_info info{};
  socklen_t length = sizeof(info);
  if (getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &length) != 0) return 0;
  int unread = 0;
  if (ioctl(fd, SIOCINQ, &unread) != 0) unread = 0;
  const uint64_t arrived = info.tcpi_bytes_received;
  return arrived - std::min(arrived, static_cast<uint64_t>(unread));
}

}  // namespace

HttpEnds EndsOf(int fd) { return {EndOf(fd, &getsockname), EndOf(fd, &getpeername)}; }

void HttpSockets::Add(int fd) {
  base::AutoLock hold(lock_);
  sockets_.push_back({fd, 0});
}

int HttpSockets::Close(int fd) {
  base::AutoLock hold(lock_);
  sockets_.erase(std::remove_if(sockets_.begin(), sockets_.end(),
                                [fd](const Socket& socket) { return socket.fd == fd; }),
                 sockets_.end());
  return close(fd);
}

std::vector<int> HttpSockets::All() const {
  base::AutoLock hold(lock_);
  std::vector<int> all;
  for (const Socket& socket : sockets_) all.push_back(socket.fd);
  return all;
}

void HttpSockets::Mark() {
  base::AutoLock hold(lock_);
  for (Socket& socket : sockets_) socket.marked_bytes = ReadBytes(socket.fd);
}

bool HttpSockets::CutBusiest(uint64_t size_bytes) {
  base::AutoLock hold(lock_);
  int busiest = -1;
  for (const Socket& socket : sockets_) {
    const uint64_t now = ReadBytes(socket.fd);
    const uint64_t read = now - std::min(now, socket.marked_bytes);
    if (read < size_bytes) continue;
    size_bytes = read;
    busiest = socket.fd;
  }
  if (busiest < 0) return false;
  if (cuts_.size() >= kCutsRemembered) cuts_.erase(cuts_.begin());
  cuts_.push_back(EndsOf(busiest));
  shutdown(busiest, SHUT_RDWR);
  return true;
}

bool HttpSockets::WasCut(const HttpEnds& connection) const {
  base::AutoLock hold(lock_);
  return std::find(cuts_.begin(), cuts_.end(), connection) != cuts_.end();
}

QUENOR_NAMESPACE_END
