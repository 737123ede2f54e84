#include "cli/doctor/socks5.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>

namespace quenor::cli {
namespace {

constexpr char kVersion = 5;
constexpr char kAuthVersion = 1;
constexpr uint8_t kNoAuth = 0;
constexpr uint8_t kPassword = 2;
constexpr uint8_t kNoneOfThem = 0xff;

uint8_t ByteAt(const std::string& bytes, size_t at) { return static_cast<uint8_t>(bytes[at]); }

void FailEnd(Wire::End end, const std::string& during, Step* step) {
  if (end == Wire::End::kTimedOut) {
    step->Fail("proxy_timeout", "the proxy did not answer in time " + during,
               "check that this is a SOCKS5 proxy and that it can reach the server; a slow one "
               "needs a larger --timeout");
  } else {
    step->Fail("proxy_closed", "the proxy closed the connection " + during,
               "check that this is a SOCKS5 proxy and that it lets this machine in; its log says "
               "more");
  }
}

// True when the proxy has chosen one of the methods offered.
bool Greet(Wire& wire, const Socks5Address& proxy, uint8_t* method, Step* step) {
  const bool has_user = !proxy.user.empty();
  std::string greeting = {kVersion, has_user ? '\2' : '\1', static_cast<char>(kNoAuth)};
  if (has_user) greeting += static_cast<char>(kPassword);
  std::string answer;
  Wire::End end = wire.Write(greeting);
  if (end == Wire::End::kNone) end = wire.Read(2, &answer);
  if (!answer.empty() && answer[0] != kVersion) {
    step->Fail("proxy_not_socks5", "what answers is no SOCKS5 proxy",
               "give --socks5 the address of a SOCKS5 proxy; an HTTP or SOCKS4 proxy cannot be "
               "used");
    return false;
  }
  if (end != Wire::End::kNone) {
    FailEnd(end, "after the greeting", step);
    return false;
  }
  *method = ByteAt(answer, 1);
  if (*method == kNoAuth || (*method == kPassword && has_user)) return true;
  step->Fail("proxy_auth",
             *method == kNoneOfThem && !has_user ? "the proxy does not let anyone in without user "
                                                   "and password"
             : *method == kNoneOfThem
                 ? "the proxy takes neither user and password nor no "
                   "authentication"
                 : "the proxy wants authentication of kind " + std::to_string(*method),
             has_user ? "only user and password can be given; let the proxy accept these"
                      : "give --socks5 user:password@host:port");
  return false;
}

bool Authenticate(Wire& wire, const Socks5Address& proxy, Step* step) {
  std::string request = {kAuthVersion, static_cast<char>(proxy.user.size())};
  request += proxy.user;
  request += static_cast<char>(proxy.password.size());
  request += proxy.password;
  std::string answer;
  Wire::End end = wire.Write(request);
  if (end == Wire::End::kNone) end = wire.Read(2, &answer);
  if (end == Wire::End::kTimedOut) {
    FailEnd(end, "after user and password", step);
    return false;
  }
  if (end == Wire::End::kNone && ByteAt(answer, 1) == 0) return true;
  step->Fail("proxy_auth", "the proxy refused user \"" + proxy.user + "\" or the password",
             "correct user and password of --socks5; special characters are percent-encoded");
  return false;
}

std::string Request(const Place& target) {
  std::string request = {kVersion, 1, 0};
  char address[sizeof(in6_addr)];
  if (::inet_pton(AF_INET, target.host.c_str(), address) == 1) {
    request += '\1' + std::string(address, sizeof(in_addr));
  } else if (::inet_pton(AF_INET6, target.host.c_str(), address) == 1) {
    request += '\4' + std::string(address, sizeof(in6_addr));
  } else {
    request += '\3';
    request += static_cast<char>(target.host.size());
    request += target.host;
  }
  request += static_cast<char>(target.port >> 8);
  request += static_cast<char>(target.port & 0xff);
  return request;
}

struct Reply {
  const char* cause;
  const char* words;
  const char* advice;
};

Reply ReplyOf(uint8_t code) {
  switch (code) {
    case 1:
      return {"proxy_failure", "general failure", "the proxy's log says why"};
    case 2:
      return {"proxy_ruleset", "its rules do not allow it",
              "let the proxy's rules allow this host and port, for this user"};
    case 3:
      return {"proxy_network", "network unreachable", "check the proxy machine's network"};
    case 4:
      return {"proxy_host", "host unreachable",
              "check that the proxy machine can resolve the server's name and reach it"};
    case 5:
      return {"proxy_refused", "connection refused",
              "check that the server runs, and listens on this port for the proxy's machine"};
    case 6:
      return {"proxy_ttl", "TTL expired", "check the proxy machine's network and routes"};
    case 7:
      return {"proxy_command", "it does not know how to connect",
              "use a proxy that supports the CONNECT command of SOCKS5"};
    case 8:
      return {"proxy_address", "it does not take this kind of address",
              "use a proxy that resolves names (and takes IPv6 addresses, if the URL has one)"};
    default:
      return {"proxy_failure", "a code that SOCKS5 does not know", "the proxy's log says why"};
  }
}

// Takes the rest of a good reply from the wire: the address that the proxy connects from.
Wire::End SkipAddress(Wire& wire, uint8_t kind) {
  std::string bytes;
  size_t size = kind == 1 ? 4 : 16;
  if (kind == 3) {
    const Wire::End end = wire.Read(1, &bytes);
    if (end != Wire::End::kNone) return end;
    size = ByteAt(bytes, 0);
    bytes.clear();
  }
  return wire.Read(size + 2, &bytes);
}

void RequestConnection(Wire& wire, const Place& target, Step* step) {
  std::string answer;
  Wire::End end = wire.Write(Request(target));
  if (end == Wire::End::kNone) end = wire.Read(4, &answer);
  const uint8_t code = answer.size() >= 2 ? ByteAt(answer, 1) : 0;
  if (code != 0) {
    const Reply reply = ReplyOf(code);
    step->Add("reply code", std::to_string(code));
    step->Fail(reply.cause, "the proxy cannot connect to " + target.Text() + ": " + reply.words,
               reply.advice);
    return;
  }
  if (end == Wire::End::kNone) end = SkipAddress(wire, ByteAt(answer, 3));
  if (end != Wire::End::kNone) {
    FailEnd(end, "after the request to connect to " + target.Text(), step);
    return;
  }
  step->Add("reply code", "0, succeeded");
  step->summary = "the proxy has connected to " + target.Text();
}

}  // namespace

Wire::End SocketWire::Write(const std::string& bytes) {
  for (size_t sent = 0; sent < bytes.size();) {
    const ssize_t taken = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (taken > 0) {
      sent += static_cast<size_t>(taken);
    } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
      if (!Await(fd_, POLLOUT, deadline_)) return End::kTimedOut;
    } else if (errno != EINTR) {
      return End::kClosed;
    }
  }
  return End::kNone;
}

Wire::End SocketWire::Read(size_t size, std::string* bytes) {
  while (bytes->size() < size) {
    char buffer[512];
    const size_t wanted = std::min(sizeof(buffer), size - bytes->size());
    const ssize_t step = ::recv(fd_, buffer, wanted, 0);
    if (step > 0) {
      bytes->append(buffer, static_cast<size_t>(step));
    } else if (step < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      if (!Await(fd_, POLLIN, deadline_)) return End::kTimedOut;
    } else if (step == 0 || errno != EINTR) {
      return End::kClosed;
    }
  }
  return End::kNone;
}

Step AskProxy(Wire& wire, const Socks5Address& proxy, const Place& target) {
  Step step("proxy");
  uint8_t method = kNoAuth;
  if (!Greet(wire, proxy, &method, &step)) return step;
  step.Add("authentication", method == kPassword ? "user and password" : "none wanted");
  if (method == kPassword && !Authenticate(wire, proxy, &step)) return step;
  RequestConnection(wire, target, &step);
  return step;
}

}  // namespace quenor::cli
