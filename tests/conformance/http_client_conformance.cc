#include "tests/conformance/http_client_conformance.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <set>

#include "quenor_base/platform/base/monotonic_time.h"

namespace quenor::conformance {

using State = HttpClient::State;

std::string TextOf(const CopyOnWriteBuffer& buffer) {
  return buffer.size() == 0 ? std::string() : std::string(buffer.cdata<char>(), buffer.size());
}

void HttpClientPeer::Script(const std::string& path, const PeerAnswer& answer) {
  std::lock_guard<std::mutex> hold(mutex_);
  script_[path] = answer;
}

std::vector<PeerRequest> HttpClientPeer::Requests() const {
  std::lock_guard<std::mutex> hold(mutex_);
  return seen_;
}

PeerAnswer HttpClientPeer::Arrived(PeerRequest request) {
  std::map<std::string, std::string> headers;
  for (const auto& [name, value] : request.headers) {
    std::string lower = name;
    for (char& c : lower) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
    headers[lower] = value;
  }
  request.headers = std::move(headers);
  std::lock_guard<std::mutex> hold(mutex_);
  seen_.push_back(std::move(request));
  return script_[seen_.back().path];
}

HttpClient::CompletionCallback Answers::Note(std::function<void()> then) {
  return [this, then = std::move(then)](State state, const HttpClient::Request& request,
                                        std::unique_ptr<HttpClient::Response> response) {
    if (then) then();
    std::lock_guard<std::mutex> hold(mutex_);
    answers_.push_back({state, request, std::move(response), std::this_thread::get_id()});
    arrived_.notify_all();
  };
}

size_t Answers::count() const {
  std::lock_guard<std::mutex> hold(mutex_);
  return answers_.size();
}

bool Answers::WaitFor(size_t count, HttpClientPeer* peer) {
  // Only a client that breaks its word lets this time pass.
  const auto give_up = base::MonotonicNow() + std::chrono::minutes(2);
  for (;;) {
    const bool more = peer->Pump();
    std::unique_lock<std::mutex> hold(mutex_);
    if (answers_.size() >= count) return true;
    if (!more || base::MonotonicNow() > give_up) return false;
    arrived_.wait_for(hold, std::chrono::milliseconds(100));
  }
}

HttpClient::Request HttpClientConformance::Post(const std::string& path,
                                                const std::string& body) const {
  HttpClient::Request request;
  request.url = peer_->Origin() + path;
  request.method = "POST";
  request.body = CopyOnWriteBuffer(body.data(), static_cast<uint32_t>(body.size()));
  return request;
}

namespace {

std::string EveryByte() {
  std::string bytes;
  for (int value = 0; value < 256; ++value) bytes.push_back(static_cast<char>(value));
  return bytes;
}

// ---- Starting -----------------------------------------------------------------------------------

TEST_P(HttpClientConformance, EachRequestHasAnIdOfItsOwnFromOneUp) {
  std::set<int64_t> ids;
  for (int i = 0; i < 10; ++i) ids.insert(client_->SendRequest(Post("/", "x"), answers_.Note()));
  ASSERT_TRUE(WaitFor(10));

  EXPECT_EQ(ids.size(), 10u);
  EXPECT_GE(*ids.begin(), 1);
}

TEST_P(HttpClientConformance, CallbackNeverRunsInsideTheCall) {
  std::atomic<bool> inside{true};
  std::atomic<bool> ran_inside{false};
  // A thread of the client's own may be quicker than the return; only this thread's stack counts.
  const std::thread::id caller = std::this_thread::get_id();
  client_->SendRequest(Post("/", "x"), answers_.Note([&] {
    if (inside && std::this_thread::get_id() == caller) ran_inside = true;
  }));
  inside = false;
  ASSERT_TRUE(WaitFor(1));

  EXPECT_FALSE(ran_inside);
}

TEST_P(HttpClientConformance, UnusableRequestIsRefusedAndItsCallbackDestroyedUnrun) {
  std::vector<HttpClient::Request> unusable;
  for (const char* url : {"", "nonsense", "ftp://localhost/", "file:///etc/passwd", "https://",
                          "http://host:port/", "http://[::1/", "http://a b/"}) {
    unusable.push_back(Post("/", "x"));
    unusable.back().url = url;
  }
  unusable.push_back(Post(std::string("/\0x", 3), "x"));
  for (const char* method : {"", "GET / HTTP/1.1\r\nA: b", /* with a body: */ "HEAD"}) {
    unusable.push_back(Post("/", "x"));
    unusable.back().method = method;
  }
  for (const auto& header : std::map<std::string, std::string>{{"A", "x\r\nB: y"},
                                                               {"A:", "x"},
                                                               {"B", "x\ny"},
                                                               {"Content-Length", "1"},
                                                               {"transfer-encoding", "chunked"}}) {
    unusable.push_back(Post("/", "x"));
    unusable.back().headers.insert(header);
  }
  for (const HttpClient::Request& request : unusable) {
    SCOPED_TRACE(request.method + " " + request.url + " " +
                 ::testing::PrintToString(request.headers));
    auto bound = std::make_shared<int>(0);
    const std::weak_ptr<int> watch = bound;

    const int64_t id = client_->SendRequest(
        request, [bound = std::move(bound)](State, const HttpClient::Request&,
                                            std::unique_ptr<HttpClient::Response>) { *bound = 1; });

    EXPECT_LT(id, 1);
    EXPECT_TRUE(watch.expired());
  }
}

TEST_P(HttpClientConformance, ManyThreadsMaySendAtOnce) {
  constexpr int kThreads = 4;
  constexpr int kEach = 25;
  std::mutex mutex;
  std::set<int64_t> ids;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kEach; ++i) {
        const int64_t id = client_->SendRequest(Post("/", "x"), answers_.Note());
        std::lock_guard<std::mutex> hold(mutex);
        ids.insert(id);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();

  ASSERT_TRUE(WaitFor(kThreads * kEach));
  EXPECT_EQ(ids.size(), static_cast<size_t>(kThreads * kEach));
  std::set<int64_t> answered;
  for (const Answers::Answer& answer : answers_.all()) answered.insert(answer.request.request_id);
  EXPECT_EQ(answered, ids);
}

// ---- What is sent -------------------------------------------------------------------------------

TEST_P(HttpClientConformance, BodyArrivesByteForByte) {
  const std::vector<std::string> bodies = {"", "x", EveryByte(), std::string(383 * 1024, 'q')};
  for (const std::string& body : bodies) client_->SendRequest(Post("/", body), answers_.Note());
  ASSERT_TRUE(WaitFor(bodies.size()));

  std::multiset<std::string> sent(bodies.begin(), bodies.end());
  std::multiset<std::string> seen;
  for (const PeerRequest& request : peer_->Requests()) {
    EXPECT_EQ(request.method, "POST");
    seen.insert(request.body);
  }
  EXPECT_TRUE(seen == sent);
}

TEST_P(HttpClientConformance, RequestAndBodyMayChangeAfterTheCall) {
  HttpClient::Request request = Post("/kept", "before");
  client_->SendRequest(request, answers_.Note());
  request.body.data<char>()[0] = 'X';
  request.url = "gone";
  request.method = "gone";
  request = HttpClient::Request();
  ASSERT_TRUE(WaitFor(1));

  const std::vector<PeerRequest> seen = peer_->Requests();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].method, "POST");
  EXPECT_EQ(seen[0].path, "/kept");
  EXPECT_EQ(seen[0].body, "before");
}

TEST_P(HttpClientConformance, HeadersOfTheRequestReachThePeer) {
  HttpClient::Request request = Post("/", "x");
  request.headers = {{"Content-Type", "text/plain"}, {"X-Mine", "one, two"}};
  client_->SendRequest(request, answers_.Note());
  ASSERT_TRUE(WaitFor(1));

  const std::vector<PeerRequest> seen = peer_->Requests();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].headers.at("content-type"), "text/plain");
  EXPECT_EQ(seen[0].headers.at("x-mine"), "one, two");
}

// ---- What comes back ----------------------------------------------------------------------------

TEST_P(HttpClientConformance, CallbackReceivesTheRequestWithItsId) {
  const int64_t id = client_->SendRequest(Post("/path", "body"), answers_.Note());
  ASSERT_TRUE(WaitFor(1));

  const HttpClient::Request& request = answers_.all()[0].request;
  EXPECT_EQ(request.request_id, id);
  EXPECT_EQ(request.url, peer_->Origin() + "/path");
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(TextOf(request.body), "body");
}

TEST_P(HttpClientConformance, AnyStatusIsACompletedExchangeAndNoRedirectIsFollowed) {
  const std::vector<int> statuses = {200, 201, 204, 302, 307, 400, 404, 500, 503};
  const std::string elsewhere = peer_->Origin() + "/elsewhere";
  for (int status : statuses) {
    const std::string path = "/" + std::to_string(status);
    PeerAnswer answer;
    answer.status = status;
    answer.headers["location"] = elsewhere;
    peer_->Script(path, answer);
    client_->SendRequest(Post(path, "x"), answers_.Note());
  }
  ASSERT_TRUE(WaitFor(statuses.size()));

  std::multiset<int> seen;
  for (const Answers::Answer& answer : answers_.all()) {
    EXPECT_EQ(answer.state, State::kCompleted);
    ASSERT_NE(answer.response, nullptr);
    EXPECT_EQ(answer.response->headers.at("location"), elsewhere);
    EXPECT_EQ(answer.response->body.size(), 0u);
    seen.insert(answer.response->status_code);
  }
  EXPECT_EQ(seen, std::multiset<int>(statuses.begin(), statuses.end()));
  EXPECT_EQ(peer_->Requests().size(), statuses.size());
}

TEST_P(HttpClientConformance, ResponseBringsBodyAndHeaders) {
  PeerAnswer answer;
  answer.headers = {{"x-colour", "blue"}, {"x-empty", ""}};
  answer.body = EveryByte() + std::string(100 * 1024, 'z');
  peer_->Script("/", answer);
  client_->SendRequest(Post("/", "x"), answers_.Note());
  ASSERT_TRUE(WaitFor(1));

  const HttpClient::Response* response = answers_.all()[0].response.get();
  ASSERT_NE(response, nullptr);
  EXPECT_TRUE(TextOf(response->body) == answer.body);
  EXPECT_EQ(response->headers.at("x-colour"), "blue");
  EXPECT_EQ(response->headers.at("x-empty"), "");
}

// On a connection that was kept, too, where a client may take the request for not begun.
TEST_P(HttpClientConformance, RequestWhoseConnectionClosesFailsAndIsNotSentAgain) {
  PeerAnswer answer;
  answer.kind = PeerAnswer::Kind::kClose;
  peer_->Script("/closed", answer);
  client_->SendRequest(Post("/", "x"), answers_.Note());
  ASSERT_TRUE(WaitFor(1));
  client_->SendRequest(Post("/closed", "x"), answers_.Note());
  ASSERT_TRUE(WaitFor(2));

  EXPECT_EQ(answers_.all()[1].state, State::kFailed);
  EXPECT_EQ(answers_.all()[1].response, nullptr);
  EXPECT_EQ(peer_->Requests().size(), 2u);
}

TEST_P(HttpClientConformance, CallbackAndWhatItBoundAreGoneAfterItsRun) {
  auto bound = std::make_shared<int>(0);
  const std::weak_ptr<int> watch = bound;
  client_->SendRequest(Post("/", "x"), answers_.Note([bound = std::move(bound)] { ++*bound; }));
  ASSERT_TRUE(WaitFor(1));
  client_.reset();
  // A second exchange comes after whatever the first left behind on the client's thread.
  client_ = peer_->CreateClient();
  client_->SendRequest(Post("/", "x"), answers_.Note());
  ASSERT_TRUE(WaitFor(2));

  EXPECT_TRUE(watch.expired());
}

TEST_P(HttpClientConformance, CallbackMaySendTheNextRequest) {
  client_->SendRequest(Post("/first", "x"), answers_.Note([this] {
    client_->SendRequest(Post("/second", "x"), answers_.Note());
  }));
  ASSERT_TRUE(WaitFor(2));

  const std::vector<PeerRequest> seen = peer_->Requests();
  EXPECT_EQ(seen[0].path, "/first");
  EXPECT_EQ(seen[1].path, "/second");
}

TEST_P(HttpClientConformance, CallbackMayCreateAClient) {
  std::unique_ptr<HttpClient> second;
  client_->SendRequest(Post("/first", "x"), answers_.Note([&] {
    second = peer_->CreateClient();
    second->SendRequest(Post("/second", "x"), answers_.Note());
  }));
  ASSERT_TRUE(WaitFor(2));

  EXPECT_EQ(answers_.all()[1].state, State::kCompleted);
}

// ---- Destruction --------------------------------------------------------------------------------

TEST_P(HttpClientConformance, DestructionCancelsEachRequestExactlyOnce) {
  constexpr size_t kRequests = 10;
  PeerAnswer answer;
  answer.kind = PeerAnswer::Kind::kNever;
  peer_->Script("/", answer);
  std::set<int64_t> ids;
  for (size_t i = 0; i < kRequests; ++i) {
    ids.insert(client_->SendRequest(Post("/", "x"), answers_.Note()));
  }

  client_.reset();
  ASSERT_TRUE(WaitFor(kRequests));
  // Whatever else might still come would come before this.
  client_ = peer_->CreateClient();
  client_->SendRequest(Post("/other", "x"), answers_.Note());
  ASSERT_TRUE(WaitFor(kRequests + 1));

  ASSERT_EQ(answers_.all().size(), kRequests + 1);
  std::set<int64_t> cancelled;
  for (size_t i = 0; i < kRequests; ++i) {
    EXPECT_EQ(answers_.all()[i].state, State::kCancelled);
    EXPECT_EQ(answers_.all()[i].response, nullptr);
    cancelled.insert(answers_.all()[i].request.request_id);
  }
  EXPECT_EQ(cancelled, ids);
}

TEST_P(HttpClientConformance, DestructionNeverRunsCallbacksInsideTheDestructor) {
  PeerAnswer answer;
  answer.kind = PeerAnswer::Kind::kNever;
  peer_->Script("/", answer);
  std::atomic<bool> destroying{false};
  std::atomic<bool> ran_inside{false};
  const std::thread::id caller = std::this_thread::get_id();
  client_->SendRequest(Post("/", "x"), answers_.Note([&] {
    if (destroying && std::this_thread::get_id() == caller) ran_inside = true;
  }));

  destroying = true;
  client_.reset();
  destroying = false;
  ASSERT_TRUE(WaitFor(1));

  EXPECT_FALSE(ran_inside);
}

TEST_P(HttpClientConformance, DestructorWaitsForACallbackThatTellsASuccess) {
  std::promise<void> begun;
  std::promise<void> destroyed;
  bool heard_afterwards = false;
  client_->SendRequest(Post("/", "x"), answers_.Note([&] {
    begun.set_value();
    // It comes at once from a destructor that does not wait.
    heard_afterwards = destroyed.get_future().wait_for(std::chrono::milliseconds(200)) ==
                       std::future_status::ready;
  }));
  const std::future<void> telling = begun.get_future();
  while (telling.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready) {
    ASSERT_TRUE(peer_->Pump());
  }

  client_.reset();
  destroyed.set_value();
  ASSERT_TRUE(WaitFor(1));

  EXPECT_FALSE(heard_afterwards);
  EXPECT_EQ(answers_.all()[0].state, State::kCompleted);
}

TEST_P(HttpClientConformance, ClientMayBeDestroyedInsideItsOwnCallback) {
  PeerAnswer never;
  never.kind = PeerAnswer::Kind::kNever;
  peer_->Script("/never", never);
  client_->SendRequest(Post("/never", "x"), answers_.Note());
  client_->SendRequest(Post("/never", "x"), answers_.Note());
  client_->SendRequest(Post("/answered", "x"), answers_.Note([this] { client_.reset(); }));
  ASSERT_TRUE(WaitFor(3));

  // The destroying callback was still running when the others were ended.
  EXPECT_EQ(answers_.all()[0].state, State::kCompleted);
  EXPECT_EQ(answers_.all()[1].state, State::kCancelled);
  EXPECT_EQ(answers_.all()[2].state, State::kCancelled);
}

TEST_P(HttpClientConformance, CancelledCallbackMayUseAnotherClient) {
  PeerAnswer answer;
  answer.kind = PeerAnswer::Kind::kNever;
  peer_->Script("/never", answer);
  const std::unique_ptr<HttpClient> other = peer_->CreateClient();
  client_->SendRequest(Post("/never", "x"),
                       answers_.Note([&] { other->SendRequest(Post("/", "x"), answers_.Note()); }));

  client_.reset();
  ASSERT_TRUE(WaitFor(2));

  EXPECT_EQ(answers_.all()[0].state, State::kCancelled);
  EXPECT_EQ(answers_.all()[1].state, State::kCompleted);
}

TEST_P(HttpClientConformance, OtherClientsGoOnWhenOneIsDestroyed) {
  PeerAnswer answer;
  answer.kind = PeerAnswer::Kind::kNever;
  peer_->Script("/never", answer);
  std::unique_ptr<HttpClient> doomed = peer_->CreateClient();
  doomed->SendRequest(Post("/never", "x"), answers_.Note());
  doomed.reset();
  client_->SendRequest(Post("/", "x"), answers_.Note());
  ASSERT_TRUE(WaitFor(2));

  std::multiset<State> states;
  for (const Answers::Answer& each : answers_.all()) states.insert(each.state);
  EXPECT_EQ(states, (std::multiset<State>{State::kCancelled, State::kCompleted}));
}

// ---- Names --------------------------------------------------------------------------------------

TEST_P(HttpClientConformance, ImplementationHasAName) {
  EXPECT_STRNE(HttpClientFactory::ImplementationName(), "");
}

}  // namespace

GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(HttpClientConformance);

}  // namespace quenor::conformance
