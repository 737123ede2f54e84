// Dispatch queues on a pthread each: a list of tasks under a short lock, which the thread swaps out
// whole, and an ordered map of deadlines under a mutex. An idle queue waits without a time-out.
#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <map>
#include <mutex>
#include <new>
#include <thread>
#include <utility>
#include <vector>

#include "quenor_base/platform/base/exception_barrier.h"
#include "quenor_base/platform/base/fork.h"
#include "quenor_base/platform/base/lock.h"
#include "quenor_base/platform/base/thread_create_flag.h"
#include "quenor_base/platform/thread_manager.h"

QUENOR_NAMESPACE_BEGIN

namespace {

using Clock = std::chrono::steady_clock;
using Task = base::OnceCallback<void()>;

// A deadline that is never reached; far from the clock's own end, so that sums cannot overflow.
constexpr int64_t kForeverUs = int64_t{100} * 365 * 24 * 3600 * 1000000;

// Room that a queue keeps after a burst; more goes back to the heap.
constexpr size_t kTasksToKeepRoomFor = 256;

// Whose exception it is when there is no memory for a task.
constexpr char kPosting[] = "quenor's dispatch queue, as a task was posted";

// A queue that is woken this soon after it fell asleep, or finds more tasks than these, is in a
// burst ...
constexpr std::chrono::microseconds kShortSleep(20);
constexpr size_t kFewTasks = 4;
// ... and lets tasks pile up for this long (and what the system adds) before it looks again.
constexpr std::chrono::microseconds kNap(20);

Clock::time_point DeadlineAfter(base::TimeDelta delay) {
  const int64_t us = std::clamp<int64_t>(delay.InMicroseconds(), 0, kForeverUs);
  return Clock::now() + std::chrono::microseconds(us);
}

// Threads that live, and those that have ended and wait to be joined. Lives for the process: a
// queue's thread may outlast every static object.
struct Registry {
  // None of the parent's threads is in a forked child.
  explicit Registry(Registry* /*parents*/) {}

  std::mutex mutex;
  std::condition_variable changed;
  size_t draining = 0;           // Queues retired or dropped whose thread has not ended.
  size_t joining = 0;            // Threads taken out of `ended` and not yet joined.
  std::vector<pthread_t> ended;  // Threads at their very end, to be joined.
};

[[gnu::cold]] Registry& TheRegistry() {
  static base::OnePerProcess<Registry> registry;
  return registry.Get();
}

[[gnu::cold]] void JoinEnded() {
  Registry& registry = TheRegistry();
  std::vector<pthread_t> ended;
  {
    std::lock_guard<std::mutex> hold(registry.mutex);
    ended.swap(registry.ended);
    registry.joining += ended.size();
  }
  if (ended.empty()) return;
  for (const pthread_t thread : ended) pthread_join(thread, nullptr);
  std::lock_guard<std::mutex> hold(registry.mutex);
  registry.joining -= ended.size();
  registry.changed.notify_all();
}

// Tasks in a row, in room that is made beforehand. Smaller than a vector, to be on one cache line
// with all else that a post writes.
class TaskList {
 public:
  TaskList() = default;
  ~TaskList() {
    Clear();
    if (tasks_ != nullptr) std::allocator<Task>().deallocate(tasks_, capacity_);
  }
  TaskList(const TaskList&) = delete;
  TaskList& operator=(const TaskList&) = delete;

  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  size_t capacity() const { return capacity_; }
  Task* begin() { return tasks_; }
  Task* end() { return tasks_ + size_; }

  // There must be room.
  void Add(Task&& task) {
    new (tasks_ + size_) Task(std::move(task));
    ++size_;
  }
  void Clear() {
    for (Task& task : *this) task.~Task();
    size_ = 0;
  }
  void Swap(TaskList* other) {
    std::swap(tasks_, other->tasks_);
    std::swap(size_, other->size_);
    std::swap(capacity_, other->capacity_);
  }
  // Takes the room of `roomy`, an empty one with more of it, which is left with this one's.
  void MoveInto(TaskList* roomy) {
    for (Task& task : *this) roomy->Add(std::move(task));
    Swap(roomy);
  }
  // An empty one's.
  [[gnu::cold]] void SetCapacity(size_t capacity) {
    Task* const room = std::allocator<Task>().allocate(capacity);  // May throw: the old stays.
    if (tasks_ != nullptr) std::allocator<Task>().deallocate(tasks_, capacity_);
    tasks_ = room;
    capacity_ = static_cast<uint32_t>(capacity);
  }

 private:
  Task* tasks_ = nullptr;
  uint32_t size_ = 0;
  uint32_t capacity_ = 0;
};

// What a queue's thread runs on, and where the queue object is; lives as long as the thread and
// whoever has a reference to the queue, a weak one too, so that either may go first. In a forked
// child, where the thread is not: everything is dropped, no lock is taken.
class QueueCore {
 public:
  // Allocator for the queue object and its reference counts: in the core's first bytes, on one
  // cache line with what each post writes, if they fit there. What it has allocated is one holder.
  template <typename T>
  struct Front {
    using value_type = T;
    explicit Front(QueueCore* core_in) : core(core_in) {}
    template <typename U>
    Front(const Front<U>& other) : core(other.core) {}  // NOLINT: an allocator converts.
    T* allocate(size_t count) {
      if (count * sizeof(T) > sizeof core->front_) return std::allocator<T>().allocate(count);
      return reinterpret_cast<T*>(core->front_);
    }
    void deallocate(T* at, size_t count) {
      if (count * sizeof(T) > sizeof core->front_) std::allocator<T>().deallocate(at, count);
      core->Drop();
    }
    template <typename U>
    bool operator==(const Front<U>& other) const {
      return core == other.core;
    }
    template <typename U>
    bool operator!=(const Front<U>& other) const {
      return core != other.core;
    }
    QueueCore* core;
  };
  // Any thread. One of the two holders is done with it; the last one deletes it.
  void Drop() {
    // acq_rel: release publishes this holder's writes, acquire lets the last one see them all.
    if (holders_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }

  void Post(Task&& task) {
    if (IsInForkedChild()) return;
    std::unique_lock<base::ShortLock> hold(lock_);
    if (tasks_.size() == tasks_.capacity()) return MakeRoomAndPost(std::move(task), &hold);
    tasks_.Add(std::move(task));
    WakeAndUnlock(&hold);
  }

  uint64_t PostDelayed(Task task, base::TimeDelta delay) {
    if (IsInForkedChild()) return 0;
    const Clock::time_point due = DeadlineAfter(delay);
    std::unique_lock<std::mutex> hold(delayed_mutex_);
    const uint64_t id = ++last_delayed_id_;
    const bool earliest = delayed_.empty() || due < delayed_.begin()->first.first;
    base::EndOnException(kPosting, [&] {
      delayed_.emplace(std::make_pair(due, id), std::move(task));
      due_by_id_.emplace(id, due);
    });
    hold.unlock();
    // A later deadline than the one the thread waits for needs no wake-up.
    if (earliest) LookAgain();
    return id;
  }

  bool Cancel(uint64_t id) {
    if (IsInForkedChild()) return false;
    Task cancelled;  // Destroyed after the lock is released.
    std::unique_lock<std::mutex> hold(delayed_mutex_);
    const auto due = due_by_id_.find(id);
    if (due == due_by_id_.end()) return false;
    const auto entry = delayed_.find({due->second, id});
    const bool earliest = entry == delayed_.begin();
    cancelled = std::move(entry->second);
    delayed_.erase(entry);
    due_by_id_.erase(due);
    hold.unlock();
    // The thread may be waiting for this very deadline: have it take the next one.
    if (earliest) LookAgain();
    return true;
  }

  // Counts the queue as draining, once.
  [[gnu::cold]] void Retire() {
    if (IsInForkedChild()) return;
    std::lock_guard<std::mutex> hold(TheRegistry().mutex);
    if (!retired_) ++TheRegistry().draining;
    retired_ = true;
  }

  // The last reference to the queue has gone. Nothing is run or destroyed here.
  [[gnu::cold]] void Close() {
    if (IsInForkedChild()) return;
    Retire();
    std::unique_lock<base::ShortLock> hold(lock_);
    closed_ = true;
    WakeAndUnlock(&hold);
  }

  // The thread's whole life. False when a task has forked and come back in the child: nothing that
  // the parent has posted runs or is destroyed there.
  [[gnu::hot, gnu::noinline]] bool Run() {
    auto batch = std::make_unique<TaskList>();
    while (WaitForTasks(batch.get())) {
      if (!RunAll(batch.get())) {
        (void)batch.release();
        return false;
      }
      if (batch->capacity() > kTasksToKeepRoomFor) batch->SetCapacity(kTasksToKeepRoomFor);
    }
    DestroyDelayed();
    return !IsInForkedChild();
  }

 private:
  bool IsInForkedChild() const { return generation_ != base::ForkGeneration(); }

  // Runs and destroys the tasks; false as soon as this is a forked child.
  bool RunAll(TaskList* batch) {
    for (Task& task : *batch) {
      std::move(task).Run();
      if (IsInForkedChild()) return false;
    }
    batch->Clear();
    return !IsInForkedChild();
  }

  // In the thread's own list.
  [[gnu::cold]] static void MakeRoom(TaskList* list) {
    TaskList roomy;
    roomy.SetCapacity(std::max<size_t>(2 * list->capacity(), 16));
    list->MoveInto(&roomy);
  }

  // Allocates and frees without the lock.
  [[gnu::cold, gnu::noinline]] void MakeRoomAndPost(Task&& task,
                                                    std::unique_lock<base::ShortLock>* hold) {
    TaskList roomy;  // In the end the list that was too small, which goes last of all.
    while (tasks_.size() == tasks_.capacity()) {
      const size_t wanted = std::max<size_t>(2 * tasks_.capacity(), 16);
      hold->unlock();
      if (roomy.capacity() < wanted) {
        base::EndOnException(kPosting, [&] { roomy.SetCapacity(wanted); });
      }
      hold->lock();
      if (tasks_.capacity() >= roomy.capacity()) continue;  // Another thread was faster.
      tasks_.MoveInto(&roomy);
    }
    tasks_.Add(std::move(task));
    WakeAndUnlock(hold);
  }

  void WakeAndUnlock(std::unique_lock<base::ShortLock>* hold) {
    const bool wake = waiting_;
    waiting_ = false;  // One wake-up per sleep.
    hold->unlock();
    if (wake) Wake();
  }

  [[gnu::noinline]] void Wake() {
    {
      std::lock_guard<std::mutex> hold(sleep_mutex_);
      woken_ = true;
    }
    awake_.notify_one();
  }

  // The first deadline has changed: the thread may not go to sleep on what it has read.
  void LookAgain() {
    std::unique_lock<base::ShortLock> hold(lock_);
    look_again_ = true;
    WakeAndUnlock(&hold);
  }

  // Waits until something is to be run and moves it into `batch`, in order; false when the queue is
  // closed and everything that was posted has run.
  bool WaitForTasks(TaskList* batch) {
    if (in_burst_) Nap();
    bool woken_soon = false;
    for (;;) {
      const Clock::time_point due = Take(batch);
      if (!batch->empty()) {
        in_burst_ = woken_soon || batch->size() > kFewTasks;
        return true;
      }
      {
        std::lock_guard<base::ShortLock> hold(lock_);
        const bool again = look_again_ || !tasks_.empty();
        look_again_ = false;
        if (again) continue;
        if (closed_) return false;
        waiting_ = true;
      }
      const Clock::time_point begin = Clock::now();
      Sleep(due);
      woken_soon = Clock::now() - begin < kShortSleep;
    }
  }

  // Moves what is to be run now into `batch`, which is empty; answers the next deadline.
  Clock::time_point Take(TaskList* batch) {
    // Deadlines stand still meanwhile, and the clock is read before the tasks are taken: a deadline
    // that has passed finds every task in front of it that was posted before.
    std::lock_guard<std::mutex> hold_deadlines(delayed_mutex_);
    const Clock::time_point now = delayed_.empty() ? Clock::time_point() : Clock::now();
    {
      std::lock_guard<base::ShortLock> hold(lock_);
      tasks_.Swap(batch);
    }
    while (!delayed_.empty() && delayed_.begin()->first.first <= now) {
      const auto entry = delayed_.begin();
      if (batch->size() == batch->capacity()) MakeRoom(batch);
      batch->Add(std::move(entry->second));
      due_by_id_.erase(entry->first.second);
      delayed_.erase(entry);
    }
    return delayed_.empty() ? Clock::time_point::max() : delayed_.begin()->first.first;
  }

  // Until somebody has woken the thread, or until `due`.
  void Sleep(Clock::time_point due) {
    {
      std::unique_lock<std::mutex> hold(sleep_mutex_);
      const auto woken = [this] { return woken_; };
      if (due == Clock::time_point::max()) {
        awake_.wait(hold, woken);
      } else {
        awake_.wait_until(hold, due, woken);
      }
      woken_ = false;
    }
    // Who has cleared it already and not yet come to wake the thread ends its next sleep early.
    std::lock_guard<base::ShortLock> hold(lock_);
    waiting_ = false;
  }

  // A pause in a burst, in which nobody has to wake the thread and the thread is in nobody's way.
  void Nap() {
    Clock::time_point until = Clock::now() + kNap;
    {
      std::lock_guard<std::mutex> hold(delayed_mutex_);
      if (!delayed_.empty()) until = std::min(until, delayed_.begin()->first.first);
    }
    std::this_thread::sleep_until(until);
  }

  [[gnu::cold]] void DestroyDelayed() {
    std::map<std::pair<Clock::time_point, uint64_t>, Task> doomed;
    {
      std::lock_guard<std::mutex> hold(delayed_mutex_);
      doomed.swap(delayed_);
      due_by_id_.clear();
    }
  }

  // What every post touches, on a cache line of its own: the counts and the queue object first.
  alignas(64) unsigned char front_[40];
  const uint32_t generation_ = base::ForkGeneration();
  base::ShortLock lock_;
  bool waiting_ = false;  // The thread sleeps, or is about to, and nobody has woken it yet.
  bool look_again_ = false;
  bool closed_ = false;
  TaskList tasks_;

  // Guarded by delayed_mutex_, under which lock_ may be taken. Ordered by deadline, equal ones by
  // age.
  alignas(64) std::mutex delayed_mutex_;
  std::map<std::pair<Clock::time_point, uint64_t>, Task> delayed_;
  std::map<uint64_t, Clock::time_point> due_by_id_;
  uint64_t last_delayed_id_ = 0;

  std::mutex sleep_mutex_;  // Guards woken_; nothing is taken under it.
  std::condition_variable awake_;
  bool woken_ = false;

  bool in_burst_ = false;        // The thread's own.
  bool retired_ = false;         // Guarded by the registry's mutex.
  std::atomic<int> holders_{2};  // The thread, and what Front allocated.
};

class PthreadDispatchQueue : public DispatchQueue {
 public:
  explicit PthreadDispatchQueue(QueueCore* core) : core_(core) {}
  ~PthreadDispatchQueue() override { core_->Close(); }

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
    Registry& registry = TheRegistry();
    std::lock_guard<std::mutex> hold(registry.mutex);
    registry.ended.push_back(pthread_self());
    --registry.draining;
    registry.changed.notify_all();
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
  JoinEnded();
  auto* core = new QueueCore;
  auto queue = std::allocate_shared<PthreadDispatchQueue>(
      QueueCore::Front<PthreadDispatchQueue>(core), core);
  auto start = std::make_unique<PthreadDispatchQueue::ThreadStart>();
  start->core = core;
  start->queue = queue;
  start->name = name;
  if (!StartThread(std::move(start), stack_size)) {
    core->Drop();   // In the thread's place.
    queue.reset();  // Counts itself as draining; no thread will take that back.
    std::lock_guard<std::mutex> hold(TheRegistry().mutex);
    --TheRegistry().draining;
    TheRegistry().changed.notify_all();
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
  Registry& registry = TheRegistry();
  const Clock::time_point deadline = DeadlineAfter(timeout);
  {
    std::unique_lock<std::mutex> hold(registry.mutex);
    if (!registry.changed.wait_until(hold, deadline, [&] { return registry.draining == 0; })) {
      return false;
    }
  }
  JoinEnded();
  // Another thread may be joining some of them.
  std::unique_lock<std::mutex> hold(registry.mutex);
  return registry.changed.wait_until(hold, deadline, [&] { return registry.joining == 0; });
}

const char* ThreadManager::ImplementationName() { return "pthread"; }

}  // namespace core
QUENOR_NAMESPACE_END
