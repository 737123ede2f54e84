// FakeHttp: what stands behind HttpClientFactory while quenor_fake_http_client is linked. It
// records every configuration and request and answers only when the test says so, always by posting
// to the thread that the test names, never inside SendRequest(). Threads: any. Life cycle: one per
// test, made before the first client; without one that lives, no client is created.
#ifndef QUENOR_TESTS_SUPPORT_FAKES_FAKE_HTTP_CLIENT_H_
#define QUENOR_TESTS_SUPPORT_FAKES_FAKE_HTTP_CLIENT_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "quenor_base/platform/base/callback.h"
#include "quenor_base/platform/http_client.h"

namespace quenor::test {

class FakeHttp {
 public:
  // Runs a task later on the thread that plays the client's own.
  using Poster = std::function<void(base::OnceClosure)>;
  using Headers = std::map<std::string, std::string>;

  // One call of SendRequest(). Requests are named by their index, as ids may be used twice.
  struct Sent {
    int64_t id;     // What SendRequest() answered.
    size_t client;  // The index of its client's configuration in Configs().
    HttpClient::Request request;
    std::string body;  // The bytes as they were at the call.
  };

  explicit FakeHttp(Poster poster);
  // Destroys the callbacks that are still outstanding, unrun.
  ~FakeHttp();
  FakeHttp(const FakeHttp&) = delete;
  FakeHttp& operator=(const FakeHttp&) = delete;

  // --- The record ---
  // The configuration of each Create() call, failed ones included.
  std::vector<HttpClient::Config> Configs() const;
  std::vector<Sent> Requests() const;
  size_t RequestCount() const;
  // Indexes of the requests that were started and have not been answered, oldest first.
  std::vector<size_t> Outstanding() const;
  size_t LiveClients() const;

  // --- The script ---
  void FailNextCreations(size_t count);
  // The next SendRequest() calls answer these ids, one each; afterwards fresh ids again. An id
  // below 1 is a request that could not be started.
  void ReturnNextIds(std::vector<int64_t> ids);
  // From now on every SendRequest() answers `id`; 0 or below can be taken back with Accept().
  void RefuseAll(int64_t id);
  void Accept();
  // What this answers true for is refused with 0 and not recorded, however often it is tried; null
  // for nothing. Called in each SendRequest(), on its thread, before anything else.
  void SetHoldBack(std::function<bool(const HttpClient::Request&)> hold_back);
  // Called in each other SendRequest(), on its thread, before anything else; null for nothing.
  void SetOnSend(std::function<void(const HttpClient::Request&)> on_send);
  // Called in each SendRequest() that started a request, on its thread, once the request can be
  // answered; null for nothing.
  void SetOnStarted(std::function<void()> on_started);
  // Called as a client is destroyed, on that thread, before its requests end; null for nothing.
  void SetOnClientDestroyed(std::function<void()> on_destroyed);

  // --- Answers. False when the request of that index is not outstanding. ---
  // A whole HTTP response.
  bool Answer(size_t index, int status_code, const std::string& body = std::string(),
              const Headers& headers = Headers());
  // Any state with any response, null included.
  bool AnswerWith(size_t index, HttpClient::State state,
                  std::unique_ptr<HttpClient::Response> response);
  // An exchange that ended without a response, for HttpClient::ReasonOf().
  bool Fail(size_t index, HttpClient::State state = HttpClient::State::kFailed);
  // Destroys the callback unrun, on the client's thread.
  bool Drop(size_t index);

  struct Core;  // Shared with the clients, which may outlive this object.

 private:
  const std::shared_ptr<Core> core_;
};

}  // namespace quenor::test

#endif  // QUENOR_TESTS_SUPPORT_FAKES_FAKE_HTTP_CLIENT_H_
