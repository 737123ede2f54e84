#include "my_http.h"
#include "tests/conformance/dispatch_queue_conformance.h"
#include "tests/conformance/http_client_conformance.h"
#include "tests/conformance/throtter_conformance.h"

namespace quenor::conformance {

class MyPeer : public HttpClientPeer {
 public:
  MyPeer() {
    SetMyServer([this](const HttpClient::Request& request) { return Serve(request); });
  }
  ~MyPeer() override { SetMyServer(nullptr); }
  std::string Origin() const override { return "http://mine"; }

 private:
  MyAnswer Serve(const HttpClient::Request& request) {
    const std::string path = request.url.substr(Origin().size());
    const PeerAnswer answer =
        Arrived({request.method, path, request.headers, TextOf(request.body)});
    const bool responds = answer.kind == PeerAnswer::Kind::kRespond;
    return {responds ? answer.status : 0, answer.headers, answer.body,
            answer.kind != PeerAnswer::Kind::kNever};
  }
};

std::unique_ptr<HttpClientPeer> MakeMyPeer() { return std::make_unique<MyPeer>(); }

INSTANTIATE_TEST_SUITE_P(Mine, HttpClientConformance, ::testing::Values(&MakeMyPeer));
INSTANTIATE_TEST_SUITE_P(Mine, DispatchQueueConformance, ::testing::Values(&MakeThreadedHost));
INSTANTIATE_TYPED_TEST_SUITE_P(Mine, ThrotterConformance, LinkedThrotter);

}  // namespace quenor::conformance
