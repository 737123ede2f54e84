// Worker: a thread that does one job after the other, each while the caller waits, so that a test
// with several threads has one order only.
#ifndef QUENOR_TESTS_UNIT_SECOND_POOLS_WORKER_H_
#define QUENOR_TESTS_UNIT_SECOND_POOLS_WORKER_H_

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

#include "quenor_base/platform/base/thread_create_flag.h"

namespace quenor::test {

enum class Thread { kSdk, kForeign };

class Worker {
 public:
  // `kind` says whether the thread counts as one that the SDK created.
  explicit Worker(Thread kind = Thread::kSdk) : thread_([this, kind] { Run(kind); }) {}
  ~Worker() { End(); }
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  // Runs `job` on the thread and returns when it is done.
  void Do(const std::function<void()>& job) {
    std::unique_lock<std::mutex> lock(mutex_);
    job_ = &job;
    changed_.notify_all();
    changed_.wait(lock, [this] { return job_ == nullptr; });
  }
  // Lets the thread end and waits until it has.
  void End() {
    if (!thread_.joinable()) return;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      ends_ = true;
      changed_.notify_all();
    }
    thread_.join();
  }

 private:
  void Run(Thread kind) {
    base::ThreadCreateFlag::SetThreadCreateByQuenor(kind == Thread::kSdk);
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      changed_.wait(lock, [this] { return ends_ || job_ != nullptr; });
      if (job_ == nullptr) return;
      lock.unlock();
      (*job_)();
      lock.lock();
      job_ = nullptr;
      changed_.notify_all();
    }
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  const std::function<void()>* job_ = nullptr;
  bool ends_ = false;
  std::thread thread_;  // Last: it uses the others.
};

// Runs `job` on a thread of its own that has ended when this returns.
inline void OnThread(Thread kind, const std::function<void()>& job) {
  Worker worker(kind);
  worker.Do(job);
}

}  // namespace quenor::test

#endif  // QUENOR_TESTS_UNIT_SECOND_POOLS_WORKER_H_
