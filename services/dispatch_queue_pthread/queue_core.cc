#include "services/dispatch_queue_pthread/queue_core.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include "quenor_base/platform/exception_barrier.h"
#include "services/dispatch_queue_pthread/thread_registry.h"

QUENOR_NAMESPACE_BEGIN
namespace dispatch_queue {
namespace {

// A deadline that is never reached; far from the clock's own end, so that sums cannot overflow.
constexpr int64_t kForeverUs = int64_t{100} * 365 * 24 * 3600 * 1000000;

// Room that a queue keeps after a burst; more goes back to the heap.
constexpr uint32_t kTasksToKeepRoomFor = 256;

// Whose exception it is when there is no memory for a task.
constexpr char kPosting[] = "quenor's dispatch queue, as a task was posted";

// A queue that a host's thread wakes this soon after it fell asleep is in a burst, as is one that
// finds more than kFewTasks of theirs ...
constexpr std::chrono::microseconds kShortSleep(20);
// ... and lets tasks pile up for this long (and what the system adds) before it looks again.
constexpr std::chrono::microseconds kNap(20);

// Where a node was kept of an entry that has gone, in that.
template <typename Map>
void Insert(Map* map, typename Map::node_type* spare, const typename Map::key_type& key,
            typename Map::mapped_type value) {
  if (spare->empty()) {
    map->emplace(key, std::move(value));
    return;
  }
  spare->key() = key;
  spare->mapped() = std::move(value);
  map->insert(std::move(*spare));
}

}  // namespace

base::MonotonicTime DeadlineAfter(base::TimeDelta delay) {
  const int64_t us = std::clamp<int64_t>(delay.InMicroseconds(), 0, kForeverUs);
  return base::MonotonicNow() + std::chrono::microseconds(us);
}

uint64_t QueueCore::PostDelayed(Task task, base::TimeDelta delay) {
  if (IsInForkedChild()) return 0;
  const base::MonotonicTime due = DeadlineAfter(delay);
  std::unique_lock<std::mutex> hold(delayed_mutex_);
  const uint64_t id = ++last_delayed_id_;
  const bool earliest = delayed_.empty() || due < delayed_.begin()->first.first;
  base::EndOnException(kPosting, [&] {
    Insert(&delayed_, &spare_delayed_, {due, id}, std::move(task));
    Insert(&due_by_id_, &spare_due_, id, due);
  });
  hold.unlock();
  // A later deadline than the one the thread waits for needs no wake-up.
  if (earliest) LookAgain();
  return id;
}

bool QueueCore::Cancel(uint64_t id) {
  if (IsInForkedChild()) return false;
  Task cancelled;  // Destroyed after the lock is released.
  std::unique_lock<std::mutex> hold(delayed_mutex_);
  const auto due = due_by_id_.find(id);
  if (due == due_by_id_.end()) return false;
  const auto entry = delayed_.find({due->second, id});
  const bool earliest = entry == delayed_.begin();
  cancelled = std::move(entry->second);
  spare_delayed_ = delayed_.extract(entry);
  spare_due_ = due_by_id_.extract(due);
  hold.unlock();
  // The thread may be waiting for this very deadline: have it take the next one.
  if (earliest) LookAgain();
  return true;
}

void QueueCore::Retire() {
  if (IsInForkedChild()) return;
  ThreadRegistry::Get().AddDraining(&is_draining_);
}

void QueueCore::Close() {
  if (IsInForkedChild()) return;
  Retire();
  std::unique_lock<ShortLock> hold(lock_);
  closed_ = true;
  WakeAndUnlock(&hold);
}

bool QueueCore::Run() {
  auto batch = std::make_unique<TaskList>();
  while (WaitForTasks(batch.get())) {
    if (!RunAll(batch.get())) {
      (void)batch.release();
      return false;
    }
    batch->KeepRoomFor(kTasksToKeepRoomFor);
  }
  DestroyDelayed();
  return !IsInForkedChild();
}

bool QueueCore::RunAll(TaskList* batch) {
  const bool is_here = batch->All([this](Task& task) {
    std::move(task).Run();
    return !IsInForkedChild();
  });
  if (!is_here) return false;
  batch->Clear();
  return !IsInForkedChild();
}

void QueueCore::MakeRoomAndPost(Task&& task, std::unique_lock<ShortLock>* hold) {
  const uint32_t capacity = tasks_.NextCapacity();
  hold->unlock();
  std::unique_ptr<TaskList::Block> block;
  base::EndOnException(kPosting, [&] { block = TaskList::Block::Make(capacity); });
  hold->lock();
  // Else another thread was faster, and the block goes once the lock has been given back.
  if (!tasks_.HasRoom()) tasks_.AddRoom(std::move(block));
  Add(std::move(task), hold);
}

// The thread stays marked as asleep: whoever posts meanwhile without a scope wakes it, and so does
// another's scope.
void QueueCore::WakeLater(std::unique_lock<ShortLock>* hold) {
  base::GatheredWakeUps* const scope = base::GatheredWakeUps::Open();
  if (gathered_by_ == scope) return;
  if (gathered_by_ != nullptr) return WakeAndUnlock(hold);
  gathered_by_ = scope;
  // relaxed: whoever posts holds the queue, which is a holder.
  holders_.fetch_add(1, std::memory_order_relaxed);
  hold->unlock();
  scope->Add(&sleeper_);
}

void QueueCore::WakeGathered() {
  if (IsInForkedChild()) return;
  std::unique_lock<ShortLock> hold(lock_);
  gathered_by_ = nullptr;
  // Another may have woken the thread, and it has run what there was.
  if (tasks_.empty()) {
    hold.unlock();
  } else {
    WakeAndUnlock(&hold);
  }
  Drop();
}

void QueueCore::Wake() {
  {
    std::lock_guard<std::mutex> hold(sleep_mutex_);
    woken_ = true;
  }
  awake_.notify_one();
}

void QueueCore::LookAgain() {
  std::unique_lock<ShortLock> hold(lock_);
  look_again_ = true;
  WakeAndUnlock(&hold);
}

bool QueueCore::WaitForTasks(TaskList* batch) {
  if (in_burst_) Nap();
  bool woken_soon = false;
  for (;;) {
    const base::MonotonicTime due = Take(batch);
    if (!batch->empty()) {
      in_burst_ = single_posts_taken_ > kFewTasks || (woken_soon && single_posts_taken_ > 0);
      return true;
    }
    {
      std::lock_guard<ShortLock> hold(lock_);
      const bool again = look_again_ || !tasks_.empty();
      look_again_ = false;
      if (again) continue;
      if (closed_) return false;
      waiting_ = true;
    }
    const base::MonotonicTime begin = base::MonotonicNow();
    Sleep(due);
    woken_soon = base::MonotonicNow() - begin < kShortSleep;
  }
}

base::MonotonicTime QueueCore::Take(TaskList* batch) {
  // Deadlines stand still meanwhile, and the clock is read before the tasks are taken: a deadline
  // that has passed finds every task in front of it that was posted before.
  std::lock_guard<std::mutex> hold_deadlines(delayed_mutex_);
  const base::MonotonicTime now = delayed_.empty() ? base::MonotonicTime() : base::MonotonicNow();
  {
    std::lock_guard<ShortLock> hold(lock_);
    tasks_.Swap(batch);
    single_posts_taken_ = std::exchange(single_posts_, uint8_t{0});
  }
  while (!delayed_.empty() && delayed_.begin()->first.first <= now) {
    const auto entry = delayed_.begin();
    if (!batch->HasRoom()) batch->AddRoom(TaskList::Block::Make(batch->NextCapacity()));
    batch->Add(std::move(entry->second));
    spare_due_ = due_by_id_.extract(entry->first.second);
    spare_delayed_ = delayed_.extract(entry);
  }
  return delayed_.empty() ? base::MonotonicTime::max() : delayed_.begin()->first.first;
}

void QueueCore::Sleep(base::MonotonicTime due) {
  {
    std::unique_lock<std::mutex> hold(sleep_mutex_);
    const auto woken = [this] { return woken_; };
    if (due == base::MonotonicTime::max()) {
      awake_.wait(hold, woken);
    } else {
      awake_.wait_until(hold, due, woken);
    }
    woken_ = false;
  }
  // Who has cleared it already and not yet come to wake the thread ends its next sleep early.
  std::lock_guard<ShortLock> hold(lock_);
  waiting_ = false;
}

void QueueCore::Nap() {
  std::chrono::nanoseconds pause = kNap;
  {
    std::lock_guard<std::mutex> hold(delayed_mutex_);
    if (!delayed_.empty()) {
      pause = std::min(pause, delayed_.begin()->first.first - base::MonotonicNow());
    }
  }
  std::this_thread::sleep_for(pause);
}

void QueueCore::DestroyDelayed() {
  std::map<std::pair<base::MonotonicTime, uint64_t>, Task> doomed;
  {
    std::lock_guard<std::mutex> hold(delayed_mutex_);
    doomed.swap(delayed_);
    due_by_id_.clear();
  }
}

}  // namespace dispatch_queue
QUENOR_NAMESPACE_END
