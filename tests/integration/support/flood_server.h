// FloodServer: an HTTP/2 server that answers with a status and then sends frames that are no answer
// as fast as they are read. Threads and life cycle: those of its ScriptedServer.
#ifndef QUENOR_TESTS_INTEGRATION_SUPPORT_FLOOD_SERVER_H_
#define QUENOR_TESTS_INTEGRATION_SUPPORT_FLOOD_SERVER_H_

#include <atomic>
#include <future>
#include <ostream>
#include <string>
#include <vector>

#include "tests/integration/support/scripted_server.h"

namespace quenor::test {

struct Flood {
  const char* name;
  std::string frame;
  bool is_limited = false;  // Limited by HTTP/2 itself: nghttp2 may end stream or connection first.
  size_t lead_bytes = 0;    // At least so much of another flood goes ahead of each `frame`.
};
inline void PrintTo(const Flood& flood, std::ostream* out) { *out << flood.name; }

// Frames that carry nothing, the first ones allowed at any time.
const std::vector<Flood>& Floods();

// For one connection, which it floods from the first request until the client has gone.
class FloodServer {
 public:
  FloodServer(const Flood& flood, const Certificate& certificate);

  std::string Url() const { return server_.Origin() + "/"; }
  // Waits until the client is reading the flood, or has gone already, or until Tell(). Once.
  void WaitForFlood() { flooding_.get_future().wait(); }
  void Tell() {
    if (!is_told_.exchange(true)) flooding_.set_value();
  }

 private:
  void Serve(ScriptedServer::Connection& connection, const Flood& flood);

  std::atomic<bool> is_told_{false};
  std::promise<void> flooding_;
  ScriptedServer server_;
};

}  // namespace quenor::test

#endif  // QUENOR_TESTS_INTEGRATION_SUPPORT_FLOOD_SERVER_H_
