#include "tests/integration/matrix/row_runner.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "quenor_base/platform/base/file_path.h"
#include "quenor_base/platform/base/path_service.h"
#include "quenor_base/platform/config_center.h"
#include "quenor_base/platform/local_log.h"
#include "quenor_base/platform/socks5_proxy_config.h"

namespace quenor::test {

namespace {

constexpr uint32_t kAmpleMs = 20000;  // Never reached.
constexpr uint32_t kShortMs = 500;    // Reached by the slow rows, and by them alone.
constexpr size_t kBigBytes = 8 << 20;
constexpr int kMsPerSecond = 1000;
constexpr size_t kMostExcuses = 20;  // Failures of a good server that a low limit may explain.

void IgnoreLine(void*, int, const char*, int, const char*, size_t) {}

bool IsDelivered(const Ending& ending) {
  return ending.state == HttpClient::State::kCompleted && ending.status == 200;
}

std::string Text(const Ending& ending) {
  static const char* const kNames[] = {"failed", "cancelled", "completed", "timed out",
                                       "too large"};
  if (ending.state == HttpClient::State::kCompleted) return std::to_string(ending.status);
  return kNames[static_cast<int>(ending.state)];
}

void Hand(ReliableReportChannelHttps* channel, const std::string& bytes) {
  channel->SendPacket(reinterpret_cast<const uint8_t*>(bytes.data()),
                      static_cast<uint32_t>(bytes.size()), true, true);
}

}  // namespace

size_t OpenDescriptors() {
  DIR* folder = opendir("/proc/self/fd");
  if (folder == nullptr) return 0;
  size_t count = 0;
  while (readdir(folder) != nullptr) ++count;
  closedir(folder);
  return count - 3;  // "." and "..", and the folder's own.
}

size_t ResidentKib() {
  size_t size = 0;
  size_t resident = 0;
  std::FILE* file = std::fopen("/proc/self/statm", "re");
  if (file == nullptr) return 0;
  if (std::fscanf(file, "%zu %zu", &size, &resident) != 2) resident = 0;
  std::fclose(file);
  return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE)) / 1024;
}

RowRunner::RowRunner(PeerProcess* peer) : peer_(peer) {
  config::ConfigCenterImpl::GetInstance()->SetHostOverride(config::BaseCfg().cache_option,
                                                           uint64_t{2});
  EXPECT_TRUE(base::PathService::Override(base::DIR_RELIABLE_REPORT,
                                          base::FilePath(certificates_.folder())));
  GetSocks5ProxyConfigHolder()->SetConfig({});
  if (std::getenv("QUENOR_MATRIX_ROW") == nullptr) SetLogSink(&IgnoreLine, nullptr);
}

RowRunner::~RowRunner() {
  SetLogSink(nullptr, nullptr);
  (void)base::PathService::Override(base::DIR_RELIABLE_REPORT, base::FilePath());
}

void RowRunner::SetLimits(const Row& row) {
  HttpDefaults defaults;
  defaults.ca_file = certificates_.ca_file();
  const uint32_t short_ms = row.is_big ? 4 * kShortMs : kShortMs;
  defaults.connect_timeout_ms = defaults.total_timeout_ms = row.is_slow ? short_ms : kAmpleMs;
  if (row.low_speed) {
    defaults.connect_timeout_ms = defaults.total_timeout_ms = kAmpleMs;
    defaults.low_speed_bytes_per_second = 4096;
    defaults.low_speed_seconds = 1;
  }
  EXPECT_EQ("", SetHttpDefaults(defaults));
}

Ending RowRunner::NextEnding(size_t number) {
  const Ending ending = watch_->WaitFor(number);
  clock_.RunUntilIdle();
  EXPECT_EQ(number, watch_->started());
  EXPECT_EQ(number, events_.Count(ReportEventKind::kSent));
  return ending;
}

size_t RowRunner::InCache() const {
  const std::vector<RecordedEvent> saves = events_.OfKind(ReportEventKind::kSaved);
  return saves.empty() ? 0 : saves.back().count;
}

void RowRunner::CheckFailed(const Row& row, const Ending& ending, size_t number) {
  if (row.expected.what == Expected::kStatus) {
    EXPECT_EQ(std::to_string(row.expected.status), Text(ending));
  } else {
    EXPECT_EQ(Text(Ending{row.expected.state, 0}), Text(ending));
    EXPECT_NE(Expected::kDelivered, row.expected.what);
  }
  EXPECT_EQ(number, events_.Count(ReportEventKind::kFailed));
  EXPECT_EQ(0u, events_.Count(ReportEventKind::kAcknowledged));
  EXPECT_EQ(1u, InCache());
}

void RowRunner::PassBackOff(size_t failed) {
  const int64_t ms = kMsPerSecond << std::min<size_t>(failed - 1, 3);
  const size_t sent = events_.Count(ReportEventKind::kSent);
  clock_.AdvanceBy(base::TimeDelta::FromMilliseconds(ms - 1));
  EXPECT_EQ(sent, events_.Count(ReportEventKind::kSent)) << "before " << ms << " ms had passed";
  clock_.AdvanceBy(base::TimeDelta::FromMilliseconds(1));
  EXPECT_EQ(sent + 1, events_.Count(ReportEventKind::kSent)) << "after " << ms << " ms";
}

// Waits until the message of the exchange that was sent as the `*number`-th, and that failed
// `failed` times before, is delivered. On a slow machine a row's low time limit may catch a good
// server too.
void RowRunner::AwaitDelivery(const Row& row, size_t failed, size_t* number) {
  for (size_t excuses = 0; !IsDelivered(NextEnding(*number)); ++excuses) {
    EXPECT_TRUE(row.is_slow || row.expected.what == Expected::kEither ||
                (row.closes_behind && excuses == 0))
        << "the server behaves and the message is not delivered";
    if (excuses == kMostExcuses) return;
    PassBackOff(++failed);
    ++*number;
  }
}

// The server behaves. One more message goes there and arrives.
void RowRunner::SendAnother(ReliableReportChannelHttps* channel, const Row& row, size_t sent) {
  Hand(channel, "and another");
  clock_.RunUntilIdle();
  // With an interval of its own the channel waits for its tick.
  if (watch_->started() == sent) {
    clock_.AdvanceBy(base::TimeDelta::FromMilliseconds(
        std::max<int64_t>(row.settings.send_interval_ms, kMsPerSecond)));
  }
  ++sent;
  AwaitDelivery(row, 0, &sent);
}

void RowRunner::CheckSettings(const Row& row) {
  const std::vector<RecordedEvent> told = events_.OfKind(ReportEventKind::kRetuned);
  Settings in_force;
  if (!told.empty()) {
    in_force = {told.back().send_interval_ms, told.back().max_resend_count,
                told.back().report_interval_ms};
  }
  EXPECT_EQ(row.settings.send_interval_ms, in_force.send_interval_ms);
  EXPECT_EQ(row.settings.max_resend_count, in_force.max_resend_count);
  EXPECT_EQ(row.settings.report_interval_ms, in_force.report_interval_ms);
}

void RowRunner::CheckEnd() {
  EXPECT_EQ(2u, events_.Count(ReportEventKind::kAcknowledged));
  EXPECT_EQ(0u, events_.Count(ReportEventKind::kDropped));
  EXPECT_EQ(0u, events_.Count(ReportEventKind::kRefused));
  EXPECT_EQ(0u, events_.Count(ReportEventKind::kLoaded));
  EXPECT_EQ(0u, events_.Count(ReportEventKind::kKept));
  EXPECT_EQ(0, events_.OpenMessages());
  EXPECT_EQ(0u, InCache());
  EXPECT_EQ(watch_->started(), watch_->ended());
  EXPECT_EQ(0u, watch_->repeated());
  EXPECT_EQ(0u, watch_->unrun());
  lost_ += 2 - std::min<size_t>(2, events_.Count(ReportEventKind::kAcknowledged));
  ++rounds_;
}

std::string RowRunner::Run(const Row& row, Protocol protocol, int failures) {
  SCOPED_TRACE(row.name + (protocol == Protocol::kHttp2 ? " (HTTP/2)" : " (HTTP/1.1)"));
  SetLimits(row);
  events_.Clear();
  watch_->Clear();
  std::string seen;
  {
    RowServer server(row, protocol, certificates_, peer_);
    auto channel = std::make_shared<ReliableReportChannelHttps>(
        "matrix-" + std::to_string(lost_), server.Url(), 0, /*http2*/ protocol == Protocol::kHttp2,
        false);
    channel->Initialize();
    channel->SetMaxResendCount(UINT32_MAX);
    Hand(channel.get(), row.is_big ? std::string(kBigBytes, 'm') : "a message");
    clock_.RunUntilIdle();
    size_t sent = 1;
    for (;; ++sent) {
      const Ending ending = NextEnding(sent);
      if (sent == 1) seen = Text(ending);
      if (IsDelivered(ending)) {
        EXPECT_TRUE(row.expected.what == Expected::kDelivered ||
                    row.expected.what == Expected::kEither);
        if (row.checks_settings) CheckSettings(row);
        server.Behave();
        break;
      }
      CheckFailed(row, ending, sent);
      const bool enough = sent >= static_cast<size_t>(failures);
      if (enough) server.Behave();
      PassBackOff(sent);
      if (enough) {
        const size_t failed = sent++;
        AwaitDelivery(row, failed, &sent);
        break;
      }
    }
    SendAnother(channel.get(), row, sent);
    channel->Terminate();
    clock_.RunUntilIdle();
  }
  CheckEnd();
  return seen;
}

}  // namespace quenor::test
