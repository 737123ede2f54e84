// Processes with report channels, all of one name and in one folder, are killed while they send to
// a collector. Every message that a channel reported as saved arrives, sent by a successor if need
// be. The channels' resend limit is set as high as it goes after each Initialize().
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/crash/crowd.h"
#include "tests/crash/promises.h"

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

class Channels : public ::testing::TestWithParam<int> {};

TEST_P(Channels, DeliverEveryMessageThatTheyReportedAsSaved) {
  TempFolder folder;
  Collector collector;
  Crowd::Plan plan;
  plan.processes = GetParam();
  plan.messages = IsFullRun() ? 2000 : 100;
  plan.kills = IsFullRun() ? GetParam() == 1 ? 500 : 100 : 8;
  plan.events_per_message = 3;
  plan.may_end_in_flight = true;
  plan.start = [&](const Crowd::Task& task) {
    return std::make_unique<Job>(
        std::vector<std::string>{QUENOR_CRASH_SENDER, folder.path(), collector.url(),
                                 std::to_string(task.first), std::to_string(task.count)});
  };
  Crowd crowd(plan, Seed());

  crowd.Run();

  crowd.Count(collector.Arrivals());
  crowd.Print("channels");
  crowd.ExpectNothingLost();
  EXPECT_FALSE(HasSetAside(folder.File("quenor_report")));
}

INSTANTIATE_TEST_SUITE_P(Of, Channels, ::testing::Values(1, 2, 4, 8),
                         ::testing::PrintToStringParamName());

}  // namespace
}  // namespace quenor::test
