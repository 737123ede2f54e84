#include "quenor_base/platform/local_log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "quenor_base/platform/gathered_wake_ups.h"
#include "tests/support/forked.h"
#include "tests/unit/platform/system_calls.h"

QUENOR_NAMESPACE_BEGIN
namespace {

// Standard error is a pipe for the life of this object.
class StderrPipe {
 public:
  StderrPipe() {
    if (pipe2(fds_, O_CLOEXEC) != 0) ADD_FAILURE() << "no pipe";
    // The reading end never blocks: what was written is there.
    fcntl(fds_[0], F_SETFL, O_NONBLOCK);
    old_stderr_ = dup(2);
    dup2(fds_[1], 2);
    close(fds_[1]);
  }
  ~StderrPipe() {
    dup2(old_stderr_, 2);
    close(old_stderr_);
    CloseReader();
  }
  StderrPipe(const StderrPipe&) = delete;
  StderrPipe& operator=(const StderrPipe&) = delete;

  // What is in the pipe.
  std::string Read() {
    std::string all;
    char buffer[4096];
    ssize_t size;
    while ((size = read(fds_[0], buffer, sizeof(buffer))) > 0) {
      all.append(buffer, static_cast<size_t>(size));
    }
    return all;
  }
  void CloseReader() {
    if (fds_[0] >= 0) close(fds_[0]);
    fds_[0] = -1;
  }

 private:
  int fds_[2] = {-1, -1};
  int old_stderr_ = -1;
};

bool IsSigpipePending() {
  sigset_t pending;
  sigpending(&pending);
  return sigismember(&pending, SIGPIPE) == 1;
}

bool IsSigpipeBlocked() {
  sigset_t mask;
  pthread_sigmask(SIG_BLOCK, nullptr, &mask);
  return sigismember(&mask, SIGPIPE) == 1;
}

class StderrLogTest : public testing::Test {
 protected:
  StderrLogTest() { SetLogSink(nullptr, nullptr); }
  ~StderrLogTest() override {
    SetLogSink(nullptr, nullptr);
    system_calls::Reset();
  }
};

TEST_F(StderrLogTest, WritesLevelsOneAndTwo) {
  StderrPipe pipe;

  LocalLog(1, "some/file", 12, "a %s", "refusal");
  LocalLog(2, "other/file", 345, "an error");

  EXPECT_EQ("quenor[1] some/file:12 a refusal\nquenor[2] other/file:345 an error\n", pipe.Read());
}

TEST_F(StderrLogTest, KeepsOtherLevelsToItself) {
  StderrPipe pipe;

  for (const int level : {0, -1, 3, 100}) LocalLog(level, "f", 1, "x");

  EXPECT_EQ("", pipe.Read());
}

TEST_F(StderrLogTest, WritesALineOfManyLinesAsOne) {
  StderrPipe pipe;

  LocalLog(2, "f", 1, "a\nb\r\n%s", "\x1b[31mc");

  EXPECT_EQ("quenor[2] f:1 a\\nb\\r\\n\\x1b[31mc\n", pipe.Read());
}

TEST_F(StderrLogTest, WritesALineThatTheSinkLogsItself) {
  StderrPipe pipe;
  SetLogSink(
      [](void*, int, const char*, int, const char*, size_t) { LocalLog(2, "sink", 9, "inside"); },
      nullptr);

  LocalLog(2, "f", 1, "outside");

  EXPECT_EQ("quenor[2] sink:9 inside\n", pipe.Read());
}

// The sink may take long, and wait for what runs on a queue.
TEST_F(StderrLogTest, WakesWhoWasToBeWokenLaterBeforeTheSinkIsCalled) {
  struct Sleeper final : base::GatheredWakeUps::Sleeper {
    void WakeUp() override { awake = true; }
    bool awake = false;
  } sleeper;
  static bool awake_in_sink;
  awake_in_sink = false;
  SetLogSink([](void* context, int, const char*, int, const char*,
                size_t) { awake_in_sink = static_cast<Sleeper*>(context)->awake; },
             &sleeper);
  const base::GatheredWakeUps gathered;
  base::GatheredWakeUps::Open()->Add(&sleeper);

  LocalLog(1, "f.cc", 1, "x");

  SetLogSink(nullptr, nullptr);
  EXPECT_TRUE(awake_in_sink);
}

TEST_F(StderrLogTest, WritesEachLineWithOneCall) {
  system_calls::ScriptStderr({{0, 1000000}});

  LocalLog(2, "f", 1, "one");
  LocalLog(2, "f", 2, "%s", std::string(100000, 'x').c_str());

  EXPECT_EQ(2, system_calls::StderrCalls());
  EXPECT_EQ("quenor[2] f:1 one\nquenor[2] f:2 " + std::string(100000, 'x') + "\n",
            system_calls::StderrTaken());
}

TEST_F(StderrLogTest, FinishesALineThatIsTakenByteForByte) {
  system_calls::ScriptStderr({{0, 1}});

  LocalLog(2, "file", 7, "some text");

  EXPECT_EQ("quenor[2] file:7 some text\n", system_calls::StderrTaken());
}

TEST_F(StderrLogTest, FinishesALineThatIsTakenInPiecesOfAnySize) {
  for (size_t size = 1; size < 30; ++size) {
    system_calls::ScriptStderr({{0, size}, {EINTR, 0}, {EAGAIN, 0}, {0, size}});

    LocalLog(2, "file", 7, "some text");

    EXPECT_EQ("quenor[2] file:7 some text\n", system_calls::StderrTaken()) << size;
  }
}

TEST_F(StderrLogTest, FinishesALineThoughStandardErrorIsFullBeforeEveryByte) {
  std::vector<system_calls::WriteStep> script;
  for (int i = 0; i < 60; ++i) script.insert(script.end(), {{EAGAIN, 0}, {0, 1}});
  system_calls::ScriptStderr(script);

  LocalLog(2, "file", 7, "some text");

  EXPECT_EQ("quenor[2] file:7 some text\n", system_calls::StderrTaken());
}

TEST_F(StderrLogTest, TriesAgainWhenItIsInterrupted) {
  system_calls::ScriptStderr({{EINTR, 0}, {EINTR, 0}, {EINTR, 0}, {0, 1000}});

  LocalLog(2, "f", 1, "x");

  EXPECT_EQ("quenor[2] f:1 x\n", system_calls::StderrTaken());
}

TEST_F(StderrLogTest, DropsALineThatIsNeverTakenAfterFewTries) {
  system_calls::ScriptStderr({{EAGAIN, 0}});

  LocalLog(2, "f", 1, "x");

  EXPECT_GT(system_calls::StderrCalls(), 1);
  EXPECT_LT(system_calls::StderrCalls(), 100);
}

TEST_F(StderrLogTest, DropsALineAtTheFirstErrorThatStays) {
  for (const int error : {EBADF, EIO, ENOSPC, EPIPE}) {
    system_calls::ScriptStderr({{error, 0}});
    errno = 12345;

    LocalLog(2, "f", 1, "x");

    EXPECT_EQ(1, system_calls::StderrCalls()) << error;
    EXPECT_EQ(12345, errno) << error;
  }
}

TEST_F(StderrLogTest, ReturnsFromAPipeThatIsFullAndDoesNotBlock) {
  StderrPipe pipe;
  fcntl(2, F_SETFL, fcntl(2, F_GETFL) | O_NONBLOCK);
  const std::string big(1 << 20, 'x');

  LocalLog(2, "f", 1, "%s", big.c_str());
  LocalLog(2, "f", 2, "lost");

  const std::string taken = pipe.Read();
  EXPECT_EQ(0u, taken.find("quenor[2] f:1 xxx"));
  EXPECT_LT(taken.size(), big.size());
}

TEST_F(StderrLogTest, WritesALongLineToAPipeWhoseReaderIsSlow) {
  int fds[2];
  ASSERT_EQ(0, pipe2(fds, O_CLOEXEC));
  const int old_stderr = dup(2);
  dup2(fds[1], 2);
  close(fds[1]);
  const std::string big(1 << 20, 'x');
  std::string all;
  std::thread reader([&] {
    char buffer[512];
    ssize_t size;
    while ((size = read(fds[0], buffer, sizeof(buffer))) > 0) {
      all.append(buffer, static_cast<size_t>(size));
    }
  });

  LocalLog(2, "f", 1, "%s", big.c_str());
  dup2(old_stderr, 2);  // Closes the pipe's writing end: the reader comes to its end.
  close(old_stderr);
  reader.join();
  close(fds[0]);

  EXPECT_EQ("quenor[2] f:1 " + big + "\n", all);
}

TEST_F(StderrLogTest, SurvivesAPipeWithoutAReader) {
  StderrPipe pipe;
  pipe.CloseReader();
  struct sigaction old_action;
  struct sigaction by_default = {};
  by_default.sa_handler = SIG_DFL;  // The signal would end this process.
  ASSERT_EQ(0, sigaction(SIGPIPE, &by_default, &old_action));

  LocalLog(2, "f", 1, "nobody reads this");

  EXPECT_FALSE(IsSigpipePending());
  EXPECT_FALSE(IsSigpipeBlocked());
  sigaction(SIGPIPE, &old_action, nullptr);
}

TEST_F(StderrLogTest, LeavesNoSignalPendingForAHostThatBlocksIt) {
  StderrPipe pipe;
  pipe.CloseReader();
  sigset_t sigpipe;
  sigset_t old_mask;
  sigemptyset(&sigpipe);
  sigaddset(&sigpipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &sigpipe, &old_mask);

  LocalLog(2, "f", 1, "nobody reads this");

  EXPECT_FALSE(IsSigpipePending());
  EXPECT_TRUE(IsSigpipeBlocked());
  pthread_sigmask(SIG_SETMASK, &old_mask, nullptr);
}

TEST_F(StderrLogTest, LeavesASignalOfTheHostsOwnPending) {
  StderrPipe pipe;
  pipe.CloseReader();
  sigset_t sigpipe;
  sigset_t old_mask;
  sigemptyset(&sigpipe);
  sigaddset(&sigpipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &sigpipe, &old_mask);
  pthread_kill(pthread_self(), SIGPIPE);

  LocalLog(2, "f", 1, "nobody reads this");

  EXPECT_TRUE(IsSigpipePending());
  const struct timespec at_once = {0, 0};
  EXPECT_EQ(SIGPIPE, sigtimedwait(&sigpipe, nullptr, &at_once));
  pthread_sigmask(SIG_SETMASK, &old_mask, nullptr);
}

TEST_F(StderrLogTest, SurvivesAStandardErrorThatIsClosed) {
  const int old_stderr = dup(2);
  close(2);

  LocalLog(2, "f", 1, "x");

  dup2(old_stderr, 2);
  close(old_stderr);
  StderrPipe pipe;
  LocalLog(2, "f", 1, "seen again");
  EXPECT_EQ("quenor[2] f:1 seen again\n", pipe.Read());
}

TEST_F(StderrLogTest, WritesLinesOfManyThreadsEachInOnePiece) {
  StderrPipe pipe;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([i] {
      for (int n = 0; n < 50; ++n) LocalLog(2, "f", 1, "thread %d says the same every time", i);
    });
  }
  for (std::thread& thread : threads) thread.join();

  const std::string all = pipe.Read();
  int lines = 0;
  for (size_t at = 0; at < all.size(); ++lines) {
    const size_t end = all.find('\n', at);
    ASSERT_NE(std::string::npos, end);
    std::string line = all.substr(at, end - at);
    line.replace(line.find("thread ") + 7, 1, "N");
    EXPECT_EQ("quenor[2] f:1 thread N says the same every time", line);
    at = end + 1;
  }
  EXPECT_EQ(200, lines);
}

TEST_F(StderrLogTest, ExpandsErrnoInAFormatThatAsksForIt) {
  StderrPipe pipe;
  const std::string long_text(5000, 'x');

  errno = ENOENT;
  LocalLog(2, "f", 1, "%s%m", long_text.c_str());

  EXPECT_EQ("quenor[2] f:1 " + long_text + "No such file or directory\n", pipe.Read());
}

// Sinks that end the process when they get the other one's context.
const int kContexts[] = {0, 1};
template <int kIndex>
void OnlyWithItsOwn(void* context, int, const char*, int, const char*, size_t) {
  if (context != &kContexts[kIndex]) _exit(1);
}

TEST_F(StderrLogTest, ForkedChildFindsNoSinkBesideAnothersContext) {
  std::atomic<bool> done{false};
  std::thread changer([&] {
    while (!done) {
      SetLogSink(&OnlyWithItsOwn<0>, const_cast<int*>(&kContexts[0]));
      SetLogSink(&OnlyWithItsOwn<1>, const_cast<int*>(&kContexts[1]));
    }
  });
  int mixed = 0;
  for (int i = 0; i < 200; ++i) {
    mixed += test::ResultOfChild([] {
      LocalLog(0, "f", 1, "of a level that standard error does not get");
      return 0;
    });
  }
  done = true;
  changer.join();

  EXPECT_EQ(0, mixed);
}

#if !defined(QUENOR_SANITIZED)
// In a process of its own that has no memory left for the line: exits with 0 if what came is right.
void LogWithoutMemory(size_t bytes, char filling, const char* begins, const char* ends) {
  static const char* expected_begin;
  static const char* expected_end;
  expected_begin = begins;
  expected_end = ends;
  static bool right = false;
  const std::string big(bytes, filling);
  SetLogSink(
      [](void*, int, const char*, int, const char* text, size_t size) {
        const std::string_view line(text, size);
        const std::string_view begin(expected_begin);
        const std::string_view end(expected_end);
        right = size > 900 && size < 1024 && text[size] == '\0' &&
                line.substr(0, begin.size()) == begin && line.substr(size - end.size()) == end;
      },
      nullptr);
  const struct rlimit none = {1, 1};
  if (setrlimit(RLIMIT_AS, &none) != 0) _exit(2);
  for (void* volatile rest = &right; rest != nullptr;) rest = std::malloc(1024);

  LocalLog(2, "f", 1, "%s", big.c_str());

  _exit(right ? 0 : 1);
}

TEST(LogMemoryDeathTest, SaysHowManyBytesOfALineAreLostWithoutMemory) {
  EXPECT_EXIT(LogWithoutMemory(64 << 20, 'x', "xxxxxxxx", " more bytes are lost]"),
              testing::ExitedWithCode(0), "");
}

TEST(LogMemoryDeathTest, EscapesWhatIsKeptWithoutMemory) {
  EXPECT_EXIT(LogWithoutMemory(64 << 20, '\x01', "\\x01\\x01", " more bytes are lost]"),
              testing::ExitedWithCode(0), "");
}

TEST(LogMemoryDeathTest, NeedsNoneForALineOf1023Bytes) {
  EXPECT_EXIT(LogWithoutMemory(1023, 'x', "xxxxxxxx", "xxxxxxxx"), testing::ExitedWithCode(0), "");
}
#endif

}  // namespace
QUENOR_NAMESPACE_END
