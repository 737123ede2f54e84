#include "cli/doctor/socks5.h"

#include <curl/curl.h>
#include <fcntl.h>

#include <memory>
#include <string>

#include "cli/fatal.h"

namespace quenor::cli {
namespace {

constexpr char kLogSaysWhy[] = "the proxy's log says why";

struct Reply {
  long error;  // libcurl's word for it ...
  int code;    // ... and the proxy's.
  const char* cause;
  const char* words;
  const char* advice;
};
constexpr Reply kReplies[] = {
    {CURLPX_REPLY_GENERAL_SERVER_FAILURE, 1, "proxy_failure", "general failure", kLogSaysWhy},
    {CURLPX_REPLY_NOT_ALLOWED, 2, "proxy_ruleset", "its rules do not allow it",
     "let the proxy's rules allow this host and port, for this user"},
    {CURLPX_REPLY_NETWORK_UNREACHABLE, 3, "proxy_network", "network unreachable",
     "check the proxy machine's network"},
    {CURLPX_REPLY_HOST_UNREACHABLE, 4, "proxy_host", "host unreachable",
     "check that the proxy machine can resolve the server's name and reach it"},
    {CURLPX_REPLY_CONNECTION_REFUSED, 5, "proxy_refused", "connection refused",
     "check that the server runs, and listens on this port for the proxy's machine"},
    {CURLPX_REPLY_TTL_EXPIRED, 6, "proxy_ttl", "TTL expired",
     "check the proxy machine's network and routes"},
    {CURLPX_REPLY_COMMAND_NOT_SUPPORTED, 7, "proxy_command", "it does not know how to connect",
     "use a proxy that supports the CONNECT command of SOCKS5"},
    {CURLPX_REPLY_ADDRESS_TYPE_NOT_SUPPORTED, 8, "proxy_address",
     "it does not take this kind of address",
     "use a proxy that resolves names (and takes IPv6 addresses, if the URL has one)"},
    {CURLPX_REPLY_UNASSIGNED, 9, "proxy_failure", "a code that SOCKS5 does not know", kLogSaysWhy},
};

void FailAuthentication(const Socks5Address& proxy, bool is_refused, Step* step) {
  if (proxy.user.empty()) {
    step->Fail("proxy_auth", "the proxy does not let anyone in without user and password",
               "give --socks5 user:password@host:port");
  } else if (is_refused) {
    step->Fail("proxy_auth", "the proxy refused user \"" + proxy.user + "\" or the password",
               "correct user and password of --socks5; special characters are percent-encoded");
  } else {
    step->Fail("proxy_auth", "the proxy takes neither user and password nor no authentication",
               "only user and password can be given; let the proxy accept these");
  }
}

void FailProxy(const Socks5Address& proxy, const Place& target, long error, Step* step) {
  for (const Reply& reply : kReplies) {
    if (reply.error != error) continue;
    step->Add("reply code", reply.code < 9 ? std::to_string(reply.code) : "9 or above");
    step->Fail(reply.cause, "the proxy cannot connect to " + target.Text() + ": " + reply.words,
               reply.advice);
    return;
  }
  switch (error) {
    case CURLPX_BAD_VERSION:
      step->Fail("proxy_not_socks5", "what answers is no SOCKS5 proxy",
                 "give --socks5 the address of a SOCKS5 proxy; an HTTP or SOCKS4 proxy cannot be "
                 "used");
      return;
    case CURLPX_USER_REJECTED:
      return FailAuthentication(proxy, /*is_refused=*/true, step);
    case CURLPX_NO_AUTH:
    case CURLPX_GSSAPI:
    case CURLPX_GSSAPI_PERMSG:
    case CURLPX_UNKNOWN_MODE:
      return FailAuthentication(proxy, /*is_refused=*/false, step);
    default:
      step->Fail("proxy_closed", "the proxy closed the connection before it had connected",
                 "check that this is a SOCKS5 proxy and that it lets this machine in; its log says "
                 "more");
  }
}

// As libcurl wants it: it decodes what looks percent-encoded.
std::string Encoded(const std::string& text) {
  std::string encoded;
  for (const char c : text) encoded += c == '%' ? std::string("%25") : std::string(1, c);
  return encoded;
}

}  // namespace

Step AskProxy(const Socks5Address& proxy, const Place& target, uint32_t timeout_ms,
              Socket* socket) {
  Step step("proxy");
  const std::unique_ptr<CURL, void (*)(CURL*)> easy(curl_easy_init(), &curl_easy_cleanup);
  if (easy == nullptr) throw Fatal(kExitInternal, "libcurl has no memory");
  CURL* const curl = easy.get();
  // Without TLS, whose own step follows: it goes no further than the proxy's answer.
  curl_easy_setopt(curl, CURLOPT_URL, ("http://" + target.Text()).c_str());
  curl_easy_setopt(curl, CURLOPT_CONNECT_ONLY, 1L);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(timeout_ms));
  curl_easy_setopt(curl, CURLOPT_PROXY,
                   ("socks5h://" + Place{proxy.host, proxy.port}.Text()).c_str());
  curl_easy_setopt(curl, CURLOPT_NOPROXY, "");
  curl_easy_setopt(curl, CURLOPT_SOCKS5_AUTH, static_cast<long>(CURLAUTH_BASIC));
  if (!proxy.user.empty()) {
    curl_easy_setopt(curl, CURLOPT_PROXYUSERNAME, Encoded(proxy.user).c_str());
    curl_easy_setopt(curl, CURLOPT_PROXYPASSWORD, Encoded(proxy.password).c_str());
  }
  const CURLcode code = curl_easy_perform(curl);
  if (code == CURLE_OK) {
    curl_socket_t fd = CURL_SOCKET_BAD;
    curl_easy_getinfo(curl, CURLINFO_ACTIVESOCKET, &fd);
    *socket = Socket(::fcntl(fd, F_DUPFD_CLOEXEC, 0));
    if (socket->get() < 0) throw Fatal(kExitInternal, "no descriptor is left");
    step.Add("reply code", "0, succeeded");
    step.summary = "the proxy has connected to " + target.Text();
  } else if (code == CURLE_OPERATION_TIMEDOUT) {
    step.Fail("proxy_timeout", "the proxy did not answer in time",
              "check that this is a SOCKS5 proxy and that it can reach the server; a slow one "
              "needs a larger --timeout");
  } else {
    long error = CURLPX_OK;
    curl_easy_getinfo(curl, CURLINFO_PROXY_ERROR, &error);
    FailProxy(proxy, target, error, &step);
  }
  return step;
}

}  // namespace quenor::cli
