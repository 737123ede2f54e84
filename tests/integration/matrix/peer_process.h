// PeerProcess: support/h2_peer.py as a child, told over a socket what to do. One listener at a
// time, on a free port of 127.0.0.1. Threads: one. Life cycle: the destructor ends the child.
#ifndef QUENOR_TESTS_INTEGRATION_MATRIX_PEER_PROCESS_H_
#define QUENOR_TESTS_INTEGRATION_MATRIX_PEER_PROCESS_H_

#include <cstdint>
#include <memory>
#include <string>

#include "tests/integration/support/servers.h"
#include "tests/support/certificates.h"
#include "tests/support/temp_folder.h"

namespace quenor::test {

class PeerProcess {
 public:
  // Empty when the peer can run here, else why not, with the package that is missing.
  static std::string WhyNot();

  // Ends the process when the child cannot be started.
  PeerProcess();
  ~PeerProcess();
  PeerProcess(const PeerProcess&) = delete;
  PeerProcess& operator=(const PeerProcess&) = delete;

  // Every connection is treated by `script` from now on. Answers the port.
  uint16_t Arm(const std::string& script, const Certificate& certificate);
  void Behave(const Certificate& certificate);
  // Ends listener and connections. Answers how many whole requests had arrived.
  int Disarm();

 private:
  // Ends the process, with what the child wrote, when that has died.
  int Tell(const std::string& line);

  TempFolder folder_;
  int control_ = -1;
  std::unique_ptr<ChildProcess> child_;
};

}  // namespace quenor::test

#endif  // QUENOR_TESTS_INTEGRATION_MATRIX_PEER_PROCESS_H_
