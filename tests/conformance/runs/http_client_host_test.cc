// The contract on clients of a host's own network stack, which is set through the C interface: what
// the library adds to it keeps the contract, whatever thread the stack answers on.
#include <cstdint>
#include <future>
#include <string>
#include <vector>

#include "c/quenor/transport.h"
#include "tests/conformance/http_client_conformance.h"

namespace quenor::conformance {
namespace {

constexpr char kOrigin[] = "https://host";

// A stack without a network, which answers before its start() has returned.
class HostPeer : public HttpClientPeer {
 public:
  HostPeer() {
    quenor_transport transport;
    QUENOR_INIT(&transport);
    transport.start = [](void* peer, const quenor_request* request) {
      return static_cast<HostPeer*>(peer)->Start(*request) ? 0 : 1;
    };
    transport.context = this;
    EXPECT_EQ(quenor_set_transport(&transport), QUENOR_OK);
  }
  ~HostPeer() override { EXPECT_EQ(quenor_set_transport(nullptr), QUENOR_OK); }

  std::string Origin() const override { return kOrigin; }

 private:
  bool Start(const quenor_request& request) {
    PeerRequest arrived = {request.method, request.url, {}, {}};
    if (arrived.path.compare(0, sizeof kOrigin - 1, kOrigin) != 0) return false;
    arrived.path.erase(0, sizeof kOrigin - 1);
    for (size_t i = 0; i < request.header_count; ++i) {
      arrived.headers[request.headers[i].name] = request.headers[i].value;
    }
    if (request.body_size != 0) {
      arrived.body.assign(static_cast<const char*>(request.body), request.body_size);
    }
    Answer(request.id, Arrived(std::move(arrived)));
    return true;
  }

  static void Answer(uint64_t id, const PeerAnswer& answer) {
    if (answer.kind == PeerAnswer::Kind::kNever) return;
    if (answer.kind == PeerAnswer::Kind::kClose) {
      EXPECT_EQ(quenor_answer(id, nullptr), QUENOR_OK);
      return;
    }
    std::vector<quenor_header> headers;
    for (const auto& [name, value] : answer.headers) {
      headers.push_back({name.c_str(), value.c_str()});
    }
    quenor_response response;
    QUENOR_INIT(&response);
    response.status_code = answer.status;
    response.headers = headers.data();
    response.header_count = headers.size();
    response.body = answer.body.data();
    response.body_size = answer.body.size();
    EXPECT_EQ(quenor_answer(id, &response), QUENOR_OK);
  }
};

std::unique_ptr<HttpClientPeer> MakeHostPeer() { return std::make_unique<HostPeer>(); }

INSTANTIATE_TEST_SUITE_P(Host, HttpClientConformance, ::testing::Values(&MakeHostPeer));

// The stack has answered, and the client ends while nobody has been told of it yet.
TEST(HostTransportTest, SuccessThatWaitsAtTheClientsEndIsACancellation) {
  HostPeer peer;
  const auto other = peer.CreateClient();
  auto client = peer.CreateClient();
  HttpClient::Request request;
  request.url = kOrigin;
  request.url += "/";
  request.method = "POST";
  std::promise<void> begun, go_on;
  Answers of_other, of_client;
  ASSERT_GE(other->SendRequest(request, of_other.Note([&] {
    begun.set_value();
    go_on.get_future().wait();
  })),
            1);
  begun.get_future().wait();

  ASSERT_GE(client->SendRequest(request, of_client.Note()), 1);
  client.reset();
  go_on.set_value();

  ASSERT_TRUE(of_client.WaitFor(1, &peer));
  ASSERT_TRUE(of_other.WaitFor(1, &peer));
  EXPECT_EQ(of_client.all()[0].state, HttpClient::State::kCancelled);
  EXPECT_EQ(of_client.all()[0].response, nullptr);
  EXPECT_EQ(of_other.all()[0].state, HttpClient::State::kCompleted);
}

}  // namespace
}  // namespace quenor::conformance
