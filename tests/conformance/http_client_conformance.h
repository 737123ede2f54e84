// The contract of quenor_base/platform/http_client.h as a suite that runs on any implementation.
// To run it on your own, write an HttpClientPeer that lets your client reach something scripted and
//   INSTANTIATE_TEST_SUITE_P(Mine, HttpClientConformance, ::testing::Values(&MakeMyPeer));
// in a program that links quenor_http_client_conformance, your client and GoogleTest.
// Threads: the tests run on the main thread.
// See docs/design/http-client.md.
#ifndef QUENOR_TESTS_CONFORMANCE_HTTP_CLIENT_CONFORMANCE_H_
#define QUENOR_TESTS_CONFORMANCE_HTTP_CLIENT_CONFORMANCE_H_

#include <gtest/gtest.h>

#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "quenor_base/platform/http_client.h"

namespace quenor::conformance {

// What the peer does with a request.
struct PeerAnswer {
  enum class Kind {
    kRespond,  // Sends the response below.
    kClose,    // Ends the connection without a byte.
    kNever,    // Keeps the connection and says nothing.
  };
  Kind kind = Kind::kRespond;
  int status = 200;
  std::map<std::string, std::string> headers;
  std::string body;
};

// A request as it reached the peer.
struct PeerRequest {
  std::string method;
  std::string path;
  std::map<std::string, std::string> headers;  // Names in lower case.
  std::string body;
};

// The surroundings of the implementation under test; one per test.
// Threads: any.
class HttpClientPeer {
 public:
  virtual ~HttpClientPeer() = default;

  // A client that can reach the peer. By default what is linked.
  virtual std::unique_ptr<HttpClient> CreateClient() {
    return HttpClientFactory::Create(HttpClient::Config());
  }
  // Where the peer is, without a path: "http://127.0.0.1:8080".
  virtual std::string Origin() const = 0;
  // Runs what the client's own thread has to do, where the test's thread plays that thread; a
  // client with a thread of its own needs nothing. False when nothing will come any more.
  virtual bool Pump() { return true; }

  // What is done from now on with each request to `path`. A path never named is answered 200
  // without a body.
  void Script(const std::string& path, const PeerAnswer& answer);
  // The requests that have reached the peer.
  std::vector<PeerRequest> Requests() const;

 protected:
  // To be called with each request that reaches the peer, before it is answered: what is to be done
  // with it. Its headers may have names in any case.
  PeerAnswer Arrived(PeerRequest request);

 private:
  mutable std::mutex mutex_;
  std::map<std::string, PeerAnswer> script_;  // Guarded by `mutex_`, as is the next.
  std::vector<PeerRequest> seen_;
};

using MakePeer = std::unique_ptr<HttpClientPeer> (*)();

// Gathers what callbacks were given. Any thread.
class Answers {
 public:
  struct Answer {
    HttpClient::State state;
    HttpClient::Request request;
    std::unique_ptr<HttpClient::Response> response;
    std::thread::id thread;
  };

  // A callback that notes its call here and then runs `then`, if any.
  HttpClient::CompletionCallback Note(std::function<void()> then = nullptr);
  size_t count() const;
  // Waits, letting the peer work, until `count` callbacks have run. False when they never will.
  [[nodiscard]] bool WaitFor(size_t count, HttpClientPeer* peer);
  // The answers so far; not to be called while callbacks may still run.
  const std::vector<Answer>& all() const { return answers_; }

 private:
  mutable std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<Answer> answers_;  // Guarded by `mutex_`, save in all().
};

class HttpClientConformance : public ::testing::TestWithParam<MakePeer> {
 protected:
  HttpClientConformance() : peer_(GetParam()()), client_(peer_->CreateClient()) {}

  HttpClient::Request Post(const std::string& path, const std::string& body) const;
  [[nodiscard]] bool WaitFor(size_t count) { return answers_.WaitFor(count, peer_.get()); }

  Answers answers_;
  std::unique_ptr<HttpClientPeer> peer_;
  std::unique_ptr<HttpClient> client_;
};

std::string TextOf(const CopyOnWriteBuffer& buffer);

}  // namespace quenor::conformance

#endif  // QUENOR_TESTS_CONFORMANCE_HTTP_CLIENT_CONFORMANCE_H_
