// Clock: virtual time, and everything that waits for its turn in it. Events run in the order of
// their times, those of one time in the order in which they were posted.
// Threads: one. Life cycle: one at a time, made before the first channel; what waits when it goes
// is never run.
#ifndef FLEET_ENGINE_CLOCK_H_
#define FLEET_ENGINE_CLOCK_H_

#include <cstddef>
#include <cstdint>

namespace quenor::fleet {

// Something that happens at a time. Its owner keeps it where it is while it waits.
class Event {
 public:
  Event() = default;
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;
  virtual ~Event() = default;
  // Once it waits no more. It may be posted again, and destroyed, in here.
  virtual void OnDue() = 0;
  // It will never be: the clock goes.
  virtual void OnNever() {}
  bool waits() const { return next_ != nullptr; }

 private:
  friend class Clock;
  Event* next_ = nullptr;  // Null while it does not wait.
  Event* previous_ = nullptr;
  int64_t due_us_ = 0;
};

class Clock {
 public:
  Clock();
  ~Clock();
  Clock(const Clock&) = delete;
  Clock& operator=(const Clock&) = delete;

  // The one that lives.
  static Clock& Current();

  // Microseconds since it was made.
  int64_t now_us() const;

  // Borrows `event`, which does not wait yet, until it is due, `delay_us` from now; a delay below 0
  // is 0, one past the end of time is never over.
  void Post(Event* event, int64_t delay_us);
  // Nothing when it does not wait.
  void Cancel(Event* event);

  // Runs all that is due in the next `span_us`, and leaves the clock so much later.
  void RunFor(int64_t span_us);
  uint64_t events_run() const;

 private:
  struct State;
  State* const state_;  // Owned.
};

}  // namespace quenor::fleet

#endif  // FLEET_ENGINE_CLOCK_H_
