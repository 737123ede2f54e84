// What the HTTP client has moved in this process, and whether more may go. Internal to the HTTP
// client on libcurl. Threads: any. Life cycle: never destroyed; a forked child has the caps and has
// spent nothing. See docs/design/http-client.md.
#ifndef SERVICES_HTTP_CLIENT_CURL_THRIFT_SPENDING_H_
#define SERVICES_HTTP_CLIENT_CURL_THRIFT_SPENDING_H_

#include <atomic>
#include <cstdint>
#include <string>
#include <utility>

#include "quenor_base/platform/base/fork.h"
#include "quenor_base/platform/base/lock.h"
#include "quenor_base/platform/base/thread_annotations.h"
#include "quenor_base/platform/http_thrift.h"
#include "services/http_client_curl/rules/byte_budget.h"

QUENOR_NAMESPACE_BEGIN

// What an exchange has moved; nothing until libcurl had it.
struct HttpMoved {
  bool was_begun = false;
  uint64_t bytes = 0;
  uint32_t connections = 0;
};

class HttpSpending {
 public:
  static HttpSpending& Get();

  // relaxed: a request that races with a change of the caps may go by either.
  static bool IsCapped() { return is_capped_.load(std::memory_order_relaxed); }

  // Empty, and the request is charged; or which cap holds it back.
  std::string Take(uint64_t bytes) QUENOR_EXCLUDES(lock_);
  // In place of what was taken for the request.
  void Settle(uint64_t taken, const HttpMoved& moved) QUENOR_EXCLUDES(lock_);

  void SetCaps(const HttpThrift& caps) QUENOR_EXCLUDES(lock_);
  HttpThrift Caps() QUENOR_EXCLUDES(lock_);
  HttpSpent Spent() QUENOR_EXCLUDES(lock_);

 private:
  HttpSpending() = default;
  void BeginAnewInChild() QUENOR_REQUIRES(lock_);

  inline static std::atomic<bool> is_capped_{false};

  base::Lock lock_;
  base::HeldAtFork held_{&lock_};
  uint32_t generation_ QUENOR_GUARDED_BY(lock_) = base::ForkGeneration();
  ByteBudget budget_ QUENOR_GUARDED_BY(lock_);
  HttpSpent spent_ QUENOR_GUARDED_BY(lock_);
};

// What was taken for a request, until that is on its way.
class HttpCharge {
 public:
  HttpCharge() = default;
  ~HttpCharge() {
    if (bytes_ != 0) HttpSpending::Get().Settle(bytes_, HttpMoved());
  }
  HttpCharge(const HttpCharge&) = delete;
  HttpCharge& operator=(const HttpCharge&) = delete;

  // As HttpSpending::Take().
  std::string Take(uint64_t bytes) {
    std::string problem = HttpSpending::Get().Take(bytes);
    if (problem.empty()) bytes_ = bytes;
    return problem;
  }
  // For whoever settles it.
  uint64_t Release() { return std::exchange(bytes_, 0); }

 private:
  uint64_t bytes_ = 0;
};

QUENOR_NAMESPACE_END

#endif  // SERVICES_HTTP_CLIENT_CURL_THRIFT_SPENDING_H_
