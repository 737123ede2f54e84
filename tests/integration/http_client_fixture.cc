#include "tests/integration/http_client_fixture.h"

#include "tests/support/fakes/recording_log.h"
#include "tests/support/patience.h"

namespace quenor::test {

std::string Outcome::body() const {
  if (response == nullptr || response->body.size() == 0) return std::string();
  return std::string(response->body.cdata<char>(), response->body.size());
}

std::string Outcome::header(const std::string& name) const {
  if (response == nullptr) return std::string();
  const auto found = response->headers.find(name);
  return found == response->headers.end() ? std::string() : found->second;
}

HttpClient::CompletionCallback Exchanges::Note(std::function<void()> then) {
  return [core = core_, then = std::move(then)](HttpClient::State state,
                                                const HttpClient::Request& request,
                                                std::unique_ptr<HttpClient::Response> response) {
    if (then) then();
    std::lock_guard<std::mutex> hold(core->mutex);
    core->outcomes.push_back({request.request_id, state, std::move(response), request.reason});
    core->arrived.notify_all();
  };
}

void Exchanges::WaitFor(size_t count) {
  std::unique_lock<std::mutex> hold(core_->mutex);
  WaitPatiently(&core_->arrived, &hold, std::to_string(count) + " callbacks",
                [&] { return core_->outcomes.size() >= count; });
}

size_t Exchanges::count() const {
  std::lock_guard<std::mutex> hold(core_->mutex);
  return core_->outcomes.size();
}

std::vector<Outcome> Exchanges::Take() {
  std::lock_guard<std::mutex> hold(core_->mutex);
  return std::move(core_->outcomes);
}

HttpClient::Request MakeRequest(const std::string& url, const std::string& body,
                                const std::string& method) {
  HttpClient::Request request;
  request.url = url;
  request.method = method;
  request.body = CopyOnWriteBuffer(body.data(), static_cast<uint32_t>(body.size()));
  return request;
}

Outcome Send(HttpClient* client, const HttpClient::Request& request) {
  Exchanges exchanges;
  Outcome outcome;
  outcome.id = client->SendRequest(request, exchanges.Note());
  if (outcome.id < 1) return outcome;
  exchanges.WaitFor(1);
  return std::move(exchanges.Take()[0]);
}

HttpClientTest::HttpClientTest()
    : authority_(folder_.path(), "ca"),
      certificate_(authority_.Issue("server", "DNS:localhost,IP:127.0.0.1,IP:::1")) {
  RecordingLog::Clear();
}

HttpDefaults HttpClientTest::TrustingDefaults() const {
  HttpDefaults defaults;
  defaults.ca_file = authority_.ca_file();
  return defaults;
}

std::unique_ptr<HttpClient> HttpClientTest::MakeClient(const HttpDefaults& defaults,
                                                       const HttpClient::Config& config) const {
  EXPECT_EQ(SetHttpDefaults(defaults), "");
  return HttpClientFactory::Create(config);
}

}  // namespace quenor::test
