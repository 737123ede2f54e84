// Many requests on one connection, many connections at once, and the ends of connections.

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/collector/support/child.h"
#include "tests/collector/support/raw_http.h"
#include "tests/collector/support/record.h"
#include "tests/support/patience.h"
#include "tests/support/temp_folder.h"

namespace quenor::collector::test {
namespace {

// Lets `count` threads go on once all of them have arrived.
class Barrier {
 public:
  explicit Barrier(int count) : missing_(count) {}

  void Arrive() {
    std::unique_lock<std::mutex> lock(mutex_);
    if (--missing_ == 0) all_here_.notify_all();
    all_here_.wait(lock, [this] { return missing_ <= 0; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable all_here_;
  int missing_;
};

class ConnectionsTest : public ::testing::Test {
 protected:
  TempFolder dir_;
};

TEST_F(ConnectionsTest, ThousandPostsGoOverOneConnection) {
  Collector collector(dir_ / "", Collector::Transport::kTls, {"--log", dir_ / "log"});
  const auto client = collector.NewClient();

  for (int i = 0; i < 1'000; ++i) ASSERT_EQ(Post(*client, std::to_string(i)), 200) << i;

  const Ended ended = collector.Stop();
  EXPECT_EQ(ended.exit_code, 0) << ended.err;
  EXPECT_EQ(ended.out, "requests=1000 accepted=1000 failed=0 distinct=1000 bytes=2890\n");
  const auto log = ReadLog(dir_ / "log");
  ASSERT_EQ(log.size(), 1'000u);
  for (size_t i = 0; i < log.size(); ++i) {
    EXPECT_EQ(log[i]["seq"].GetUint64(), i + 1);
    EXPECT_EQ(log[i]["peer"], log[0]["peer"]);
  }
}

// Three times as many open connections as workers: each must get its turn although none closes.
TEST_F(ConnectionsTest, TwoHundredKeepAliveConnectionsDoNotStarveEachOther) {
  constexpr int kConnections = 200;
  Collector collector(dir_ / "", Collector::Transport::kTls,
                      {"--log", dir_ / "log", "--threads", "64"});
  Barrier all_connected(kConnections);
  std::atomic<int> accepted{0};

  std::vector<std::thread> threads;
  for (int i = 0; i < kConnections; ++i) {
    threads.emplace_back([&, i] {
      const auto client = collector.NewClient();
      accepted += Post(*client, "first " + std::to_string(i)) == 200;
      all_connected.Arrive();
      accepted += Post(*client, "second " + std::to_string(i)) == 200;
      accepted += Post(*client, "third " + std::to_string(i)) == 200;
    });
  }
  for (std::thread& thread : threads) thread.join();

  EXPECT_EQ(accepted, 3 * kConnections);
  const Ended ended = collector.Stop();
  EXPECT_EQ(ended.exit_code, 0) << ended.err;
  EXPECT_EQ(ended.out.rfind("requests=600 accepted=600 failed=0 distinct=600 ", 0), 0u);
  std::set<std::string> peers;
  std::set<uint64_t> numbers;
  for (const auto& line : ReadLog(dir_ / "log")) {
    peers.insert(line["peer"].GetString());
    numbers.insert(line["seq"].GetUint64());
  }
  EXPECT_EQ(peers.size(), static_cast<size_t>(kConnections));
  EXPECT_EQ(numbers.size(), 3u * kConnections);
  EXPECT_EQ(*numbers.rbegin(), 3u * kConnections);
}

TEST_F(ConnectionsTest, SilentConnectionsOccupyNoWorker) {
  Collector collector(dir_ / "", Collector::Transport::kPlain, {"--threads", "1"});
  std::vector<std::unique_ptr<RawClient>> silent;
  for (int i = 0; i < 20; ++i) silent.push_back(std::make_unique<RawClient>(collector.port()));

  EXPECT_EQ(Post(*collector.NewClient(), "body"), 200);
  silent.back()->Send("POST / HTTP/1.1\r\nHost: x\r\n\r\n");
  EXPECT_EQ(silent.back()->ReadThrough("}").rfind("HTTP/1.1 200 OK", 0), 0u);
}

TEST_F(ConnectionsTest, OutOfDescriptorsTheRestWaitsAndIsServedLater) {
  const std::string request = "POST / HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n";
  Collector collector(dir_ / "", Collector::Transport::kPlain, {});
  // UBSan opens a pipe when it first meets a type, so let it meet them all while it can.
  ASSERT_EQ(CountOf(Exchange(collector.port(), request), "HTTP/1.1 200 OK"), 1);
  collector.child().LimitDescriptors(12);
  std::vector<std::unique_ptr<RawClient>> clients;
  for (int i = 0; i < 40; ++i) {
    clients.push_back(std::make_unique<RawClient>(collector.port()));
  }

  // Those that wait do not keep it from sleeping.
  const long sleeps = collector.child().CountSleeps();
  quenor::test::PollPatiently("three sleeps",
                              [&] { return collector.child().CountSleeps() >= sleeps + 3; });

  for (const auto& client : clients) client->Send(request);

  for (const auto& client : clients) EXPECT_EQ(CountOf(client->ReadAll(), "HTTP/1.1 200 OK"), 1);
  collector.child().LimitDescriptors(256);  // The leak check at the end needs some, too.
  const Ended ended = collector.Stop();
  EXPECT_EQ(ended.exit_code, 0) << ended.err;
  EXPECT_EQ(ended.out, "requests=41 accepted=41 failed=0 distinct=1 bytes=0\n") << ended.err;
}

TEST_F(ConnectionsTest, PipelinedRequestsAreAnsweredInOrder) {
  Collector collector(dir_ / "", Collector::Transport::kPlain, {"--log", dir_ / "log"});
  RawClient client(collector.port());
  std::string requests;
  for (int i = 0; i < 50; ++i) {
    requests +=
        "POST /" + std::to_string(i) + " HTTP/1.1\r\nHost: x\r\nContent-Length: 2\r\n\r\nok";
  }

  client.Send(requests + "GET /healthz HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");

  EXPECT_EQ(CountOf(client.ReadAll(), "HTTP/1.1 200 OK"), 51);
  const auto log = ReadLog(dir_ / "log");
  ASSERT_EQ(log.size(), 50u);
  for (size_t i = 0; i < log.size(); ++i) {
    EXPECT_EQ(log[i]["path"].GetString(), "/" + std::to_string(i));
  }
}

TEST_F(ConnectionsTest, WhoAsksForItsEndGetsIt) {
  Collector collector(dir_ / "", Collector::Transport::kPlain, {});

  for (const char* head :
       {"POST / HTTP/1.1\r\nHost: x\r\nConnection: close\r\n",
        "POST / HTTP/1.1\r\nHost: x\r\nConnection: TE, Close\r\n", "POST / HTTP/1.0\r\n"}) {
    const std::string reply = Exchange(collector.port(), std::string(head) + "\r\n");
    EXPECT_EQ(CountOf(reply, "HTTP/1.1 200 OK"), 1) << head;
    EXPECT_EQ(CountOf(reply, "Connection: close"), 1) << head;
  }
}

TEST_F(ConnectionsTest, OldClientsCanKeepTheConnectionToo) {
  Collector collector(dir_ / "", Collector::Transport::kPlain, {});
  RawClient client(collector.port());

  for (int i = 0; i < 2; ++i) {
    client.Send("POST / HTTP/1.0\r\nConnection: Keep-Alive\r\nContent-Length: 1\r\n\r\nx");
    EXPECT_EQ(client.ReadThrough("}").rfind("HTTP/1.1 200 OK", 0), 0u);
  }
}

TEST_F(ConnectionsTest, IdleConnectionIsClosedAfterItsTime) {
  Collector collector(dir_ / "", Collector::Transport::kPlain, {"--idle-timeout", "1"});
  RawClient client(collector.port());
  client.Send("GET /healthz HTTP/1.1\r\nHost: x\r\n\r\n");
  const std::string reply = client.ReadThrough("ok");
  RawClient later(collector.port());

  EXPECT_EQ(client.ReadAll(), "");  // Returns when the server has closed.
  EXPECT_EQ(later.ReadAll(), "");

  EXPECT_EQ(CountOf(reply, "HTTP/1.1 200 OK"), 1);
  EXPECT_NE(reply.find("Keep-Alive: timeout=1,"), std::string::npos);
  EXPECT_EQ(collector.Stop().exit_code, 0);
}

TEST_F(ConnectionsTest, OtherMethodsAndPathsAreRefused) {
  Collector collector(dir_ / "", Collector::Transport::kPlain, {});
  const auto client = collector.NewClient();

  EXPECT_EQ(client->Get("/healthz")->body, "ok");
  EXPECT_EQ(client->Head("/healthz")->status, 200);
  EXPECT_EQ(client->Get("/report")->status, 404);
  EXPECT_EQ(client->Put("/report", "x", "text/plain")->status, 405);
  EXPECT_EQ(client->Delete("/report")->status, 405);
  EXPECT_EQ(Exchange(collector.port(), "nonsense\r\n\r\n").rfind("HTTP/1.1 400 ", 0), 0u);
  EXPECT_EQ(Exchange(collector.port(), "GET / HTTP/1.1\r\nContent-Length: 1\r\n\r\nx")
                .rfind("HTTP/1.1 400 ", 0),
            0u);

  EXPECT_EQ(collector.Stop().out, "requests=0 accepted=0 failed=0 distinct=0 bytes=0\n");
}

TEST_F(ConnectionsTest, EndlessHeaderLinesDoNotHarmOthers) {
  Collector collector(dir_ / "", Collector::Transport::kPlain, {});

  const std::string reply = Exchange(
      collector.port(), "POST /" + std::string(20'000, 'a') + " HTTP/1.1\r\nHost: x\r\n\r\n");

  EXPECT_EQ(reply.rfind("HTTP/1.1 414 ", 0), 0u);
  EXPECT_EQ(Post(*collector.NewClient(), "body"), 200);
}

TEST_F(ConnectionsTest, PlainTextAtATlsPortDoesNotHarmOthers) {
  Collector collector(dir_ / "", Collector::Transport::kTls, {});

  const std::string reply = Exchange(collector.port(), "POST / HTTP/1.1\r\nHost: x\r\n\r\n");

  EXPECT_EQ(reply.find("HTTP/1.1 200"), std::string::npos);
  EXPECT_EQ(Post(*collector.NewClient(), "body"), 200);
}

TEST_F(ConnectionsTest, OldTlsVersionsAreRefused) {
  Collector collector(dir_ / "", Collector::Transport::kTls, {});
  const auto client = collector.NewClient();
  SSL_CTX_set_max_proto_version(client->ssl_context(), TLS1_1_VERSION);

  EXPECT_EQ(Post(*client, "body"), 0);
}

TEST_F(ConnectionsTest, Tls12IsStillSpoken) {
  Collector collector(dir_ / "", Collector::Transport::kTls, {});
  const auto client = collector.NewClient();
  SSL_CTX_set_max_proto_version(client->ssl_context(), TLS1_2_VERSION);

  EXPECT_EQ(Post(*client, std::string(100'000, 'x')), 200);
  EXPECT_EQ(Post(*client, "again"), 200);
}

}  // namespace
}  // namespace quenor::collector::test
