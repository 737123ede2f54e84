#include "services/http_client_curl/connection_linux.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

QUENOR_NAMESPACE_BEGIN
namespace http_connection {
namespace {

bool TcpInfo(int fd, tcp_info* info) {
  socklen_t length = sizeof(*info);
  return getsockopt(fd, IPPROTO_TCP, TCP_INFO, info, &length) == 0;
}

}  // namespace

HttpEnds EndsOf(CURL* easy) {
  const auto end = [easy](CURLINFO ip, CURLINFO port) {
    char* text = nullptr;
    long number = 0;
    curl_easy_getinfo(easy, ip, &text);
    curl_easy_getinfo(easy, port, &number);
    return HttpEnds::End{text == nullptr ? "" : text, static_cast<int>(number)};
  };
  return {end(CURLINFO_LOCAL_IP, CURLINFO_LOCAL_PORT),
          end(CURLINFO_PRIMARY_IP, CURLINFO_PRIMARY_PORT)};
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
