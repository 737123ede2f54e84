// The contract on the fake that the other tests send through: what holds for the real client holds
// for the one that they see.
#include <deque>
#include <map>
#include <mutex>

#include "services/http_client_curl/rules/syntax.h"
#include "tests/conformance/http_client_conformance.h"
#include "tests/support/fakes/fake_http_client.h"

namespace quenor::conformance {
namespace {

// Answers through FakeHttp on the test's own thread, which plays the client's.
class FakePeer : public HttpClientPeer {
 public:
  FakePeer() : http_([this](base::OnceClosure task) { Post(std::move(task)); }) {
    http_.SetOnSend([this](const HttpClient::Request& request) {
      // The fake looks at no request.
      const bool usable = request.url.compare(0, sizeof(kOrigin) - 1, kOrigin) == 0 &&
                          request.url.find('\0') == std::string::npos &&
                          http_syntax::RequestProblem(request).empty();
      usable ? http_.Accept() : http_.RefuseAll(0);
    });
  }

  std::string Origin() const override { return kOrigin; }

  bool Pump() override {
    bool worked = false;
    for (size_t index : http_.Outstanding()) worked = Answer(index) || worked;
    for (;;) {
      base::OnceClosure task;
      {
        std::lock_guard<std::mutex> hold(mutex_);
        if (tasks_.empty()) return worked;
        task = std::move(tasks_.front());
        tasks_.pop_front();
      }
      std::move(task).Run();
      worked = true;
    }
  }

 private:
  static constexpr char kOrigin[] = "https://fake";

  bool Answer(size_t index) {
    auto found = answers_.find(index);
    if (found == answers_.end()) {
      const test::FakeHttp::Sent sent = http_.Requests()[index];
      const std::string path = sent.request.url.substr(sizeof(kOrigin) - 1);
      const PeerRequest request = {sent.request.method, path, sent.request.headers, sent.body};
      found = answers_.emplace(index, Arrived(request)).first;
    }
    const PeerAnswer& answer = found->second;
    if (answer.kind == PeerAnswer::Kind::kNever) return false;
    if (answer.kind == PeerAnswer::Kind::kClose) return http_.Fail(index);
    return http_.Answer(index, answer.status, answer.body, answer.headers);
  }

  void Post(base::OnceClosure task) {
    std::lock_guard<std::mutex> hold(mutex_);
    tasks_.push_back(std::move(task));
  }

  std::map<size_t, PeerAnswer> answers_;  // By the index of the request.
  std::mutex mutex_;
  std::deque<base::OnceClosure> tasks_;  // Guarded by `mutex_`.
  test::FakeHttp http_;
};

std::unique_ptr<HttpClientPeer> MakeFakePeer() { return std::make_unique<FakePeer>(); }

INSTANTIATE_TEST_SUITE_P(Fake, HttpClientConformance, ::testing::Values(&MakeFakePeer));

}  // namespace
}  // namespace quenor::conformance
