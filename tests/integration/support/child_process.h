// ChildProcess: a program that a test runs beside itself, and servers that are such programs. Every
// one is ended, by its own process id, at the end of its scope.
#ifndef QUENOR_TESTS_INTEGRATION_SUPPORT_CHILD_PROCESS_H_
#define QUENOR_TESTS_INTEGRATION_SUPPORT_CHILD_PROCESS_H_

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tests/integration/support/certificates.h"
#include "tests/support/patience.h"
#include "tests/support/temp_folder.h"

namespace quenor::test {

class ChildProcess {
 public:
  // Starts `arguments[0]`, searched in the usual bin and sbin folders, with `environment`
  // ("NAME=value") added to ours. What it writes goes to `output_file`. `inherited_fd`, unless -1,
  // is open in the child under the same number. Ends the process when it cannot be started.
  ChildProcess(const std::vector<std::string>& arguments, const std::string& output_file,
               const std::vector<std::string>& environment = {});
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  // Waits for its end, or kills it when that does not come. The exit code, or 128 and the signal's
  // number.
  int Wait(std::chrono::seconds patience = kPatience);
  bool HasEnded();

 private:
  pid_t pid_ = -1;
  int status_ = -1;
};

// nginx on a free port of 127.0.0.1, with configuration and files in a folder of its own. Logs
// nothing unless told to; the log format "connections" gives protocol and connection number.
class NginxServer {
 public:
  struct Options {
    const Certificate* certificate = nullptr;  // Null: plain HTTP.
    bool http2 = false;
    std::string server_lines;  // Inside server { }: the locations.
  };
  explicit NginxServer(const Options& options);
  ~NginxServer();

  uint16_t port() const { return port_; }
  std::string Output() const;
  // "https://localhost:PORT", without a path.
  std::string Origin() const;
  // Ends it as an administrator would; open connections are closed.
  void Stop();

 private:
  TempFolder folder_;
  uint16_t port_ = 0;
  bool is_tls_;
  std::unique_ptr<ChildProcess> process_;
};

// A SOCKS5 proxy on a free port of 127.0.0.1 that asks for user and password.
class SocksProxy {
 public:
  SocksProxy(const std::string& user, const std::string& password);
  ~SocksProxy();

  uint16_t port() const { return port_; }
  // What it wrote: a line for each connection with the host name that it was asked for.
  std::string Output() const;
  void Stop() { process_.reset(); }

 private:
  TempFolder folder_;
  uint16_t port_ = 0;
  std::unique_ptr<ChildProcess> process_;
};

// Whether /etc/hosts has the name, which a proxy then knows. Asks no name server.
bool HostsFileNamesLocalhost();
constexpr char kNoLocalhost[] =
    "/etc/hosts does not name localhost, which the proxy has to resolve";

// A port of 127.0.0.1 that nothing listens on at the time of the call.
uint16_t UnusedPort();

}  // namespace quenor::test

#endif  // QUENOR_TESTS_INTEGRATION_SUPPORT_CHILD_PROCESS_H_
