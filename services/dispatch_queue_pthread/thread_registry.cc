#include "services/dispatch_queue_pthread/thread_registry.h"

#include <utility>

#include "quenor_base/platform/base/fork.h"

QUENOR_NAMESPACE_BEGIN
namespace dispatch_queue {

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

void ThreadRegistry::JoinEnded() {
  std::vector<pthread_t> ended;
  {
    std::lock_guard<std::mutex> hold(mutex_);
    ended.swap(ended_);
    joining_ += ended.size();
  }
  if (ended.empty()) return;
  for (const pthread_t thread : ended) pthread_join(thread, nullptr);
  std::lock_guard<std::mutex> hold(mutex_);
  joining_ -= ended.size();
  changed_.notify_all();
}

bool ThreadRegistry::WaitUntilDrained(base::MonotonicTime deadline) {
  {
    std::unique_lock<std::mutex> hold(mutex_);
    if (!changed_.wait_until(hold, deadline, [&] { return draining_ == 0; })) return false;
  }
  JoinEnded();
  // Another thread may be joining some of them.
  std::unique_lock<std::mutex> hold(mutex_);
  return changed_.wait_until(hold, deadline, [&] { return joining_ == 0; });
}

}  // namespace dispatch_queue
QUENOR_NAMESPACE_END
