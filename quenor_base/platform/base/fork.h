// What the library's own state goes through when the host forks: a child has a copy of everything
// and none of the threads, so what another thread was at stays half done there for ever. A fork
// first has the ForkHandlers prepare, then keeps every FirstUse away, then takes what is
// HeldAtFork; afterwards both processes give that back, and the ForkHandlers end. That goes for
// making a thing, too. Nothing that outlives its maker is made in a function-local static or under
// a lock that no fork takes: the child would wait for ever for the static's guard or the lock.
// FindOrMake() and OnePerProcess make without either; where there has to be a static, FirstUse
// keeps forks away.
#ifndef QUENOR_BASE_PLATFORM_BASE_FORK_H_
#define QUENOR_BASE_PLATFORM_BASE_FORK_H_

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "quenor_base/platform/base/lock.h"
#include "quenor_base/platform/base/thread_annotations.h"

QUENOR_NAMESPACE_BEGIN
namespace base {

namespace internal {
inline std::atomic<uint32_t> fork_generation{0};
}  // namespace internal

// While one lives that found `*done` false, no fork happens; its end sets `*done`. For the first
// use of a static whose making uses whatever is held at a fork. Made before any lock is taken. A
// host's code that runs meanwhile may fork, but may not wait for another thread that forks.
// Threads: any.
class FirstUse {
 public:
  // acquire: pairs with the release of the end.
  explicit FirstUse(std::atomic<bool>* done)
      : done_(done->load(std::memory_order_acquire) ? nullptr : done) {
    if (done_ != nullptr && depth++ == 0) mutex.lock();
  }
  ~FirstUse() {
    if (done_ == nullptr) return;
    done_->store(true, std::memory_order_release);
    if (--depth == 0) mutex.unlock();
  }
  FirstUse(const FirstUse&) = delete;
  FirstUse& operator=(const FirstUse&) = delete;

 private:
  friend class HeldAtFork;
  static void KeepAway() {
    if (depth == 0) mutex.lock();
  }
  static void LetIn() {
    if (depth == 0) mutex.unlock();
  }
  inline static std::mutex mutex;
  inline static thread_local int depth = 0;

  std::atomic<bool>* const done_;  // Null when it was done before.
};

// For whoever waits at a fork for threads, which may still need what is HeldAtFork: `prepare` runs
// before any of that is taken, the other two when it is free again. As with pthread_atfork(), who
// comes last prepares first, and who comes first is told first of the end. Made when the library is
// loaded, however early a fork may come, and not destroyed: a static object.
class ForkHandlers {
 public:
  using Handler = void (*)();

  ForkHandlers(Handler prepare, Handler in_parent, Handler in_child)
      : prepare_(prepare), in_parent_(in_parent), in_child_(in_child) {
    previous_ = last.load(std::memory_order_relaxed);
    // release: pairs with the acquire in PrepareAll().
    while (!last.compare_exchange_weak(previous_, this, std::memory_order_release,
                                       std::memory_order_relaxed)) {
    }
  }
  ForkHandlers(const ForkHandlers&) = delete;
  ForkHandlers& operator=(const ForkHandlers&) = delete;

 private:
  friend class HeldAtFork;
  // Answers up to which one has prepared: another may come meanwhile, and is not to end.
  static const ForkHandlers* PrepareAll() {
    const ForkHandlers* const prepared = last.load(std::memory_order_acquire);
    for (const ForkHandlers* each = prepared; each != nullptr; each = each->previous_) {
      each->prepare_();
    }
    return prepared;
  }
  static void EndAll(const ForkHandlers* prepared, const Handler ForkHandlers::*end) {
    if (prepared == nullptr) return;
    EndAll(prepared->previous_, end);
    (prepared->*end)();
  }
  inline static std::atomic<ForkHandlers*> last{nullptr};

  const Handler prepare_;
  const Handler in_parent_;
  const Handler in_child_;
  ForkHandlers* previous_;
};

// For as long as it lives: fork() waits until it has `lock`ed the object, and `unlock`s it in both
// processes, so that the child finds what the lock guards free and whole. For locks under which no
// code of the host's runs, and none that makes or ends one of these. None is made in a
// function-local static or under a lock: a fork that waits for either holds what the making needs.
// Threads: any.
class HeldAtFork {
 public:
  using Operation = void (*)(void* object);

  // Borrows `object` until destruction.
  HeldAtFork(void* object, Operation lock, Operation unlock)
      : HeldAtFork(object, lock, unlock, unlock) {}
  // A plain lock.
  explicit HeldAtFork(Lock* lock) : HeldAtFork(lock, &AcquireLock, &ReleaseLock) {}
  // With another way to unlock it in the child.
  HeldAtFork(void* object, Operation lock, Operation unlock, Operation unlock_in_child)
      : object_(object), lock_(lock), unlock_(unlock), unlock_in_child_(unlock_in_child) {
    std::lock_guard<std::mutex> hold(mutex);
    next_ = first;
    if (next_ != nullptr) next_->previous_ = this;
    first = this;
  }
  ~HeldAtFork() {
    std::lock_guard<std::mutex> hold(mutex);
    (previous_ != nullptr ? previous_->next_ : first) = next_;
    if (next_ != nullptr) next_->previous_ = previous_;
  }
  HeldAtFork(const HeldAtFork&) = delete;
  HeldAtFork& operator=(const HeldAtFork&) = delete;

 private:
  static void AcquireLock(void* lock) QUENOR_NO_THREAD_SAFETY_ANALYSIS {
    static_cast<Lock*>(lock)->Acquire();
  }
  static void ReleaseLock(void* lock) QUENOR_NO_THREAD_SAFETY_ANALYSIS {
    static_cast<Lock*>(lock)->Release();
  }
  static void Prepare() {
    const ForkHandlers* const handlers = ForkHandlers::PrepareAll();
    FirstUse::KeepAway();
    mutex.lock();
    prepared = handlers;
    for (const HeldAtFork* held = first; held != nullptr; held = held->next_) {
      held->lock_(held->object_);
    }
  }
  static void EndInParent() { End(&HeldAtFork::unlock_, &ForkHandlers::in_parent_); }
  static void EndInChild() {
    // relaxed: there is one thread.
    internal::fork_generation.fetch_add(1, std::memory_order_relaxed);
    End(&HeldAtFork::unlock_in_child_, &ForkHandlers::in_child_);
  }
  static void End(const Operation HeldAtFork::*unlock,
                  const ForkHandlers::Handler ForkHandlers::*end) {
    for (const HeldAtFork* held = first; held != nullptr; held = held->next_) {
      (held->*unlock)(held->object_);
    }
    const ForkHandlers* const handlers = prepared;
    mutex.unlock();
    FirstUse::LetIn();
    ForkHandlers::EndAll(handlers, end);
  }

  inline static std::mutex mutex;
  inline static HeldAtFork* first = nullptr;             // What comes first is locked last.
  inline static const ForkHandlers* prepared = nullptr;  // Guarded by `mutex`, for one fork.
  // When the library is loaded.
  inline static const int registered = pthread_atfork(&Prepare, &EndInParent, &EndInChild);

  void* const object_;
  const Operation lock_;
  const Operation unlock_;
  const Operation unlock_in_child_;
  HeldAtFork* previous_ = nullptr;
  HeldAtFork* next_ = nullptr;
};

// Any thread. How many forks lie between this process and the one that loaded the library. What was
// made under another number belongs to threads that do not exist here.
inline uint32_t ForkGeneration() {
  // relaxed: changes only where there is one thread.
  return internal::fork_generation.load(std::memory_order_relaxed);
}

// Any thread; never waits. What `*place` points to, or what `make()` answers, a T* for the process
// to keep: of threads that find nothing at the same time each makes one, and all but one are
// deleted.
template <typename T, typename Make>
T* FindOrMake(std::atomic<T*>* place, const Make& make) {
  // acquire, here and below: who finds it finds it whole.
  T* found = place->load(std::memory_order_acquire);
  if (found != nullptr) return found;
  std::unique_ptr<T> made(make());
  // release: pairs with the acquires.
  const bool was_first = place->compare_exchange_strong(
      found, made.get(), std::memory_order_acq_rel, std::memory_order_acquire);
  return was_first ? made.release() : found;
}

// A T for each process: a forked child makes its own from the parent's, which it leaves alone,
// since threads that do not exist there may be in the middle of it. For locks that no fork can wait
// for, because the host's code runs under them. Never destroyed.
template <typename T>
class OnePerProcess {
 public:
  // Any thread; never waits. The first makes it as T(parents), with null where there is no parent.
  T& Get() {
    // acquire, here and below: who finds it finds it whole.
    Kept* kept = kept_.load(std::memory_order_acquire);
    while (kept == nullptr || kept->generation != ForkGeneration()) {
      std::unique_ptr<Kept> made(new Kept(kept));
      // release: pairs with the acquires.
      if (kept_.compare_exchange_strong(kept, made.get(), std::memory_order_acq_rel,
                                        std::memory_order_acquire)) {
        return made.release()->value;
      }
    }
    return kept->value;
  }

 private:
  struct Kept {
    explicit Kept(Kept* parents) : value(parents != nullptr ? &parents->value : nullptr) {}
    const uint32_t generation = ForkGeneration();
    T value;
  };
  std::atomic<Kept*> kept_{nullptr};
};

}  // namespace base
QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_PLATFORM_BASE_FORK_H_
