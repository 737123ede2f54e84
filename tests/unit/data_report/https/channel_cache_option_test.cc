// The cache option, read once per process: each test runs in a child process of its own.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "quenor_base/platform/base/path_service.h"
#include "quenor_base/platform/config_center.h"
#include "tests/conformance/environment_variable.h"
#include "tests/support/channel_test_fixture.h"
#include "tests/support/fakes/fake_cache_file.h"
#include "tests/support/fakes/fake_mmap_file.h"
#include "tests/support/temp_folder.h"

namespace quenor::test {
namespace {

void SetOption(base::Optional<uint64_t> option) {
  config::ConfigCenterImpl::GetInstance()->SetHostOverride(config::BaseCfg().cache_option, option);
}

// One life of a channel with one cached message, told on standard error line by line.
void RunChannelOnce(const std::string& name = kName) {
  const TempFolder folder;
  if (!base::PathService::Override(base::DIR_RELIABLE_REPORT, base::FilePath(folder.path()))) {
    std::exit(3);
  }
  RecordingLog::Clear();
  FakeMmapFiles().Clear();
  FakeCacheFiles().Clear();
  RecordingReportEvents events;
  VirtualTime time;
  FakeHttp http([&time](base::OnceClosure task) { time.PostToNetwork(std::move(task)); });
  const auto channel = std::make_shared<ReliableReportChannelHttps>(name, kUrl, 0u, false, false);
  channel->Initialize();
  time.RunUntilIdle();
  const uint8_t bytes[] = {'o', 'n', 'e'};
  channel->SendPacket(bytes, 3, true, true);
  time.RunUntilIdle();
  if (!http.Answer(0, 200, kSuccess)) std::exit(4);
  time.RunUntilIdle();
  for (const LogLine& line : RecordingLog::Lines()) {
    std::fprintf(stderr, "level %d in %s: %s\n", line.level, line.file.c_str(), line.text.c_str());
  }
  std::fprintf(stderr, "acknowledged %zu saved %zu, folder %d, calls: mmap %zu plain %zu\n",
               events.Count(ReportEventKind::kAcknowledged), events.Count(ReportEventKind::kSaved),
               base::PathExists(base::FilePath(folder.File("quenor_report"))),
               FakeMmapFiles().Calls().size(), FakeCacheFiles().Calls().size());
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

  // Not the environment of whoever runs the tests.
  const conformance::EnvironmentVariable unset_{"QUENOR_REPORT_CACHE_OPTION", nullptr};
};

constexpr char kNoCache[] = "^acknowledged 1 saved 0, folder 0, calls: mmap 0 plain 0\n$";
constexpr char kCacheFails[] =
    "^level 2 in quenor_base/data_report/https/reliable_report_channel_https: "
    "open mmap file failed!\n"
    "acknowledged 1 saved 0, folder 0, calls: mmap 0 plain 0\n$";
// An opening, one reading, and a save by each of the admission and the answer, the first with a
// packet.
constexpr char kPlainFile[] =
    "^level 0 in quenor_base/data_report/https/reliable_report_channel_https: "
    "load channel.cache successfully, data size is 0\n"
    "acknowledged 1 saved 2, folder 1, calls: mmap 0 plain 5\n$";
constexpr char kMappedFile[] =
    "^level 0 in quenor_base/data_report/https/reliable_report_channel_https: "
    "load channel.mmap successfully, data size is 0\n"
    "acknowledged 1 saved 2, folder 1, calls: mmap 5 plain 0\n$";

TEST_F(ChannelCacheOptionDeathTest, ZeroTouchesNoFileAndLogsNothing) {
  EXPECT_EXIT(RunWith(uint64_t{0}), ::testing::ExitedWithCode(0), kNoCache);
}

TEST_F(ChannelCacheOptionDeathTest, OneKeepsThePlainFile) {
  EXPECT_EXIT(RunWith(uint64_t{1}), ::testing::ExitedWithCode(0), kPlainFile);
}

TEST_F(ChannelCacheOptionDeathTest, TwoKeepsTheMappedFile) {
  EXPECT_EXIT(RunWith(uint64_t{2}), ::testing::ExitedWithCode(0), kMappedFile);
}

TEST_F(ChannelCacheOptionDeathTest, WithoutAValueTheMappedFileIsKept) {
  EXPECT_EXIT(RunWith(base::nullopt), ::testing::ExitedWithCode(0), kMappedFile);
}

TEST_F(ChannelCacheOptionDeathTest, AnyOtherLogsThatTheOpenFailedAndSavesNothingSilently) {
  EXPECT_EXIT(RunWith(uint64_t{3}), ::testing::ExitedWithCode(0), kCacheFails);
  EXPECT_EXIT(RunWith(uint64_t{0xffffffff}), ::testing::ExitedWithCode(0), kCacheFails);
}

TEST_F(ChannelCacheOptionDeathTest, OnlyTheLowThirtyTwoBitsOfTheOptionCount) {
  EXPECT_EXIT(RunWith(uint64_t{4294967297}), ::testing::ExitedWithCode(0), kPlainFile);
  EXPECT_EXIT(RunWith(uint64_t{4294967296}), ::testing::ExitedWithCode(0), kNoCache);
}

TEST_F(ChannelCacheOptionDeathTest, LaterChangeOfTheOptionIsSeenByNoChannelOfTheProcess) {
  EXPECT_EXIT(
      {
        SetOption(uint64_t{1});
        RunChannelOnce();
        SetOption(uint64_t{2});
        RunChannelOnce("channel");
        RunChannelOnce("another");
        std::exit(0);
      },
      ::testing::ExitedWithCode(0),
      "^level 0 [^\n]*: load channel.cache successfully, data size is 0\n[^\n]*mmap 0 plain 5\n"
      "level 0 [^\n]*: load channel.cache successfully, data size is 0\n[^\n]*mmap 0 plain 5\n"
      "level 0 [^\n]*: load another.cache successfully, data size is 0\n[^\n]*mmap 0 plain 5\n$");
}

}  // namespace
}  // namespace quenor::test
