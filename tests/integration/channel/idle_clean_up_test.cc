// The channel's queue runs in virtual time, the HTTP client and its server are real: a minute of
// idling passes at once, and what the network does arrives when it happens.
#include <condition_variable>
#include <mutex>
#include <thread>

#include "quenor_base/platform/thread_manager.h"
#include "tests/integration/channel/channel_fixture.h"
#include "tests/integration/support/scripted_server.h"
#include "tests/support/fakes/virtual_time.h"
#include "tests/support/patience.h"

namespace quenor::test {
namespace {

class IdleCleanUpTest : public ChannelOverNetworkTest {
 protected:
  // Runs what the network posts until the kind has been told `count` times.
  void RunUntil(ReportEventKind kind, size_t count) {
    while (events_.Count(kind) < count) {
      if (!clock_.RunNext()) std::this_thread::yield();
    }
  }

  VirtualTime clock_;
};

// Holds the first request back for good; answers every other one.
class FirstRequestHanger {
 public:
  ScriptedServer::Script Script() {
    return [this](ScriptedServer::Connection& connection) {
      ReceivedRequest request;
      while (connection.ReadRequest(&request)) {
        bool first;
        {
          std::lock_guard<std::mutex> hold(mutex_);
          first = !hanging_;
          hanging_ = true;
          arrived_.notify_all();
        }
        if (first) return connection.HoldUntilClosed();
        if (!connection.Respond(200, "{}")) return;
      }
    };
  }

  void WaitUntilHanging() {
    std::unique_lock<std::mutex> hold(mutex_);
    WaitPatiently(&arrived_, &hold, "the first request", [this] { return hanging_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  bool hanging_ = false;
};

TEST_F(IdleCleanUpTest, RequestThatIsNeverAnsweredIsSentAgainAfterTheClientIsReleased) {
  FirstRequestHanger hanger;
  const Certificate certificate = GoodCertificate();
  ScriptedServer server(hanger.Script(), &certificate);
  const auto channel = Start(server.Origin() + "/");
  Send(channel.get(), "hangs");
  clock_.RunUntilIdle();
  hanger.WaitUntilHanging();
  Send(channel.get(), "is answered");
  RunUntil(ReportEventKind::kAcknowledged, 1);  // Nothing pending: the idle minute begins.

  clock_.AdvanceBy(base::TimeDelta::FromSeconds(60));
  RunUntil(ReportEventKind::kFailed, 1);  // The client was released, its request has failed.
  clock_.AdvanceBy(base::TimeDelta::FromSeconds(1));
  RunUntil(ReportEventKind::kAcknowledged, 2);
  channel->Terminate();
  clock_.RunUntilIdle();

  EXPECT_EQ(2u, events_.Count(ReportEventKind::kAcknowledged));
  EXPECT_EQ(3u, events_.Count(ReportEventKind::kSent));
  EXPECT_EQ(0u, events_.Count(ReportEventKind::kDropped));
}

}  // namespace
}  // namespace quenor::test
