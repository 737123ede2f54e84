// The contract of quenor_base/platform/dispatch_queue.h and thread_manager.h as a suite that runs
// on any implementation. To run it on your own, write
//   INSTANTIATE_TEST_SUITE_P(Mine, DispatchQueueConformance, ::testing::Values(&MakeThreadedHost));
// in a program that links quenor_dispatch_queue_conformance, your thread manager and GoogleTest.
// Threads: the tests run on the main thread, which no dispatch queue runs on.
// See docs/design/dispatch-queue.md.
#ifndef QUENOR_TESTS_CONFORMANCE_DISPATCH_QUEUE_CONFORMANCE_H_
#define QUENOR_TESTS_CONFORMANCE_DISPATCH_QUEUE_CONFORMANCE_H_

#include <gtest/gtest.h>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "quenor_base/platform/dispatch_queue.h"
#include "quenor_base/platform/thread_manager.h"

namespace quenor::conformance {

// Opened once by a task, waited for by the test. Any thread.
class Gate {
 public:
  void Open();
  bool IsOpen() const;
  // Waits for a minute at most: only a task that never runs makes it false.
  bool Wait();

 private:
  mutable std::mutex mutex_;
  std::condition_variable opened_;
  bool open_ = false;
};

// What ran, in order. Any thread.
class Notes {
 public:
  void Add(int what);
  std::vector<int> All() const;
  // A task that notes `what`, and then runs `then`, if any.
  base::OnceClosure Note(int what, std::function<void()> then = nullptr);

 private:
  mutable std::mutex mutex_;
  std::vector<int> notes_;
};

// A value to be bound to a task; runs `on_gone` as it is destroyed, unless it was moved from.
class Bound {
 public:
  explicit Bound(std::function<void()> on_gone) : on_gone_(std::move(on_gone)) {}
  Bound(Bound&& other) noexcept : on_gone_(std::move(other.on_gone_)) { other.on_gone_ = nullptr; }
  ~Bound() {
    if (on_gone_) on_gone_();
  }

 private:
  std::function<void()> on_gone_;
};

// The surroundings of the implementation under test; one per test.
class QueueHost {
 public:
  virtual ~QueueHost() = default;
  // Lets the queues work until the gate is open; false when it never opens. Queues with threads of
  // their own work by themselves.
  virtual bool WaitFor(Gate& gate) { return gate.Wait(); }
  // Lets the queues work until every dropped one has ended.
  virtual bool Drain();
};

using MakeQueueHost = std::unique_ptr<QueueHost> (*)();

// For queues with threads of their own.
std::unique_ptr<QueueHost> MakeThreadedHost();

// A new queue of the linked thread manager.
std::shared_ptr<DispatchQueue> NewQueue(const std::string& name = "conformance");

class DispatchQueueConformance : public ::testing::TestWithParam<MakeQueueHost> {
 protected:
  DispatchQueueConformance() : host_(GetParam()()) {}
  ~DispatchQueueConformance() override;

  // Runs everything that was posted to `queue` before.
  bool Settle(const std::shared_ptr<DispatchQueue>& queue);

  // Outlive the tasks that use them: the destructor drains.
  Notes notes_;
  Gate done_;
  std::unique_ptr<QueueHost> host_;
};

}  // namespace quenor::conformance

#endif  // QUENOR_TESTS_CONFORMANCE_DISPATCH_QUEUE_CONFORMANCE_H_
