#include "cli/doctor/net.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>

#include "cli/fatal.h"
#include "cli/text.h"

namespace quenor::cli {
namespace {

double MsSince(base::MonotonicTime begin) {
  return std::chrono::duration<double, std::milli>(base::MonotonicNow() - begin).count();
}

bool IsLocalhost(std::string host) {
  for (char& c : host) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
  const std::string suffix = ".localhost";
  return host == "localhost" ||
         (host.size() > suffix.size() &&
          host.compare(host.size() - suffix.size(), suffix.size(), suffix) == 0);
}

std::vector<Endpoint> Loopback(uint16_t port) {
  Endpoint six;
  auto* const address6 = reinterpret_cast<sockaddr_in6*>(&six.address);
  address6->sin6_family = AF_INET6;
  address6->sin6_port = htons(port);
  address6->sin6_addr = in6addr_loopback;
  six.size = sizeof(*address6);
  Endpoint four;
  auto* const address4 = reinterpret_cast<sockaddr_in*>(&four.address);
  address4->sin_family = AF_INET;
  address4->sin_port = htons(port);
  address4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  four.size = sizeof(*address4);
  return {six, four};
}

// What a lookup found. Shared by the thread that waits and the one that looks up, which may be left
// behind.
struct Found {
  std::mutex mutex;
  std::condition_variable ready;
  // Guarded by `mutex`.
  bool done = false;
  int result = 0;
  std::vector<Endpoint> endpoints;
};

void FailLookUp(int result, const Place& place, Step* step) {
  const std::string name = "\"" + place.host + "\"";
  if (result == EAI_NONAME) {
    step->Fail("name_unknown", name + " has no address: " + ::gai_strerror(result),
               "check the spelling, and with `getent hosts` whether this machine's resolver knows "
               "the name");
  } else if (result == EAI_AGAIN) {
    step->Fail("resolver_failed",
               "the resolver has no answer: " + std::string(::gai_strerror(result)),
               "check that the name servers in /etc/resolv.conf can be reached and answer");
  } else {
    step->Fail("resolver_failed", "the resolver failed: " + std::string(::gai_strerror(result)),
               "check this machine's resolver: /etc/resolv.conf, /etc/nsswitch.conf, /etc/hosts");
  }
}

// One address that is being tried.
struct Attempt {
  const Endpoint* endpoint = nullptr;
  Socket socket;
  bool pending = false;
  int error = 0;
  double ms = 0;
};

Attempt Begin(const Endpoint& endpoint) {
  Attempt attempt;
  attempt.endpoint = &endpoint;
  attempt.socket =
      Socket(::socket(endpoint.address.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const auto* const raw = reinterpret_cast<const sockaddr*>(&endpoint.address);
  const bool done =
      attempt.socket.get() >= 0 && ::connect(attempt.socket.get(), raw, endpoint.size) == 0;
  if (done) return attempt;
  attempt.pending = errno == EINPROGRESS;
  attempt.error = errno;
  return attempt;
}

void Settle(Attempt* attempt, double ms) {
  socklen_t size = sizeof(attempt->error);
  if (::getsockopt(attempt->socket.get(), SOL_SOCKET, SO_ERROR, &attempt->error, &size) != 0) {
    attempt->error = errno;
  }
  attempt->pending = false;
  attempt->ms = ms;
}

void SettleAll(std::vector<Attempt>* attempts, const Deadline& deadline,
               base::MonotonicTime begin) {
  for (;;) {
    std::vector<pollfd> polled;
    std::vector<Attempt*> waiting;
    for (Attempt& attempt : *attempts) {
      if (!attempt.pending) continue;
      polled.push_back({attempt.socket.get(), POLLOUT, 0});
      waiting.push_back(&attempt);
    }
    if (polled.empty()) return;
    const int left_ms = deadline.LeftMs();
    const int ready = ::poll(polled.data(), polled.size(), left_ms);
    if (ready < 0 && errno == EINTR) continue;
    for (size_t i = 0; i < polled.size(); ++i) {
      if (ready > 0 && polled[i].revents != 0) {
        Settle(waiting[i], MsSince(begin));
      } else if (ready <= 0) {
        waiting[i]->pending = false;
        waiting[i]->error = ETIMEDOUT;
        waiting[i]->ms = MsSince(begin);
      }
    }
  }
}

// This machine simply has no such network; the client passes over it.
bool IsNoNetwork(int error) {
  return error == ENETUNREACH || error == EADDRNOTAVAIL || error == EAFNOSUPPORT;
}

std::string Outcome(const Attempt& attempt) {
  char ms[32];
  std::snprintf(ms, sizeof(ms), " after %.1f ms", attempt.ms);
  if (attempt.error == 0) return std::string("connected") + ms;
  if (attempt.error == ETIMEDOUT) return std::string("no answer") + ms;
  return ErrnoText(attempt.error) + ms;
}

// The error that says most of several. Where one address is silent, the client waits for it.
int Telling(const std::vector<Attempt>& attempts) {
  for (const int error : {ETIMEDOUT, ECONNRESET, ECONNREFUSED, EACCES, EPERM, EHOSTUNREACH}) {
    for (const Attempt& attempt : attempts) {
      if (attempt.error == error) return error;
    }
  }
  return attempts.empty() ? EADDRNOTAVAIL : attempts.front().error;
}

void FailConnect(int error, const std::string& what, Step* step) {
  const std::string summary = "cannot connect to " + what + ": " +
                              (error == ETIMEDOUT ? "no answer in time" : ErrnoText(error));
  if (error == ECONNREFUSED) {
    step->Fail("refused", summary,
               "check that " + what +
                   " runs and listens on this address and port, and that no "
                   "firewall rejects the connection");
  } else if (error == ETIMEDOUT) {
    step->Fail("timeout", summary,
               "look for a firewall that drops packets, a wrong address, or a machine that is down "
               "or overloaded; a slow network needs a larger --timeout");
  } else if (error == ECONNRESET) {
    step->Fail("closed", what + " accepted the connection and reset it at once",
               "look into its log, and for a firewall or load balancer before it that has nowhere "
               "to hand connections to");
  } else if (error == EACCES || error == EPERM) {
    step->Fail("forbidden", summary,
               "a firewall or sandbox of this machine forbids the connection; allow it there");
  } else {
    step->Fail("unreachable", summary,
               "check this machine's network and routes to the addresses above");
  }
}

}  // namespace

int Deadline::LeftMs() const {
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(end_ - base::MonotonicNow()).count();
  return static_cast<int>(std::max<int64_t>(left, 0));
}

Socket::~Socket() {
  if (fd_ >= 0) ::close(fd_);
}

bool Await(int fd, short events, const Deadline& deadline) {
  for (;;) {
    pollfd polled = {fd, events, 0};
    const int ready = ::poll(&polled, 1, deadline.LeftMs());
    if (ready >= 0 || errno != EINTR) return ready != 0;
  }
}

std::string Endpoint::Text() const {
  char host[NI_MAXHOST];
  char port[NI_MAXSERV];
  if (::getnameinfo(reinterpret_cast<const sockaddr*>(&address), size, host, sizeof(host), port,
                    sizeof(port), NI_NUMERICHOST | NI_NUMERICSERV) != 0) {
    return "an address of no known kind";
  }
  return (address.ss_family == AF_INET6 ? "[" + std::string(host) + "]" : host) + ":" + port;
}

std::string Place::Text() const {
  const bool bare_ipv6 = host.find(':') != std::string::npos;
  return (bare_ipv6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

int SystemLookUp(const Place& place, std::vector<Endpoint>* endpoints) {
  if (IsLocalhost(place.host)) {
    *endpoints = Loopback(place.port);
    return 0;
  }
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int result =
      ::getaddrinfo(place.host.c_str(), std::to_string(place.port).c_str(), &hints, &found);
  if (result != 0) return result;
  for (const addrinfo* at = found; at != nullptr; at = at->ai_next) {
    Endpoint endpoint;
    std::memcpy(&endpoint.address, at->ai_addr, at->ai_addrlen);
    endpoint.size = at->ai_addrlen;
    endpoints->push_back(endpoint);
  }
  ::freeaddrinfo(found);
  return 0;
}

Step Resolve(const std::string& name, const Place& place, uint32_t timeout_ms,
             const LookUp& look_up, std::vector<Endpoint>* endpoints) {
  Step step(name);
  const auto found = std::make_shared<Found>();
  try {
    std::thread([found, place, look_up] {
      std::vector<Endpoint> result;
      const int code = look_up(place, &result);
      std::lock_guard<std::mutex> hold(found->mutex);
      found->done = true;
      found->result = code;
      found->endpoints = std::move(result);
      found->ready.notify_all();
    }).detach();
  } catch (const std::system_error& error) {
    throw Fatal(kExitInternal, std::string("cannot start a thread: ") + error.what() +
                                   "; raise the limit on processes");
  }
  std::unique_lock<std::mutex> hold(found->mutex);
  const auto limit = std::chrono::milliseconds(timeout_ms);
  if (!found->ready.wait_for(hold, limit, [&] { return found->done; })) {
    step.Fail(
        "resolver_timeout", "no answer from the resolver for \"" + place.host + "\" in time",
        "check that the name servers in /etc/resolv.conf can be reached (UDP and TCP port 53)");
    return step;
  }
  if (found->result != 0) {
    FailLookUp(found->result, place, &step);
    return step;
  }
  *endpoints = found->endpoints;
  for (const Endpoint& endpoint : *endpoints) step.Add("address", endpoint.Text());
  step.summary = "\"" + place.host + "\" has " + std::to_string(endpoints->size()) +
                 (endpoints->size() == 1 ? " address" : " addresses");
  return step;
}

Step Connect(const std::string& name, const std::string& what,
             const std::vector<Endpoint>& endpoints, uint32_t timeout_ms, Socket* socket) {
  Step step(name);
  const base::MonotonicTime begin = base::MonotonicNow();
  const Deadline deadline(timeout_ms);
  std::vector<Attempt> attempts;
  for (const Endpoint& endpoint : endpoints) attempts.push_back(Begin(endpoint));
  SettleAll(&attempts, deadline, begin);
  for (Attempt& attempt : attempts) {
    step.Add(attempt.endpoint->Text(), Outcome(attempt));
    if (attempt.error != 0 || socket->get() >= 0) continue;
    *socket = std::move(attempt.socket);
    step.summary = "connected to " + what + " at " + attempt.endpoint->Text();
  }
  if (socket->get() < 0) {
    FailConnect(Telling(attempts), what, &step);
    return step;
  }
  for (const Attempt& attempt : attempts) {
    if (attempt.error == 0 || IsNoNetwork(attempt.error)) continue;
    step.Warn("some_addresses", "the client loses time on the addresses that fail: let " + what +
                                    " listen there too, or take them out of the name's records");
  }
  return step;
}

}  // namespace quenor::cli
