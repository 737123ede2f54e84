// A channel whose HTTP client keeps to caps of bytes: what is held back loses neither its place nor
// its count, and what a day costs with and without.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "services/http_client_curl/rules/byte_budget.h"
#include "tests/support/channel_test_fixture.h"

namespace quenor::test {
namespace {

using Cap = ByteBudget::Cap;

// What the client charges around a body, and an answer of its own size.
constexpr uint64_t kHeadBytes = 200;
constexpr uint64_t kAnswerBytes = 180;
constexpr uint64_t kHandshakeBytes = 4096;

class ChannelThriftTest : public ChannelTest {
 protected:
  int64_t NowMs() const { return time_.NowUs() / 1000; }
  static uint64_t Expected(const HttpClient::Request& request) {
    return kHeadBytes + request.body.size();
  }
  // From now on the client keeps to these.
  void KeepTo(const HttpThrift& caps) {
    budget_.SetCaps(caps, NowMs());
    http_.SetHoldBack([this](const HttpClient::Request& request) {
      const bool is_held = budget_.Take(Expected(request), NowMs()) != Cap::kNone;
      held_back_ += is_held ? 1 : 0;
      return is_held;
    });
  }
  Texts SentBodies() const {
    Texts bodies;
    for (const FakeHttp::Sent& sent : http_.Requests()) bodies.push_back(sent.body);
    return bodies;
  }

  ByteBudget budget_;
  int held_back_ = 0;
};

TEST_F(ChannelThriftTest, WhatIsHeldBackKeepsItsPlaceAndItsCount) {
  KeepTo({1000, 0});  // At once 16 KiB, which is twenty of these and a bit.
  Start();
  const std::string padding(600, '.');
  Texts all;
  for (int i = 0; i < 40; ++i) {
    all.push_back(std::to_string(i) + padding);
    Post(all.back());
  }
  time_.RunUntilIdle();

  Advance(2500);  // Twenty-five ticks.

  const size_t first = http_.RequestCount();
  EXPECT_GE(first, 20u);
  EXPECT_LT(first, 25u);
  EXPECT_GT(held_back_, 0);
  EXPECT_EQ(Counters(), (Counts{40, static_cast<uint32_t>(first), 0, 0, 0}));
  EXPECT_EQ(peer().pending().size(), 40 - first);
  EXPECT_EQ(peer().sending().size(), first);
  for (const auto& message : peer().pending()) EXPECT_EQ(message.send_count, 0u);

  for (size_t i = 0; i < first; ++i) Answer(i, 200);
  Advance(60000);

  EXPECT_EQ(SentBodies(), all);
  for (size_t i = first; i < 40; ++i) Answer(i, 200);
  EXPECT_EQ(Counters(), (Counts{40, 40, 40, 0, 0}));
}

TEST_F(ChannelThriftTest, OneThatGoesAheadIsHeldAheadAndAFailedOneWaitsInItsPlace) {
  KeepTo({100, 0});
  Start();
  Send("large" + std::string(16 * 1024, '.'), false, true);  // The bucket, and a debt.
  ASSERT_EQ(http_.RequestCount(), 1u);
  Send("second");
  Send("ahead", true, true);
  EXPECT_EQ(PendingBodies(), (Texts{"ahead", "second"}));

  Fail(0);
  Advance(600);
  EXPECT_EQ(http_.RequestCount(), 1u);
  EXPECT_EQ(peer().pending().size(), 3u);
  EXPECT_EQ(peer().pending().front().send_count, 1u);
  EXPECT_EQ(Counters(), (Counts{3, 1, 0, 1, 0}));

  KeepTo({0, 0});
  Advance(30000);
  const Texts sent = SentBodies();
  ASSERT_EQ(sent.size(), 4u);
  EXPECT_EQ(sent[1], sent[0]);
  EXPECT_EQ(sent[2], "ahead");
  EXPECT_EQ(sent[3], "second");
  for (size_t i = 1; i < 4; ++i) Answer(i, 200);
  EXPECT_EQ(Counters(), (Counts{3, 4, 3, 1, 0}));
}

// --- A day ---

struct Day {
  uint64_t bytes = 0;
  uint64_t most_in_an_hour = 0;
  int connections = 0;
  size_t dropped = 0;
  std::vector<int64_t> delays_ms;
};

class ChannelThriftDayTest : public ChannelThriftTest {
 protected:
  static constexpr int kDaySeconds = 24 * 3600;

  // A message of 700 bytes each two minutes, and forty at once each hour; each answer takes half a
  // second. A connection is used again while it has rested for less than 50 s.
  Day Live(const HttpThrift& caps) {
    KeepTo(caps);
    Start();
    channel_->SetMaxResendCount(5);
    Day day;
    std::vector<uint64_t> of_hour(24);
    int64_t last_exchange_ms = -60000;
    size_t messages = 0;
    const auto hand_over = [&] {
      std::string text = std::to_string(NowMs()) + " ";
      ++messages;
      Post(text + std::string(700 - text.size(), '.'));
    };
    const auto end_all = [&] {
      for (const size_t index : http_.Outstanding()) {
        const uint64_t expected = kHeadBytes + 700;
        uint64_t moved = expected + kAnswerBytes;
        if (NowMs() - last_exchange_ms >= 50000) {
          ++day.connections;
          moved += kHandshakeBytes;
        }
        last_exchange_ms = NowMs();
        budget_.Settle(expected, moved, NowMs());
        day.bytes += moved;
        of_hour[static_cast<size_t>(NowMs() / 3600000) % 24] += moved;
        Answer(index, 200);
      }
    };
    http_.SetOnSend([&](const HttpClient::Request& request) {
      const int64_t handed_over_ms = std::stoll(Body(request.body));
      EXPECT_LE(last_handed_over_ms_, handed_over_ms);
      last_handed_over_ms_ = handed_over_ms;
      day.delays_ms.push_back(NowMs() - handed_over_ms);
    });
    for (int second = 0; second < kDaySeconds; ++second) {
      if (second % 120 == 0) hand_over();
      for (int i = 0; second % 3600 == 1800 && i < 40; ++i) hand_over();
      Advance(500);
      end_all();
      Advance(500);
    }
    end_all();
    http_.SetOnSend(nullptr);
    day.most_in_an_hour = *std::max_element(of_hour.begin(), of_hour.end());
    day.dropped = events_.Count(Kind::kDropped);
    EXPECT_EQ(events_.Count(Kind::kSent), http_.RequestCount());
    EXPECT_EQ(messages, http_.RequestCount() + peer().pending().size() + day.dropped);
    std::sort(day.delays_ms.begin(), day.delays_ms.end());
    return day;
  }
  void Print(const char* name, const Day& day) {
    std::printf(
        "%-22s %9zu bytes %5zu requests %4d connections %6d held back, delay %7.1f s "
        "median %8.1f s worst, %3zu left, %3zu dropped\n",
        name, static_cast<size_t>(day.bytes), http_.RequestCount(), day.connections, held_back_,
        static_cast<double>(day.delays_ms[day.delays_ms.size() / 2]) / 1000,
        static_cast<double>(day.delays_ms.back()) / 1000, peer().pending().size(), day.dropped);
  }

  int64_t last_handed_over_ms_ = 0;
};

TEST_F(ChannelThriftDayTest, WithoutACap) {
  const Day day = Live({});
  Print("none", day);
  EXPECT_EQ(http_.RequestCount(), 24u * 70);
  EXPECT_LE(day.delays_ms.back(), 4200);  // Forty, one each 100 ms.
  EXPECT_EQ(held_back_, 0);
}

TEST_F(ChannelThriftDayTest, ThousandBytesPerSecondCostTheBurstsSeconds) {
  const Day day = Live({1000, 0});
  Print("1000 bytes/s", day);
  EXPECT_EQ(http_.RequestCount(), 24u * 70);
  EXPECT_GT(held_back_, 0);
  EXPECT_LE(day.delays_ms.back(), 60000);
}

TEST_F(ChannelThriftDayTest, HundredBytesPerSecondCostTheBurstsMinutes) {
  const Day day = Live({100, 0});
  Print("100 bytes/s", day);
  EXPECT_GE(http_.RequestCount() + 70, 24u * 70);
  EXPECT_LE(day.most_in_an_hour,
            3600u * 100 + ByteBudget::kLeastBurst + kAnswerBytes + kHandshakeBytes);
  EXPECT_EQ(day.dropped, 0u);
}

TEST_F(ChannelThriftDayTest, ADaysCapAboveTheNeedCostsNothing) {
  const Day day = Live({0, 6000000});
  Print("6,000,000 bytes/day", day);
  EXPECT_EQ(http_.RequestCount(), 24u * 70);
  EXPECT_LE(day.delays_ms.back(), 4200);
}

TEST_F(ChannelThriftDayTest, ADaysCapBelowTheNeedEndsTheDayEarlyAndTheStoreDropsItsOldest) {
  const Day day = Live({0, 3000000});
  Print("3,000,000 bytes/day", day);
  EXPECT_LT(http_.RequestCount(), 24u * 70);
  EXPECT_LE(day.bytes, 3000000 + kAnswerBytes + kHandshakeBytes);
  EXPECT_GE(day.bytes, 3000000 - kHeadBytes - 700);
  EXPECT_GT(day.dropped, 0u);
}

}  // namespace
}  // namespace quenor::test
