// The cache option, read once per process: each test runs in a child process of its own.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "quenor_base/platform/base/path_service.h"
#include "quenor_base/platform/config_center.h"
#include "tests/support/channel_test_fixture.h"
#include "tests/support/temp_folder.h"

namespace quenor::test {
namespace {

void SetOption(base::Optional<uint64_t> option) {
  config::ConfigCenterImpl::GetInstance()->SetHostOverride(config::BaseCfg().cache_option, option);
}

// One life of a channel with one cached message, told on standard error line by line.
void RunChannelOnce() {
  const TempFolder folder;
  if (!base::PathService::Override(base::DIR_RELIABLE_REPORT, base::FilePath(folder.path()))) {
    std::exit(3);
  }
  RecordingLog::Clear();
  RecordingReportEvents events;
  VirtualTime time;
  FakeHttp http([&time](base::OnceClosure task) { time.PostToNetwork(std::move(task)); });
  const auto channel = std::make_shared<ReliableReportChannelHttps>(kName, kUrl, 0u, false, false);
  channel->Initialize();
  time.RunUntilIdle();
  std::fprintf(stderr, "started\n");
  for (const LogLine& line : RecordingLog::Lines()) {
    std::fprintf(stderr, "level %d in %s: %s\n", line.level, line.file.c_str(), line.text.c_str());
  }
  RecordingLog::Clear();
  const uint8_t bytes[] = {'o', 'n', 'e'};
  channel->SendPacket(bytes, 3, true, true);
  time.RunUntilIdle();
  if (!http.Answer(0, 200, kSuccess)) std::exit(4);
  time.RunUntilIdle();
  std::fprintf(stderr, "acknowledged %zu saved %zu loaded %zu later lines %zu\n",
               events.Count(ReportEventKind::kAcknowledged), events.Count(ReportEventKind::kSaved),
               events.Count(ReportEventKind::kLoaded), RecordingLog::Texts(2).size());
  channel->Terminate();
  time.RunUntilIdle();
}

class ChannelCacheOptionDeathTest : public ::testing::Test {
 protected:
  [[noreturn]] static void RunWith(base::Optional<uint64_t> option) {
    SetOption(option);
    RunChannelOnce();
    std::exit(0);
  }
};

constexpr char kNoCache[] = "started\nacknowledged 1 saved 0 loaded 0 later lines 0\n$";
constexpr char kCacheFails[] =
    "started\n"
    "level 2 in quenor_base/data_report/https/reliable_report_channel_https: "
    "open mmap file failed!\n"
    "acknowledged 1 saved 0 loaded 0 later lines 0\n$";

TEST_F(ChannelCacheOptionDeathTest, ZeroOpensNoCacheAndLogsNothing) {
  EXPECT_EXIT(RunWith(uint64_t{0}), ::testing::ExitedWithCode(0), kNoCache);
}

TEST_F(ChannelCacheOptionDeathTest, OneLogsThatTheOpenFailedAndSavesNothing) {
  EXPECT_EXIT(RunWith(uint64_t{1}), ::testing::ExitedWithCode(0), kCacheFails);
}

TEST_F(ChannelCacheOptionDeathTest, TwoLogsThatTheOpenFailedAndSavesNothing) {
  EXPECT_EXIT(RunWith(uint64_t{2}), ::testing::ExitedWithCode(0), kCacheFails);
}

TEST_F(ChannelCacheOptionDeathTest, UnknownOptionLogsThatTheOpenFailedAndSavesNothing) {
  EXPECT_EXIT(RunWith(uint64_t{7}), ::testing::ExitedWithCode(0), kCacheFails);
}

TEST_F(ChannelCacheOptionDeathTest, OnlyTheLowThirtyTwoBitsOfTheOptionCount) {
  EXPECT_EXIT(RunWith(uint64_t{4294967297}), ::testing::ExitedWithCode(0), kCacheFails);
  EXPECT_EXIT(RunWith(uint64_t{4294967296}), ::testing::ExitedWithCode(0), kNoCache);
}

TEST_F(ChannelCacheOptionDeathTest, OptionIsReadOncePerProcess) {
  EXPECT_EXIT(
      {
        SetOption(uint64_t{0});
        RunChannelOnce();
        SetOption(uint64_t{1});
        RunChannelOnce();
        std::exit(0);
      },
      ::testing::ExitedWithCode(0),
      "^started\nacknowledged 1 saved 0 loaded 0 later lines 0\n"
      "started\nacknowledged 1 saved 0 loaded 0 later lines 0\n$");
}

}  // namespace
}  // namespace quenor::test
