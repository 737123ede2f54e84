#include "quenor_base/platform/default/http_connection_linux.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

QUENOR_NAMESPACE_BEGIN
namespace http_connection {
namespace {

using AskForEnd = int (*)(int fd, sockaddr* address, socklen_t* length);

// Whether this end of an internet socket is `ip`, as inet_ntop() writes it, and `port`.
bool IsEnd(AskForEnd ask, int fd, const char* ip, long port) {
  union {
    sockaddr any;
    sockaddr_in v4;
    sockaddr_in6 v6;
  } address{};
  socklen_t length = sizeof(address);
  if (ip == nullptr || ask(fd, &address.any, &length) != 0) return false;
  char text[INET6_ADDRSTRLEN] = "";
  if (address.any.sa_family == AF_INET) {
    inet_ntop(AF_INET, &address.v4.sin_addr, text, sizeof(text));
    return ntohs(address.v4.sin_port) == port && std::strcmp(text, ip) == 0;
  }
  if (address.any.sa_family != AF_INET6) return false;
  inet_ntop(AF_INET6, &address.v6.sin6_addr, text, sizeof(text));
  return ntohs(address.v6.sin6_port) == port && std::strcmp(text, ip) == 0;
}

bool TcpInfo(int fd, tcp_info* info) {
  socklen_t length = sizeof(*info);
  return getsockopt(fd, IPPROTO_TCP, TCP_INFO, info, &length) == 0;
}

}  // namespace

bool IsOf(int fd, CURL* easy) {
  char* local_ip = nullptr;
  char* peer_ip = nullptr;
  long local_port = 0;
  long peer_port = 0;
  curl_easy_getinfo(easy, CURLINFO_LOCAL_IP, &local_ip);
  curl_easy_getinfo(easy, CURLINFO_LOCAL_PORT, &local_port);
  curl_easy_getinfo(easy, CURLINFO_PRIMARY_IP, &peer_ip);
  curl_easy_getinfo(easy, CURLINFO_PRIMARY_PORT, &peer_port);
  return IsEnd(&getsockname, fd, local_ip, local_port) &&
         IsEnd(&getpeername, fd, peer_ip, peer_port);
}

int64_t SilentMs(int fd) {
  tcp_info info{};
  return TcpInfo(fd, &info) ? info.tcpi_last_data_recv : 0;
}

bool IsHungUp(int fd) {
  tcp_info info{};
  return TcpInfo(fd, &info) && info.tcpi_state == TCP_CLOSE_WAIT;
}

HangUps::~HangUps() {
  if (fd_ >= 0) close(fd_);
}

bool HangUps::Open() {
  fd_ = epoll_create1(EPOLL_CLOEXEC);
  return fd_ >= 0;
}

void HangUps::Watch(int fd) {
  // Edge-triggered: one event for each closing, with nothing to take back.
  epoll_event event{};
  event.events = EPOLLRDHUP | EPOLLET;
  event.data.fd = fd;
  epoll_ctl(fd_, EPOLL_CTL_ADD, fd, &event);
}

void HangUps::Clear() {
  epoll_event events[16];
  while (epoll_wait(fd_, events, 16, 0) == 16) {
  }
}

}  // namespace http_connection
QUENOR_NAMESPACE_END
