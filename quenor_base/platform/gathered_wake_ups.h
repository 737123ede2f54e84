// A thread that runs several callbacks in a row, which do nothing but post, wakes each queue that
// they have posted to once, after the last, and not with the first post. Without an open scope,
// which is how every thread begins, a post wakes at once.
// Threads: a scope belongs to the thread that opened it; Sleepers are any thread's.
#ifndef QUENOR_BASE_PLATFORM_GATHERED_WAKE_UPS_H_
#define QUENOR_BASE_PLATFORM_GATHERED_WAKE_UPS_H_

#include <utility>

#include "quenor_base/platform/base/abi.h"

QUENOR_NAMESPACE_BEGIN
namespace base {

class GatheredWakeUps {
 public:
  // Who may be woken later. Stays until that was done.
  class Sleeper {
   public:
    Sleeper() = default;
    virtual ~Sleeper() = default;
    Sleeper(const Sleeper&) = delete;
    Sleeper& operator=(const Sleeper&) = delete;

    // The thread of the scope, once for each Add(). In a forked child, too.
    virtual void WakeUp() = 0;

   private:
    friend class GatheredWakeUps;
    Sleeper* next_ = nullptr;
  };

  // Opens the scope, unless the thread has one. Nothing may run in it that waits for anything.
  GatheredWakeUps() {
    if (open_ == nullptr) open_ = this;
  }
  ~GatheredWakeUps() { Close(); }
  GatheredWakeUps(const GatheredWakeUps&) = delete;
  GatheredWakeUps& operator=(const GatheredWakeUps&) = delete;

  // The calling thread's open scope; null when it has none.
  static GatheredWakeUps* Open() { return open_; }

  // Before the calling thread runs code that may wait, such as a host's: wakes whoever was to be
  // woken; the scope is open no more.
  static void CloseOpen() {
    if (open_ != nullptr) open_->Close();
  }

  // Borrows `sleeper`, which is in no scope, until it was woken.
  void Add(Sleeper* sleeper) {
    sleeper->next_ = first_;
    first_ = sleeper;
  }

 private:
  void Close() {
    if (open_ == this) open_ = nullptr;
    while (first_ != nullptr) {
      Sleeper* const sleeper = std::exchange(first_, first_->next_);
      sleeper->WakeUp();
    }
  }

  inline static thread_local GatheredWakeUps* open_ = nullptr;

  Sleeper* first_ = nullptr;
};

}  // namespace base
QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_PLATFORM_GATHERED_WAKE_UPS_H_
