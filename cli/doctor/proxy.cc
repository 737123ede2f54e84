#include "cli/doctor/proxy.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <fcntl.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "cli/advice.h"
#include "cli/fatal.h"
#include "services/http_client_curl/easy_options.h"
#include "services/http_client_curl/failure_text.h"

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

bool BeginsWith(const std::string& text, const char* begin) { return text.rfind(begin, 0) == 0; }

void FailAuthentication(const HttpProxy& proxy, bool is_refused, Step* step) {
  const std::string option = BeginsWith(proxy.url, "socks") ? "--socks5" : "--proxy";
  if (proxy.user.empty()) {
    step->Fail("proxy_auth", "the proxy does not let anyone in without user and password",
               "give " + option + " user:password@host:port");
  } else if (is_refused) {
    step->Fail(
        "proxy_auth", "the proxy refused user \"" + proxy.user + "\" or the password",
        "correct user and password of " + option + "; special characters are percent-encoded");
  } else {
    step->Fail("proxy_auth", "the proxy takes neither user and password nor no authentication",
               "only user and password can be given; let the proxy accept these");
  }
}

void FailSocks5(const HttpProxy& proxy, const Place& target, long error, Step* step) {
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
                 "give --proxy http://HOST:PORT for an HTTP proxy; SOCKS4 cannot be used");
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
                 "check that this is a proxy of this kind and that it lets this machine in; its "
                 "log says more");
  }
}

// What an HTTP proxy has answered to CONNECT.
void FailConnect(const HttpProxy& proxy, const Place& target, long status, Step* step) {
  step->Add("status", std::to_string(status));
  if (status == 407 || status == 401) {
    return FailAuthentication(proxy, /*is_refused=*/true, step);
  }
  step->Fail(
      "proxy_status",
      "the proxy does not connect to " + target.Text() + ": it answered " + std::to_string(status),
      status >= 500 ? "check that the proxy machine can resolve the server's name and reach "
                      "it, and that the server runs"
                    : "let the proxy's rules allow CONNECT to this host and port, and check "
                      "that it is a proxy");
}

void FailProxy(const ClientSettings& settings, const Place& target, const HttpFailure& failure,
               Step* step) {
  const HttpProxy& proxy = settings.proxy;
  if (failure.code == CURLE_OPERATION_TIMEDOUT) {
    step->Fail("proxy_timeout", "the proxy did not answer in time",
               "check that this is a proxy of this kind and that it can reach the server; a slow "
               "one needs a larger --timeout");
  } else if (failure.connect_status != 0 && failure.connect_status / 100 != 2) {
    FailConnect(proxy, target, failure.connect_status, step);
  } else if (ReasonOf(failure) == HttpReason::kProxyUnreachable) {
    step->Fail("proxy_tls", std::string("no TLS with the proxy: ") + FailureCause(failure),
               "check that the proxy speaks TLS, and name its CA with --cacert");
  } else {
    FailSocks5(proxy, target, failure.proxy_error, step);
  }
  step->reason = ReasonOf(failure);
}

// Where libcurl believes the proxy, and each name, to be while it is only asked for the way.
constexpr char kProxyAt[] = "127.0.0.3";
constexpr char kNamesAt[] = "127.0.0.2";

curl_socket_t NoteAddress(void* noted, curlsocktype, curl_sockaddr* address) {
  auto* const endpoint = static_cast<Endpoint*>(noted);
  endpoint->size = std::min<socklen_t>(address->addrlen, sizeof(endpoint->address));
  std::memcpy(&endpoint->address, &address->addr, endpoint->size);
  return CURL_SOCKET_BAD;
}

bool IsAt(const char* address, const Endpoint& endpoint) {
  const auto* const four = reinterpret_cast<const sockaddr_in*>(&endpoint.address);
  return endpoint.address.ss_family == AF_INET && four->sin_addr.s_addr == ::inet_addr(address);
}

using Easy = std::unique_ptr<CURL, void (*)(CURL*)>;

// A connection and no more, TLS with the server included where `scheme` says so.
Easy MakeEasy(const ClientSettings& settings, const Place& target, const char* scheme) {
  Easy easy(curl_easy_init(), &curl_easy_cleanup);
  if (easy == nullptr) throw Fatal(kExitInternal, "libcurl has no memory");
  EasyOptions options(easy.get());
  SetExchangeOptions(settings, &options);
  SetProxyOptions(settings, &options);
  options.SetText(CURLOPT_URL, scheme + target.Text());
  options.Set(CURLOPT_CONNECT_ONLY, 1L);
  if (BeginsWith(settings.proxy.url, "https:")) SetTlsOptions(settings, &options);
  return easy;
}

// Through the proxy. `error` is libcurl's.
HttpFailure Connect(CURL* curl, const ClientSettings& settings, uint32_t timeout_ms,
                    char (&error)[CURL_ERROR_SIZE]) {
  error[0] = '\0';
  curl_easy_setopt(curl, CURLOPT_NOPROXY, "");
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(timeout_ms));
  curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, error);
  HttpFailure failure;
  failure.code = curl_easy_perform(curl);
  failure.error = error;
  failure.proxy = settings.proxy.url.c_str();
  if (failure.code == CURLE_OPERATION_TIMEDOUT) failure.limit = HttpLimit::kConnect;
  curl_easy_getinfo(curl, CURLINFO_OS_ERRNO, &failure.os_error);
  curl_easy_getinfo(curl, CURLINFO_PROXY_ERROR, &failure.proxy_error);
  curl_easy_getinfo(curl, CURLINFO_HTTP_CONNECTCODE, &failure.connect_status);
  curl_easy_getinfo(curl, CURLINFO_SSL_VERIFYRESULT, &failure.verify_result);
  return failure;
}

}  // namespace

std::shared_ptr<const ClientSettings> SettingsInForce(const Connection& connection, bool is_tls) {
  auto settings =
      ClientSettings::Make(ClientConfig(connection), HttpSets::Get().Defaults(), is_tls);
  if (settings == nullptr) throw Fatal(kExitInternal, "there is no memory");
  return settings;
}

Route RouteTo(const Place& target, const ClientSettings& settings) {
  const Easy easy = MakeEasy(settings, target, "http://");
  Endpoint found;
  curl_slist* names = nullptr;
  AppendText(target.Text() + ":" + kNamesAt, &names);
  EasyOptions options(easy.get());
  options.Set(CURLOPT_RESOLVE, names);
  if (!settings.proxy.url.empty()) {
    options.SetText(CURLOPT_PROXY, std::string("http://") + kProxyAt + ":9");
  }
  options.Set(CURLOPT_OPENSOCKETFUNCTION, &NoteAddress);
  options.Set(CURLOPT_OPENSOCKETDATA, static_cast<void*>(&found));
  curl_easy_perform(easy.get());
  curl_slist_free_all(names);
  Route route;
  route.is_proxied = !settings.proxy.url.empty() && (found.size == 0 || IsAt(kProxyAt, found));
  const bool is_pinned = settings.connect_to != nullptr && found.size != 0 && !route.is_proxied;
  if (is_pinned && !IsAt(kNamesAt, found)) route.pinned = found;
  return route;
}

Step AskProxy(const ClientSettings& settings, const Place& target, uint32_t timeout_ms,
              Socket* socket) {
  Step step("proxy");
  const Easy easy = MakeEasy(settings, target, "http://");  // TLS has a step of its own.
  char error[CURL_ERROR_SIZE];
  const HttpFailure failure = Connect(easy.get(), settings, timeout_ms, error);
  if (failure.code != CURLE_OK) {
    FailProxy(settings, target, failure, &step);
    return step;
  }
  if (BeginsWith(settings.proxy.url, "socks")) {
    step.Add("reply code", "0, succeeded");
  } else {
    step.Add("status", std::to_string(failure.connect_status));
  }
  step.summary = "the proxy has connected to " + target.Text();
  *socket = Socket();
  if (BeginsWith(settings.proxy.url, "https:")) return step;
  curl_socket_t fd = CURL_SOCKET_BAD;
  curl_easy_getinfo(easy.get(), CURLINFO_ACTIVESOCKET, &fd);
  *socket = Socket(::fcntl(fd, F_DUPFD_CLOEXEC, 0));
  if (socket->get() < 0) throw Fatal(kExitInternal, "no descriptor is left");
  return step;
}

Step CheckTlsInTls(const ClientSettings& settings, const Place& target, uint32_t timeout_ms) {
  Step step("tls",
            "the server is who it should be; seen by the HTTP client's libcurl, which shows "
            "no more inside the TLS with the proxy");
  const Easy easy = MakeEasy(settings, target, "https://");
  char error[CURL_ERROR_SIZE];
  const HttpFailure failure = Connect(easy.get(), settings, timeout_ms, error);
  if (failure.code == CURLE_OK) return step;
  const bool is_silence = failure.limit == HttpLimit::kConnect;
  step.Fail(is_silence ? "timeout" : "tls_failed",
            is_silence ? "no answer in time within the handshake" : FailureCause(failure),
            InOptions(FailureAdvice(failure)));
  step.reason = ReasonOf(failure);
  return step;
}

}  // namespace quenor::cli
