// A task forks and returns in the child, too.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <string>
#include <thread>

#include "quenor_base/platform/gathered_wake_ups.h"
#include "tests/conformance/dispatch_queue_conformance.h"
#include "tests/support/forked.h"

// Children that start threads are what is tested here.
extern "C" const char* __tsan_default_options() { return "die_after_fork=0"; }

namespace quenor::conformance {
namespace {

using core::ThreadManager;

const base::Location kHere = base::Location::CreateFromHere("fork_test", 1);

// Whether the thread that came back in the child, its first, has ended: it is there as a zombie.
bool HasFirstThreadEnded() {
  std::ifstream status("/proc/self/task/" + std::to_string(getpid()) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.compare(0, 8, "State:\tZ") == 0) return true;
  }
  return false;
}

class QueueForkTest : public ::testing::Test {
 protected:
  QueueForkTest()
      : in_child_(static_cast<std::atomic<int>*>(mmap(nullptr, sizeof(std::atomic<int>),
                                                      PROT_READ | PROT_WRITE,
                                                      MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {}
  ~QueueForkTest() override {
    EXPECT_TRUE(ThreadManager::WaitForDrain(base::TimeDelta::FromSeconds(60)));
    munmap(in_child_, sizeof(std::atomic<int>));
  }

  // Runs `in_child` in a child that one of several tasks makes, and answers its wait status.
  int ForkInATask(void (*in_child)()) {
    const pid_t parent = getpid();
    auto queue = NewQueue();
    pid_t child = -1;
    Gate go_on, last;
    const auto bound = [&] { return Bound([this, parent] { *in_child_ += getpid() != parent; }); };
    queue->PostTask(kHere, [&] { go_on.Wait(); });
    queue->PostTask(kHere, [&] {
      child = test::ForkAndGoOn();
      if (child == 0) in_child();
    });
    queue->PostTask(kHere, [this, parent, held = bound()] { *in_child_ += getpid() != parent; });
    queue->PostDelayedTask(
        kHere, [this, parent, held = bound()] { *in_child_ += getpid() != parent; },
        base::TimeDelta::FromMicroseconds(1));
    queue->PostTask(kHere, [&] { last.Open(); });
    go_on.Open();
    EXPECT_TRUE(last.Wait());
    int status = -1;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    return status;
  }

  std::atomic<int>* const in_child_;  // What ran or was destroyed there; in both processes.
};

TEST_F(QueueForkTest, ChildEndsWithTheThreadThatCameBackAndRunsNothingOfTheParents) {
#if defined(QUENOR_SANITIZED)
  GTEST_SKIP() << "what the child leaves behind on purpose is a leak to a sanitizer";
#endif
  EXPECT_EQ(0, ForkInATask([] {}));

  EXPECT_EQ(0, *in_child_);
}

TEST_F(QueueForkTest, ChildWithAThreadOfItsOwnHasQueuesThatDrain) {
  const auto use_queues = [] {
    std::thread([] {
      while (!HasFirstThreadEnded()) std::this_thread::yield();
      Gate ran;
      NewQueue()->PostTask(kHere, [&] { ran.Open(); });
      const bool good = ran.Wait() && ThreadManager::WaitForDrain(base::TimeDelta::FromSeconds(60));
      _exit(good ? 0 : 1);
    }).detach();
  };

  EXPECT_EQ(0, ForkInATask(use_queues));

  EXPECT_EQ(0, *in_child_);
}

// The child has the scope and none of the threads that it is to wake.
TEST_F(QueueForkTest, ChildOfAForkInAScopeOfWakeUpsEndsItWithoutThem) {
  Gate ran;
  auto queue = NewQueue();
  pid_t child = -1;
  {
    const base::GatheredWakeUps gathered;
    queue->PostTask(kHere, [&] { ran.Open(); });
    child = test::ForkAndGoOn();
  }
  if (child == 0) _exit(base::GatheredWakeUps::Open() == nullptr ? 0 : 1);

  EXPECT_TRUE(ran.Wait());
  int status = -1;
  EXPECT_EQ(child, waitpid(child, &status, 0));
  EXPECT_EQ(0, status);
}

}  // namespace
}  // namespace quenor::conformance
