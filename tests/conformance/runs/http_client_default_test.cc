// The contract on the client that is linked, against a real server on loopback.
#include <string>

#include "tests/conformance/http_client_conformance.h"
#include "tests/integration/support/scripted_server.h"

namespace quenor::conformance {
namespace {

class LoopbackPeer : public HttpClientPeer {
 public:
  LoopbackPeer() : server_([this](test::ScriptedServer::Connection& c) { Serve(c); }) {}

  std::string Origin() const override { return server_.Origin(); }

 private:
  void Serve(test::ScriptedServer::Connection& connection) {
    test::ReceivedRequest request;
    while (connection.ReadRequest(&request)) {
      const PeerAnswer answer =
          Arrived({request.method, request.target, request.headers, request.body});
      if (answer.kind == PeerAnswer::Kind::kClose) return;
      if (answer.kind == PeerAnswer::Kind::kNever) return connection.HoldUntilClosed();
      if (!connection.Respond(answer.status, answer.body, answer.headers)) return;
    }
  }

  test::ScriptedServer server_;
};

std::unique_ptr<HttpClientPeer> MakeLoopbackPeer() { return std::make_unique<LoopbackPeer>(); }

INSTANTIATE_TEST_SUITE_P(Default, HttpClientConformance, ::testing::Values(&MakeLoopbackPeer));

}  // namespace
}  // namespace quenor::conformance
