#include "tests/support/fakes/fake_http_client.h"

#include <deque>
#include <mutex>
#include <utility>

#include "quenor_base/platform/base/check.h"
#include "tests/support/mutex_held_at_fork.h"

namespace quenor::test {

namespace {

struct OpenRequest {
  size_t client;
  HttpClient::Request request;  // With the id set.
  HttpClient::CompletionCallback callback;
};

MutexHeldAtFork g_current_mutex;
std::shared_ptr<FakeHttp::Core>* g_current = nullptr;

MutexHeldAtFork g_defaults_mutex;

HttpDefaults& Defaults() {
  static auto* defaults = new HttpDefaults;
  return *defaults;
}

}  // namespace

struct FakeHttp::Core {
  explicit Core(Poster poster_in) : poster(std::move(poster_in)) {}

  const Poster poster;
  mutable MutexHeldAtFork mutex;
  std::vector<HttpClient::Config> configs;
  std::vector<Sent> sent;
  std::map<size_t, OpenRequest> outstanding;
  std::deque<int64_t> next_ids;
  std::function<bool(const HttpClient::Request&)> hold_back;
  std::function<void(const HttpClient::Request&)> on_send;
  std::function<void()> on_started;
  std::function<void()> on_client_destroyed;
  size_t creation_failures = 0;
  size_t live_clients = 0;
  int64_t refusal_id = 1;  // Below 1: every request is refused with it.
  bool closed = false;

  int64_t Send(size_t client, const HttpClient::Request& request,
               HttpClient::CompletionCallback callback) {
    std::function<bool(const HttpClient::Request&)> judge;
    std::function<void(const HttpClient::Request&)> watcher;
    {
      std::lock_guard<std::mutex> hold(mutex);
      judge = hold_back;
      watcher = on_send;
    }
    if (judge && judge(request)) return 0;
    if (watcher) watcher(request);
    std::unique_lock<std::mutex> hold(mutex);
    const int64_t id = NextId();
    const char* bytes = request.body.cdata<char>();
    sent.push_back({id, client, request,
                    bytes == nullptr ? std::string() : std::string(bytes, request.body.size())});
    if (id < 1 || closed) {
      hold.unlock();  // The callback is destroyed unrun, outside the lock.
      return id < 1 ? id : 0;
    }
    OpenRequest entry{client, request, std::move(callback)};
    entry.request.request_id = id;
    outstanding.emplace(sent.size() - 1, std::move(entry));
    const std::function<void()> started = on_started;
    hold.unlock();
    if (started) started();
    return id;
  }

  int64_t NextId() {
    if (refusal_id < 1) return refusal_id;
    if (next_ids.empty()) return HttpClient::NextRequestId();
    const int64_t id = next_ids.front();
    next_ids.pop_front();
    return id;
  }

  bool Finish(size_t index, HttpClient::State state,
              std::unique_ptr<HttpClient::Response> response) {
    OpenRequest entry;
    {
      std::lock_guard<std::mutex> hold(mutex);
      const auto found = outstanding.find(index);
      if (found == outstanding.end()) return false;
      entry = std::move(found->second);
      outstanding.erase(found);
    }
    PostAnswer(std::move(entry), state, std::move(response));
    return true;
  }

  void PostAnswer(OpenRequest entry, HttpClient::State state,
                  std::unique_ptr<HttpClient::Response> response) {
    entry.request.reason = HttpClient::ReasonOf(state, response.get());
    poster([entry = std::move(entry), state, response = std::move(response)]() mutable {
      std::move(entry.callback).Run(state, entry.request, std::move(response));
    });
  }

  void EndClient(size_t client) {
    std::function<void()> watcher;
    {
      std::lock_guard<std::mutex> hold(mutex);
      watcher = on_client_destroyed;
    }
    if (watcher) watcher();
    std::vector<OpenRequest> ended;
    {
      std::lock_guard<std::mutex> hold(mutex);
      --live_clients;
      for (auto it = outstanding.begin(); it != outstanding.end();) {
        if (it->second.client != client) {
          ++it;
          continue;
        }
        ended.push_back(std::move(it->second));
        it = outstanding.erase(it);
      }
    }
    for (OpenRequest& entry : ended) {
      PostAnswer(std::move(entry), HttpClient::State::kCancelled, nullptr);
    }
  }
};

namespace {

class FakeHttpClient : public HttpClient {
 public:
  FakeHttpClient(std::shared_ptr<FakeHttp::Core> core, size_t index)
      : core_(std::move(core)), index_(index) {}
  ~FakeHttpClient() override { core_->EndClient(index_); }

  int64_t SendRequest(const Request& request, CompletionCallback callback) override {
    return core_->Send(index_, request, std::move(callback));
  }

 private:
  const std::shared_ptr<FakeHttp::Core> core_;
  const size_t index_;
};

std::shared_ptr<FakeHttp::Core> CurrentCore() {
  std::lock_guard<std::mutex> hold(g_current_mutex);
  return g_current == nullptr ? nullptr : *g_current;
}

}  // namespace

FakeHttp::FakeHttp(Poster poster) : core_(std::make_shared<Core>(std::move(poster))) {
  std::lock_guard<std::mutex> hold(g_current_mutex);
  QUENOR_CHECK(g_current == nullptr, "two FakeHttp objects at once");
  g_current = new std::shared_ptr<Core>(core_);
}

FakeHttp::~FakeHttp() {
  {
    std::lock_guard<std::mutex> hold(g_current_mutex);
    delete g_current;
    g_current = nullptr;
  }
  std::map<size_t, OpenRequest> unrun;  // Destroyed outside the lock: it may end a client.
  std::lock_guard<std::mutex> hold(core_->mutex);
  core_->closed = true;
  unrun.swap(core_->outstanding);
}

std::vector<HttpClient::Config> FakeHttp::Configs() const {
  std::lock_guard<std::mutex> hold(core_->mutex);
  return core_->configs;
}

std::vector<FakeHttp::Sent> FakeHttp::Requests() const {
  std::lock_guard<std::mutex> hold(core_->mutex);
  return core_->sent;
}

size_t FakeHttp::RequestCount() const {
  std::lock_guard<std::mutex> hold(core_->mutex);
  return core_->sent.size();
}

std::vector<size_t> FakeHttp::Outstanding() const {
  std::lock_guard<std::mutex> hold(core_->mutex);
  std::vector<size_t> indexes;
  for (const auto& entry : core_->outstanding) indexes.push_back(entry.first);
  return indexes;
}

size_t FakeHttp::LiveClients() const {
  std::lock_guard<std::mutex> hold(core_->mutex);
  return core_->live_clients;
}

void FakeHttp::FailNextCreations(size_t count) {
  std::lock_guard<std::mutex> hold(core_->mutex);
  core_->creation_failures = count;
}

void FakeHttp::ReturnNextIds(std::vector<int64_t> ids) {
  std::lock_guard<std::mutex> hold(core_->mutex);
  core_->next_ids.assign(ids.begin(), ids.end());
}

void FakeHttp::RefuseAll(int64_t id) {
  QUENOR_CHECK(id < 1, "a refused request has an id below 1");
  std::lock_guard<std::mutex> hold(core_->mutex);
  core_->refusal_id = id;
}

void FakeHttp::Accept() {
  std::lock_guard<std::mutex> hold(core_->mutex);
  core_->refusal_id = 1;
}

void FakeHttp::SetHoldBack(std::function<bool(const HttpClient::Request&)> hold_back) {
  std::lock_guard<std::mutex> hold(core_->mutex);
  core_->hold_back = std::move(hold_back);
}

void FakeHttp::SetOnSend(std::function<void(const HttpClient::Request&)> on_send) {
  std::lock_guard<std::mutex> hold(core_->mutex);
  core_->on_send = std::move(on_send);
}

void FakeHttp::SetOnStarted(std::function<void()> on_started) {
  std::lock_guard<std::mutex> hold(core_->mutex);
  core_->on_started = std::move(on_started);
}

void FakeHttp::SetOnClientDestroyed(std::function<void()> on_destroyed) {
  std::lock_guard<std::mutex> hold(core_->mutex);
  core_->on_client_destroyed = std::move(on_destroyed);
}

bool FakeHttp::Answer(size_t index, int status_code, const std::string& body,
                      const Headers& headers) {
  auto response = std::make_unique<HttpClient::Response>();
  response->status_code = status_code;
  response->headers = headers;
  response->body = CopyOnWriteBuffer(body.data(), static_cast<uint32_t>(body.size()));
  return AnswerWith(index, HttpClient::State::kCompleted, std::move(response));
}

bool FakeHttp::AnswerWith(size_t index, HttpClient::State state,
                          std::unique_ptr<HttpClient::Response> response) {
  return core_->Finish(index, state, std::move(response));
}

bool FakeHttp::Fail(size_t index, HttpClient::State state) {
  return core_->Finish(index, state, nullptr);
}

bool FakeHttp::Drop(size_t index) {
  OpenRequest entry;
  {
    std::lock_guard<std::mutex> hold(core_->mutex);
    const auto found = core_->outstanding.find(index);
    if (found == core_->outstanding.end()) return false;
    entry = std::move(found->second);
    core_->outstanding.erase(found);
  }
  core_->poster([entry = std::move(entry)]() mutable { entry.callback.Reset(); });
  return true;
}

}  // namespace quenor::test

QUENOR_NAMESPACE_BEGIN

std::unique_ptr<HttpClient> HttpClientFactory::Create(const HttpClient::Config& config) {
  const std::shared_ptr<test::FakeHttp::Core> core = test::CurrentCore();
  if (core == nullptr) return nullptr;
  std::lock_guard<std::mutex> hold(core->mutex);
  core->configs.push_back(config);
  if (core->creation_failures > 0) {
    --core->creation_failures;
    return nullptr;
  }
  ++core->live_clients;
  return std::make_unique<test::FakeHttpClient>(core, core->configs.size() - 1);
}

const char* HttpClientFactory::ImplementationName() { return "fake"; }

std::string SetHttpDefaults(const HttpDefaults& defaults) {
  std::lock_guard<std::mutex> hold(test::g_defaults_mutex);
  test::Defaults() = defaults;
  return std::string();
}

HttpDefaults GetHttpDefaults() {
  std::lock_guard<std::mutex> hold(test::g_defaults_mutex);
  return test::Defaults();
}

QUENOR_NAMESPACE_END
