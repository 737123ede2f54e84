// What needs the I/O thread wakes it: a missing wake shows as delay only, until something else
// comes to pass. Here nothing else does but the time limit of an exchange that hangs meanwhile.
#include <poll.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "quenor_base/platform/gathered_wake_ups.h"
#include "tests/integration/http_client_fixture.h"
#include "tests/integration/support/scripted_server.h"

namespace quenor::test {
namespace {

using State = HttpClient::State;
using Connection = ScriptedServer::Connection;

class HttpClientWakeTest : public HttpClientTest {
 protected:
  HttpClientWakeTest()
      : hanging_([](Connection& connection) { connection.HoldUntilClosed(); }),
        answering_([](Connection& connection) {
          ReceivedRequest request;
          while (connection.ReadRequest(&request)) connection.Respond(200, "");
        }) {
    defaults_.max_connections_per_host = 1;
    defaults_.total_timeout_ms = defaults_.connect_timeout_ms = 8000;
  }

  // The thread looks once more 10 ms after an exchange has ended. On a slow machine this test then
  // sees less; it does not fail.
  static void Rest() { poll(nullptr, 0, 40); }
  HttpClient::Request Hanging(uint32_t timeout_ms = 0) const {
    // In its handshake, where libcurl looks at nothing but the time limit; later it looks each
    // second at the speed.
    HttpClient::Request request =
        MakeRequest("https://127.0.0.1:" + std::to_string(hanging_.port()) + "/", "x");
    request.timeout_ms = timeout_ms;
    return request;
  }
  State StateOfAnswer() {
    return Send(client_.get(), MakeRequest(answering_.Origin() + "/", "x")).state;
  }
  // Destroys a client `count` of whose requests hang, and answers how the last of them ended.
  State StateAfterDestruction(size_t count) {
    Exchanges exchanges;
    auto doomed = MakeClient(defaults_);
    for (size_t i = 0; i < count; ++i) doomed->SendRequest(Hanging(), exchanges.Note());
    EXPECT_EQ(StateOfAnswer(), State::kCompleted);  // The thread has taken them.
    Rest();
    doomed.reset();
    exchanges.WaitFor(count);
    return exchanges.Take().back().state;
  }

  ScriptedServer hanging_;
  ScriptedServer answering_;
  HttpDefaults defaults_;
  std::unique_ptr<HttpClient> client_;
};

TEST_F(HttpClientWakeTest, WhateverNeedsTheThreadWakesItWhileAnExchangeHangs) {
  client_ = MakeClient(defaults_);
  Exchanges hangs;
  client_->SendRequest(Hanging(), hangs.Note());
  const std::pair<const char*, std::function<bool()>> needs[] = {
      {"a request", [&] { return StateOfAnswer() == State::kCompleted; }},
      {"an earlier limit in the line",
       [&] { return Send(client_.get(), Hanging(30)).state == State::kTimedOut; }},
      {"an earlier limit under way",
       [&] {
         const auto other = MakeClient(defaults_);
         return Send(other.get(), Hanging(30)).state == State::kTimedOut;
       }},
      {"a destroyed client", [&] { return StateAfterDestruction(1) == State::kCancelled; }},
      {"a destroyed client's line", [&] { return StateAfterDestruction(2) == State::kCancelled; }},
  };
  for (int round = 0; round < 2; ++round) {
    for (const auto& [name, need] : needs) {
      SCOPED_TRACE(name);

      Rest();
      EXPECT_TRUE(need());

      // What the limit of the one that hangs has set off has been told by the next answer.
      EXPECT_EQ(StateOfAnswer(), State::kCompleted);
      ASSERT_EQ(hangs.count(), 0u);
    }
  }
}

// ---- What callbacks post ------------------------------------------------------------------------

// All answers are there when the I/O thread, which is held in a callback, looks again.
class HttpClientScopeTest : public HttpClientTest {
 protected:
  static constexpr size_t kRequests = 6;

  // Stands for a queue that sleeps.
  struct Sleeper final : base::GatheredWakeUps::Sleeper {
    explicit Sleeper(std::atomic<size_t>* woken_in) : woken(woken_in) {}
    void WakeUp() override { ++*woken; }
    std::atomic<size_t>* const woken;
  };

  HttpClientScopeTest()
      : server_([this](Connection& connection) {
          ReceivedRequest request;
          if (!connection.ReadRequest(&request)) return;
          const bool is_held = request.body == "held";
          if (!is_held) read_.Meet();
          if (!is_held) go_.Meet();
          connection.Respond(200, "");
          if (!is_held) answered_.Meet();
        }) {
    for (size_t i = 0; i < kRequests; ++i) sleepers_.push_back(std::make_unique<Sleeper>(&woken_));
  }

  // `make` answers the n-th request's callback.
  void ExchangeAll(const std::function<HttpClient::CompletionCallback(size_t, Exchanges*)>& make) {
    HttpDefaults defaults;
    defaults.max_connections_per_host = kRequests + 1;
    const auto client = MakeClient(defaults);
    Exchanges exchanges;
    Barrier inside(2);
    Barrier release(2);
    const std::string url = server_.Origin() + "/";
    for (size_t i = 0; i < kRequests; ++i) {
      client->SendRequest(MakeRequest(url, "x"), make(i, &exchanges));
    }
    read_.Meet();
    client->SendRequest(MakeRequest(url, "held"), exchanges.Note([&] {
      inside.Meet();
      release.Meet();
    }));
    inside.Meet();
    go_.Meet();
    answered_.Meet();
    release.Meet();
    exchanges.WaitFor(kRequests + 1);
  }

  HttpClient::CompletionCallback PostingToTheNth(size_t n, Exchanges* exchanges) {
    return base::OnlyPosts([this, n, note = exchanges->Note()](
                               State state, const HttpClient::Request& request,
                               std::unique_ptr<HttpClient::Response> response) mutable {
      if (woken_ > 0) ++posts_behind_a_wake_up_;
      ++posts_;
      base::GatheredWakeUps* const scope = base::GatheredWakeUps::Open();
      if (scope != nullptr) scope->Add(sleepers_[n].get());
      std::move(note).Run(state, request, std::move(response));
    });
  }

  Barrier read_{kRequests + 1};
  Barrier go_{kRequests + 1};
  Barrier answered_{kRequests + 1};
  std::vector<std::unique_ptr<Sleeper>> sleepers_;
  std::atomic<size_t> woken_{0};
  // The I/O thread's, until all have been answered.
  size_t posts_ = 0;
  size_t posts_behind_a_wake_up_ = 0;
  ScriptedServer server_;
};

TEST_F(HttpClientScopeTest, CallbacksThatOnlyPostWakeNobodyBeforeTheLast) {
  ExchangeAll([&](size_t i, Exchanges* exchanges) { return PostingToTheNth(i, exchanges); });
  const auto until = Now() + kPatience;
  while (woken_ < kRequests && Now() < until) std::this_thread::yield();

  EXPECT_EQ(woken_, kRequests);
  EXPECT_EQ(posts_behind_a_wake_up_, 0u);
}

// It may wait for what a queue does that was posted to before.
TEST_F(HttpClientScopeTest, AnyOtherCallbackFindsEverybodyWokenAndNoScope) {
  std::vector<std::string> wrong;

  ExchangeAll([&](size_t i, Exchanges* exchanges) {
    if (i % 2 == 0) return PostingToTheNth(i, exchanges);
    return exchanges->Note([&] {
      if (base::GatheredWakeUps::Open() != nullptr) wrong.push_back("a scope is open");
      if (woken_ != posts_) wrong.push_back("somebody sleeps who was posted to");
    });
  });

  EXPECT_EQ(wrong, std::vector<std::string>());
  EXPECT_EQ(posts_, kRequests / 2);
}

}  // namespace
}  // namespace quenor::test
