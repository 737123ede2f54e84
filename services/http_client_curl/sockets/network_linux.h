// What the kernel tells of this machine's network. Internal to the HTTP client. Threads: one at a
// time.
#ifndef SERVICES_HTTP_CLIENT_CURL_SOCKETS_NETWORK_LINUX_H_
#define SERVICES_HTTP_CLIENT_CURL_SOCKETS_NETWORK_LINUX_H_

#include <set>
#include <string>

#include "quenor_base/platform/base/abi.h"

QUENOR_NAMESPACE_BEGIN
namespace http_network {

// Addresses as bytes, of all interfaces or of those that have a link; empty when that cannot be
// known.
enum class Of { kAll, kLinked };
std::set<std::string> OwnAddresses(Of which);
// The address of this end of a socket, as one of those; empty when it has none.
std::string OwnAddress(int socket);

// Told of addresses, links and routes.
class Watch {
 public:
  Watch() = default;
  ~Watch() { Close(); }
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;

  // Empty, or why not.
  std::string Open();
  void Close();
  // For poll(): readable when there may be something new; -1: closed.
  int fd() const { return fd_; }
  // Takes all that has been told, and answers what has come of it since the last call: kGain is an
  // address with a link, or a default route, that was not there; kLoss is one that has gone, and
  // nothing gained. What the kernel only renews is neither,
  // but for the first renewal of a route that was there before.
  enum class Change { kNone, kLoss, kGain };
  Change Look();

 private:
  int fd_ = -1;
  std::set<std::string> addresses_;
  std::set<std::string> routes_;  // Default ones that have been told of.
};

}  // namespace http_network
QUENOR_NAMESPACE_END

#endif  // SERVICES_HTTP_CLIENT_CURL_SOCKETS_NETWORK_LINUX_H_
