#include "quenor_base/platform/default/http_sockets_linux.h"

// Not <netinet/tcp.h>, whose tcp_info ends before the counts of bytes.
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

// The local port of an internet socket.
int LocalPort(int fd) {
  sockaddr_in6 address{};
  socklen_t length = sizeof(address);
  (void)getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  return ntohs(address.sin6_port);  // In the same place for IPv4.
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
  if (cut_ports_.size() >= kCutsRemembered) cut_ports_.erase(cut_ports_.begin());
  cut_ports_.push_back(LocalPort(busiest));
  shutdown(busiest, SHUT_RDWR);
  return true;
}

bool HttpSockets::WasCut(long local_port) const {
  base::AutoLock hold(lock_);
  return std::find(cut_ports_.begin(), cut_ports_.end(), local_port) != cut_ports_.end();
}

QUENOR_NAMESPACE_END
