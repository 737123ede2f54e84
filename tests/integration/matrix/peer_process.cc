#include "tests/integration/matrix/peer_process.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

#include "quenor_base/platform/base/check.h"
#include "tests/support/loopback.h"
#include "tests/support/patience.h"

namespace quenor::test {

namespace {

// Debian's own interpreter: another one in the PATH does not see Debian's packages.
constexpr char kPython[] = "/usr/bin/python3";

std::string Files(const Certificate& certificate) {
  return " " + certificate.certificate_file + " " + certificate.key_file;
}

}  // namespace

std::string PeerProcess::WhyNot() {
  TempFolder folder;
  if (access(kPython, X_OK) != 0) return "python3 is not installed; install the package python3";
  ChildProcess probe({kPython, "-c", "import h2.connection, hpack"}, folder.File("output"));
  return probe.Wait() == 0 ? "" : "python's h2 is not installed; install the package python3-h2";
}

PeerProcess::PeerProcess() {
  uint16_t port = 0;
  const int listener = BindLoopback(&port);
  QUENOR_CHECK(listen(listener, 1) == 0, "no control port for h2_peer.py");
  // -B: no compiled files beside the source.
  child_ = std::make_unique<ChildProcess>(
      std::vector<std::string>{kPython, "-B", QUENOR_H2_PEER, std::to_string(port)},
      folder_.File("output"));
  pollfd waiting{listener, POLLIN, 0};
  while (poll(&waiting, 1, 100) != 1) {
    QUENOR_CHECK(!child_->HasEnded(), ReadWholeFile(folder_.File("output")).c_str());
  }
  const timeval patience{kPatience.count(), 0};
  control_ = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  QUENOR_CHECK(control_ >= 0, "h2_peer.py did not connect");
  setsockopt(control_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
  close(listener);
}

PeerProcess::~PeerProcess() { close(control_); }

int PeerProcess::Tell(const std::string& line) {
  const std::string text = line + "\n";
  QUENOR_CHECK(
      send(control_, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size()),
      ReadWholeFile(folder_.File("output")).c_str());
  std::string answer;
  char c;
  while (recv(control_, &c, 1, 0) == 1) {
    if (c == '\n') return std::atoi(answer.c_str());
    answer += c;
  }
  child_->Wait();
  QUENOR_CHECK(false, ("h2_peer.py: " + ReadWholeFile(folder_.File("output"))).c_str());
  return -1;
}

uint16_t PeerProcess::Arm(const std::string& script, const Certificate& certificate) {
  return static_cast<uint16_t>(Tell("arm " + script + Files(certificate)));
}

void PeerProcess::Behave(const Certificate& certificate) { Tell("behave" + Files(certificate)); }

int PeerProcess::Disarm() { return Tell("disarm"); }

}  // namespace quenor::test
