// What the HTTP client's integration tests share: a certificate authority in a folder of its own,
// and exchanges that are waited for. Threads: the test's own.
#ifndef QUENOR_TESTS_INTEGRATION_HTTP_CLIENT_FIXTURE_H_
#define QUENOR_TESTS_INTEGRATION_HTTP_CLIENT_FIXTURE_H_

#include <gtest/gtest.h>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "quenor_base/platform/http_client.h"
#include "tests/support/certificates.h"
#include "tests/support/patience.h"
#include "tests/support/temp_folder.h"

namespace quenor::test {

struct Outcome {
  int64_t id = 0;  // What SendRequest() answered.
  HttpClient::State state = HttpClient::State::kFailed;
  std::unique_ptr<HttpClient::Response> response;
  HttpReason reason = HttpReason::kNone;

  int status() const { return response == nullptr ? 0 : response->status_code; }
  std::string body() const;
  // Empty when there is no such header, or no response.
  std::string header(const std::string& name) const;
};

// Gathers outcomes; its callbacks may run on any thread and after it is gone.
class Exchanges {
 public:
  Exchanges() : core_(std::make_shared<Core>()) {}

  // A callback that notes the outcome here and then runs `then`, if any.
  HttpClient::CompletionCallback Note(std::function<void()> then = nullptr);
  // Waits until `count` callbacks have run; throws when they do not.
  void WaitFor(size_t count);
  size_t count() const;
  // Takes the outcomes so far.
  std::vector<Outcome> Take();

 private:
  struct Core {
    std::mutex mutex;
    std::condition_variable arrived;
    std::vector<Outcome> outcomes;  // Guarded by `mutex`.
  };
  const std::shared_ptr<Core> core_;
};

// Lets its callers go on in groups of this size.
class Barrier {
 public:
  explicit Barrier(size_t size) : size_(size) {}
  void Meet() {
    std::unique_lock<std::mutex> hold(mutex_);
    const size_t all = (arrived_++ / size_ + 1) * size_;
    changed_.notify_all();
    changed_.wait_for(hold, kPatience, [&] { return arrived_ >= all; });
  }

 private:
  const size_t size_;
  std::mutex mutex_;
  std::condition_variable changed_;
  size_t arrived_ = 0;
};

HttpClient::Request MakeRequest(const std::string& url, const std::string& body,
                                const std::string& method = "POST");

// Sends and waits. An id below 1 comes back at once.
Outcome Send(HttpClient* client, const HttpClient::Request& request);

class HttpClientTest : public ::testing::Test {
 protected:
  HttpClientTest();

  // Defaults that trust the test's authority.
  HttpDefaults TrustingDefaults() const;
  // A client after SetHttpDefaults(); fails the test when these are refused.
  std::unique_ptr<HttpClient> MakeClient(const HttpDefaults& defaults,
                                         const HttpClient::Config& config = {}) const;
  std::unique_ptr<HttpClient> MakeClient() const { return MakeClient(TrustingDefaults()); }

  TempFolder folder_;
  CertificateAuthority authority_;
  Certificate certificate_;  // For localhost, 127.0.0.1 and ::1.
};

}  // namespace quenor::test

#endif  // QUENOR_TESTS_INTEGRATION_HTTP_CLIENT_FIXTURE_H_
