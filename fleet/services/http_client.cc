#include "fleet/services/http_client.h"

#include <algorithm>
#include <memory>
#include <utility>

#include "fleet/engine/clock.h"
#include "quenor_base/platform/http_client.h"

QUENOR_NAMESPACE_BEGIN
namespace {

fleet::Server* g_server = nullptr;

class Client;

// One request, from the client to the server and back. Destroys itself with its callback's run.
class Exchange final : public fleet::Event {
 public:
  Exchange(Client* client, const HttpClient::Request& request,
           HttpClient::CompletionCallback callback);

  void OnDue() override;
  void OnNever() override;
  // The client goes: the callback comes next, as a failure.
  void Cancel();

 private:
  friend class Client;
  void Arrive();
  void Finish();
  // What is to be told, `after_us` from now.
  void End(HttpClient::State state, int64_t after_us);

  Client* client_;  // Null once it has gone.
  Exchange* next_ = nullptr;
  Exchange* previous_ = nullptr;
  HttpClient::Request request_;
  HttpClient::CompletionCallback callback_;
  const int64_t begun_us_;
  int64_t latency_us_ = 0;
  HttpClient::State state_ = HttpClient::State::kFailed;
  std::unique_ptr<HttpClient::Response> response_;
  bool has_arrived_ = false;
  bool has_connected_;
};

class Client : public HttpClient {
 public:
  ~Client() override {
    while (first_ != nullptr) {
      Exchange* const exchange = first_;
      Remove(exchange);
      exchange->Cancel();
    }
  }

  int64_t SendRequest(const Request& request, CompletionCallback callback) override {
    auto* const exchange = new Exchange(this, request, std::move(callback));
    exchange->next_ = first_;
    if (first_ != nullptr) first_->previous_ = exchange;
    first_ = exchange;
    return exchange->request_.request_id;
  }

  void Remove(Exchange* exchange) {
    (exchange->previous_ != nullptr ? exchange->previous_->next_ : first_) = exchange->next_;
    if (exchange->next_ != nullptr) exchange->next_->previous_ = exchange->previous_;
    exchange->client_ = nullptr;
  }

  bool is_connected() const { return is_connected_; }
  void set_connected(bool connected) { is_connected_ = connected; }

 private:
  Exchange* first_ = nullptr;
  bool is_connected_ = false;
};

Exchange::Exchange(Client* client, const HttpClient::Request& request,
                   HttpClient::CompletionCallback callback)
    : client_(client),
      request_(request),
      callback_(std::move(callback)),
      begun_us_(fleet::Clock::Current().now_us()),
      latency_us_(g_server->DrawLatencyUs()),
      has_connected_(client->is_connected()) {
  request_.request_id = HttpClient::NextRequestId();
  const int round_trips = has_connected_ ? 0 : g_server->ConnectRoundTrips();
  fleet::Clock::Current().Post(this, latency_us_ / 2 + latency_us_ * round_trips);
}

void Exchange::OnDue() {
  if (has_arrived_) {
    Finish();
  } else {
    Arrive();
  }
}

void Exchange::OnNever() { delete this; }

void Exchange::Cancel() {
  fleet::Clock::Current().Cancel(this);
  response_.reset();
  has_arrived_ = true;
  End(HttpClient::State::kCancelled, 0);
}

void Exchange::End(HttpClient::State state, int64_t after_us) {
  state_ = state;
  fleet::Clock::Current().Post(this, after_us);
}

void Exchange::Arrive() {
  has_arrived_ = true;
  const fleet::ClientSettings& limits = g_server->client();
  const int64_t passed_us = fleet::Clock::Current().now_us() - begun_us_;
  const int64_t left_us = std::max<int64_t>(limits.timeout_us - passed_us, 0);
  fleet::Answer answer = g_server->Arrive(request_.body, !has_connected_);
  const int64_t back_us = answer.after_us + latency_us_ - latency_us_ / 2;
  switch (answer.kind) {
    case fleet::Answer::Kind::kUnreachable:
      client_->set_connected(false);
      return End(HttpClient::State::kFailed, std::min(back_us, left_us));
    case fleet::Answer::Kind::kVanished: {
      const int64_t limit_us =
          has_connected_ ? left_us : std::max<int64_t>(limits.connect_timeout_us - passed_us, 0);
      client_->set_connected(false);
      return End(HttpClient::State::kTimedOut, std::min(limit_us, left_us));
    }
    case fleet::Answer::Kind::kAnswered:
      break;
  }
  if (back_us > left_us) return End(HttpClient::State::kTimedOut, left_us);
  client_->set_connected(true);
  response_ = std::make_unique<HttpClient::Response>();
  response_->status_code = answer.status;
  response_->body = std::move(answer.body);
  End(HttpClient::State::kCompleted, back_us);
}

void Exchange::Finish() {
  const std::unique_ptr<Exchange> self(this);
  if (client_ != nullptr) client_->Remove(this);
  request_.reason = HttpClient::ReasonOf(state_, response_.get());
  std::move(callback_).Run(state_, request_, std::move(response_));
}

}  // namespace

std::unique_ptr<HttpClient> HttpClientFactory::Create(const HttpClient::Config&) {
  return g_server != nullptr ? std::make_unique<Client>() : nullptr;
}

const char* HttpClientFactory::ImplementationName() { return "model"; }

QUENOR_NAMESPACE_END

namespace quenor::fleet {

void SetServer(Server* server) { g_server = server; }

}  // namespace quenor::fleet
