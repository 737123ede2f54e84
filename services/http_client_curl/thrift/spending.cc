#include "services/http_client_curl/thrift/spending.h"

#include <time.h>

#include "quenor_base/platform/exception_barrier.h"

QUENOR_NAMESPACE_BEGIN
namespace {

constexpr char kInThrift[] = "quenor's HTTP client, in its caps";

// Goes on while the machine sleeps, as a phone does most of the day, and nobody sets it.
int64_t NowMs() {
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

std::string HeldBackBy(const char* field, uint64_t value) {
  return std::string("HttpThrift::") + field + " is " + std::to_string(value) +
         ", and so much has gone; wait, or set it higher";
}

}  // namespace

HttpSpending& HttpSpending::Get() {
  static std::atomic<HttpSpending*> spending{nullptr};
  return *base::FindOrMake(&spending, [] { return new HttpSpending; });
}

void HttpSpending::BeginAnewInChild() {
  if (generation_ == base::ForkGeneration()) return;
  generation_ = base::ForkGeneration();
  budget_.Refill();
  spent_ = HttpSpent();
}

std::string HttpSpending::Take(uint64_t bytes) {
  base::AutoLock hold(lock_);
  BeginAnewInChild();
  const ByteBudget::Cap cap = budget_.Take(bytes, NowMs());
  if (cap == ByteBudget::Cap::kNone) return std::string();
  ++spent_.held_back;
  return cap == ByteBudget::Cap::kSecond
             ? HeldBackBy("bytes_per_second", budget_.caps().bytes_per_second)
             : HeldBackBy("bytes_per_day", budget_.caps().bytes_per_day);
}

void HttpSpending::Settle(uint64_t taken, const HttpMoved& moved) {
  base::AutoLock hold(lock_);
  BeginAnewInChild();
  budget_.Settle(taken, moved.bytes, NowMs());
  spent_.bytes += moved.bytes;
  spent_.exchanges += moved.was_begun ? 1 : 0;
  spent_.connections += moved.connections;
}

void HttpSpending::SetCaps(const HttpThrift& caps) {
  base::AutoLock hold(lock_);
  BeginAnewInChild();
  budget_.SetCaps(caps, NowMs());
  is_capped_.store(budget_.has_cap(), std::memory_order_relaxed);
}

HttpThrift HttpSpending::Caps() {
  base::AutoLock hold(lock_);
  return budget_.caps();
}

HttpSpent HttpSpending::Spent() {
  base::AutoLock hold(lock_);
  BeginAnewInChild();
  spent_.bytes_within_day = budget_.WithinDay(NowMs());
  return spent_;
}

std::string SetHttpThrift(const HttpThrift& thrift) {
  std::string problem;
  base::EndOnException(kInThrift, [&] {
    problem = ByteBudget::Problem(thrift);
    if (problem.empty()) HttpSpending::Get().SetCaps(thrift);
  });
  return problem;
}

HttpThrift GetHttpThrift() {
  HttpThrift thrift;
  base::EndOnException(kInThrift, [&] { thrift = HttpSpending::Get().Caps(); });
  return thrift;
}

HttpSpent GetHttpSpent() {
  HttpSpent spent;
  base::EndOnException(kInThrift, [&] { spent = HttpSpending::Get().Spent(); });
  return spent;
}

QUENOR_NAMESPACE_END
