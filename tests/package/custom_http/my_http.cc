// Answers every request with 200 from a thread of its own; no network.
#include <quenor_base/platform/http_client.h>

#include <thread>

#include "quenor_base/platform/base/abi.h"

QUENOR_NAMESPACE_BEGIN

namespace {

class MyHttpClient : public HttpClient {
 public:
  int64_t SendRequest(const Request& request, CompletionCallback callback) override {
    Request answered = request;
    answered.request_id = NextRequestId();
    std::thread([answered, done = std::move(callback)]() mutable {
      auto response = std::make_unique<Response>();
      response->status_code = 200;
      std::move(done).Run(State::kCompleted, answered, std::move(response));
    }).detach();
    return answered.request_id;
  }
};

}  // namespace

std::unique_ptr<HttpClient> HttpClientFactory::Create(const HttpClient::Config&) {
  return std::make_unique<MyHttpClient>();
}

const char* HttpClientFactory::ImplementationName() { return "my own"; }

QUENOR_NAMESPACE_END
