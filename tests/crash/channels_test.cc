// Processes with report channels, all of one name and in one folder, are killed while they send to
// a collector. Every message that a channel reported as saved arrives, sent by a successor if need
// be. The channels' resend limit is set as high as it goes after each Initialize(). And a host that
// forks: its child has no part in any of it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "tests/crash/support/crowd.h"
#include "tests/crash/support/promises.h"

namespace quenor::test {
namespace {

// A collector on a free port that keeps every body that it accepts.
class Collector {
 public:
  Collector() : job_({QUENOR_COLLECTOR, "--listen", "127.0.0.1:0", "--out", folder_.path()}) {
    const std::string line = FirstLine();
    const std::string begin = "listening url=";
    EXPECT_EQ(0u, line.find(begin)) << line;
    url_ = line.substr(std::min(begin.size(), line.size()));
  }

  const std::string& url() const { return url_; }

  // How often each message came, by its number; 0 for what is none.
  std::map<uint64_t, int> Arrivals() const {
    std::map<uint64_t, int> arrivals;
    for (const auto& entry : std::filesystem::directory_iterator(folder_.path())) {
      ++arrivals[NumberOf(ReadWholeFile(entry.path().string()))];
    }
    return arrivals;
  }

 private:
  std::string FirstLine() {
    std::string line;
    char byte;
    while (read(job_.events_fd(), &byte, 1) == 1 && byte != '\n') line.push_back(byte);
    return line;
  }

  TempFolder folder_;
  Job job_;
  std::string url_;
};

constexpr uint32_t kResendLimit = UINT32_MAX;

std::unique_ptr<Job> StartSender(const TempFolder& folder, const Collector& collector,
                                 FileKind kind, uint64_t first, uint64_t count,
                                 const std::string& mode = "") {
  std::vector<std::string> arguments = {
      QUENOR_CRASH_SENDER,          folder.path(),         collector.url(),      NameOf(kind),
      std::to_string(kResendLimit), std::to_string(first), std::to_string(count)};
  if (!mode.empty()) arguments.push_back(mode);
  return std::make_unique<Job>(arguments);
}

struct Case {
  FileKind kind;
  int processes;
  uint64_t messages;
  int kills;
};

void PrintTo(const Case& of, std::ostream* out) { *out << NameOf(of.kind) << "Of" << of.processes; }

class Channels : public ::testing::TestWithParam<Case> {};

TEST_P(Channels, DeliverEveryMessageThatTheyReportedAsSaved) {
  const Case& of = GetParam();
  TempFolder folder;
  Collector collector;
  Crowd::Plan plan;
  plan.processes = of.processes;
  plan.messages = IsFullRun() ? of.messages : 100;
  plan.kills = IsFullRun() ? of.kills : 5;
  plan.events_per_message = 4;
  plan.may_end_in_flight = true;
  plan.completes_with_next_save = of.kind == FileKind::kPlain;
  plan.resend_limit = kResendLimit;
  plan.start = [&](const Crowd::Task& task) {
    return StartSender(folder, collector, of.kind, task.first, task.count);
  };
  Crowd crowd(plan, Seed());

  crowd.Run();

  crowd.Count(collector.Arrivals());
  crowd.Print(std::string("channels, ") + NameOf(of.kind) + " file");
  crowd.ExpectNothingLost();
  EXPECT_FALSE(HasSetAside(folder.File("quenor_report")));
}

// The plain file has one owner at a time.
INSTANTIATE_TEST_SUITE_P(Each, Channels,
                         ::testing::Values(Case{FileKind::kMapped, 1, 10000, 500},
                                           Case{FileKind::kPlain, 1, 10000, 500},
                                           Case{FileKind::kMapped, 2, 2000, 100},
                                           Case{FileKind::kMapped, 4, 2000, 100},
                                           Case{FileKind::kMapped, 8, 2000, 100}),
                         ::testing::PrintToStringParamName());

class ForkedHosts : public ::testing::TestWithParam<FileKind> {};

// The host has saved messages that it does not send. It forks, and is killed; its child stays.
TEST_P(ForkedHosts, AChildSendsNothingAndKeepsNothingFromASuccessor) {
  constexpr uint64_t kFirst = 100;
  constexpr uint64_t kCount = 20;
  TempFolder folder;
  Collector collector;
  const auto host = StartSender(folder, collector, GetParam(), kFirst, kCount, "fork");
  std::map<uint64_t, int> saved;
  JobEvent event = {};
  while (event.kind != JobEvent::kReady && host->Next(&event)) {
    EXPECT_NE(JobEvent::kFailed, event.kind);
    if (event.kind == JobEvent::kSaved) ++saved[event.number];
  }
  ASSERT_EQ(JobEvent::kReady, event.kind);
  ASSERT_EQ(kCount, saved.size());
  const pid_t child = static_cast<pid_t>(event.number);

  host->Kill();
  EXPECT_EQ(-SIGKILL, host->Wait());
  EXPECT_EQ(0, kill(child, 0)) << "the child has ended too";
  EXPECT_EQ(0u, collector.Arrivals().size());
  const auto successor = StartSender(folder, collector, GetParam(), 0, 0);
  EXPECT_EQ(0, successor->Wait());
  EXPECT_EQ(saved, collector.Arrivals()) << "each once";

  EXPECT_EQ(0, kill(child, 0)) << "the child has ended too";
  host->Release();
  EXPECT_FALSE(host->Next(&event));  // The child ends in order.
  const auto last = StartSender(folder, collector, GetParam(), 0, 0);
  EXPECT_EQ(0, last->Wait());
  EXPECT_EQ(saved, collector.Arrivals());
  EXPECT_FALSE(HasSetAside(folder.File("quenor_report")));
}

INSTANTIATE_TEST_SUITE_P(Each, ForkedHosts, ::testing::Values(FileKind::kMapped, FileKind::kPlain),
                         [](const auto& each) { return std::string(NameOf(each.param)); });

}  // namespace
}  // namespace quenor::test
