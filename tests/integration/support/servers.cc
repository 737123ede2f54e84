#include "tests/integration/support/servers.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "quenor_base/platform/base/check.h"
#include "tests/support/loopback.h"

namespace quenor::test {

namespace {

bool CanConnect(uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const bool connected = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
  close(fd);
  return connected;
}

// For a server that cannot say which port it took: finds a free one, starts the server on it and
// waits until it listens. Another process may be quicker to take the port; the server then ends,
// and the next port is tried.
void StartOnFreePort(std::unique_ptr<ChildProcess>* process, uint16_t* port,
                     const std::function<std::unique_ptr<ChildProcess>(uint16_t)>& start) {
  const auto end = Now() + kPatience;
  for (int attempt = 0; attempt < 20; ++attempt) {
    *port = UnusedPort();
    *process = start(*port);
    while (!(*process)->HasEnded() && Now() < end) {
      if (CanConnect(*port)) return;
      poll(nullptr, 0, 1);
    }
  }
  QUENOR_CHECK(false, "a server cannot be started; is its package installed?");
}

}  // namespace

NginxServer::NginxServer(const Options& options) : is_tls_(options.certificate != nullptr) {
  std::string conf = "daemon off; master_process off; pid nginx.pid; error_log stderr notice;\n";
  conf += "events { worker_connections 512; }\nhttp {\n";
  conf += "  access_log off; client_max_body_size 16m; keepalive_requests 100000;\n";
  conf += "  log_format connections '$server_protocol $connection';\n";
  for (const char* kind : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"}) {
    conf += std::string("  ") + kind + "_temp_path " + kind + ";\n";
  }
  conf += "  server {\n";
  if (is_tls_) {
    conf += "    ssl_certificate " + options.certificate->certificate_file + ";\n";
    conf += "    ssl_certificate_key " + options.certificate->key_file + ";\n";
  }
  conf += options.server_lines + "\n";
  const std::string flags =
      std::string(is_tls_ ? " ssl" : "") + (options.http2 ? " http2" : "") + ";\n  }\n}\n";
  StartOnFreePort(&process_, &port_, [&](uint16_t port) {
    const std::string listen = "    listen 127.0.0.1:" + std::to_string(port) + flags;
    QUENOR_CHECK(WriteWholeFile(folder_.File("nginx.conf"), conf + listen), "no nginx.conf");
    return std::make_unique<ChildProcess>(
        std::vector<std::string>{"nginx", "-e", "stderr", "-p", folder_.path(), "-c", "nginx.conf"},
        folder_.File("output"));
  });
}

NginxServer::~NginxServer() = default;

std::string NginxServer::Output() const { return ReadWholeFile(folder_.File("output")); }

std::string NginxServer::Origin() const {
  return std::string(is_tls_ ? "https" : "http") + "://localhost:" + std::to_string(port_);
}

void NginxServer::Stop() { process_.reset(); }

SocksProxy::SocksProxy(const std::string& user, const std::string& password) {
  StartOnFreePort(&process_, &port_, [&](uint16_t port) {
    return std::make_unique<ChildProcess>(
        std::vector<std::string>{"microsocks", "-i", "127.0.0.1", "-p", std::to_string(port), "-u",
                                 user, "-P", password},
        folder_.File("output"));
  });
}

SocksProxy::~SocksProxy() = default;

std::string SocksProxy::Output() const { return ReadWholeFile(folder_.File("output")); }

bool HostsFileNamesLocalhost() {
  std::istringstream lines(ReadWholeFile("/etc/hosts"));
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line.substr(0, line.find('#')));
    std::string word;
    words >> word;  // The address.
    while (words >> word) {
      if (word == "localhost") return true;
    }
  }
  return false;
}

uint16_t UnusedPort() {
  uint16_t port = 0;
  close(BindLoopback(&port));
  return port;
}

}  // namespace quenor::test
