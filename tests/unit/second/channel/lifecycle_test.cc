// The channel's construction, its two-level life cycle and its end. Written without sight of the
// implementation, from the promises alone.
#include <algorithm>
#include <atomic>
#include <thread>
#include <type_traits>

#include "tests/unit/second/channel/promise_fixture.h"

namespace quenor::test {
namespace {

using PromisedLifecycleTest = PromiseTest;
using PromisedLifecycleDeathTest = PromiseTest;

TEST_F(PromisedLifecycleTest, ClassIsPlainAndSharesItself) {
  EXPECT_FALSE(std::is_polymorphic_v<Channel>);
  EXPECT_FALSE(std::is_copy_constructible_v<Channel>);
  EXPECT_FALSE(std::is_copy_assignable_v<Channel>);
  EXPECT_TRUE((std::is_convertible_v<Channel*, std::enable_shared_from_this<Channel>*>));
}

TEST_F(PromisedLifecycleTest, FieldsLieInTheirOrder) {
  const auto addresses = Inside().FieldAddresses();

  EXPECT_EQ(addresses.size(), 29u);
  EXPECT_TRUE(std::is_sorted(addresses.begin(), addresses.end()));
}

TEST_F(PromisedLifecycleTest, ConstructionGivesEveryFieldItsFirstValue) {
  Peer inside = Inside();

  EXPECT_EQ(inside.name(), "second");
  EXPECT_EQ(inside.url(), kUrl);
  EXPECT_FALSE(inside.http_client_option());
  EXPECT_FALSE(inside.enable_compress());
  EXPECT_TRUE(inside.pending().empty());
  EXPECT_TRUE(inside.sending().empty());
  EXPECT_EQ(inside.state(), 0);
  EXPECT_FALSE(inside.running());
  EXPECT_EQ(inside.queue(), nullptr);
  EXPECT_FALSE(inside.send_timer().IsRunning());
  EXPECT_FALSE(inside.statistic_timer().IsRunning());
  EXPECT_FALSE(inside.clean_timer().IsRunning());
  EXPECT_EQ(inside.resend_interval(), 0u);
  EXPECT_EQ(inside.current_interval(), 0u);
  EXPECT_EQ(inside.fail_count(), 0u);
  EXPECT_EQ(inside.client(), nullptr);
  EXPECT_EQ(Counters(), (Numbers{0, 0, 0, 0, 0}));
  EXPECT_FALSE(inside.cache_loaded());
  EXPECT_EQ(inside.cache_name(), "quenor_report");
  EXPECT_EQ(inside.report_interval(), 10000u);
  EXPECT_EQ(inside.stream(), nullptr);
  EXPECT_EQ(inside.stream().get_deleter(), nullptr);
}

TEST_F(PromisedLifecycleTest, ConstructionCopiesStringsAndFlags) {
  std::string name = "name";
  std::string url = "https://u";
  const auto channel = std::make_shared<Channel>(name, url, 1, true, true);
  name = "other";
  url = "other";
  Peer inside(channel.get());

  EXPECT_EQ(inside.name(), "name");
  EXPECT_EQ(inside.url(), "https://u");
  EXPECT_TRUE(inside.http_client_option());
  EXPECT_TRUE(inside.enable_compress());
}

TEST_F(PromisedLifecycleTest, FlagsAreNotMixedUp) {
  const auto first = std::make_shared<Channel>("a", kUrl, 1, true, false);
  const auto second = std::make_shared<Channel>("a", kUrl, 0, false, true);

  EXPECT_TRUE(Peer(first.get()).http_client_option());
  EXPECT_FALSE(Peer(first.get()).enable_compress());
  EXPECT_FALSE(Peer(second.get()).http_client_option());
  EXPECT_TRUE(Peer(second.get()).enable_compress());
}

TEST_F(PromisedLifecycleTest, ThirdArgumentChangesNothing) {
  for (unsigned int ignored : {0u, 1u, 77u, 0xffffffffu}) {
    channel_ = std::make_shared<Channel>("third", kUrl, ignored, false, false);
    Start();
    EXPECT_EQ(Inside().max_resend(), 5u);
    EXPECT_EQ(Inside().resend_interval(), 0u);
    EXPECT_EQ(Inside().current_interval(), 0u);
    EXPECT_EQ(channel_->GetReportInterval(), 10000u);
    Stop();
  }
}

TEST_F(PromisedLifecycleTest, ConstructionStartsNothing) {
  EXPECT_TRUE(time_.Creations().empty());
  EXPECT_TRUE(http_.Configs().empty());
  EXPECT_EQ(time_.AdvanceBy(Seconds(3600)), 0u);
  EXPECT_TRUE(RecordingLog::Lines().empty());
}

TEST_F(PromisedLifecycleTest, DestructionNeitherLogsNorSends) {
  Start();
  Send("forgotten", true);
  Inside().StopTimers();
  RecordingLog::Clear();

  channel_.reset();
  Advance(Seconds(1200));

  EXPECT_TRUE(RecordingLog::Lines().empty());
  EXPECT_EQ(http_.RequestCount(), 0u);
  EXPECT_EQ(time_.PendingDeadlines(), 0u);
}

TEST_F(PromisedLifecycleTest, PostedTasksKeepTheChannelAlive) {
  Start();
  const std::weak_ptr<Channel> watched = channel_;
  channel_->SetMaxResendCount(1);
  Inside().StopTimers();

  channel_.reset();

  EXPECT_FALSE(watched.expired());
  time_.RunUntilIdle();
  EXPECT_TRUE(watched.expired());
}

TEST_F(PromisedLifecycleTest, UnrunTasksReleaseTheChannel) {
  auto queue = std::make_shared<HoldingQueue>();
  Inside().SetState(2);
  Inside().SetQueue(queue);
  Post("body");
  EXPECT_EQ(channel_.use_count(), 2);

  queue->posts.clear();

  EXPECT_EQ(channel_.use_count(), 1);
}

TEST_F(PromisedLifecycleTest, InitializePassesThroughOneToTwo) {
  int32_t during = -1;
  uint32_t limit = 0;
  time_.SetOnCreate([&] {
    during = Inside().state();
    limit = Inside().max_resend();
  });

  channel_->Initialize();

  EXPECT_EQ(during, 1);
  EXPECT_EQ(limit, 5u);  // Set before the queue is created.
  EXPECT_EQ(Inside().state(), 2);
  EXPECT_NE(Inside().queue(), nullptr);
  EXPECT_TRUE(RecordingLog::Lines().empty());
}

TEST_F(PromisedLifecycleTest, InitializeAsksForQueue709WithItsNameAndDefaultOptions) {
  Start();

  const auto creations = time_.Creations();
  ASSERT_EQ(creations.size(), 1u);
  EXPECT_EQ(creations[0].business_id, 709);
  EXPECT_EQ(creations[0].name, "second");
  EXPECT_TRUE(creations[0].has_options);
  EXPECT_EQ(creations[0].stack_size, base::Thread::Options().stack_size);
}

TEST_F(PromisedLifecycleTest, InitializePostsItsWorkAndRunsNoneOfIt) {
  channel_->Initialize();

  EXPECT_FALSE(Inside().running());
  EXPECT_FALSE(Inside().cache_loaded());
  EXPECT_STREQ(time_.LastPostedFrom().file(), kChannelSource);
  EXPECT_EQ(time_.DueTasks(), 1u);
  time_.RunUntilIdle();
  EXPECT_TRUE(Inside().running());
}

TEST_F(PromisedLifecycleTest, SecondInitializeIsSilentlyIgnored) {
  Start();
  channel_->SetMaxResendCount(9);
  time_.RunUntilIdle();
  const auto queue = Inside().queue();
  RecordingLog::Clear();

  channel_->Initialize();

  EXPECT_EQ(time_.DueTasks(), 0u);
  EXPECT_EQ(time_.Creations().size(), 1u);
  EXPECT_EQ(Inside().queue(), queue);
  EXPECT_EQ(Inside().max_resend(), 9u);
  EXPECT_EQ(Inside().state(), 2);
  EXPECT_TRUE(RecordingLog::Lines().empty());
}

TEST_F(PromisedLifecycleTest, InitializeAndTerminateInsideInitializeAreIgnored) {
  time_.SetOnCreate([this] {
    channel_->Terminate();
    EXPECT_EQ(Inside().state(), 1);
    channel_->Initialize();
    EXPECT_EQ(Inside().state(), 1);
  });

  Start();

  EXPECT_EQ(time_.Creations().size(), 1u);
  EXPECT_EQ(Inside().state(), 2);
  EXPECT_TRUE(Inside().running());
  EXPECT_TRUE(Refusals().empty());
}

TEST_F(PromisedLifecycleTest, ConcurrentInitializeCallsCreateOneQueue) {
  std::atomic<int> ready{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      ++ready;
      while (ready < 4) std::this_thread::yield();
      channel_->Initialize();
    });
  }
  for (auto& thread : threads) thread.join();

  EXPECT_EQ(time_.Creations().size(), 1u);
  EXPECT_EQ(time_.DueTasks(), 1u);
  EXPECT_EQ(Inside().state(), 2);
}

TEST_F(PromisedLifecycleTest, FailedQueueCreationLeavesItUninitializedAndRepeatable) {
  time_.FailNextCreations(2);

  channel_->Initialize();
  EXPECT_EQ(Inside().state(), 0);
  channel_->Initialize();
  EXPECT_EQ(Inside().state(), 0);

  EXPECT_EQ(time_.DueTasks(), 0u);
  EXPECT_EQ(Inside().queue(), nullptr);
  EXPECT_EQ(Inside().max_resend(), 5u);
  EXPECT_TRUE(RecordingLog::Lines().empty());
  Post("refused");
  EXPECT_EQ(Refusals(), Strings{"SendPacket, channel is not initialized"});
  Start();
  EXPECT_EQ(Inside().state(), 2);
  EXPECT_TRUE(Inside().running());
}

TEST_F(PromisedLifecycleTest, TerminateBeforeInitializeDoesNothing) {
  channel_->Terminate();

  EXPECT_EQ(Inside().state(), 0);
  EXPECT_EQ(time_.DueTasks(), 0u);
  EXPECT_TRUE(RecordingLog::Lines().empty());
}

TEST_F(PromisedLifecycleTest, SecondTerminateDoesNothing) {
  Start();
  Send("one");
  Stop();
  RecordingLog::Clear();

  channel_->Terminate();

  EXPECT_EQ(time_.DueTasks(), 0u);
  EXPECT_EQ(Inside().state(), 0);
  EXPECT_TRUE(RecordingLog::Lines().empty());
}

TEST_F(PromisedLifecycleTest, TerminatePostsInStateThreeThenDropsTheQueueThenReturnsToZero) {
  auto queue = std::make_shared<HoldingQueue>();
  int32_t at_post = -1;
  bool held_at_drop = true;
  bool held_at_post = false;
  size_t posts_at_drop = 0;
  queue->on_post = [&] {
    at_post = Inside().state();
    held_at_post = Inside().queue() != nullptr;
  };
  HoldingQueue* const raw = queue.get();
  std::vector<HoldingQueue::Post> kept;
  queue->on_destroyed = [&] {
    held_at_drop = Inside().queue() != nullptr;
    posts_at_drop = raw->posts.size();
    kept = std::move(raw->posts);
  };
  Inside().SetState(2);
  Inside().SetQueue(std::move(queue));

  channel_->Terminate();

  EXPECT_EQ(at_post, 3);
  EXPECT_TRUE(held_at_post);
  EXPECT_FALSE(held_at_drop);
  EXPECT_EQ(posts_at_drop, 1u);
  EXPECT_EQ(Inside().state(), 0);
  EXPECT_EQ(Inside().queue(), nullptr);
  ASSERT_EQ(kept.size(), 1u);
  EXPECT_FALSE(kept[0].delayed);
  EXPECT_STREQ(kept[0].from.file(), kChannelSource);
  EXPECT_EQ(channel_.use_count(), 2);
}

TEST_F(PromisedLifecycleTest, InitializeAndTerminateInsideTerminateAreIgnored) {
  auto queue = std::make_shared<HoldingQueue>();
  queue->on_post = [this] {
    channel_->Initialize();
    channel_->Terminate();
    EXPECT_EQ(Inside().state(), 3);
  };
  Inside().SetState(2);
  Inside().SetQueue(queue);

  channel_->Terminate();

  EXPECT_TRUE(time_.Creations().empty());
  EXPECT_EQ(queue->posts.size(), 1u);
  EXPECT_EQ(Inside().state(), 0);
  EXPECT_TRUE(RecordingLog::Lines().empty());
}

TEST_F(PromisedLifecycleTest, TerminateWithoutQueueStillReturnsToZero) {
  Start();
  Inside().SetQueue(nullptr);
  time_.RunUntilIdle();

  channel_->Terminate();

  EXPECT_EQ(time_.DueTasks(), 0u);
  EXPECT_EQ(Inside().state(), 0);
  EXPECT_TRUE(Inside().running());
  EXPECT_TRUE(Refusals().empty());
  Inside().StopTimers();
}

TEST_F(PromisedLifecycleTest, TerminateDoesNotWaitAndEarlierTasksStillRun) {
  Start();
  Post("before", true);

  channel_->Terminate();

  EXPECT_TRUE(Inside().running());
  EXPECT_EQ(Inside().state(), 0);
  time_.RunUntilIdle();
  EXPECT_FALSE(Inside().running());
  EXPECT_EQ(StatisticLines(), Strings{StatisticLine("second", kUrl, {1, 0, 0, 0, 0})});
}

TEST_F(PromisedLifecycleTest, DoInitStartsTheStatisticsTimerAndNoOther) {
  Start();

  EXPECT_TRUE(Inside().statistic_timer().IsRunning());
  EXPECT_EQ(Inside().statistic_timer().GetCurrentDelay().InMicroseconds(), 600000000);
  EXPECT_FALSE(Inside().send_timer().IsRunning());
  EXPECT_FALSE(Inside().clean_timer().IsRunning());
}

TEST_F(PromisedLifecycleTest, SecondDoInitChangesNothing) {
  Start();
  Send("one", true);
  Advance(Seconds(300));
  Send("two", true);
  const auto before = PendingBodies();

  OnQueue([this] { Inside().DoInit(); });

  EXPECT_EQ(PendingBodies(), before);
  EXPECT_EQ(Counters()[0], 2u);
  AdvanceToTheEdge(Seconds(300), [] { EXPECT_TRUE(StatisticLines().empty()); });
  EXPECT_EQ(StatisticLines().size(), 1u);
}

TEST_F(PromisedLifecycleTest, DoInitLeavesARunningStatisticsTimerAlone) {
  Start();
  Send("one");
  Advance(Seconds(400));
  Inside().running() = false;

  OnQueue([this] { Inside().DoInit(); });

  Advance(Seconds(200));
  EXPECT_EQ(StatisticLines().size(), 1u);
}

TEST_F(PromisedLifecycleTest, MessagesFoundAtTheStartWaitForAFlush) {
  Inside().pending().emplace_back(CopyOnWriteBuffer("found", 5), true);
  Start();
  Advance(Seconds(1000));
  EXPECT_EQ(http_.RequestCount(), 0u);

  channel_->FlushPacket();
  Advance(Ms(100));

  EXPECT_EQ(SentBodies(), Strings{"found"});
}

TEST_F(PromisedLifecycleTest, MessagesFoundAtTheStartGoBeforeTheOneThatStartsTheTimer) {
  Inside().pending().emplace_back(CopyOnWriteBuffer("found", 5), true);
  Start();

  Send("new");
  Advance(Ms(200));

  EXPECT_EQ(SentBodies(), (Strings{"found", "new"}));
}

TEST_F(PromisedLifecycleTest, DoTerminateEndsEverything) {
  Start();
  Send("answered", false, true);
  Answer(0, 200);  // Starts the clean timer.
  Send("waits");
  Peer inside = Inside();
  inside.sending().emplace(1234567, Channel::CachedMessage(false));
  ASSERT_TRUE(inside.clean_timer().IsRunning());
  ASSERT_TRUE(inside.send_timer().IsRunning());

  Stop();

  EXPECT_FALSE(inside.running());
  EXPECT_FALSE(inside.send_timer().IsRunning());
  EXPECT_FALSE(inside.statistic_timer().IsRunning());
  EXPECT_FALSE(inside.clean_timer().IsRunning());
  EXPECT_EQ(inside.client(), nullptr);
  EXPECT_EQ(http_.LiveClients(), 0u);
  EXPECT_TRUE(inside.pending().empty());
  EXPECT_TRUE(inside.sending().empty());
  EXPECT_FALSE(inside.cache_loaded());
  EXPECT_EQ(Counters(), (Numbers{0, 0, 0, 0, 0}));
  EXPECT_EQ(StatisticLines(), Strings{StatisticLine("second", kUrl, {2, 1, 1, 0, 0})});
  EXPECT_EQ(time_.PendingDeadlines(), 0u);
  EXPECT_EQ(time_.AdvanceBy(Seconds(7200)), 0u);
  EXPECT_EQ(StatisticLines().size(), 1u);
}

TEST_F(PromisedLifecycleTest, DoTerminateKeepsItsOrderAroundTheClientsEnd) {
  Start();
  Send("answered", false, true);
  Answer(0, 200);
  Send("waits");
  Inside().sending().emplace(1234567, Channel::CachedMessage(false));
  ASSERT_TRUE(Inside().clean_timer().IsRunning());
  Inside().cache_loaded() = true;
  int calls = 0;
  http_.SetOnClientDestroyed([&] {
    ++calls;
    Peer inside = Inside();
    EXPECT_FALSE(inside.running());
    EXPECT_FALSE(inside.send_timer().IsRunning());
    EXPECT_FALSE(inside.statistic_timer().IsRunning());
    EXPECT_EQ(StatisticLines().size(), 1u);
    EXPECT_EQ(inside.pending().size(), 1u);
    EXPECT_EQ(inside.sending().size(), 1u);
    EXPECT_TRUE(inside.cache_loaded());
    EXPECT_TRUE(inside.clean_timer().IsRunning());
  });

  Stop();

  EXPECT_EQ(calls, 1);
}

TEST_F(PromisedLifecycleTest, RestartKeepsSettingsButTheLimit) {
  Make(true);
  Start();
  channel_->SetResendInterval(700);
  channel_->SetMaxResendCount(77);
  channel_->SetServerDomain("https://new");
  Send(std::string(1000, 'a'));
  Reply(R"({"bytes_errinfo":"success","uint32_report_duration":3})");
  Inside().fail_count() = 3;
  const z_stream* const stream = Inside().stream().get();

  channel_->Terminate();
  time_.RunUntilIdle();
  EXPECT_EQ(Inside().max_resend(), 77u);
  Start();

  Peer inside = Inside();
  EXPECT_EQ(inside.resend_interval(), 700u);
  EXPECT_EQ(inside.current_interval(), 700u);
  EXPECT_EQ(inside.url(), "https://new");
  EXPECT_EQ(inside.max_resend(), 5u);
  EXPECT_EQ(inside.fail_count(), 3u);
  EXPECT_EQ(channel_->GetReportInterval(), 3000u);
  EXPECT_NE(stream, nullptr);
  EXPECT_EQ(inside.stream().get(), stream);
}

TEST_F(PromisedLifecycleTest, CycleMayBeRepeatedEachTimeOnANewQueue) {
  std::vector<std::shared_ptr<DispatchQueue>> queues;
  Start();
  for (int i = 0; i < 5; ++i) {
    queues.push_back(Inside().queue());
    Restart();
    EXPECT_EQ(Inside().max_resend(), 5u);
    EXPECT_EQ(std::count(queues.begin(), queues.end(), Inside().queue()), 0);
    Send("sent", false, true);
    EXPECT_EQ(http_.RequestCount(), static_cast<size_t>(i + 1));
    EXPECT_EQ(Counters(), (Numbers{1, 1, 0, 0, 0}));
  }
  EXPECT_EQ(time_.Creations().size(), 6u);
}

TEST_F(PromisedLifecycleTest, DoCleanDropsOnlyTheClient) {
  Start();
  Send("first", false, true);
  Send("second");

  OnQueue([this] {
    Inside().DoClean();
    EXPECT_EQ(Inside().client(), nullptr);
    EXPECT_EQ(Inside().pending().size(), 1u);
    EXPECT_EQ(Inside().sending().size(), 1u);
  });
  Advance(Seconds(2));

  EXPECT_EQ(http_.Configs().size(), 2u);
  EXPECT_EQ(http_.LiveClients(), 1u);
}

TEST_F(PromisedLifecycleTest, HolderSharesAndReleases) {
  internal::AtomicSharedPtrMutex<int> holder;
  EXPECT_EQ(holder.load(), nullptr);
  auto value = std::make_shared<int>(4);
  holder.store(value);
  EXPECT_EQ(value.use_count(), 2);
  {
    const auto copy = holder.load();
    EXPECT_EQ(copy, value);
    EXPECT_EQ(value.use_count(), 3);
  }
  holder.store(nullptr);
  EXPECT_EQ(value.use_count(), 1);
  EXPECT_EQ(sizeof(holder), sizeof(std::mutex) + sizeof(std::shared_ptr<int>));
}

TEST_F(PromisedLifecycleTest, HolderMovesTheValueIn) {
  internal::AtomicSharedPtrMutex<int> holder;
  auto value = std::make_shared<int>(4);
  holder.store(std::move(value));
  EXPECT_EQ(holder.load().use_count(), 2);
}

TEST_F(PromisedLifecycleDeathTest, InitializeOfAnUnownedChannelAborts) {
  EXPECT_DEATH(
      {
        Channel unowned("x", kUrl, 0, false, false);
        unowned.Initialize();
      },
      "");
}

TEST_F(PromisedLifecycleDeathTest, OperationsOfAnUnownedChannelAbort) {
  EXPECT_DEATH(
      {
        Channel unowned("x", kUrl, 0, false, false);
        Peer(&unowned).SetState(2);
        Peer(&unowned).SetQueue(std::make_shared<HoldingQueue>());
        unowned.FlushPacket();
      },
      "");
  EXPECT_DEATH(
      {
        Channel unowned("x", kUrl, 0, false, false);
        Peer(&unowned).SetState(2);
        Peer(&unowned).SetQueue(std::make_shared<HoldingQueue>());
        unowned.Terminate();
      },
      "");
}

TEST_F(PromisedLifecycleDeathTest, SendOfAnUnownedChannelAborts) {
  EXPECT_DEATH(
      {
        Channel unowned("x", kUrl, 0, false, false);
        Peer(&unowned).running() = true;
        Peer(&unowned).pending().emplace_back(false);
        Peer(&unowned).DoSend();
      },
      "");
}

}  // namespace
}  // namespace quenor::test
