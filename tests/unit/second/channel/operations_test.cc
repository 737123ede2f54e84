// The owner's six operations: their check, their line, their task. Written without sight of the
// implementation, from the promises alone.
#include <algorithm>
#include <thread>

#include "tests/support/memory_faults.h"
#include "tests/unit/second/channel/promise_fixture.h"

namespace quenor::test {
namespace {

class PromisedOperationsTest : public PromiseTest {
 protected:
  struct Operation {
    const char* name;
    std::function<void()> call;
  };
  std::vector<Operation> Operations() {
    return {
        {"SendPacket", [this] { Post("body"); }},
        {"SendPacketWithDelay", [this] { Delayed("body", Ms(30)); }},
        {"FlushPacket", [this] { channel_->FlushPacket(); }},
        {"SetResendInterval", [this] { channel_->SetResendInterval(300); }},
        {"SetMaxResendCount", [this] { channel_->SetMaxResendCount(3); }},
        {"SetServerDomain", [this] { channel_->SetServerDomain("https://other"); }},
    };
  }
  void Delayed(const std::string& body, base::TimeDelta delay, bool need_cache = false) {
    channel_->SendPacketWithDelay(reinterpret_cast<const uint8_t*>(body.data()),
                                  static_cast<uint32_t>(body.size()), need_cache, delay);
  }
  std::shared_ptr<HoldingQueue> Hold() {
    auto queue = std::make_shared<HoldingQueue>();
    Inside().SetState(2);
    Inside().SetQueue(queue);
    return queue;
  }
  // Runs `call` as if it had passed its check just before a termination that is queued already.
  void CallBehindTermination(const std::function<void()>& call) {
    const auto queue = Inside().queue();
    channel_->Terminate();
    Inside().SetState(2);
    Inside().SetQueue(queue);
    call();
    Inside().SetQueue(nullptr);
    Inside().SetState(0);
    time_.RunUntilIdle();
  }
};

TEST_F(PromisedOperationsTest, EachWritesItsOwnLineWhenUninitialized) {
  for (const char* name : {"SendPacket", "SendPacketWithDelay", "FlushPacket", "SetResendInterval",
                           "SetMaxResendCount", "SetServerDomain"}) {
    Make();
    RecordingLog::Clear();
    for (const Operation& operation : Operations()) {
      if (std::string(operation.name) == name) operation.call();
    }
    const auto lines = RecordingLog::Lines();
    ASSERT_EQ(lines.size(), 1u) << name;
    EXPECT_EQ(lines[0].level, 1);
    EXPECT_EQ(lines[0].text, std::string(name) + ", channel is not initialized");
    EXPECT_EQ(lines[0].file, kChannelSource);
    EXPECT_GT(lines[0].line, 0);
  }
}

TEST_F(PromisedOperationsTest, AllShareOneLinePerMinute) {
  Post("first");
  for (const Operation& operation : Operations()) operation.call();
  Advance(Ms(59999));
  for (const Operation& operation : Operations()) operation.call();
  EXPECT_EQ(Refusals(), Strings{"SendPacket, channel is not initialized"});

  Advance(Ms(1));
  channel_->FlushPacket();
  Post("again");

  EXPECT_EQ(Refusals(), (Strings{"SendPacket, channel is not initialized",
                                 "FlushPacket, channel is not initialized"}));
}

TEST_F(PromisedOperationsTest, EachChannelHasAThrottleOfItsOwn) {
  const auto other = std::make_shared<Channel>("other", kUrl, 0, false, false);
  channel_->FlushPacket();
  other->FlushPacket();
  EXPECT_EQ(Refusals().size(), 2u);
}

TEST_F(PromisedOperationsTest, QueueSideRefusalsShareTheThrottle) {
  Start();
  CallBehindTermination([this] { Post("lost"); });
  EXPECT_EQ(Refusals(), Strings{"UpdateCacheAndSend, channel is not running"});

  for (const Operation& operation : Operations()) operation.call();
  Inside().OnResponse(State::kCompleted, 1, MakeResponse(200));
  EXPECT_EQ(Refusals().size(), 1u);

  Advance(Seconds(60));
  Inside().OnResponse(State::kCompleted, 1, MakeResponse(200));
  EXPECT_EQ(Refusals().back(), "OnResponse, channel is not initialized");
  for (const Operation& operation : Operations()) operation.call();
  EXPECT_EQ(Refusals().size(), 2u);
}

TEST_F(PromisedOperationsTest, RefusedInStateOneAndThree) {
  for (int32_t state : {0, 1, 3}) {
    Make();
    RecordingLog::Clear();
    const auto queue = std::make_shared<HoldingQueue>();
    Inside().SetQueue(queue);
    Inside().SetState(state);
    for (const Operation& operation : Operations()) operation.call();
    EXPECT_EQ(queue->posts.size(), 0u) << state;
    EXPECT_EQ(Refusals(), Strings{"SendPacket, channel is not initialized"}) << state;
    Inside().SetState(0);
  }
}

TEST_F(PromisedOperationsTest, RefusedAfterTermination) {
  Start();
  Stop();
  for (const Operation& operation : Operations()) operation.call();
  EXPECT_EQ(time_.DueTasks(), 0u);
  EXPECT_EQ(Refusals(), Strings{"SendPacket, channel is not initialized"});
}

TEST_F(PromisedOperationsTest, RefusalCopiesNothing) {
  Post("takes the line");
  const std::string body(5000, 'x');
  const MemoryFaults::Counter counter;

  Post(body);
  Delayed(body, Ms(1));
  channel_->SetServerDomain(body);

  EXPECT_EQ(counter.count(), 0u);
}

TEST_F(PromisedOperationsTest, QueueGoneIsSilent) {
  Inside().SetState(2);
  for (const Operation& operation : Operations()) operation.call();
  EXPECT_TRUE(RecordingLog::Lines().empty());
  EXPECT_EQ(channel_.use_count(), 1);
  Inside().SetState(0);
}

TEST_F(PromisedOperationsTest, EachPostsOneTaskThatHoldsTheChannel) {
  const auto queue = Hold();

  for (const Operation& operation : Operations()) operation.call();

  ASSERT_EQ(queue->posts.size(), 6u);
  EXPECT_EQ(channel_.use_count(), 7);
  for (size_t i = 0; i < 6; ++i) {
    EXPECT_STREQ(queue->posts[i].from.file(), kChannelSource);
    EXPECT_GT(queue->posts[i].from.line(), 0);
    EXPECT_EQ(queue->posts[i].delayed, i == 1) << i;
  }
  EXPECT_EQ(queue->posts[1].delay, Ms(30));
  EXPECT_TRUE(RecordingLog::Lines().empty());
  queue->posts.clear();
}

TEST_F(PromisedOperationsTest, EachPostCarriesItsOwnLine) {
  const auto queue = Hold();
  for (const Operation& operation : Operations()) operation.call();
  for (size_t i = 0; i < 6; ++i) {
    for (size_t k = 0; k < i; ++k) {
      EXPECT_NE(queue->posts[i].from.line(), queue->posts[k].from.line()) << i << " " << k;
    }
  }
  queue->posts.clear();
}

TEST_F(PromisedOperationsTest, CallerMayReuseItsBytesAtOnce) {
  Start();
  std::string body = "original";
  Post(body);
  Delayed(body, Ms(10));
  body.assign(body.size(), 'x');
  std::string url = "https://second";
  channel_->SetServerDomain(url);
  url.assign(url.size(), 'y');

  Advance(Ms(300));

  EXPECT_EQ(SentBodies(), (Strings{"original", "original"}));
  EXPECT_EQ(http_.Requests()[0].request.url, "https://second");
}

TEST_F(PromisedOperationsTest, NullBytesOfNoSizeAreAnEmptyMessage) {
  Start();
  channel_->SendPacket(nullptr, 0, false, true);
  channel_->SendPacketWithDelay(nullptr, 0, false, Ms(0));
  Advance(Ms(300));
  EXPECT_EQ(SentBodies(), (Strings{"", ""}));
  EXPECT_EQ(Counters()[0], 2u);
}

TEST_F(PromisedOperationsTest, DelayedMessageIsAdmittedAfterItsDelayOnly) {
  Start();
  Delayed("late", Seconds(5), true);

  AdvanceToTheEdge(Seconds(5), [this] {
    EXPECT_TRUE(Inside().pending().empty());
    EXPECT_EQ(Counters()[0], 0u);
  });

  EXPECT_EQ(PendingBodies(), Strings{"late"});
  EXPECT_TRUE(Inside().pending().front().need_cache);
  EXPECT_EQ(Counters()[0], 1u);
}

TEST_F(PromisedOperationsTest, DelayedMessageGoesToTheTailAndIsNotSentAtOnce) {
  Start();
  Delayed("late", Ms(50));
  Advance(Ms(10));
  Send("a");
  Send("b");
  Advance(Ms(40));

  EXPECT_EQ(http_.RequestCount(), 0u);
  EXPECT_EQ(PendingBodies(), (Strings{"a", "b", "late"}));
}

TEST_F(PromisedOperationsTest, DelayedMessageOfNoDelayIsNotSentAtOnceEither) {
  Start();
  Delayed("late", Ms(0));
  time_.RunUntilIdle();
  EXPECT_EQ(PendingBodies(), Strings{"late"});
  EXPECT_EQ(http_.RequestCount(), 0u);
}

TEST_F(PromisedOperationsTest, ArgumentsArriveUnchanged) {
  Start();
  Post("plain", false, false);
  Post("kept", true, false);
  time_.RunUntilIdle();
  EXPECT_FALSE(Inside().pending().front().need_cache);
  EXPECT_TRUE(Inside().pending().back().need_cache);

  Send("kept, now", true, true);
  EXPECT_EQ(SentBodies(), Strings{"kept, now"});
  EXPECT_TRUE(Inside().sending().begin()->second.need_cache);
}

TEST_F(PromisedOperationsTest, FlushSendsNothingByItself) {
  Start();
  Send("kept", true);
  Restart();

  channel_->FlushPacket();
  time_.RunUntilIdle();

  EXPECT_EQ(http_.RequestCount(), 0u);
  EXPECT_TRUE(Inside().send_timer().IsRunning());
}

TEST_F(PromisedOperationsTest, LimitIsStoredUnchecked) {
  Start();
  for (unsigned int limit : {0u, 1u, 6u, 4294967295u}) {
    channel_->SetMaxResendCount(limit);
    time_.RunUntilIdle();
    EXPECT_EQ(Inside().max_resend(), limit);
  }
}

TEST_F(PromisedOperationsTest, LimitSetBeforeInitializeIsIgnored) {
  channel_->SetMaxResendCount(9);
  EXPECT_EQ(Refusals(), Strings{"SetMaxResendCount, channel is not initialized"});

  Start();

  EXPECT_EQ(Inside().max_resend(), 5u);
}

TEST_F(PromisedOperationsTest, UrlIsReplacedForLaterRequestsOnly) {
  Start();
  Send("one", false, true);
  channel_->SetServerDomain("https://second");
  Send("two", false, true);

  EXPECT_EQ(http_.Requests()[0].request.url, kUrl);
  EXPECT_EQ(http_.Requests()[1].request.url, "https://second");
}

TEST_F(PromisedOperationsTest, EmptyUrlDiscardsUntilAnotherIsSet) {
  Start();
  Send("held");
  channel_->SetServerDomain("");
  Send("lost");
  Send("lost too", true, true);
  EXPECT_EQ(Inside().url(), "");
  EXPECT_EQ(PendingBodies(), Strings{"held"});
  EXPECT_EQ(Counters()[0], 1u);
  Advance(Seconds(10));
  EXPECT_EQ(http_.RequestCount(), 0u);
  EXPECT_TRUE(RecordingLog::Texts(1).empty());
  EXPECT_TRUE(RecordingLog::Texts(2).empty());

  channel_->SetServerDomain("https://back");
  Send("taken");
  Advance(Ms(200));

  EXPECT_EQ(SentBodies(), (Strings{"held", "taken"}));
}

TEST_F(PromisedOperationsTest, TasksRunInTheOrderPosted) {
  Start();
  channel_->SetServerDomain("");
  Post("lost");
  channel_->SetServerDomain(kUrl);
  Post("taken");
  channel_->SetServerDomain("");
  Post("lost");
  time_.RunUntilIdle();
  EXPECT_EQ(PendingBodies(), Strings{"taken"});
}

TEST_F(PromisedOperationsTest, MessageBehindATerminationIsLostWithItsLine) {
  Start();
  CallBehindTermination([this] { Post("lost", true, true); });

  EXPECT_EQ(Refusals(), Strings{"UpdateCacheAndSend, channel is not running"});
  EXPECT_EQ(Counters(), (Numbers{0, 0, 0, 0, 0}));
  EXPECT_TRUE(Inside().pending().empty());
  EXPECT_FALSE(Inside().send_timer().IsRunning());
}

TEST_F(PromisedOperationsTest, DelayedMessageBehindATerminationIsLostWithTheSameLine) {
  Start();
  CallBehindTermination([this] { Delayed("lost", Ms(0), true); });
  EXPECT_EQ(Refusals(), Strings{"UpdateCacheAndSend, channel is not running"});
}

TEST_F(PromisedOperationsTest, FlushBehindATerminationDoesNothing) {
  Start();
  CallBehindTermination([this] { channel_->FlushPacket(); });
  EXPECT_FALSE(Inside().send_timer().IsRunning());
  EXPECT_TRUE(Refusals().empty());
}

TEST_F(PromisedOperationsTest, SettersBehindATerminationStillStore) {
  Start();
  CallBehindTermination([this] {
    channel_->SetResendInterval(800);
    channel_->SetMaxResendCount(8);
    channel_->SetServerDomain("https://eight");
  });

  EXPECT_EQ(Inside().resend_interval(), 800u);
  EXPECT_EQ(Inside().current_interval(), 800u);
  EXPECT_EQ(Inside().max_resend(), 8u);
  EXPECT_EQ(Inside().url(), "https://eight");
  EXPECT_FALSE(Inside().send_timer().IsRunning());
  EXPECT_TRUE(Refusals().empty());
}

TEST_F(PromisedOperationsTest, ThreadsMayCallAtOnceAndEachKeepsItsOrder) {
  Start();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([this, t] {
      for (int i = 10; i < 50; ++i) Post(std::to_string(t) + std::to_string(i));
    });
  }
  for (auto& thread : threads) thread.join();
  time_.RunUntilIdle();

  EXPECT_EQ(Counters()[0], 160u);
  std::map<char, Strings> by_thread;
  for (const auto& body : PendingBodies()) by_thread[body[0]].push_back(body);
  EXPECT_EQ(by_thread.size(), 4u);
  for (const auto& [thread, bodies] : by_thread) {
    EXPECT_EQ(bodies.size(), 40u);
    EXPECT_TRUE(std::is_sorted(bodies.begin(), bodies.end())) << thread;
  }
}

}  // namespace
}  // namespace quenor::test
