// The SOCKS5 protocol (RFC 1928, 1929) as the HTTP client speaks it, for "quenor-report doctor".
// Threads: one. Page: docs/guide/quenor-report.md.
#ifndef CLI_DOCTOR_SOCKS5_H_
#define CLI_DOCTOR_SOCKS5_H_

#include <cstddef>
#include <string>

#include "cli/doctor/net.h"
#include "cli/doctor/step.h"
#include "cli/options/addresses.h"

namespace quenor::cli {

// A connection's bytes, in order.
class Wire {
 public:
  enum class End { kNone, kTimedOut, kClosed };

  virtual ~Wire() = default;
  // Writes all of `bytes`, or says why that was not possible.
  virtual End Write(const std::string& bytes) = 0;
  // Reads exactly `size` bytes; on failure `bytes` holds those that came.
  virtual End Read(size_t size, std::string* bytes) = 0;
};

class SocketWire : public Wire {
 public:
  // Borrows `fd`, which does not block, and has `timeout_ms` for all.
  SocketWire(int fd, uint32_t timeout_ms) : fd_(fd), deadline_(timeout_ms) {}
  End Write(const std::string& bytes) override;
  End Read(size_t size, std::string* bytes) override;

 private:
  const int fd_;
  const Deadline deadline_;
};

// The step "proxy": greeting, authentication and the request to connect to `target`. When it has
// not failed, the wire leads there.
Step AskProxy(Wire& wire, const Socks5Address& proxy, const Place& target);

}  // namespace quenor::cli

#endif  // CLI_DOCTOR_SOCKS5_H_
