// Misbehaviour on request, as a sender sees it and as the record shows it.

#include <gtest/gtest.h>
#include <signal.h>

#include <string>
#include <thread>
#include <vector>

#include "tests/collector/support/child.h"
#include "tests/collector/support/raw_http.h"
#include "tests/collector/support/record.h"
#include "tests/collector/support/temp_dir.h"

namespace quenor::collector::test {
namespace {

class MisbehaviourTest : public ::testing::Test {
 protected:
  std::vector<int> LoggedStatuses() {
    std::vector<int> statuses;
    for (const auto& line : ReadLog(dir_ / "log")) statuses.push_back(line["status"].GetInt());
    return statuses;
  }

  // The statuses of `count` posts, one after the other, on one client.
  static std::vector<int> PostMany(Collector& collector, int count) {
    const auto client = collector.NewClient();
    std::vector<int> statuses;
    for (int i = 0; i < count; ++i) statuses.push_back(Post(*client, std::to_string(i)));
    return statuses;
  }

  TempDir dir_;
};

TEST_F(MisbehaviourTest, FailEveryIsLoggedButNotFiled) {
  Collector collector(dir_ / "", Collector::Transport::kTls,
                      {"--fail-every", "3", "--log", dir_ / "log", "--out", dir_ / "out"});
  const std::vector<int> expected = {200, 200, 503, 200, 200, 503, 200};

  EXPECT_EQ(PostMany(collector, 7), expected);

  EXPECT_EQ(LoggedStatuses(), expected);
  EXPECT_EQ(ListDir(dir_ / "out").size(), 5u);
  EXPECT_EQ(collector.Stop().out, "requests=7 accepted=5 failed=2 distinct=5 bytes=5\n");
}

TEST_F(MisbehaviourTest, FailStatusIsTheStatusOfTheFailures) {
  Collector collector(dir_ / "", Collector::Transport::kTls,
                      {"--fail-every", "2", "--fail-status", "429", "--log", dir_ / "log"});

  EXPECT_EQ(PostMany(collector, 2), (std::vector<int>{200, 429}));
}

TEST_F(MisbehaviourTest, StatusAppliesToAllAnswersWithTheUsualReply) {
  Collector collector(dir_ / "", Collector::Transport::kTls, {"--status", "202"});

  const httplib::Result result = collector.NewClient()->Post("/", "x", "text/plain");

  ASSERT_TRUE(result);
  EXPECT_EQ(result->status, 202);
  EXPECT_EQ(result->body, R"({"bytes_errinfo":"success"})");
  EXPECT_EQ(collector.Stop().out, "requests=1 accepted=0 failed=1 distinct=0 bytes=0\n");
}

TEST_F(MisbehaviourTest, NoContentReallyHasNone) {
  Collector collector(dir_ / "", Collector::Transport::kTls, {"--status", "204"});
  const auto client = collector.NewClient();

  EXPECT_EQ(Post(*client, "x"), 204);
  EXPECT_EQ(Post(*client, "y"), 204);
}

TEST_F(MisbehaviourTest, CloseEveryEndsTheConnectionWithoutAnAnswer) {
  Collector collector(dir_ / "", Collector::Transport::kTls,
                      {"--close-every", "2", "--log", dir_ / "log", "--out", dir_ / "out"});

  EXPECT_EQ(PostMany(collector, 4), (std::vector<int>{200, 0, 200, 0}));

  EXPECT_EQ(LoggedStatuses(), (std::vector<int>{200, 0, 200, 0}));
  EXPECT_EQ(ListDir(dir_ / "out").size(), 2u);
}

TEST_F(MisbehaviourTest, CloseEverySendsNotASingleByte) {
  Collector collector(dir_ / "", Collector::Transport::kPlain, {"--close-every", "1"});

  EXPECT_EQ(Exchange(collector.port(), "POST / HTTP/1.1\r\nHost: x\r\n\r\n"), "");
}

TEST_F(MisbehaviourTest, GarbageIsAcceptedButNoJson) {
  Collector collector(dir_ / "", Collector::Transport::kTls, {"--garbage-every", "1"});

  const httplib::Result result = collector.NewClient()->Post("/", "x", "text/plain");

  ASSERT_TRUE(result);
  EXPECT_EQ(result->status, 200);
  EXPECT_THROW(ParseObject(result->body), std::runtime_error);
  EXPECT_EQ(collector.Stop().out, "requests=1 accepted=1 failed=0 distinct=1 bytes=1\n");
}

TEST_F(MisbehaviourTest, NeverAnswerHoldsTheRequestAndSparesTheWorker) {
  Collector collector(dir_ / "", Collector::Transport::kTls,
                      {"--never-answer-every", "2", "--threads", "1", "--log", "-"});
  const auto patient = collector.NewClient();
  ASSERT_EQ(Post(*patient, "first"), 200);
  ASSERT_TRUE(collector.child().ReadLine());
  int held_status = -1;
  std::thread held([&] { held_status = Post(*patient, "second"); });

  const std::string line = collector.child().ReadLine().value_or("");
  const int next_status = Post(*collector.NewClient(), "third");
  const Ended ended = collector.Stop();
  held.join();

  EXPECT_EQ(ParseObject(line)["status"].GetInt(), 0);
  EXPECT_EQ(next_status, 200);
  EXPECT_EQ(held_status, 0);
  EXPECT_EQ(ended.exit_code, 0) << ended.err;
  EXPECT_NE(ended.out.find("\nrequests=3 accepted=2 failed=1 "), std::string::npos) << ended.out;
}

TEST_F(MisbehaviourTest, DelayIsCutShortByTheEndAndTheReplyStillGoesOut) {
  Collector collector(dir_ / "", Collector::Transport::kTls,
                      {"--delay-ms", "86400000", "--log", "-"});
  const auto client = collector.NewClient();
  int status = -1;
  std::thread delayed([&] { status = Post(*client, "body"); });

  const std::string line = collector.child().ReadLine().value_or("");
  const Ended ended = collector.Stop();
  delayed.join();

  EXPECT_EQ(ParseObject(line)["status"].GetInt(), 200);
  EXPECT_EQ(status, 200);
  EXPECT_EQ(ended.exit_code, 0) << ended.err;
  EXPECT_EQ(ended.out, "requests=1 accepted=1 failed=0 distinct=1 bytes=4\n");
}

TEST_F(MisbehaviourTest, ShortDelayIsAnswered) {
  Collector collector(dir_ / "", Collector::Transport::kTls, {"--delay-ms", "1"});

  EXPECT_EQ(PostMany(collector, 3), (std::vector<int>{200, 200, 200}));
}

TEST_F(MisbehaviourTest, ReplyCarriesTheControlFields) {
  Collector collector(dir_ / "", Collector::Transport::kTls,
                      {"--errinfo", "busy", "--send-interval", "1500", "--max-resend", "3",
                       "--report-duration", "60"});

  const httplib::Result result = collector.NewClient()->Post("/", "x", "text/plain");

  ASSERT_TRUE(result);
  EXPECT_EQ(result->get_header_value("Content-Type"), "application/json");
  EXPECT_EQ(result->body, R"({"bytes_errinfo":"busy","uint32_send_interval":1500,)"
                          R"("uint32_max_resend_count":3,"uint32_report_duration":60})");
}

TEST_F(MisbehaviourTest, WhatCannotBeRecordedIsNotAcknowledged) {
  Collector collector(dir_ / "", Collector::Transport::kTls, {"--log", "/dev/full"});

  EXPECT_EQ(PostMany(collector, 1), std::vector<int>{500});

  const Ended ended = collector.Stop();
  EXPECT_EQ(ended.out, "requests=1 accepted=0 failed=1 distinct=0 bytes=0\n");
  EXPECT_NE(ended.err.find("/dev/full"), std::string::npos);
}

}  // namespace
}  // namespace quenor::collector::test
