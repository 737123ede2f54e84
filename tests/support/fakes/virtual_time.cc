#include "tests/support/fakes/virtual_time.h"

#include <algorithm>
#include <limits>
#include <map>
#include <mutex>
#include <utility>

#include "quenor_base/platform/base/check.h"
#include "quenor_base/platform/base/thread_create_flag.h"
#include "quenor_base/platform/thread_manager.h"

namespace quenor::test {

namespace {

using Task = base::OnceClosure;

constexpr int64_t kNever = std::numeric_limits<int64_t>::max();

// More tasks at one moment than any test has: a task posts itself for ever.
constexpr size_t kMostTasksAtOnce = 50 * 1000 * 1000;

// Due time, sequence number.
using Key = std::pair<int64_t, uint64_t>;

struct QueueState {
  std::weak_ptr<DispatchQueue> queue;
  bool retired = false;                   // Counted as draining already.
  std::map<uint64_t, int64_t> due_by_id;  // Delayed tasks that can still be cancelled.
  std::map<Key, Task> doomed;  // Delayed tasks of a dropped queue, destroyed as its thread ends.
};

struct Entry {
  std::shared_ptr<QueueState> queue;  // Null for the network.
  Task task;
  bool delayed = false;
  bool ends_queue = false;  // The dropped queue's thread ends here.
};

std::mutex g_current_mutex;
VirtualTime* g_current = nullptr;

class ScopedThreadFlag {
 public:
  explicit ScopedThreadFlag(bool flag) : before_(base::ThreadCreateFlag::IsThreadCreateByQuenor()) {
    base::ThreadCreateFlag::SetThreadCreateByQuenor(flag);
  }
  ~ScopedThreadFlag() { base::ThreadCreateFlag::SetThreadCreateByQuenor(before_); }

 private:
  const bool before_;
};

}  // namespace

struct VirtualTime::Core {
  mutable std::mutex mutex;
  std::map<Key, Entry> entries;
  int64_t now_us = 0;
  uint64_t last_sequence = 0;
  size_t failures_to_come = 0;
  size_t live_queues = 0;
  size_t draining_queues = 0;
  bool running = false;
  bool closed = false;  // The clock is gone: what is posted now never runs.
  std::vector<Creation> creations;
  std::function<void()> after_each_task;
  std::function<void()> on_create;
  base::Location last_posted_from;

  // Answers the sequence number, which serves as the id of a delayed task.
  uint64_t Post(const base::Location& from, std::shared_ptr<QueueState> queue, Task task,
                base::TimeDelta delay, bool delayed) {
    std::unique_lock<std::mutex> hold(mutex);
    if (queue != nullptr) last_posted_from = from;
    const uint64_t sequence = ++last_sequence;
    if (closed) {
      hold.unlock();  // `task` is destroyed outside the lock.
      return sequence;
    }
    const int64_t delay_us = std::max<int64_t>(delay.InMicroseconds(), 0);
    const int64_t due = delay_us > kNever - now_us ? kNever : now_us + delay_us;
    if (delayed) queue->due_by_id.emplace(sequence, due);
    Entry entry;
    entry.queue = std::move(queue);
    entry.task = std::move(task);
    entry.delayed = delayed;
    entries.emplace(Key(due, sequence), std::move(entry));
    return sequence;
  }

  // A deadline that has been reached can no longer be taken back, as on a queue whose thread has
  // taken its batch: whoever cancels must cope with a task that runs after all.
  bool Cancel(QueueState* queue, uint64_t id) {
    Task cancelled;
    std::lock_guard<std::mutex> hold(mutex);
    const auto due = queue->due_by_id.find(id);
    if (due == queue->due_by_id.end() || due->second <= now_us) return false;
    const auto entry = entries.find(Key(due->second, id));
    if (entry == entries.end()) return false;
    cancelled = std::move(entry->second.task);
    entries.erase(entry);
    queue->due_by_id.erase(due);
    return true;
  }

  void Retire(QueueState* queue) {
    std::lock_guard<std::mutex> hold(mutex);
    CountAsDraining(queue);
  }

  void CountAsDraining(QueueState* queue) {
    if (!queue->retired) ++draining_queues;
    queue->retired = true;
  }

  // The last reference to a queue has gone: its deadlines ahead never come, and its thread ends
  // behind what is posted already.
  void CloseQueue(const std::shared_ptr<QueueState>& queue) {
    std::lock_guard<std::mutex> hold(mutex);
    --live_queues;
    if (closed) return;
    CountAsDraining(queue.get());
    for (auto it = queue->due_by_id.begin(); it != queue->due_by_id.end();) {
      const auto [id, due_us] = *it;
      if (due_us <= now_us) {
        ++it;
        continue;
      }
      const auto entry = entries.find(Key(due_us, id));
      queue->doomed.emplace(entry->first, std::move(entry->second.task));
      entries.erase(entry);
      it = queue->due_by_id.erase(it);
    }
    Entry end;
    end.queue = queue;
    end.ends_queue = true;
    entries.emplace(Key(now_us, ++last_sequence), std::move(end));
  }

  bool TakeNext(int64_t until_us, Entry* next) {
    std::lock_guard<std::mutex> hold(mutex);
    if (entries.empty() || entries.begin()->first.first > until_us) return false;
    const auto first = entries.begin();
    // `kNever` is no time that the clock can reach.
    if (first->first.first == kNever) return false;
    now_us = std::max(now_us, first->first.first);
    if (first->second.delayed) first->second.queue->due_by_id.erase(first->first.second);
    *next = std::move(first->second);
    entries.erase(first);
    return true;
  }

  void Run(Entry entry);
  size_t RunUntil(int64_t until_us);
};

namespace {

class VirtualDispatchQueue : public DispatchQueue {
 public:
  explicit VirtualDispatchQueue(std::shared_ptr<VirtualTime::Core> core)
      : core_(std::move(core)), state_(std::make_shared<QueueState>()) {}
  ~VirtualDispatchQueue() override { core_->CloseQueue(state_); }

  void PostTask(const base::Location& from, Task task) override {
    core_->Post(from, state_, std::move(task), base::TimeDelta(), false);
  }
  void PostDelayedTask(const base::Location& from, Task task, base::TimeDelta delay) override {
    core_->Post(from, state_, std::move(task), delay, true);
  }
  uint64_t PostCancelableDelayedTask(const base::Location& from, Task task,
                                     base::TimeDelta delay) override {
    return core_->Post(from, state_, std::move(task), delay, true);
  }
  bool CancelDelayedTask(uint64_t id) override { return core_->Cancel(state_.get(), id); }
  void Retire() override { core_->Retire(state_.get()); }

  const std::shared_ptr<QueueState>& state() const { return state_; }

  // Makes the queue of `entry` the current one while its task runs and while its values go.
  static void RunAsCurrent(Entry* entry) {
    const ScopedCurrent current(entry->queue == nullptr ? std::weak_ptr<DispatchQueue>()
                                                        : entry->queue->queue);
    if (entry->ends_queue) {
      std::map<Key, Task> doomed;
      doomed.swap(entry->queue->doomed);
      return;
    }
    std::move(entry->task).Run();
    entry->task = nullptr;
  }

 private:
  const std::shared_ptr<VirtualTime::Core> core_;
  const std::shared_ptr<QueueState> state_;
};

}  // namespace

void VirtualTime::Core::Run(Entry entry) {
  {
    const ScopedThreadFlag flag(entry.queue != nullptr);
    VirtualDispatchQueue::RunAsCurrent(&entry);
  }
  std::function<void()> check;
  {
    std::lock_guard<std::mutex> hold(mutex);
    if (entry.ends_queue) --draining_queues;
    check = after_each_task;
  }
  if (check) check();
}

size_t VirtualTime::Core::RunUntil(int64_t until_us) {
  {
    std::lock_guard<std::mutex> hold(mutex);
    QUENOR_CHECK(!running, "VirtualTime is run from inside a task or by two threads at once");
    running = true;
  }
  size_t count = 0, count_before = 0;  // Of all, and until the clock went on last.
  int64_t stands_at_us = -1;
  for (Entry next; TakeNext(until_us, &next); next = Entry()) {
    if (std::exchange(stands_at_us, now_us) != now_us) count_before = count;
    Run(std::move(next));
    ++count;
    QUENOR_CHECK(count - count_before < kMostTasksAtOnce,
                 "VirtualTime: a task posts itself for ever");
  }
  std::lock_guard<std::mutex> hold(mutex);
  running = false;
  return count;
}

VirtualTime::VirtualTime() : core_(std::make_shared<Core>()) {
  std::lock_guard<std::mutex> hold(g_current_mutex);
  QUENOR_CHECK(g_current == nullptr, "two VirtualTime objects at once");
  g_current = this;
}

VirtualTime::~VirtualTime() {
  {
    std::lock_guard<std::mutex> hold(g_current_mutex);
    g_current = nullptr;
  }
  std::map<Key, Entry> doomed;  // Destroyed outside the lock: values may drop queues.
  std::lock_guard<std::mutex> hold(core_->mutex);
  core_->closed = true;
  doomed.swap(core_->entries);
}

VirtualTime* VirtualTime::Current() {
  std::lock_guard<std::mutex> hold(g_current_mutex);
  return g_current;
}

int64_t VirtualTime::NowUs() const {
  std::lock_guard<std::mutex> hold(core_->mutex);
  return core_->now_us;
}

size_t VirtualTime::AdvanceBy(base::TimeDelta delta) {
  const int64_t until_us = NowUs() + delta.InMicroseconds();
  const size_t count = core_->RunUntil(until_us);
  std::lock_guard<std::mutex> hold(core_->mutex);
  core_->now_us = until_us;
  return count;
}

size_t VirtualTime::WakeLateBy(base::TimeDelta delta) {
  {
    std::lock_guard<std::mutex> hold(core_->mutex);
    core_->now_us += delta.InMicroseconds();
  }
  return RunUntilIdle();
}

size_t VirtualTime::RunUntilIdle() { return core_->RunUntil(NowUs()); }

bool VirtualTime::RunNext() {
  Entry next;
  if (!core_->TakeNext(NowUs(), &next)) return false;
  {
    std::lock_guard<std::mutex> hold(core_->mutex);
    QUENOR_CHECK(!core_->running, "VirtualTime is run from inside a task or by two threads");
    core_->running = true;
  }
  core_->Run(std::move(next));
  std::lock_guard<std::mutex> hold(core_->mutex);
  core_->running = false;
  return true;
}

void VirtualTime::SetAfterEachTask(std::function<void()> check) {
  std::lock_guard<std::mutex> hold(core_->mutex);
  core_->after_each_task = std::move(check);
}

void VirtualTime::PostToNetwork(base::OnceClosure task, base::TimeDelta delay) {
  core_->Post(base::Location(), nullptr, std::move(task), delay, false);
}

void VirtualTime::FailNextCreations(size_t count) {
  std::lock_guard<std::mutex> hold(core_->mutex);
  core_->failures_to_come = count;
}

std::vector<VirtualTime::Creation> VirtualTime::Creations() const {
  std::lock_guard<std::mutex> hold(core_->mutex);
  return core_->creations;
}

void VirtualTime::SetOnCreate(std::function<void()> on_create) {
  std::lock_guard<std::mutex> hold(core_->mutex);
  core_->on_create = std::move(on_create);
}

base::Location VirtualTime::LastPostedFrom() const {
  std::lock_guard<std::mutex> hold(core_->mutex);
  return core_->last_posted_from;
}

size_t VirtualTime::PendingDeadlines() const {
  std::lock_guard<std::mutex> hold(core_->mutex);
  return static_cast<size_t>(
      std::count_if(core_->entries.begin(), core_->entries.end(), [this](const auto& entry) {
        return entry.second.delayed && entry.first.first > core_->now_us;
      }));
}

size_t VirtualTime::DueTasks() const {
  std::lock_guard<std::mutex> hold(core_->mutex);
  return static_cast<size_t>(
      std::count_if(core_->entries.begin(), core_->entries.end(),
                    [this](const auto& entry) { return entry.first.first <= core_->now_us; }));
}

size_t VirtualTime::LiveQueues() const {
  std::lock_guard<std::mutex> hold(core_->mutex);
  return core_->live_queues;
}

size_t VirtualTime::DrainingQueues() const {
  std::lock_guard<std::mutex> hold(core_->mutex);
  return core_->draining_queues;
}

std::shared_ptr<DispatchQueue> VirtualTime::CreateQueue(
    core::BusinessID business, const std::string& name,
    const base::Optional<base::Thread::Options>& options) {
  std::shared_ptr<Core> core;
  {
    std::lock_guard<std::mutex> hold(g_current_mutex);
    if (g_current == nullptr) return nullptr;
    core = g_current->core_;
  }
  std::function<void()> on_create;
  {
    std::lock_guard<std::mutex> hold(core->mutex);
    on_create = core->on_create;
  }
  if (on_create) on_create();
  std::lock_guard<std::mutex> hold(core->mutex);
  const bool fails = core->failures_to_come > 0;
  if (fails) --core->failures_to_come;
  core->creations.push_back({static_cast<int32_t>(business), name, options.has_value(),
                             options.has_value() ? options->stack_size : 0, !fails});
  if (fails) return nullptr;
  auto queue = std::make_shared<VirtualDispatchQueue>(core);
  queue->state()->queue = queue;
  ++core->live_queues;
  return queue;
}

bool VirtualTime::Drain() {
  if (base::ThreadCreateFlag::IsThreadCreateByQuenor()) return false;
  RunUntilIdle();
  return DrainingQueues() == 0;
}

}  // namespace quenor::test

QUENOR_NAMESPACE_BEGIN
namespace core {

std::shared_ptr<DispatchQueue> ThreadManager::CreateNewDispatchQueue(
    BusinessID business, const std::string& name,
    const base::Optional<base::Thread::Options>& options) {
  return test::VirtualTime::CreateQueue(business, name, options);
}

// Nobody but the caller could run the tasks that are waited for: it runs what is due now.
bool ThreadManager::WaitForDrain(base::TimeDelta) {
  test::VirtualTime* const time = test::VirtualTime::Current();
  return time == nullptr || time->Drain();
}

const char* ThreadManager::ImplementationName() { return "virtual"; }

}  // namespace core
QUENOR_NAMESPACE_END
