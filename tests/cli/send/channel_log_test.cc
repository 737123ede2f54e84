#include "cli/send/channel_log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <string>

namespace quenor::cli {
namespace {

class ChannelLogTest : public ::testing::Test {
 protected:
  ~ChannelLogTest() override {
    ::close(fds_[0]);
    ::close(fds_[1]);
  }

  void Log(int level, const std::string& text) {
    ChannelLog::Sink(&log_, level, "file", 1, text.c_str(), text.size());
  }

  // What the console got since the last call.
  std::string Shown() {
    char bytes[4096];
    const ssize_t got = ::read(fds_[0], bytes, sizeof(bytes));
    return std::string(bytes, got > 0 ? static_cast<size_t>(got) : 0);
  }

  static std::array<int, 2> MakePipe() {
    std::array<int, 2> fds{-1, -1};
    EXPECT_EQ(0, ::pipe2(fds.data(), O_CLOEXEC | O_NONBLOCK));
    return fds;
  }

  const std::array<int, 2> fds_ = MakePipe();
  Console console_{fds_[1]};
  ChannelLog log_{&console_};
};

TEST_F(ChannelLogTest, ShowsErrorsOnly) {
  Log(0, "a summary");
  Log(1, "a refusal");
  Log(2, "an error");

  EXPECT_EQ("quenor-report: an error\n", Shown());
  EXPECT_FALSE(log_.cache_failed());
}

TEST_F(ChannelLogTest, RemembersThatTheCacheCouldNotBeOpenedAndSaysNothingAboutIt) {
  Log(2, "cache: why it could not be opened");
  Log(2, "open mmap file failed!");
  Log(2, "mmap file has been loaded!");
  Log(2, "an error");
  Log(2, "cache file has been loaded!");

  EXPECT_TRUE(log_.cache_failed());
  EXPECT_EQ("quenor-report: cache: why it could not be opened\nquenor-report: an error\n", Shown());
}

TEST_F(ChannelLogTest, ShowsTheSameWordsWhileTheCacheIsOpen) {
  Log(2, "mmap file has been loaded!");

  EXPECT_EQ("quenor-report: mmap file has been loaded!\n", Shown());
}

}  // namespace
}  // namespace quenor::cli
