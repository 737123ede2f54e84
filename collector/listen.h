// A socket that listens, for each of the servers here.
#ifndef COLLECTOR_LISTEN_H_
#define COLLECTOR_LISTEN_H_

#include <string>

namespace quenor::collector {

struct Listening {
  int fd = -1;   // Non-blocking; the caller's.
  int port = 0;  // The one that it has, where any would do.
};

// Listens on a local address, port 0: any. Throws Fatal.
Listening ListenOn(const std::string& host, int port, int backlog);

}  // namespace quenor::collector

#endif  // COLLECTOR_LISTEN_H_
