// The asynchronous HTTP client: a POST goes out once, follows no redirect, ends in one callback.
// Threads: any; callbacks come on the client's own thread and must not block.
// Life cycle: a client may be destroyed on any thread, inside one of its own callbacks too; that
// ends its requests, and each one's callback still runs once, as a failure. It waits for one thing:
// a callback that is telling a success on another thread, so hold no lock that this one takes. Once
// the process's exit handlers run, no further callback starts; a forked child runs none of its
// parent's. See docs/design/http-client.md.
#ifndef QUENOR_BASE_PLATFORM_HTTP_CLIENT_H_
#define QUENOR_BASE_PLATFORM_HTTP_CLIENT_H_

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "quenor_base/buffer/copy_on_write_buffer.h"
#include "quenor_base/platform/base/callback.h"
#include "quenor_base/platform/http_reason.h"
#include "quenor_base/platform/http_settings.h"

QUENOR_NAMESPACE_BEGIN

class HttpClient {
 public:
  // How an exchange ended. Only kCompleted comes with a response; its status may be any.
  enum class State : int32_t {
    kFailed = 0,     // Could not resolve, connect, prove or transfer.
    kCancelled = 1,  // The client was destroyed first.
    kCompleted = 2,  // A whole HTTP response arrived (one without a length: up to the close).
    kTimedOut = 3,   // A time limit passed.
    kTooLarge = 4,   // The response went past a size limit.
  };

  // Plain settings of one client, read once by HttpClientFactory::Create().
  class Config {
   public:
    Config() = default;

    // Offers HTTP/2 on TLS connections; a server that speaks only HTTP/1.1 is spoken to in that.
    bool enable_http2 = false;

    // Routes every connection of the client through this SOCKS5 proxy, which also resolves the
    // host names. Never bypassed: while the proxy is down, requests fail. An empty user means no
    // authentication. An IPv6 literal may stand in brackets or not.
    void SetSocks5Proxy(const std::string& host, unsigned short port, const std::string& user,
                        const std::string& password) {
      use_socks5 = true;
      socks5_host = host;
      socks5_port = port;
      socks5_user = user;
      socks5_password = password;
    }

    bool use_socks5 = false;
    std::string socks5_host;
    unsigned short socks5_port = 0;
    std::string socks5_user;
    std::string socks5_password;
  };

  struct Request {
    int64_t request_id = 0;  // Set by the client in the request that a callback receives.
    std::string url;         // https:// or http://, nothing else.
    std::string method;      // "POST", "GET", ...; sent as it is.
    CopyOnWriteBuffer body;
    std::map<std::string, std::string> headers;  // Beside, or instead of, the client's own.
    uint32_t timeout_ms = 0;                     // Whole exchange; 0 takes what the settings say.
    HttpReason reason = HttpReason::kNone;       // Set by the client, as `request_id` is.
  };

  struct Response {
    int status_code = 0;
    // Names in lower case; of a repeated name the values joined by ", ". Trailers included.
    std::map<std::string, std::string> headers;
    CopyOnWriteBuffer body;  // As received: no content coding is undone.
  };

  // State, the request with its id set, and the response: never null with kCompleted, null with
  // every other state. (A receiver treats a null response as a failure whatever the state.)
  using CompletionCallback =
      base::OnceCallback<void(State, const Request&, std::unique_ptr<Response>)>;

  virtual ~HttpClient() = default;
  HttpClient(const HttpClient&) = delete;
  HttpClient& operator=(const HttpClient&) = delete;

  // Any thread; never blocks on the network. Starts the exchange and answers its id, 1 or greater
  // and never used twice in the process. Below 1 when it could not be started (a URL that is
  // neither https nor http or cannot be parsed, a method or header that HTTP forbids, a length or
  // transfer coding among the headers, HEAD with a body, no memory, no thread): the callback is
  // then destroyed unrun, inside the call. Otherwise the callback runs exactly once, never inside
  // the call; it may be null. Borrows `request` until it returns; takes the callback.
  virtual int64_t SendRequest(const Request& request, CompletionCallback callback) = 0;

  // For implementations: the next id of the process.
  static int64_t NextRequestId() {
    // relaxed: only uniqueness matters.
    return next_request_id_.fetch_add(1, std::memory_order_relaxed);
  }

  // For implementations: as much of the reason as `state` alone tells. `response` may be null.
  static HttpReason ReasonOf(State state, const Response* response) {
    switch (state) {
      case State::kCompleted:
        if (response == nullptr) return HttpReason::kOther;
        return response->status_code == 200 ? HttpReason::kNone : HttpReason::kHttpStatus;
      case State::kCancelled:
        return HttpReason::kCancelled;
      case State::kTimedOut:
        return HttpReason::kTotalTimeout;
      case State::kTooLarge:
        return HttpReason::kTooLarge;
      default:
        return HttpReason::kOther;
    }
  }

 protected:
  HttpClient() = default;

 private:
  inline static std::atomic<int64_t> next_request_id_{1};
};

class HttpClientFactory {
 public:
  // Any thread. A new client, or null when none can be made: a proxy without host or port, or with
  // one that cannot be meant, or a user or password that SOCKS5 cannot carry. Cheap: the network
  // library starts with the first request.
  static std::unique_ptr<HttpClient> Create(const HttpClient::Config& config);

  // Any thread. Names the implementation that is linked, with the versions beneath it.
  static const char* ImplementationName();

  // Any thread, before the first client: from now on the default implementation's Create() answers
  // what `maker` does, so that a host can bring its network stack at run time. Null: clients of its
  // own again. Another implementation has no need to ask.
  using Maker = std::unique_ptr<HttpClient> (*)(const HttpClient::Config&);
  // release and acquire: whoever finds one finds whole what it uses.
  static void SetMaker(Maker maker) { maker_.store(maker, std::memory_order_release); }
  static Maker GetMaker() { return maker_.load(std::memory_order_acquire); }

 private:
  inline static std::atomic<Maker> maker_{nullptr};
};

QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_PLATFORM_HTTP_CLIENT_H_
