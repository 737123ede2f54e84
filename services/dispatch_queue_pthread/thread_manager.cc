// Dispatch queues on a pthread each: how one is made and how its thread begins and ends.
#include "quenor_base/platform/thread_manager.h"

#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <climits>
#include <memory>
#include <string>
#include <utility>

#include "quenor_base/platform/base/thread_create_flag.h"
#include "quenor_base/platform/exception_barrier.h"
#include "services/dispatch_queue_pthread/queue_core.h"
#include "services/dispatch_queue_pthread/thread_registry.h"

QUENOR_NAMESPACE_BEGIN
namespace {

using dispatch_queue::DeadlineAfter;
using dispatch_queue::QueueCore;
using dispatch_queue::Task;
using dispatch_queue::ThreadRegistry;

class PthreadDispatchQueue : public DispatchQueue {
 public:
  explicit PthreadDispatchQueue(QueueCore* core) : core_(core) {}
  ~PthreadDispatchQueue() override {
    core_->Close();
    core_->Drop();
  }

  void PostTask(const base::Location&, Task task) override { core_->Post(std::move(task)); }
  void PostDelayedTask(const base::Location&, Task task, base::TimeDelta delay) override {
    if (delay <= base::TimeDelta()) return core_->Post(std::move(task));  // In turn with the rest.
    core_->PostDelayed(std::move(task), delay);
  }
  uint64_t PostCancelableDelayedTask(const base::Location&, Task task,
                                     base::TimeDelta delay) override {
    return core_->PostDelayed(std::move(task), delay);
  }
  bool CancelDelayedTask(uint64_t id) override { return core_->Cancel(id); }
  void Retire() override { core_->Retire(); }

  struct ThreadStart {
    QueueCore* core;  // The thread drops it at its end.
    std::weak_ptr<DispatchQueue> queue;
    std::string name;
  };

  [[gnu::cold]] static void* ThreadMain(void* start_pointer) {
    base::EndOnException("a task on a dispatch queue", [=] { RunThread(start_pointer); });
    return nullptr;
  }

 private:
  [[gnu::cold]] static void RunThread(void* start_pointer) {
    {
      const std::unique_ptr<ThreadStart> start(static_cast<ThreadStart*>(start_pointer));
      pthread_setname_np(pthread_self(), start->name.substr(0, 15).c_str());
      base::ThreadCreateFlag::SetThreadCreateByQuenor(true);
      const ScopedCurrent current(std::move(start->queue));
      if (!start->core->Run()) return;
      start->core->Drop();
    }
    ThreadRegistry::Get().EndDrainingThread();
  }

  QueueCore* const core_;  // Holds this object.
};

// Creates the thread with every signal blocked: the host's handlers run on the host's threads.
[[gnu::cold]] bool StartThread(std::unique_ptr<PthreadDispatchQueue::ThreadStart> start,
                               size_t stack_size) {
  pthread_attr_t attributes;
  if (pthread_attr_init(&attributes) != 0) return false;
  if (stack_size != 0) {
    pthread_attr_setstacksize(&attributes, std::max<size_t>(stack_size, PTHREAD_STACK_MIN));
  }
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  pthread_t thread;
  const int error =
      pthread_create(&thread, &attributes, &PthreadDispatchQueue::ThreadMain, start.get());
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  pthread_attr_destroy(&attributes);
  if (error != 0) return false;
  start.release();  // The thread's now.
  return true;
}

// Null when the thread cannot be created.
[[gnu::cold]] std::shared_ptr<DispatchQueue> CreateQueue(const std::string& name,
                                                         size_t stack_size) {
  ThreadRegistry::Get().JoinEnded(base::MonotonicNow());  // Nobody waits here.
  auto* core = new QueueCore;
  auto queue = std::make_shared<PthreadDispatchQueue>(core);
  auto start = std::make_unique<PthreadDispatchQueue::ThreadStart>();
  start->core = core;
  start->queue = queue;
  start->name = name;
  if (!StartThread(std::move(start), stack_size)) {
    core->Drop();   // In the thread's place.
    queue.reset();  // Counts itself as draining; no thread will take that back.
    ThreadRegistry::Get().EndDraining();
    return nullptr;
  }
  return queue;
}

}  // namespace

namespace core {

[[gnu::cold]] std::shared_ptr<DispatchQueue> ThreadManager::CreateNewDispatchQueue(
    BusinessID, const std::string& name, const base::Optional<base::Thread::Options>& options) {
  std::shared_ptr<DispatchQueue> queue;
  base::EndOnException("quenor's thread manager, as a queue was created", [&] {
    queue = CreateQueue(name, options.has_value() ? options->stack_size : 0);
  });
  return queue;
}

[[gnu::cold]] bool ThreadManager::WaitForDrain(base::TimeDelta timeout) {
  // A queue's own thread cannot wait for itself.
  if (base::ThreadCreateFlag::IsThreadCreateByQuenor()) return false;
  return ThreadRegistry::Get().WaitUntilDrained(DeadlineAfter(timeout));
}

const char* ThreadManager::ImplementationName() { return "pthread"; }

}  // namespace core
QUENOR_NAMESPACE_END
