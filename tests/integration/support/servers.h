// Servers that are programs: each on a free port, and ended at the end of its scope.
#ifndef QUENOR_TESTS_INTEGRATION_SUPPORT_SERVERS_H_
#define QUENOR_TESTS_INTEGRATION_SUPPORT_SERVERS_H_

#include <cstdint>
#include <memory>
#include <string>

#include "tests/support/certificates.h"
#include "tests/support/process.h"
#include "tests/support/temp_folder.h"

namespace quenor::test {

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

#endif  // QUENOR_TESTS_INTEGRATION_SUPPORT_SERVERS_H_
