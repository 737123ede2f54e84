// The resend limit that lets go of what the server refuses for good, on a real channel.
#include "quenor_base/reporter/refused_for_good.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <random>
#include <set>
#include <string>

#include "tests/support/channel_test_fixture.h"

namespace quenor::test {
namespace {

constexpr uint32_t kNoLimit = UINT32_MAX;

// What a reporter does with it.
class Limiter : public ReportEventListener {
 public:
  Limiter() { ReportEvents::AddListener(this); }
  ~Limiter() override { ReportEvents::RemoveListener(this); }

  void OnReportEvent(const ReportEvent& event) override {
    const std::string body(reinterpret_cast<const char*>(event.data), event.size);
    if (event.kind == ReportEventKind::kDropped && channel != nullptr) {
      (policy.IsRejection(event) ? rejected : dropped).insert(body);
    }
    if (event.kind == ReportEventKind::kAcknowledged) acknowledged.insert(body);
    if (event.kind == ReportEventKind::kHandedOver) return;
    uint32_t limit;
    if (policy.OnEvent(event, &limit) && channel != nullptr) channel->SetMaxResendCount(limit);
  }
  size_t ended() const { return acknowledged.size() + rejected.size() + dropped.size(); }

  ReliableReportChannelHttps* channel = nullptr;
  RefusedForGood policy{kNoLimit};
  std::set<std::string> acknowledged, rejected, dropped;
};

class RefusedForGoodTest : public ChannelTest {
 protected:
  void SetUp() override {
    Start();
    channel_->SetMaxResendCount(kNoLimit);
    time_.RunUntilIdle();
    limiter_.channel = channel_.get();
  }
  void TearDown() override {
    limiter_.channel = nullptr;
    ChannelTest::TearDown();
  }
  // Everything that is out is answered by `status` of its body; 0: no response.
  template <typename Status>
  void AnswerAll(Status status) {
    const std::vector<FakeHttp::Sent> requests = http_.Requests();
    for (const size_t index : http_.Outstanding()) {
      const int code = status(requests[index].body);
      if (code == 0) {
        Fail(index);
      } else {
        Answer(index, code);
      }
    }
  }

  Limiter limiter_;
};

TEST_F(RefusedForGoodTest, OneAmongAThousandCostsTheOthersNothing) {
  size_t handed_over = 0;
  int64_t waited_ms = 0;
  while (limiter_.ended() < 1000 && waited_ms < 3600000) {
    while (handed_over < 1000 && handed_over - limiter_.ended() < 149) {
      Send("m" + std::to_string(handed_over++));
    }
    Advance(100);
    waited_ms += 100;
    AnswerAll([](const std::string& body) { return body == "m500" ? 403 : 200; });
  }

  EXPECT_EQ(999u, limiter_.acknowledged.size());
  EXPECT_EQ(std::set<std::string>{"m500"}, limiter_.rejected);
  EXPECT_EQ(std::set<std::string>{}, limiter_.dropped);
  EXPECT_EQ(kNoLimit, peer().max_resend_count());
}

struct StatusCase {
  int status;
  bool is_for_good;
};

TEST_F(RefusedForGoodTest, GivesUpAfterFiveRefusalsRunningAndForNothingElse) {
  for (const auto& [status, is_for_good] : {StatusCase{400, true},
                                            {403, true},
                                            {404, true},
                                            {413, true},
                                            {499, true},
                                            {408, false},
                                            {429, false},
                                            {500, false},
                                            {503, false},
                                            {302, false},
                                            {204, false},
                                            {0, false}}) {
    const std::string body = "of " + std::to_string(status);
    Send(body);
    for (int attempt = 0; attempt < 12 && limiter_.rejected.count(body) == 0; ++attempt) {
      Advance(8000);
      AnswerAll([status = status](const std::string&) { return status; });
    }

    EXPECT_EQ(is_for_good ? 1u : 0u, limiter_.rejected.count(body)) << status;
    Advance(8000);
    AnswerAll([](const std::string&) { return 200; });
    EXPECT_EQ(is_for_good ? 0u : 1u, limiter_.acknowledged.count(body)) << status;
  }
  EXPECT_EQ(std::set<std::string>{}, limiter_.dropped);
}

TEST_F(RefusedForGoodTest, AnyOtherAnswerBeginsTheCountAnew) {
  Send("m");
  for (const int status : {403, 403, 403, 403, 500, 403, 403, 403, 403, 0, 404, 404, 404, 404}) {
    Advance(8000);
    AnswerAll([status](const std::string&) { return status; });
  }
  EXPECT_EQ(0u, limiter_.rejected.size());

  Advance(8000);
  AnswerAll([](const std::string&) { return 200; });
  EXPECT_EQ(1u, limiter_.acknowledged.size());
}

TEST_F(RefusedForGoodTest, TheServersLimitHoldsAndComesBack) {
  Send("good");
  Advance(100);
  AnswerAll([](const std::string&) { return 200; });
  Send("tuning");
  Advance(100);
  Answer(1, 200, "{\"bytes_errinfo\":\"success\",\"uint32_max_resend_count\":30}");
  Send("bad");
  for (int attempt = 0; attempt < 10; ++attempt) {
    Advance(8000);
    AnswerAll([](const std::string& body) { return body == "bad" ? 403 : 200; });
  }

  EXPECT_EQ(std::set<std::string>{"bad"}, limiter_.rejected);
  EXPECT_EQ(30u, peer().max_resend_count());
}

// Three are in flight: "bad", which goes with its next failure, "good" and another.
class LoweredLimitTest : public RefusedForGoodTest {
 protected:
  void SetUp() override {
    RefusedForGoodTest::SetUp();
    Send("bad");
    for (int refusals = 0; refusals < 5; ++refusals) {
      Advance(8000);
      AnswerAll([](const std::string&) { return 403; });
    }
    Send("good");
    Send("another");
    Advance(24000);
    ASSERT_EQ(3u, http_.Outstanding().size());
    lowered_ = peer().max_resend_count();
    ASSERT_LT(lowered_, 5u);
  }
  // The reply to "good", and behind it the last refusal of "bad", or before.
  void AnswerBoth(const std::string& reply, bool good_first) {
    const auto answer = [&](const std::string& body, int status) {
      for (const size_t index : http_.Outstanding()) {
        if (http_.Requests()[index].body == body) http_.Answer(index, status, reply);
      }
    };
    if (good_first) answer("good", 200);
    answer("bad", 403);
    if (!good_first) answer("good", 200);
    time_.RunUntilIdle();
    EXPECT_EQ(std::set<std::string>{"bad"}, limiter_.rejected);
    EXPECT_EQ(std::set<std::string>{"good"}, limiter_.acknowledged);
  }
  uint32_t lowered_ = 0;
};

TEST_F(LoweredLimitTest, AFailureOfAnotherKindDoesNotPardon) {
  for (const size_t index : http_.Outstanding()) {
    if (http_.Requests()[index].body == "bad") Answer(index, 500);
  }

  EXPECT_EQ(std::set<std::string>{"bad"}, limiter_.rejected);
  EXPECT_EQ(std::set<std::string>{}, limiter_.dropped);
}

TEST_F(LoweredLimitTest, WhatFailsBesideItIsNotDropped) {
  for (const size_t index : http_.Outstanding()) {
    if (http_.Requests()[index].body == "good") Answer(index, 500);
  }
  Advance(8000);

  EXPECT_EQ(std::set<std::string>{}, limiter_.dropped);
  EXPECT_EQ(3u, http_.Outstanding().size());
}

TEST_F(LoweredLimitTest, TheServersWordIsTakenThoughItIsWhatIsInForce) {
  AnswerBoth("{\"bytes_errinfo\":\"success\",\"uint32_max_resend_count\":" +
                 std::to_string(lowered_) + "}",
             /*good_first=*/true);

  EXPECT_EQ(lowered_, peer().max_resend_count());
}

TEST_F(LoweredLimitTest, AReplyThatSetsNoLimitLeavesNoneBehind) {
  AnswerBoth("{\"bytes_errinfo\":\"success\",\"uint32_report_duration\":60}",
             /*good_first=*/false);

  EXPECT_EQ(kNoLimit, peer().max_resend_count());
  EXPECT_EQ(kNoLimit, limiter_.policy.limit());
}

TEST_F(LoweredLimitTest, TheServersWordOutlivesALimitThatIsOnItsWay) {
  AnswerBoth("{\"bytes_errinfo\":\"success\",\"uint32_max_resend_count\":30}",
             /*good_first=*/false);

  EXPECT_EQ(30u, peer().max_resend_count());
}

// Outages, answers in any order and long after, several that are refused: nothing else is dropped.
TEST_F(RefusedForGoodTest, NothingElseIsDroppedWhateverTheServerDoes) {
  const char* const given = std::getenv("QUENOR_TEST_SEED");
  const uint64_t seed = given != nullptr ? std::stoull(given) : std::random_device()();
  std::mt19937_64 random(seed);
  SCOPED_TRACE("QUENOR_TEST_SEED=" + std::to_string(seed));
  const auto one_in = [&](uint64_t n) { return random() % n == 0; };
  size_t handed_over = 0;
  bool is_down = false;
  for (int step = 0; step < 6000 || limiter_.ended() < handed_over; ++step) {
    const bool is_over = step >= 6000;
    ASSERT_LT(step, 60000);
    if (!is_over && handed_over - limiter_.ended() < 149 && one_in(4)) {
      Send((one_in(15) ? "bad" : "m") + std::to_string(handed_over++));
    }
    if (one_in(300)) is_down = !is_down;
    if (is_over) is_down = false;
    Advance(static_cast<int64_t>(random() % 400));
    const std::vector<FakeHttp::Sent> requests = http_.Requests();
    for (const size_t index : http_.Outstanding()) {
      if (!is_over && one_in(2)) continue;
      const bool is_bad = requests[index].body.compare(0, 3, "bad") == 0;
      if (is_down || (!is_over && one_in(10))) {
        one_in(2) ? Fail(index) : Answer(index, one_in(2) ? 500 : 429);
      } else {
        Answer(index, is_bad ? 403 : 200);
      }
    }
  }

  EXPECT_EQ(std::set<std::string>{}, limiter_.dropped);
  for (const std::string& body : limiter_.rejected) EXPECT_EQ("bad", body.substr(0, 3));
  for (const std::string& body : limiter_.acknowledged) EXPECT_EQ('m', body[0]);
  EXPECT_GT(limiter_.rejected.size(), 0u);
  EXPECT_EQ(kNoLimit, peer().max_resend_count());
}

}  // namespace
}  // namespace quenor::test
