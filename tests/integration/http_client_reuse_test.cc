// What one request leaves behind for the next: connections, handles and what they hold.
#include <atomic>
#include <condition_variable>
#include <mutex>

#include "tests/integration/http_client_fixture.h"
#include "tests/integration/support/scripted_server.h"

namespace quenor::test {
namespace {

using State = HttpClient::State;
using Connection = ScriptedServer::Connection;

class HttpClientReuseTest : public HttpClientTest {};

// Lets its callers go on in groups of this size.
class Barrier {
 public:
  explicit Barrier(size_t size) : size_(size) {}
  void Meet() {
    std::unique_lock<std::mutex> hold(mutex_);
    const size_t all = (arrived_++ / size_ + 1) * size_;
    changed_.notify_all();
    changed_.wait(hold, [&] { return arrived_ >= all; });
  }

 private:
  const size_t size_;
  std::mutex mutex_;
  std::condition_variable changed_;
  size_t arrived_ = 0;
};

// ---- One request is sent once -------------------------------------------------------------------

TEST_F(HttpClientReuseTest, RequestThatWentOutIsNotSentAgainByTheClient) {
  struct Case {
    const char* method;
    size_t body_bytes;
  };
  for (const Certificate* certificate :
       {static_cast<const Certificate*>(nullptr), const_cast<const Certificate*>(&certificate_)}) {
    for (const Case& c :
         {Case{"POST", 6}, Case{"POST", 0}, Case{"GET", 0}, Case{"POST", 4 << 20}}) {
      SCOPED_TRACE(std::string(c.method) + " " + std::to_string(c.body_bytes));
      constexpr size_t kConnections = 6;
      Barrier warm(kConnections);
      std::atomic<int> received{0};
      ScriptedServer server(
          [&](Connection& connection) {
            ReceivedRequest request;
            while (connection.ReadRequestHead(&request)) {
              if (request.target != "/warm") {
                ++received;
                return;
              }
              warm.Meet();
              connection.Respond(200, "");
            }
          },
          certificate);
      const auto client = MakeClient();
      Exchanges exchanges;
      for (size_t i = 0; i < kConnections; ++i) {
        client->SendRequest(MakeRequest(server.Origin() + "/warm", "", "GET"), exchanges.Note());
      }
      exchanges.WaitFor(kConnections);

      const std::string body(c.body_bytes, 'x');
      const Outcome outcome =
          Send(client.get(), MakeRequest(server.Origin() + "/once", body, c.method));

      EXPECT_EQ(outcome.state, State::kFailed);
      EXPECT_EQ(received, 1);
      EXPECT_EQ(server.accepted(), kConnections);
    }
  }
}

TEST_F(HttpClientReuseTest, KeptConnectionThatTheServerClosedIsReplaced) {
  for (const Certificate* certificate :
       {static_cast<const Certificate*>(nullptr), const_cast<const Certificate*>(&certificate_)}) {
    ScriptedServer server(
        [](Connection& connection) {
          ReceivedRequest request;
          if (connection.ReadRequest(&request)) connection.Respond(200, "");
        },
        certificate);
    const auto client = MakeClient();

    for (size_t i = 1; i <= 5; ++i) {
      EXPECT_EQ(Send(client.get(), MakeRequest(server.Origin() + "/", "x")).status(), 200);
      server.WaitForClosed(i);
    }
  }
}

}  // namespace
}  // namespace quenor::test
