#include "my_http.h"

#include <quenor_base/platform/thread_manager.h>

#include <algorithm>
#include <mutex>
#include <regex>
#include <utility>
#include <vector>

namespace {

using quenor::HttpClient;

// On which all of this happens, in the order posted; for the length of the process.
quenor::DispatchQueue& MyThread() {
  using quenor::core::ThreadManager;
  static auto* const queue = new std::shared_ptr(ThreadManager::CreateNewDispatchQueue(
      quenor::core::BusinessID::kReliableReport, "my_http", quenor::base::nullopt));
  return **queue;
}

std::function<MyAnswer(const HttpClient::Request&)> my_server;  // Its own, as are exchanges.

// Held while the client tells a success, so that its destructor waits for that; by one thread more
// than once, because the callback may be who destroys the client.
struct Telling {
  std::recursive_mutex mutex;
  bool is_over = false;  // Guarded by `mutex`. The client is destroyed.
};

// A request from SendRequest() to its callback, which runs once, whoever ends it.
struct Exchange {
  std::shared_ptr<Telling> telling;
  HttpClient::Request request;
  HttpClient::CompletionCallback callback;
  bool ended = false;

  void Ask() {
    const MyAnswer answer = my_server ? my_server(request) : MyAnswer();
    if (!answer.comes) return;
    if (answer.status == 0) return End(HttpClient::State::kFailed, nullptr);
    auto response = std::make_unique<HttpClient::Response>();
    response->status_code = answer.status;
    response->headers = answer.headers;
    response->body = quenor::CopyOnWriteBuffer(answer.body.data(), answer.body.size());
    const std::lock_guard<std::recursive_mutex> hold(telling->mutex);
    // Else its cancellation is on its way.
    if (!telling->is_over) End(HttpClient::State::kCompleted, std::move(response));
  }
  void End(HttpClient::State state, std::unique_ptr<HttpClient::Response> response) {
    if (std::exchange(ended, true)) return;
    HttpClient::CompletionCallback last = std::move(callback);
    if (last) std::move(last).Run(state, request, std::move(response));
  }
};

bool IsUsable(const HttpClient::Request& request) {
  static const std::regex url("https?://(\\[[0-9a-f:]+\\]|[^\\s/:\\[\\]]+)(:\\d+)?(/[!-~]*)?");
  static const std::regex token("[-!#$%&'*+.^_`|~0-9A-Za-z]+");
  static const std::regex own("content-length|transfer-encoding", std::regex::icase);
  if (!std::regex_match(request.url, url) || !std::regex_match(request.method, token)) return false;
  if (request.method == "HEAD" && request.body.size() > 0) return false;
  for (const auto& [name, value] : request.headers) {
    if (!std::regex_match(name, token) || std::regex_match(name, own)) return false;
    const auto is_forbidden = [](unsigned char c) { return (c < 32 && c != '\t') || c == 127; };
    if (std::any_of(value.begin(), value.end(), is_forbidden)) return false;
  }
  return true;
}

class MyHttpClient : public HttpClient {
 public:
  ~MyHttpClient() override {
    {
      const std::lock_guard<std::recursive_mutex> hold(telling_->mutex);
      telling_->is_over = true;
    }
    for (const auto& exchange : exchanges_) {
      MyThread().PostTask({}, [exchange] { exchange->End(State::kCancelled, nullptr); });
    }
  }
  int64_t SendRequest(const Request& request, CompletionCallback callback) override {
    if (!IsUsable(request)) return 0;
    auto exchange = std::make_shared<Exchange>();
    exchange->telling = telling_;
    exchange->request = request;
    const int64_t id = exchange->request.request_id = NextRequestId();
    exchange->callback = std::move(callback);
    std::lock_guard<std::mutex> hold(mutex_);
    exchanges_.push_back(exchange);
    MyThread().PostTask({}, [exchange] { exchange->Ask(); });
    return id;
  }

 private:
  const std::shared_ptr<Telling> telling_ = std::make_shared<Telling>();
  std::mutex mutex_;
  std::vector<std::shared_ptr<Exchange>> exchanges_;  // Guarded by `mutex_`. All that ever were.
};

}  // namespace

void SetMyServer(std::function<MyAnswer(const HttpClient::Request&)> server) {
  MyThread().PostTask({}, [server] { my_server = server; });
}

QUENOR_NAMESPACE_BEGIN

std::unique_ptr<HttpClient> HttpClientFactory::Create(const HttpClient::Config&) {
  return std::make_unique<MyHttpClient>();
}

const char* HttpClientFactory::ImplementationName() { return "my own"; }

QUENOR_NAMESPACE_END
