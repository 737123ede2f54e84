// What the HTTP client on libcurl asks the kernel about its connections, and about libcurl's own
// descriptors. Internal to that client. Threads: the I/O thread, and the one that starts it.
#ifndef SERVICES_HTTP_CLIENT_CURL_SOCKETS_CONNECTION_LINUX_H_
#define SERVICES_HTTP_CLIENT_CURL_SOCKETS_CONNECTION_LINUX_H_

#include <curl/curl.h>

#include <cstdint>

#include "quenor_base/platform/base/abi.h"
#include "services/http_client_curl/sockets/sockets_linux.h"

QUENOR_NAMESPACE_BEGIN
namespace http_connection {

// The ends of the connection that the handle's request went to; unknown before it was given one.
HttpEnds EndsOf(CURL* easy);

// For how long nothing has arrived on a TCP connection; 0 when that cannot be known.
int64_t SilentMs(int fd);

// Whether its other side has closed a TCP connection and this side has not: CLOSE_WAIT.
bool IsHungUp(int fd);

// libcurl opens its wake-up pair without close-on-exec and does not give it away. It is known by
// what it does: with every wake-up one byte more waits at one end and more is on its way from the
// other. Where /proc is not mounted, the pair stays as it is.
void SetWakeUpPairCloseOnExec(CURLM* multi);

// Becomes readable when the other side of a connection closes: libcurl does not look at those that
// it keeps for later.
class HangUps {
 public:
  HangUps() = default;
  ~HangUps();
  HangUps(const HangUps&) = delete;
  HangUps& operator=(const HangUps&) = delete;

  // False when no descriptor is left.
  bool Open();
  // From here on until the socket is closed.
  void Watch(int fd);
  // For poll(): readable until Clear().
  int fd() const { return fd_; }
  void Clear();

 private:
  int fd_ = -1;
};

}  // namespace http_connection
QUENOR_NAMESPACE_END

#endif  // SERVICES_HTTP_CLIENT_CURL_SOCKETS_CONNECTION_LINUX_H_
