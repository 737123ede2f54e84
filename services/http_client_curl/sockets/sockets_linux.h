// HttpSockets: the sockets of the HTTP client's connections, and which of them floods. libcurl
// reads from an HTTP/2 connection for as long as something is there, so a server that sends frames
// which are no answer as fast as they are read keeps the thread that drives it from everything
// else. What another thread can do is to shut that connection down: libcurl then finds it at its
// end. Threads: any. Life cycle: outlives its connections. See docs/design/http-client.md.
#ifndef SERVICES_HTTP_CLIENT_CURL_SOCKETS_SOCKETS_LINUX_H_
#define SERVICES_HTTP_CLIENT_CURL_SOCKETS_SOCKETS_LINUX_H_

#include <cstdint>
#include <string>
#include <vector>

#include "quenor_base/platform/base/lock.h"
#include "quenor_base/platform/base/thread_annotations.h"

QUENOR_NAMESPACE_BEGIN

// Both ends of a connection, which only together tell it from others: one local port may lead to
// several servers.
struct HttpEnds {
  struct End {
    std::string ip;  // As inet_ntop() writes it; "" is unknown, and equal to nothing.
    int port;
    bool operator==(const End& o) const { return !ip.empty() && ip == o.ip && port == o.port; }
  };
  End local, peer;
  bool operator==(const HttpEnds& o) const { return local == o.local && peer == o.peer; }
  bool operator!=(const HttpEnds& o) const { return !(*this == o); }
};
HttpEnds EndsOf(int fd);

class HttpSockets {
 public:
  // Takes an open socket.
  void Add(int fd) QUENOR_EXCLUDES(lock_);
  // Closes one of them and answers what close() does.
  int Close(int fd) QUENOR_EXCLUDES(lock_);
  // On the thread that alone adds and closes, the sockets; elsewhere they may be closed by now.
  std::vector<int> All() const QUENOR_EXCLUDES(lock_);

  // Notes how much has been read from each so far.
  void Mark() QUENOR_EXCLUDES(lock_);
  // Shuts down the one from which most has been read since it was marked, if that is at least
  // `size_bytes`, which must not be 0. Answers whether there was one. No other connection can be
  // hit, not even one that gets a closed one's number meanwhile: Close() waits.
  bool CutBusiest(uint64_t size_bytes) QUENOR_EXCLUDES(lock_);
  // Whether this connection was one of the last that were cut.
  bool WasCut(const HttpEnds& connection) const QUENOR_EXCLUDES(lock_);

 private:
  struct Socket {
    int fd;
    uint64_t marked_bytes;
  };
  mutable base::Lock lock_;
  std::vector<Socket> sockets_ QUENOR_GUARDED_BY(lock_);
  std::vector<HttpEnds> cuts_ QUENOR_GUARDED_BY(lock_);
};

QUENOR_NAMESPACE_END

#endif  // SERVICES_HTTP_CLIENT_CURL_SOCKETS_SOCKETS_LINUX_H_
