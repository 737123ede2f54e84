#include "services/dispatch_queue_pthread/thread_registry.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <utility>

#include "quenor_base/platform/base/fork.h"

QUENOR_NAMESPACE_BEGIN
namespace dispatch_queue {
namespace {

// False when it has not come to its end by then.
bool JoinUntil(pthread_t thread, base::MonotonicTime deadline) {
  using std::chrono::nanoseconds;
  if (deadline == base::MonotonicTime::max()) return pthread_join(thread, nullptr) == 0;
  constexpr int64_t kSecond = 1000000000;
  const nanoseconds left = std::max(deadline - base::MonotonicNow(), nanoseconds(0));
  timespec until;  // Of the one clock that the call knows.
  clock_gettime(CLOCK_REALTIME, &until);
  const int64_t rest = until.tv_nsec + left.count() % kSecond;
  until.tv_sec += left.count() / kSecond + rest / kSecond;
  until.tv_nsec = rest % kSecond;
  return pthread_timedjoin_np(thread, nullptr, &until) == 0;
}

}  // namespace

ThreadRegistry& ThreadRegistry::Get() {
  static base::OnePerProcess<ThreadRegistry> registry;
  return registry.Get();
}

void ThreadRegistry::AddDraining(bool* is_counted) {
  std::lock_guard<std::mutex> hold(mutex_);
  if (!std::exchange(*is_counted, true)) ++draining_;
}

void ThreadRegistry::EndDraining() {
  std::lock_guard<std::mutex> hold(mutex_);
  --draining_;
  changed_.notify_all();
}

void ThreadRegistry::EndDrainingThread() {
  std::lock_guard<std::mutex> hold(mutex_);
  ended_.push_back(pthread_self());
  --draining_;
  changed_.notify_all();
}

bool ThreadRegistry::JoinEnded(base::MonotonicTime deadline) {
  std::vector<pthread_t> ended;
  {
    std::lock_guard<std::mutex> hold(mutex_);
    ended.swap(ended_);
    joining_ += ended.size();
  }
  if (ended.empty()) return true;
  const auto late = std::remove_if(ended.begin(), ended.end(), [deadline](pthread_t thread) {
    return JoinUntil(thread, deadline);
  });
  std::lock_guard<std::mutex> hold(mutex_);
  joining_ -= ended.size();
  ended_.insert(ended_.end(), ended.begin(), late);
  changed_.notify_all();
  return late == ended.begin();
}

bool ThreadRegistry::WaitUntilDrained(base::MonotonicTime deadline) {
  {
    std::unique_lock<std::mutex> hold(mutex_);
    if (!changed_.wait_until(hold, deadline, [&] { return draining_ == 0; })) return false;
  }
  if (!JoinEnded(deadline)) return false;
  // Another thread may be joining some of them.
  std::unique_lock<std::mutex> hold(mutex_);
  return changed_.wait_until(hold, deadline, [&] { return joining_ == 0; });
}

}  // namespace dispatch_queue
QUENOR_NAMESPACE_END
