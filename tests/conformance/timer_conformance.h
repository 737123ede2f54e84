// The contract of quenor_base/platform/base/timer.h as a suite that runs on any implementation,
// over any dispatch queue. To run it on your own, write
//   INSTANTIATE_TEST_SUITE_P(Mine, TimerConformance, ::testing::Values(&MakeThreadedHost));
// in a program that links quenor_timer_conformance, your timers, a thread manager and GoogleTest.
// Threads: the tests run on the main thread; timers start on a queue's thread.
// See docs/design/timers.md.
#ifndef QUENOR_TESTS_CONFORMANCE_TIMER_CONFORMANCE_H_
#define QUENOR_TESTS_CONFORMANCE_TIMER_CONFORMANCE_H_

#include <functional>
#include <memory>

#include "quenor_base/platform/base/timer.h"
#include "tests/conformance/dispatch_queue_conformance.h"

namespace quenor::conformance {

// What a timer calls.
struct TimerTarget {
  std::function<void()> task;
  void Run() { task(); }
};

// A receiver with a timer of its own, as a report channel has.
struct SharedTarget : std::enable_shared_from_this<SharedTarget> {
  base::RepeatingTimer timer;
  std::function<void()> task;
  void Run() { task(); }
};

// A timer whose task may be any closure.
struct ClosureTimer : base::RepeatingTimer {
  void StartClosure(base::TimeDelta delay, base::RepeatingClosure task) {
    StartTask(base::Location(), delay, std::move(task));
  }
};

class TimerConformance : public ::testing::TestWithParam<MakeQueueHost> {
 protected:
  TimerConformance() : host_(GetParam()()), queue_(NewQueue()) {}
  ~TimerConformance() override;

  // Runs `act` on the queue and waits until it has returned.
  bool OnQueue(std::function<void()> act);
  // Has `delay_ms` pass on the queue.
  bool Pass(int64_t delay_ms);

  Notes notes_;
  TimerTarget target_;
  Gate done_;
  std::unique_ptr<QueueHost> host_;
  std::shared_ptr<DispatchQueue> queue_;
};

}  // namespace quenor::conformance

#endif  // QUENOR_TESTS_CONFORMANCE_TIMER_CONFORMANCE_H_
