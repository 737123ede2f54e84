// ClientWatch: sees every exchange of every HTTP client that the channels of this process make, and
// counts the callbacks of each. Whoever links it has HttpClientFactory::Create() wrapped.
// Threads: any. Life cycle: one per process, never destroyed.
#ifndef QUENOR_TESTS_INTEGRATION_MATRIX_CLIENT_WATCH_H_
#define QUENOR_TESTS_INTEGRATION_MATRIX_CLIENT_WATCH_H_

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>

#include "quenor_base/platform/http_client.h"

namespace quenor::test {

struct Ending {
  HttpClient::State state = HttpClient::State::kFailed;
  int status = 0;  // 0 without a response.
};

class ClientWatch {
 public:
  static ClientWatch* Get();

  // Forgets everything so far; no exchange may be open.
  void Clear();
  // Waits until `count` exchanges have ended and their callbacks have returned, or throws.
  // Answers how the last one ended.
  Ending WaitFor(size_t count);
  size_t started() const;
  size_t ended() const;
  // Callbacks that ran for an exchange that had had its own, and callbacks destroyed unrun of
  // exchanges that were started: 0 each, unless the client breaks its promise.
  size_t repeated() const;
  size_t unrun() const;

  // For the wrapper.
  void OnStarted(int64_t id);
  void OnEnded(int64_t id, Ending ending);
  void OnUnrun();

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::map<int64_t, int> runs_;  // Guarded by `mutex_`, as are those below.
  size_t started_ = 0;
  size_t ended_ = 0;
  size_t repeated_ = 0;
  size_t unrun_ = 0;
  Ending last_;
};

}  // namespace quenor::test

#endif  // QUENOR_TESTS_INTEGRATION_MATRIX_CLIENT_WATCH_H_
