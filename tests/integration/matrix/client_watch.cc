#include "tests/integration/matrix/client_watch.h"

#include <memory>
#include <string>
#include <utility>

#include "tests/support/patience.h"

namespace quenor::test {

ClientWatch* ClientWatch::Get() {
  static ClientWatch* const watch = new ClientWatch;
  return watch;
}

void ClientWatch::Clear() {
  std::lock_guard<std::mutex> hold(mutex_);
  runs_.clear();
  started_ = ended_ = repeated_ = unrun_ = 0;
}

Ending ClientWatch::WaitFor(size_t count) {
  std::unique_lock<std::mutex> hold(mutex_);
  WaitPatiently(&changed_, &hold, std::to_string(count) + " exchanges",
                [&] { return ended_ >= count; });
  return last_;
}

size_t ClientWatch::started() const {
  std::lock_guard<std::mutex> hold(mutex_);
  return started_;
}

size_t ClientWatch::ended() const {
  std::lock_guard<std::mutex> hold(mutex_);
  return ended_;
}

size_t ClientWatch::repeated() const {
  std::lock_guard<std::mutex> hold(mutex_);
  return repeated_;
}

size_t ClientWatch::unrun() const {
  std::lock_guard<std::mutex> hold(mutex_);
  return unrun_;
}

void ClientWatch::OnStarted(int64_t) {
  std::lock_guard<std::mutex> hold(mutex_);
  ++started_;
}

void ClientWatch::OnEnded(int64_t id, Ending ending) {
  std::lock_guard<std::mutex> hold(mutex_);
  if (++runs_[id] > 1) ++repeated_;
  ++ended_;
  last_ = ending;
  changed_.notify_all();
}

void ClientWatch::OnUnrun() {
  std::lock_guard<std::mutex> hold(mutex_);
  ++unrun_;
}

namespace {

// Lives in the callback; tells when that is destroyed unrun although its exchange was started.
struct Token {
  ~Token() {
    if (!has_run && !was_refused) ClientWatch::Get()->OnUnrun();
  }
  bool has_run = false;
  bool was_refused = false;
};

class WatchedClient final : public HttpClient {
 public:
  explicit WatchedClient(std::unique_ptr<HttpClient> client) : client_(std::move(client)) {}

  int64_t SendRequest(const Request& request, CompletionCallback callback) override {
    // A refused callback is destroyed inside the call: this reference outlives it.
    const auto token = std::make_shared<Token>();
    const int64_t id = client_->SendRequest(
        request, [token, callback = std::move(callback)](
                     State state, const Request& sent, std::unique_ptr<Response> response) mutable {
          token->has_run = true;
          const Ending ending{state, response == nullptr ? 0 : response->status_code};
          const int64_t sent_id = sent.request_id;
          std::move(callback).Run(state, sent, std::move(response));
          ClientWatch::Get()->OnEnded(sent_id, ending);
        });
    if (id < 1) {
      token->was_refused = true;
    } else {
      ClientWatch::Get()->OnStarted(id);
    }
    return id;
  }

 private:
  const std::unique_ptr<HttpClient> client_;
};

}  // namespace

std::unique_ptr<HttpClient> RealCreate(const HttpClient::Config& config) __asm__(
    "__real_" QUENOR_FACTORY);
std::unique_ptr<HttpClient> WrappedCreate(const HttpClient::Config& config) __asm__(
    "__wrap_" QUENOR_FACTORY);
std::unique_ptr<HttpClient> WrappedCreate(const HttpClient::Config& config) {
  std::unique_ptr<HttpClient> client = RealCreate(config);
  if (client == nullptr) return nullptr;
  return std::make_unique<WatchedClient>(std::move(client));
}

}  // namespace quenor::test
