#include "services/http_client_curl/sockets/connection_linux.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

QUENOR_NAMESPACE_BEGIN
namespace http_connection {
namespace {

bool TcpInfo(int fd, tcp_info* info) {
  socklen_t length = sizeof(*info);
  return getsockopt(fd, IPPROTO_TCP, TCP_INFO, info, &length) == 0;
}

HttpEnds::End EndOf(CURL* easy, CURLINFO ip, CURLINFO port) {
  char* text = nullptr;
  long number = 0;
  curl_easy_getinfo(easy, ip, &text);
  curl_easy_getinfo(easy, port, &number);
  return {text == nullptr ? "" : text, static_cast<int>(number)};
}

// A socket that may be one of libcurl's wake-up pair.
struct Candidate {
  int fd, waiting, leaving;
  bool is_reader, is_writer;
};

// All of this process's sockets of that family; none where /proc is not mounted.
std::vector<Candidate> UnixSockets() {
  std::vector<Candidate> candidates;
  DIR* folder = opendir("/proc/self/fd");
  if (folder == nullptr) return candidates;
  while (const dirent* entry = readdir(folder)) {
    const int fd = std::atoi(entry->d_name);
    sockaddr_storage address;
    socklen_t length = sizeof(address);
    if (entry->d_name[0] == '.' || fd == dirfd(folder)) continue;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) continue;
    if (address.ss_family == AF_UNIX) candidates.push_back({fd, 0, 0, true, true});
  }
  closedir(folder);
  return candidates;
}

}  // namespace

HttpEnds EndsOf(CURL* easy) {
  return {EndOf(easy, CURLINFO_LOCAL_IP, CURLINFO_LOCAL_PORT),
          EndOf(easy, CURLINFO_PRIMARY_IP, CURLINFO_PRIMARY_PORT)};
}

int64_t SilentMs(int fd) {
  tcp_info info{};
  return TcpInfo(fd, &info) ? info.tcpi_last_data_recv : 0;
}

bool IsHungUp(int fd) {
  tcp_info info{};
  return TcpInfo(fd, &info) && info.tcpi_state == TCP_CLOSE_WAIT;
}

void SetWakeUpPairCloseOnExec(CURLM* multi) {
  std::vector<Candidate> candidates = UnixSockets();
  for (int round = 0; round < 4; ++round) {
    for (Candidate& c : candidates) {
      int waiting = 0;
      int leaving = 0;
      if (ioctl(c.fd, FIONREAD, &waiting) != 0) waiting = 0;
      if (ioctl(c.fd, SIOCOUTQ, &leaving) != 0) leaving = 0;
      c.is_reader = c.is_reader && (round == 0 || waiting == c.waiting + 1);
      c.is_writer = c.is_writer && (round == 0 || leaving > c.leaving);
      c.waiting = waiting;
      c.leaving = leaving;
    }
    curl_multi_wakeup(multi);
  }
  for (const Candidate& c : candidates) {
    if (c.is_reader || c.is_writer) fcntl(c.fd, F_SETFD, FD_CLOEXEC);
  }
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
