// Of two threads that Initialize(), or Terminate(), one does it: who looks at the state and then
// writes it would not see the other, who was there in between. That moment is made to last: the
// channel's pages are read-only, so that the first thread is stopped at its write to the state, and
// goes on when the second one has been there.
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <new>
#include <thread>

#include "tests/support/channel_test_fixture.h"

namespace quenor::test {
namespace {

struct Pages {
  void* begin;
  size_t size;
  const void* state;
};
Pages g_pages;
std::atomic<bool> g_is_stopped;
std::atomic<bool> g_may_go_on;

void Protect(int protection) { mprotect(g_pages.begin, g_pages.size, protection); }

void StopBeforeTheWrite(int, siginfo_t* info, void*) {
  if (info->si_addr != g_pages.state) {
    signal(SIGSEGV, SIG_DFL);  // Made again, the access ends the process.
    return;
  }
  Protect(PROT_READ | PROT_WRITE);
  g_is_stopped = true;
  while (!g_may_go_on) sched_yield();
}

class ChannelExclusionTest : public ChannelTest {
 protected:
  void SetUp() override {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "ThreadSanitizer holds a lock of its own during an atomic operation";
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
    GTEST_SKIP() << "ThreadSanitizer holds a lock of its own during an atomic operation";
#endif
#endif
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    g_pages.size = (sizeof(Channel) + page - 1) / page * page;
    g_pages.begin =
        mmap(nullptr, g_pages.size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, g_pages.begin);
    channel_.reset(new (g_pages.begin) Channel(kName, kUrl, 0u, false, false),
                   [](Channel* channel) {
                     channel->~Channel();
                     munmap(g_pages.begin, g_pages.size);
                   });
    g_pages.state = peer().state_field();
    struct sigaction action = {};
    action.sa_sigaction = StopBeforeTheWrite;
    action.sa_flags = SA_SIGINFO;
    ASSERT_EQ(0, sigaction(SIGSEGV, &action, &before_));
    is_watched_ = true;
  }
  void TearDown() override {
    if (is_watched_) sigaction(SIGSEGV, &before_, nullptr);
    ChannelTest::TearDown();
  }

  // `act` on a thread that is stopped before it writes the state; LetGoOn() lets it and waits for
  // it.
  void ActUntilTheWrite(const std::function<void()>& act) {
    std::atomic<bool> is_through{false};
    g_is_stopped = g_may_go_on = false;
    Protect(PROT_READ);
    stopped_ = std::thread([&is_through, act] {
      act();
      if (!g_is_stopped) is_through = true;
    });
    while (!g_is_stopped && !is_through) sched_yield();
    EXPECT_TRUE(g_is_stopped) << "it has not written the state";
    Protect(PROT_READ | PROT_WRITE);
  }
  void LetGoOn() {
    g_may_go_on = true;
    stopped_.join();
  }

 private:
  std::thread stopped_;
  struct sigaction before_ = {};
  bool is_watched_ = false;
};

TEST_F(ChannelExclusionTest, InitializeAfterAnotherHasBeenThereCreatesNoSecondQueue) {
  ActUntilTheWrite([this] { channel_->Initialize(); });
  channel_->Initialize();
  LetGoOn();

  EXPECT_EQ(1u, time_.Creations().size());
  EXPECT_EQ(2, peer().state());
  EXPECT_EQ(1u, time_.RunUntilIdle()) << "one DoInit";
}

// The state would then be free for a third, while the queue is created.
TEST_F(ChannelExclusionTest, TerminateAfterAnotherHasBeenThereLeavesTheNextInitializeAlone) {
  channel_->Initialize();
  time_.SetOnCreate([this] {
    LetGoOn();
    EXPECT_EQ(1, peer().state());
  });

  ActUntilTheWrite([this] { channel_->Terminate(); });
  channel_->Terminate();
  channel_->Initialize();
  time_.SetOnCreate(nullptr);

  EXPECT_EQ(2u, time_.Creations().size());
  EXPECT_EQ(2, peer().state());
  EXPECT_EQ(4u, time_.RunUntilIdle()) << "two DoInit, a DoTerminate and the end of a thread";
}

}  // namespace
}  // namespace quenor::test
