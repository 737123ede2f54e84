#include "tests/integration/support/scripted_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include "quenor_base/platform/base/check.h"
#include "tests/support/loopback.h"
#include "tests/support/patience.h"

namespace quenor::test {

// ---- Connection ---------------------------------------------------------------------------------

bool ScriptedServer::Connection::ReadMore() {
  char chunk[16384];
  const long size = Receive(chunk, sizeof(chunk));
  if (size <= 0) return false;
  unread_.append(chunk, static_cast<size_t>(size));
  return true;
}

bool ScriptedServer::Connection::ReadRequestHead(ReceivedRequest* request) {
  *request = ReceivedRequest();
  size_t end;
  while ((end = unread_.find("\r\n\r\n")) == std::string::npos) {
    if (!ReadMore()) return false;
  }
  const std::string head = unread_.substr(0, end + 2);
  unread_.erase(0, end + 4);
  const size_t line_end = head.find("\r\n");
  const size_t space = head.find(' ');
  request->method = head.substr(0, space);
  request->target = head.substr(space + 1, head.find(' ', space + 1) - space - 1);
  for (size_t at = line_end + 2; at < head.size();) {
    const size_t next = head.find("\r\n", at);
    const size_t colon = head.find(':', at);
    std::string name = head.substr(at, colon - at);
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char c) { return std::tolower(c); });
    const size_t value = head.find_first_not_of(' ', colon + 1);
    request->headers[name] = head.substr(value, next - value);
    at = next + 2;
  }
  return true;
}

bool ScriptedServer::Connection::ReadBody(ReceivedRequest* request) {
  const auto length = request->headers.find("content-length");
  if (length != request->headers.end()) {
    const size_t size = std::strtoull(length->second.c_str(), nullptr, 10);
    while (unread_.size() < size) {
      if (!ReadMore()) return false;
    }
    request->body = unread_.substr(0, size);
    unread_.erase(0, size);
    return true;
  }
  if (request->headers.count("transfer-encoding") == 0) return true;
  for (;;) {
    size_t line_end;
    while ((line_end = unread_.find("\r\n")) == std::string::npos) {
      if (!ReadMore()) return false;
    }
    const size_t size = std::strtoull(unread_.c_str(), nullptr, 16);
    while (unread_.size() < line_end + 2 + size + 2) {
      if (!ReadMore()) return false;
    }
    request->body += unread_.substr(line_end + 2, size);
    unread_.erase(0, line_end + 2 + size + 2);
    if (size == 0) return true;
  }
}

bool ScriptedServer::Connection::ReadRequest(ReceivedRequest* request) {
  return ReadRequestHead(request) && ReadBody(request);
}

bool ScriptedServer::Connection::ReadBytes(size_t count, std::string* bytes) {
  while (unread_.size() < count) {
    if (!ReadMore()) return false;
  }
  *bytes = unread_.substr(0, count);
  unread_.erase(0, count);
  return true;
}

bool ScriptedServer::Connection::Write(const std::string& bytes) {
  size_t sent = 0;
  while (sent < bytes.size()) {
    const long size = Send(bytes.data() + sent, bytes.size() - sent);
    if (size <= 0) return false;
    sent += static_cast<size_t>(size);
  }
  return true;
}

bool ScriptedServer::Connection::Respond(int status, const std::string& body,
                                         const std::map<std::string, std::string>& headers) {
  std::string text = "HTTP/1.1 " + std::to_string(status) + " Scripted\r\n";
  for (const auto& [name, value] : headers) text += name + ": " + value + "\r\n";
  if (status != 204 && status != 304) {
    text += "Content-Length: " + std::to_string(body.size()) + "\r\n";
  }
  return Write(text + "\r\n" + body);
}

void ScriptedServer::Connection::HoldUntilClosed() {
  while (ReadMore()) unread_.clear();
}

// ---- Server -------------------------------------------------------------------------------------

struct ScriptedServer::Core {
  Script script;
  std::vector<int> listeners;
  uint16_t port = 0;
  SSL_CTX* tls = nullptr;
  std::vector<std::thread> acceptors;  // One for each listener.
  std::promise<void> end;
  const std::shared_future<void> ended{end.get_future()};

  std::mutex mutex;
  bool ending = false;  // Guarded by `mutex`, as are those below.
  std::condition_variable one_closed;
  size_t closed = 0;
  std::vector<int> open;             // Sockets to shut down at the end.
  std::vector<std::thread> threads;  // One per connection accepted.

  void Accept(int listener);
  void Serve(int fd, size_t index);
};

namespace {

class SocketConnection : public ScriptedServer::Connection {
 public:
  SocketConnection(int fd, SSL* tls, size_t index, std::shared_future<void> ended)
      : fd_(fd), tls_(tls), index_(index), ended_(std::move(ended)) {}
  void WaitForEnd() override { ended_.wait(); }
  void ResetNow() override {
    // Connecting a TCP socket to nowhere ends it and keeps its number for whoever closes it.
    sockaddr nowhere{};
    nowhere.sa_family = AF_UNSPEC;
    connect(fd_, &nowhere, sizeof(nowhere));
  }
  void CloseSending() override { shutdown(fd_, SHUT_WR); }
  uint16_t peer_port() const override {
    sockaddr_storage address{};
    socklen_t length = sizeof(address);
    getpeername(fd_, reinterpret_cast<sockaddr*>(&address), &length);
    // At the same place in an address of either family.
    return ntohs(reinterpret_cast<const sockaddr_in*>(&address)->sin_port);
  }
  size_t index() const override { return index_; }

 protected:
  long Receive(char* bytes, size_t size) override {
    if (tls_ != nullptr) return SSL_read(tls_, bytes, static_cast<int>(size));
    return recv(fd_, bytes, size, 0);
  }
  long Send(const char* bytes, size_t size) override {
    if (tls_ != nullptr) return SSL_write(tls_, bytes, static_cast<int>(size));
    return send(fd_, bytes, size, MSG_NOSIGNAL);
  }

 private:
  const int fd_;
  SSL* const tls_;
  const size_t index_;
  const std::shared_future<void> ended_;
};

// The scripts may write to connections that are gone; the client under test must do without this.
void BlockSigPipe() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

// Sockets that listen on a port of 127.0.0.1 and on the same one of ::1, where there is one.
std::vector<int> Listen(uint16_t* port) {
  for (;;) {
    const int fd = BindLoopback(port);
    QUENOR_CHECK(listen(fd, 1024) == 0, "a scripted server cannot listen");

    sockaddr_in6 v6{};
    v6.sin6_family = AF_INET6;
    v6.sin6_addr = in6addr_loopback;
    v6.sin6_port = htons(*port);
    const int fd6 = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd6 >= 0 && bind(fd6, reinterpret_cast<sockaddr*>(&v6), sizeof(v6)) == 0 &&
        listen(fd6, 1024) == 0) {
      return {fd, fd6};
    }
    const bool is_taken = errno == EADDRINUSE;
    if (fd6 >= 0) close(fd6);
    if (!is_taken) return {fd};
    close(fd);
  }
}

int SelectHttp2(SSL*, const unsigned char** selected, unsigned char* size,
                const unsigned char* offered, unsigned int offered_size, void*) {
  static const unsigned char kHttp2[] = {2, 'h', '2'};
  const int found = SSL_select_next_proto(const_cast<unsigned char**>(selected), size, kHttp2,
                                          sizeof(kHttp2), offered, offered_size);
  return found == OPENSSL_NPN_NEGOTIATED ? SSL_TLSEXT_ERR_OK : SSL_TLSEXT_ERR_NOACK;
}

}  // namespace

void ScriptedServer::Core::Accept(int listener) {
  BlockSigPipe();
  for (;;) {
    const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    std::lock_guard<std::mutex> hold(mutex);
    if (fd < 0 || ending) {
      if (fd >= 0) close(fd);
      return;
    }
    open.push_back(fd);
    const size_t index = threads.size();
    threads.emplace_back([this, fd, index] { Serve(fd, index); });
  }
}

void ScriptedServer::Core::Serve(int fd, size_t index) {
  const int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  const timeval patience{kPatience.count(), 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));
  SSL* session = nullptr;
  bool ready = true;
  if (tls != nullptr) {
    session = SSL_new(tls);
    SSL_set_fd(session, fd);
    ready = SSL_accept(session) == 1;
  }
  if (ready) {
    SocketConnection connection(fd, session, index, ended);
    script(connection);
  }
  SSL_free(session);
  std::lock_guard<std::mutex> hold(mutex);
  open.erase(std::find(open.begin(), open.end(), fd));
  close(fd);
  ++closed;
  one_closed.notify_all();
}

ScriptedServer::ScriptedServer(Script script, const Certificate* certificate, bool http2)
    : core_(new Core) {
  core_->script = std::move(script);
  core_->listeners = Listen(&core_->port);
  if (certificate != nullptr) {
    core_->tls = SSL_CTX_new(TLS_server_method());
    QUENOR_CHECK(SSL_CTX_use_certificate_chain_file(core_->tls,
                                                    certificate->certificate_file.c_str()) == 1 &&
                     SSL_CTX_use_PrivateKey_file(core_->tls, certificate->key_file.c_str(),
                                                 SSL_FILETYPE_PEM) == 1,
                 "a scripted server cannot use its certificate");
    if (http2) SSL_CTX_set_alpn_select_cb(core_->tls, &SelectHttp2, nullptr);
  }
  for (const int listener : core_->listeners) {
    core_->acceptors.emplace_back([core = core_.get(), listener] { core->Accept(listener); });
  }
}

ScriptedServer::~ScriptedServer() {
  {
    std::lock_guard<std::mutex> hold(core_->mutex);
    core_->ending = true;
    for (int fd : core_->open) shutdown(fd, SHUT_RDWR);
  }
  core_->end.set_value();
  for (const int listener : core_->listeners) shutdown(listener, SHUT_RDWR);
  for (std::thread& thread : core_->acceptors) thread.join();
  for (std::thread& thread : core_->threads) thread.join();
  for (const int listener : core_->listeners) close(listener);
  SSL_CTX_free(core_->tls);
}

uint16_t ScriptedServer::port() const { return core_->port; }

std::string ScriptedServer::Origin(const std::string& host) const {
  return std::string(core_->tls != nullptr ? "https" : "http") + "://" + host + ":" +
         std::to_string(core_->port);
}

size_t ScriptedServer::accepted() const {
  std::lock_guard<std::mutex> hold(core_->mutex);
  return core_->threads.size();
}

void ScriptedServer::WaitForClosed(size_t count) {
  std::unique_lock<std::mutex> hold(core_->mutex);
  WaitPatiently(&core_->one_closed, &hold, std::to_string(count) + " closed connections",
                [&] { return core_->closed >= count; });
}

}  // namespace quenor::test
