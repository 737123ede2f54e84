// The contract on the client that is linked, against a real server on loopback.
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>

#include "tests/conformance/http_client_conformance.h"
#include "tests/integration/support/scripted_server.h"
#include "tests/support/patience.h"

namespace quenor::conformance {
namespace {

class LoopbackPeer : public HttpClientPeer {
 public:
  LoopbackPeer() : server_([this](test::ScriptedServer::Connection& c) { Serve(c); }) {}

  std::string Origin() const override { return server_.Origin(); }

  void Script(const std::string& path, const PeerAnswer& answer) override {
    std::lock_guard<std::mutex> hold(mutex_);
    script_[path] = answer;
  }

  std::vector<PeerRequest> WaitForRequests(size_t count) override {
    std::unique_lock<std::mutex> hold(mutex_);
    test::WaitPatiently(&arrived_, &hold, std::to_string(count) + " requests",
                        [&] { return seen_.size() >= count; });
    return seen_;
  }

 private:
  void Serve(test::ScriptedServer::Connection& connection) {
    test::ReceivedRequest request;
    while (connection.ReadRequest(&request)) {
      PeerAnswer answer;
      {
        std::lock_guard<std::mutex> hold(mutex_);
        seen_.push_back({request.method, request.target, request.headers, request.body});
        arrived_.notify_all();
        const auto scripted = script_.find(request.target);
        if (scripted != script_.end()) answer = scripted->second;
      }
      if (answer.kind == PeerAnswer::Kind::kClose) return;
      if (answer.kind == PeerAnswer::Kind::kNever) return connection.HoldUntilClosed();
      if (!connection.Respond(answer.status, answer.body, answer.headers)) return;
    }
  }

  std::mutex mutex_;
  std::condition_variable arrived_;
  std::map<std::string, PeerAnswer> script_;  // Guarded by `mutex_`, as is the next.
  std::vector<PeerRequest> seen_;
  test::ScriptedServer server_;  // Last: its threads use the rest.
};

std::unique_ptr<HttpClientPeer> MakeLoopbackPeer() { return std::make_unique<LoopbackPeer>(); }

INSTANTIATE_TEST_SUITE_P(Default, HttpClientConformance, ::testing::Values(&MakeLoopbackPeer));

}  // namespace
}  // namespace quenor::conformance
