// The process exits while queues of it are at work: it neither hangs nor crashes.
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <thread>

#include "quenor_base/platform/thread_manager.h"

QUENOR_NAMESPACE_BEGIN
namespace {

const base::Location kHere = base::Location::CreateFromHere("exit_test", 1);

// Posts itself for ever, and a far deadline each time.
void Repost() {
  const std::shared_ptr<DispatchQueue> queue = DispatchQueue::Current();
  if (queue == nullptr) return;
  queue->PostDelayedTask(
      kHere, [] {}, base::TimeDelta::FromSeconds(3600));
  queue->PostTask(kHere, &Repost);
}

std::shared_ptr<DispatchQueue> BusyQueue() {
  std::shared_ptr<DispatchQueue> queue = core::ThreadManager::CreateNewDispatchQueue(
      core::BusinessID::kReliableReport, "exit", base::nullopt);
  queue->PostTask(kHere, &Repost);
  return queue;
}

class QueueExitDeathTest : public ::testing::Test {
 protected:
  QueueExitDeathTest() { ::testing::FLAGS_gtest_death_test_style = "threadsafe"; }
};

TEST_F(QueueExitDeathTest, ExitWithAQueueAtWorkIsClean) {
  EXPECT_EXIT(
      {
        static auto* const kept = new std::shared_ptr<DispatchQueue>(BusyQueue());
        std::exit(kept != nullptr ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(QueueExitDeathTest, QueueHeldByAStaticObjectMayGoDuringTheExit) {
#if defined(QUENOR_SANITIZED_THREAD)
  GTEST_SKIP() << "its thread ends during the exit, when nobody joins it: to TSan a leak";
#endif
  EXPECT_EXIT(
      {
        static const std::shared_ptr<DispatchQueue> held = BusyQueue();
        std::exit(held != nullptr ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(QueueExitDeathTest, ExitOnAQueuesOwnThreadIsClean) {
  EXPECT_EXIT(
      {
        static auto* const kept = new std::shared_ptr<DispatchQueue>(BusyQueue());
        (*kept)->PostTask(kHere, [] { std::exit(0); });
        for (;;) std::this_thread::yield();
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace
QUENOR_NAMESPACE_END
