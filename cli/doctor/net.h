// Names, addresses and sockets for "quenor-report doctor", each with a time limit. One thread uses
// an object at a time. Page: docs/guide/quenor-report.md.
#ifndef CLI_DOCTOR_NET_H_
#define CLI_DOCTOR_NET_H_

#include <sys/socket.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "cli/doctor/step.h"
#include "quenor_base/platform/base/monotonic_time.h"

namespace quenor::cli {

class Deadline {
 public:
  explicit Deadline(uint32_t in_ms)
      : end_(base::MonotonicNow() + std::chrono::milliseconds(in_ms)) {}

  // 0 once it has passed.
  int LeftMs() const;

 private:
  base::MonotonicTime end_;
};

// A descriptor that closes itself.
class Socket {
 public:
  explicit Socket(int fd = -1) : fd_(fd) {}
  Socket(Socket&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  Socket& operator=(Socket&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~Socket();

  int get() const { return fd_; }

 private:
  int fd_;
};

// Waits until `fd` is ready for `events` (poll's). False when the deadline came first.
[[nodiscard]] bool Await(int fd, short events, const Deadline& deadline);

struct Endpoint {
  sockaddr_storage address{};
  socklen_t size = 0;

  // "127.0.0.1:443", "[::1]:443".
  std::string Text() const;
};

// Where a connection is to go.
struct Place {
  std::string host;  // A name or an address, without brackets.
  uint16_t port = 0;

  std::string Text() const;
};

// Answers an EAI_... value, 0 for success.
using LookUp = std::function<int(const Place&, std::vector<Endpoint>*)>;

// The system's resolver. "localhost" and names below it are not looked up, as the HTTP client does
// not either.
int SystemLookUp(const Place& place, std::vector<Endpoint>* endpoints);

// The step `name`: all addresses of `place`. `look_up` runs on a thread of its own, which is left
// behind when the time limit passes.
Step Resolve(const std::string& name, const Place& place, uint32_t timeout_ms,
             const LookUp& look_up, std::vector<Endpoint>* endpoints);

// The step `name`: tries every endpoint, all at the same time. `socket` gets the first one in order
// that connected; it does not block. `what` is what should listen there: "the server", "the proxy".
Step Connect(const std::string& name, const std::string& what,
             const std::vector<Endpoint>& endpoints, uint32_t timeout_ms, Socket* socket);

}  // namespace quenor::cli

#endif  // CLI_DOCTOR_NET_H_
