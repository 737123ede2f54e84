// Construction, the two-level life cycle, and what a termination leaves.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "quenor_base/data_report/https/atomic_shared_ptr_mutex.h"
#include "quenor_base/platform/local_log.h"
#include "tests/support/channel_test_fixture.h"

namespace quenor::test {
namespace {

using base::TimeDelta;

class ChannelLifecycleTest : public ChannelTest {};

static_assert(!std::is_copy_constructible_v<ReliableReportChannelHttps>);
static_assert(!std::is_copy_assignable_v<ReliableReportChannelHttps>);
static_assert(!std::is_polymorphic_v<ReliableReportChannelHttps>);
static_assert(std::is_base_of_v<std::enable_shared_from_this<ReliableReportChannelHttps>,
                                ReliableReportChannelHttps>);

// --- Construction and destruction ---

TEST_F(ChannelLifecycleTest, FieldsLieInTheirOrder) {
  Make();

  const std::vector<const void*> fields = peer().Fields();

  EXPECT_EQ(fields.size(), 29u);
  EXPECT_TRUE(std::is_sorted(fields.begin(), fields.end()));
}

TEST_F(ChannelLifecycleTest, ConstructorKeepsItsArguments) {
  channel_ = std::make_shared<Channel>("name", "https://a.example/", 3u, true, false);
  const auto other = std::make_shared<Channel>("other", "", 0u, false, true);

  EXPECT_EQ(peer().channel_name(), "name");
  EXPECT_EQ(peer().url(), "https://a.example/");
  EXPECT_TRUE(peer().http_client_option());
  EXPECT_FALSE(peer().enable_compress());
  EXPECT_EQ(Peer(other.get()).url(), "");
  EXPECT_FALSE(Peer(other.get()).http_client_option());
  EXPECT_TRUE(Peer(other.get()).enable_compress());
}

TEST_F(ChannelLifecycleTest, ConstructorGivesEveryOtherFieldItsInitialValue) {
  Make();

  EXPECT_TRUE(peer().pending().empty());
  EXPECT_TRUE(peer().sending().empty());
  EXPECT_EQ(peer().state(), 0);
  EXPECT_FALSE(peer().is_running());
  EXPECT_EQ(peer().queue(), nullptr);
  EXPECT_FALSE(peer().send_timer().IsRunning());
  EXPECT_EQ(peer().resend_interval_ms(), 0u);
  EXPECT_EQ(peer().current_interval_ms(), 0u);
  EXPECT_EQ(peer().continuous_fail_count(), 0u);
  EXPECT_EQ(peer().http_client(), nullptr);
  EXPECT_EQ(Counters(), (Counts{0, 0, 0, 0, 0}));
  EXPECT_FALSE(peer().statistic_timer().IsRunning());
  EXPECT_FALSE(peer().clean_timer().IsRunning());
  EXPECT_FALSE(peer().cache_loaded());
  EXPECT_EQ(peer().cache_name(), "quenor_report");
  EXPECT_EQ(peer().report_interval_ms(), 10000u);
  EXPECT_EQ(peer().stream(), nullptr);
  EXPECT_FALSE(peer().has_stream_deleter());
}

TEST_F(ChannelLifecycleTest, ThirdConstructorArgumentIsIgnored) {
  for (const unsigned int ignored : {0u, 1u, std::numeric_limits<unsigned int>::max()}) {
    channel_ = std::make_shared<Channel>(kName, kUrl, ignored, false, false);

    EXPECT_EQ(peer().resend_interval_ms(), 0u);
    EXPECT_EQ(peer().current_interval_ms(), 0u);
    EXPECT_EQ(peer().report_interval_ms(), 10000u);
    EXPECT_EQ(peer().state(), 0);
  }
}

TEST_F(ChannelLifecycleTest, DestructorOfAnUninitialisedChannelDoesNothing) {
  Make();

  channel_.reset();

  EXPECT_TRUE(RecordingLog::Lines().empty());
  EXPECT_TRUE(events_.Events().empty());
  EXPECT_EQ(time_.DueTasks(), 0u);
  EXPECT_TRUE(time_.Creations().empty());
}

TEST_F(ChannelLifecycleTest, DestructorNeitherLogsNorTouchesTheNetwork) {
  Start();
  Send("one");
  Stop();
  RecordingLog::Clear();
  events_.Clear();

  channel_.reset();

  EXPECT_TRUE(RecordingLog::Lines().empty());
  EXPECT_TRUE(events_.Events().empty());
  EXPECT_EQ(time_.DueTasks(), 0u);
}

// --- Initialize ---

TEST_F(ChannelLifecycleTest, InitializeCreatesTheQueueByBusinessNameAndDefaultOptions) {
  Make();

  channel_->Initialize();

  const auto creations = time_.Creations();
  ASSERT_EQ(creations.size(), 1u);
  EXPECT_EQ(creations[0].business_id, 709);
  EXPECT_EQ(creations[0].name, kName);
  EXPECT_TRUE(creations[0].has_options);
  EXPECT_EQ(creations[0].stack_size, 0u);
}

TEST_F(ChannelLifecycleTest, InitializeIsInitializedBeforeDoInitHasRun) {
  Make();

  channel_->Initialize();

  EXPECT_EQ(peer().state(), 2);
  EXPECT_NE(peer().queue(), nullptr);
  EXPECT_FALSE(peer().is_running());
  EXPECT_EQ(time_.DueTasks(), 1u);
}

TEST_F(ChannelLifecycleTest, InitializeSetsTheResendLimitToFive) {
  Make();

  channel_->Initialize();

  EXPECT_EQ(peer().max_resend_count(), 5u);
}

TEST_F(ChannelLifecycleTest, InitializeIsInStateOneWithTheLimitSetWhileTheQueueIsCreated) {
  Make();
  int32_t state = -1;
  uint32_t limit = 0;
  time_.SetOnCreate([&] {
    state = peer().state();
    limit = peer().max_resend_count();
    Post("too early");
  });

  channel_->Initialize();

  EXPECT_EQ(state, 1);
  EXPECT_EQ(limit, 5u);
  EXPECT_EQ(RecordingLog::Texts(), Texts{"SendPacket, channel is not initialized"});
}

TEST_F(ChannelLifecycleTest, InitializeWhileTheQueueIsCreatedIsIgnored) {
  Make();
  time_.SetOnCreate([&] {
    time_.SetOnCreate(nullptr);
    channel_->Initialize();
    channel_->Terminate();
  });

  channel_->Initialize();

  EXPECT_EQ(time_.Creations().size(), 1u);
  EXPECT_EQ(peer().state(), 2);
  EXPECT_TRUE(RecordingLog::Lines().empty());
}

TEST_F(ChannelLifecycleTest, SecondInitializeIsIgnoredSilently) {
  Start();
  channel_->SetMaxResendCount(9);
  time_.RunUntilIdle();

  channel_->Initialize();

  EXPECT_EQ(time_.Creations().size(), 1u);
  EXPECT_EQ(time_.DueTasks(), 0u);
  EXPECT_EQ(peer().max_resend_count(), 9u);
  EXPECT_TRUE(RecordingLog::Lines().empty());
}

TEST_F(ChannelLifecycleTest, InitializeWhileTerminatingIsIgnoredSilently) {
  Make();
  peer().SetState(3);

  channel_->Initialize();

  EXPECT_EQ(peer().state(), 3);
  EXPECT_TRUE(time_.Creations().empty());
  EXPECT_TRUE(RecordingLog::Lines().empty());
}

TEST_F(ChannelLifecycleTest, ConcurrentInitializeCallsCreateOneQueue) {
  for (int round = 0; round < 50; ++round) {
    Make();
    const size_t before = time_.Creations().size();
    std::thread first([this] { channel_->Initialize(); });
    std::thread second([this] { channel_->Initialize(); });
    first.join();
    second.join();

    EXPECT_EQ(time_.Creations().size(), before + 1);
    EXPECT_EQ(peer().state(), 2);
    Stop();
  }
}

TEST_F(ChannelLifecycleTest, ConcurrentTerminateCallsPostOneTermination) {
  for (int round = 0; round < 50; ++round) {
    Start();
    std::thread first([this] { channel_->Terminate(); });
    std::thread second([this] { channel_->Terminate(); });
    first.join();
    second.join();

    // DoTerminate and the end of the queue's thread.
    EXPECT_EQ(time_.RunUntilIdle(), 2u);
    EXPECT_EQ(peer().state(), 0);
    EXPECT_FALSE(peer().is_running());
  }
}

// Each creation has one DoInit, each termination one DoTerminate and one end of a thread; while a
// queue is created, or DoTerminate posted, every other call goes by.
TEST_F(ChannelLifecycleTest, InitializeAndTerminateOnManyThreadsExcludeEachOther) {
  std::atomic<int> creating{0};
  std::atomic<int> together{0};
  time_.SetOnCreate([&] {
    if (++creating != 1 || peer().state() != 1) ++together;
    std::this_thread::yield();  // Lets the others come in between.
    --creating;
  });
  Make();
  for (int round = 0; round < 20; ++round) {
    const size_t created_before = time_.Creations().size();
    const bool initialised_before = peer().state() == 2;
    std::atomic<int> waiting{6};
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t) {
      threads.emplace_back([&, t] {
        --waiting;
        while (waiting > 0) std::this_thread::yield();
        for (int i = 0; i < 1000; ++i) t % 2 == 0 ? channel_->Initialize() : channel_->Terminate();
      });
    }
    for (std::thread& thread : threads) thread.join();

    const bool initialised = peer().state() == 2;
    ASSERT_TRUE(initialised || peer().state() == 0) << peer().state();
    ASSERT_EQ(peer().queue() != nullptr, initialised);
    const size_t created = time_.Creations().size() - created_before;
    const size_t terminated = created + initialised_before - initialised;
    ASSERT_EQ(time_.RunUntilIdle(), created + 2 * terminated);
    ASSERT_EQ(peer().is_running(), initialised);
    ASSERT_EQ(time_.LiveQueues(), initialised ? 1u : 0u);
  }
  time_.SetOnCreate(nullptr);

  EXPECT_EQ(together, 0);
}

// --- Creation failure ---

TEST_F(ChannelLifecycleTest, FailedQueueCreationLeavesStateZeroSilently) {
  Make();
  time_.FailNextCreations(1);

  channel_->Initialize();

  EXPECT_EQ(peer().state(), 0);
  EXPECT_EQ(peer().queue(), nullptr);
  EXPECT_EQ(time_.DueTasks(), 0u);
  EXPECT_TRUE(RecordingLog::Lines().empty());
}

TEST_F(ChannelLifecycleTest, FailedQueueCreationMakesOperationsLogAtMostOnceAMinute) {
  Make();
  time_.FailNextCreations(1);
  channel_->Initialize();

  Post("one");
  channel_->FlushPacket();
  channel_->SetResendInterval(1);
  Advance(59999);
  channel_->SetMaxResendCount(1);
  EXPECT_EQ(RecordingLog::Texts(), Texts{"SendPacket, channel is not initialized"});
  Advance(1);
  channel_->SetServerDomain("x");

  EXPECT_EQ(RecordingLog::Texts(), (Texts{"SendPacket, channel is not initialized",
                                          "SetServerDomain, channel is not initialized"}));
}

TEST_F(ChannelLifecycleTest, InitializeMayBeTriedAgainAfterAFailure) {
  Make();
  time_.FailNextCreations(1);
  channel_->Initialize();

  channel_->Initialize();
  time_.RunUntilIdle();

  EXPECT_EQ(peer().state(), 2);
  EXPECT_TRUE(peer().is_running());
}

// --- DoInit ---

TEST_F(ChannelLifecycleTest, DoInitRunsTheStatisticsTimerButNotTheSendTimer) {
  Start();

  EXPECT_TRUE(peer().is_running());
  EXPECT_TRUE(peer().statistic_timer().IsRunning());
  EXPECT_EQ(peer().statistic_timer().GetCurrentDelay(), TimeDelta::FromMicroseconds(600000000));
  EXPECT_FALSE(peer().send_timer().IsRunning());
  EXPECT_FALSE(peer().clean_timer().IsRunning());
  EXPECT_EQ(time_.PendingDeadlines(), 1u);
}

TEST_F(ChannelLifecycleTest, DoInitLogsNothingWithoutACache) {
  Start();

  EXPECT_TRUE(RecordingLog::Lines().empty());
  EXPECT_EQ(events_.Count(Kind::kLoaded), 0u);
}

TEST_F(ChannelLifecycleTest, SecondDoInitChangesNothing) {
  Start();
  Send("one");
  Advance(300000);  // Half of the statistics period; the message goes out on the way.

  OnQueue([](Peer peer) { peer.DoInit(); });

  EXPECT_EQ(events_.Count(Kind::kLoaded), 0u);
  EXPECT_TRUE(peer().is_running());
  Advance(299999);
  EXPECT_TRUE(RecordingLog::Texts(0).empty());
  Advance(1);  // Restarted, the timer would need 300 seconds more.
  EXPECT_EQ(RecordingLog::Texts(0).size(), 1u);
}

// --- Terminate and DoTerminate ---

TEST_F(ChannelLifecycleTest, TerminateOfANeverInitializedChannelDoesNothing) {
  Make();

  channel_->Terminate();

  EXPECT_EQ(peer().state(), 0);
  EXPECT_EQ(time_.DueTasks(), 0u);
  EXPECT_TRUE(RecordingLog::Lines().empty());
}

TEST_F(ChannelLifecycleTest, TerminateWhileInitializingIsIgnoredSilently) {
  Make();
  peer().SetState(1);

  channel_->Terminate();

  EXPECT_EQ(peer().state(), 1);
  EXPECT_TRUE(RecordingLog::Lines().empty());
}

TEST_F(ChannelLifecycleTest, TerminateReturnsToZeroBeforeDoTerminateHasRun) {
  Start();

  channel_->Terminate();

  EXPECT_EQ(peer().state(), 0);
  EXPECT_EQ(peer().queue(), nullptr);
  EXPECT_TRUE(peer().is_running());
}

TEST_F(ChannelLifecycleTest, TerminateDropsTheQueueAndItsThreadEnds) {
  Start();
  EXPECT_EQ(time_.LiveQueues(), 1u);

  Stop();

  EXPECT_EQ(time_.LiveQueues(), 0u);
  EXPECT_EQ(time_.DrainingQueues(), 0u);
}

TEST_F(ChannelLifecycleTest, TerminateWithoutAQueueOnlyReturnsToZero) {
  Start();
  const auto queue = peer().queue();
  peer().SetQueue(nullptr);

  channel_->Terminate();
  time_.RunUntilIdle();

  EXPECT_EQ(peer().state(), 0);
  EXPECT_TRUE(peer().is_running());
  EXPECT_TRUE(RecordingLog::Lines().empty());
  OnQueue(queue, [](Peer peer) { peer.DoTerminate(); });
}

TEST_F(ChannelLifecycleTest, SecondTerminateIsIgnoredSilently) {
  Start();
  Send("one");
  Stop();
  RecordingLog::Clear();

  channel_->Terminate();

  EXPECT_EQ(peer().state(), 0);
  EXPECT_EQ(time_.DueTasks(), 0u);
  EXPECT_TRUE(RecordingLog::Lines().empty());
}

TEST_F(ChannelLifecycleTest, TasksPostedBeforeTerminateStillFindTheChannelRunning) {
  Start();
  Post("one", false, true);

  Stop();

  EXPECT_EQ(http_.RequestCount(), 1u);
  EXPECT_EQ(events_.Count(Kind::kAdmitted), 1u);
  EXPECT_EQ(RecordingLog::Texts(1), Texts{"OnResponse, channel is not initialized"});
}

TEST_F(ChannelLifecycleTest, DoTerminateStopsEverything) {
  Start();
  SendMany(3);
  Send("now", false, true);
  EXPECT_EQ(peer().sending().size(), 1u);

  Stop();

  EXPECT_FALSE(peer().is_running());
  EXPECT_FALSE(peer().send_timer().IsRunning());
  EXPECT_FALSE(peer().statistic_timer().IsRunning());
  EXPECT_FALSE(peer().clean_timer().IsRunning());
  EXPECT_EQ(peer().http_client(), nullptr);
  EXPECT_TRUE(peer().pending().empty());
  EXPECT_TRUE(peer().sending().empty());
  EXPECT_FALSE(peer().cache_loaded());
  EXPECT_EQ(time_.PendingDeadlines(), 0u);
}

TEST_F(ChannelLifecycleTest, DoTerminateLeavesNoTimerThatRunsLater) {
  Start();
  SendMany(3);
  Send("now", false, true);
  OnQueue([](Peer peer) {
    peer.clean_timer().Start(base::Location(), TimeDelta::FromSeconds(60), &peer.channel(),
                             &Channel::FlushPacket);
  });
  Stop();
  RecordingLog::Clear();
  const size_t requests = http_.RequestCount();

  Advance(24 * 3600 * 1000);

  EXPECT_EQ(http_.RequestCount(), requests);
  EXPECT_TRUE(RecordingLog::Lines().empty());
}

TEST_F(ChannelLifecycleTest, DoTerminateLogsStatisticsOnceWithTimersStoppedAndTheClientAlive) {
  struct Seen {
    Peer peer;
    int lines = 0;
    bool running = true, sending = true, statistics = true, client = false;
    size_t stored = 0;
  };
  Start();
  Seen seen{peer()};
  SendMany(2);
  Send("now", false, true);
  SetLogSink(
      [](void* context, int level, const char*, int, const char*, size_t) {
        if (level != 0) return;
        auto* s = static_cast<Seen*>(context);
        Peer peer = s->peer;
        ++s->lines;
        s->running = peer.is_running();
        s->sending = peer.send_timer().IsRunning();
        s->statistics = peer.statistic_timer().IsRunning();
        s->client = peer.http_client() != nullptr;
        s->stored = peer.pending().size() + peer.sending().size();
      },
      &seen);

  Stop();
  SetLogSink(nullptr, nullptr);

  EXPECT_EQ(seen.lines, 1);
  EXPECT_FALSE(seen.running);
  EXPECT_FALSE(seen.sending);
  EXPECT_FALSE(seen.statistics);
  EXPECT_TRUE(seen.client);
  EXPECT_EQ(seen.stored, 3u);
}

TEST_F(ChannelLifecycleTest, DoTerminateDestroysTheClientAfterTheStatisticsAndBeforeTheStore) {
  Start();
  SendMany(2);
  Send("now", false, true);
  Counts counters;
  size_t stored = 0;
  http_.SetOnClientDestroyed([&] {
    counters = Counters();
    stored = peer().pending().size() + peer().sending().size();
  });

  Stop();

  EXPECT_EQ(counters, (Counts{0, 0, 0, 0, 0}));
  EXPECT_EQ(stored, 3u);
  http_.SetOnClientDestroyed(nullptr);
}

TEST_F(ChannelLifecycleTest, DoTerminateAbandonsTheCleanTimerAfterTheClientHasGone) {
  Start();
  Send("now", false, true);
  Answer(0, 200);
  ASSERT_TRUE(peer().clean_timer().IsRunning());
  bool was_running = false;
  http_.SetOnClientDestroyed([&] { was_running = peer().clean_timer().IsRunning(); });

  Stop();

  EXPECT_TRUE(was_running);
  EXPECT_FALSE(peer().clean_timer().IsRunning());
  http_.SetOnClientDestroyed(nullptr);
}

TEST_F(ChannelLifecycleTest, DoTerminateKeepsWhatIsConfigured) {
  Start(true);
  Send(std::string(100, 'a'), false, true);
  Answer(0, 200,
         "{\"bytes_errinfo\":\"success\",\"uint32_max_resend_count\":7,"
         "\"uint32_report_duration\":30,\"uint32_send_interval\":3000}");
  channel_->SetServerDomain("https://other.example/");
  time_.RunUntilIdle();
  const z_stream* const stream = peer().stream();
  ASSERT_NE(stream, nullptr);

  Stop();

  EXPECT_EQ(peer().resend_interval_ms(), 3000u);
  EXPECT_EQ(peer().current_interval_ms(), 3000u);
  EXPECT_EQ(peer().max_resend_count(), 7u);
  EXPECT_EQ(channel_->GetReportInterval(), 30000u);
  EXPECT_EQ(peer().url(), "https://other.example/");
  EXPECT_EQ(peer().stream(), stream);
}

TEST_F(ChannelLifecycleTest, DoTerminateCountsNoDropForMessagesStillQueued) {
  Start();
  SendMany(2);
  RecordingLog::Clear();

  Stop();

  ASSERT_EQ(RecordingLog::Texts(0).size(), 1u);
  EXPECT_NE(RecordingLog::Texts(0)[0].find("dropping message count is 0"), std::string::npos);
}

TEST_F(ChannelLifecycleTest, DoCleanDestroysTheClientAndKeepsTheStore) {
  Start();
  Send("in flight", false, true);
  Send("pending");

  OnQueue([](Peer peer) { peer.DoClean(); });

  EXPECT_EQ(http_.Configs().size(), 1u);
  EXPECT_EQ(http_.LiveClients(), 0u);
  // Its request ended, unanswered: a failure, and pending again.
  EXPECT_EQ(PendingBodies(), (Texts{"in flight", "pending"}));
}

// --- Again ---

TEST_F(ChannelLifecycleTest, ReinitializedChannelRunsOnANewQueueWithTheLimitAtFiveAgain) {
  Start();
  const std::weak_ptr<DispatchQueue> first = peer().queue();
  channel_->SetMaxResendCount(9);
  time_.RunUntilIdle();
  Stop();
  ASSERT_TRUE(first.expired());

  channel_->Initialize();
  time_.RunUntilIdle();

  EXPECT_EQ(time_.Creations().size(), 2u);
  EXPECT_TRUE(peer().is_running());
  EXPECT_EQ(peer().max_resend_count(), 5u);
  EXPECT_TRUE(peer().statistic_timer().IsRunning());
  Send("again", false, true);
  EXPECT_EQ(http_.RequestCount(), 1u);
}

TEST_F(ChannelLifecycleTest, CycleMayBeRepeatedAsOftenAsWanted) {
  Start();
  for (int round = 0; round < 100; ++round) {
    Send("now", false, true);
    Answer(http_.RequestCount() - 1, 200);
    Stop();
    EXPECT_FALSE(peer().is_running());
    channel_->Initialize();
    time_.RunUntilIdle();
    EXPECT_TRUE(peer().is_running());
  }

  EXPECT_EQ(events_.Count(Kind::kAcknowledged), 100u);
}

// --- Ownership ---

TEST_F(ChannelLifecycleTest, ChannelDroppedAfterTerminateLivesUntilDoTerminateHasRun) {
  Start();
  Send("one");
  const std::weak_ptr<Channel> watch = channel_;
  channel_->Terminate();

  channel_.reset();

  EXPECT_FALSE(watch.expired());
  time_.RunUntilIdle();
  EXPECT_TRUE(watch.expired());
  EXPECT_EQ(RecordingLog::Texts(0).size(), 1u);
}

TEST_F(ChannelLifecycleTest, TimersDoNotKeepTheChannelAlive) {
  Start();
  Send("one");
  const std::weak_ptr<Channel> watch = channel_;
  ASSERT_TRUE(peer().send_timer().IsRunning());
  ASSERT_TRUE(peer().statistic_timer().IsRunning());
  OnQueue([](Peer peer) { peer.DoTerminate(); });

  EXPECT_EQ(channel_.use_count(), 1);
}

TEST_F(ChannelLifecycleTest, UnrunDelayedTaskReleasesTheChannelWhenTheQueueHasGone) {
  Start();
  const uint8_t byte = 1;
  channel_->SendPacketWithDelay(&byte, 1, false, TimeDelta::FromSeconds(3600));
  const std::weak_ptr<Channel> watch = channel_;
  EXPECT_EQ(channel_.use_count(), 2);
  channel_->Terminate();
  channel_.reset();

  time_.RunUntilIdle();

  EXPECT_TRUE(watch.expired());
}

// --- A channel that is dropped while it is initialised ---

struct DropCase {
  const char* name;
  // Ends with the last reference dropped.
  void (*act)(VirtualTime* time, FakeHttp* http, std::shared_ptr<ReliableReportChannelHttps> last);
};

const uint8_t kByte = 1;

class DroppedChannelDeathTest : public ::testing::TestWithParam<DropCase> {};

TEST_P(DroppedChannelDeathTest, AbortsAfterALineThatSaysWhatToDo) {
  EXPECT_EXIT(
      {
        VirtualTime time;
        FakeHttp http([&time](base::OnceClosure task) { time.PostToNetwork(std::move(task)); });
        auto channel = std::make_shared<ReliableReportChannelHttps>(kName, kUrl, 0u, false, false);
        channel->Initialize();
        GetParam().act(&time, &http, std::move(channel));
      },
      ::testing::KilledBySignal(SIGABRT), "fatal: .*call Terminate\\(\\) on a report channel");
}

using LastReference = std::shared_ptr<ReliableReportChannelHttps>;

INSTANTIATE_TEST_SUITE_P(
    Moments, DroppedChannelDeathTest,
    ::testing::Values(DropCase{"BeforeDoInitHasRun",
                               [](VirtualTime* time, FakeHttp*, LastReference last) {
                                 last.reset();
                                 time->RunUntilIdle();
                               }},
                      DropCase{"AtRest",
                               [](VirtualTime* time, FakeHttp*, LastReference last) {
                                 time->RunUntilIdle();
                                 last.reset();
                               }},
                      DropCase{"WithMessagesPending",
                               [](VirtualTime* time, FakeHttp*, LastReference last) {
                                 last->SendPacket(&kByte, 1, false, false);
                                 time->RunUntilIdle();
                                 last.reset();
                               }},
                      DropCase{"WhileTheSendTimersTaskRuns",
                               [](VirtualTime* time, FakeHttp* http, LastReference last) {
                                 last->SendPacket(&kByte, 1, false, false);
                                 http->SetOnSend([&](const HttpClient::Request&) { last.reset(); });
                                 time->AdvanceBy(base::TimeDelta::FromSeconds(1));
                               }}),
    [](const auto& named) { return named.param.name; });

// --- A channel that no std::shared_ptr owns ---

using UnownedAct = void (*)(ReliableReportChannelHttps*);

struct UnownedCase {
  const char* name;
  UnownedAct act;
};

class UnownedChannelDeathTest : public ::testing::TestWithParam<UnownedCase> {};

TEST_P(UnownedChannelDeathTest, AbortsAfterALineOnStandardError) {
  EXPECT_EXIT(
      {
        VirtualTime time;
        FakeHttp http([&time](base::OnceClosure task) { time.PostToNetwork(std::move(task)); });
        auto channel = std::make_unique<ReliableReportChannelHttps>(kName, kUrl, 0u, false, false);
        GetParam().act(channel.get());
      },
      ::testing::KilledBySignal(SIGABRT), "shared_ptr");
}

// Into state 2 with a queue, past Initialize() itself.
void PretendInitialized(ReliableReportChannelHttps* channel) {
  ReliableReportChannelHttpsTestPeer peer(channel);
  peer.SetQueue(core::ThreadManager::CreateNewDispatchQueue(core::BusinessID::kReliableReport,
                                                            kName, base::Thread::Options()));
  peer.SetState(2);
}

INSTANTIATE_TEST_SUITE_P(
    Operations, UnownedChannelDeathTest,
    ::testing::Values(UnownedCase{"Initialize",
                                  [](ReliableReportChannelHttps* c) { c->Initialize(); }},
                      UnownedCase{"Terminate",
                                  [](ReliableReportChannelHttps* c) {
                                    PretendInitialized(c);
                                    c->Terminate();
                                  }},
                      UnownedCase{"SendPacket",
                                  [](ReliableReportChannelHttps* c) {
                                    PretendInitialized(c);
                                    c->SendPacket(&kByte, 1, false, false);
                                  }},
                      UnownedCase{"SendPacketWithDelay",
                                  [](ReliableReportChannelHttps* c) {
                                    PretendInitialized(c);
                                    c->SendPacketWithDelay(&kByte, 1, false, base::TimeDelta());
                                  }},
                      UnownedCase{"FlushPacket",
                                  [](ReliableReportChannelHttps* c) {
                                    PretendInitialized(c);
                                    c->FlushPacket();
                                  }},
                      UnownedCase{"SetResendInterval",
                                  [](ReliableReportChannelHttps* c) {
                                    PretendInitialized(c);
                                    c->SetResendInterval(1);
                                  }},
                      UnownedCase{"SetMaxResendCount",
                                  [](ReliableReportChannelHttps* c) {
                                    PretendInitialized(c);
                                    c->SetMaxResendCount(1);
                                  }},
                      UnownedCase{"SetServerDomain",
                                  [](ReliableReportChannelHttps* c) {
                                    PretendInitialized(c);
                                    c->SetServerDomain("x");
                                  }},
                      UnownedCase{"OnResponse",
                                  [](ReliableReportChannelHttps* c) {
                                    PretendInitialized(c);
                                    ReliableReportChannelHttpsTestPeer(c).OnResponse(
                                        HttpClient::State::kFailed, HttpClient::Request(), nullptr);
                                  }},
                      UnownedCase{"DoSend",
                                  [](ReliableReportChannelHttps* c) {
                                    PretendInitialized(c);
                                    ReliableReportChannelHttpsTestPeer peer(c);
                                    peer.queue()->PostTask(base::Location(), [c] {
                                      ReliableReportChannelHttpsTestPeer p(c);
                                      p.DoInit();
                                      p.pending().emplace_back(&kByte, 1, false);
                                      p.DoSend();
                                    });
                                    VirtualTime::Current()->RunUntilIdle();
                                  }}),
    [](const auto& named) { return named.param.name; });

// --- The holder of the queue ---

TEST(AtomicSharedPtrMutexTest, StartsEmpty) {
  const internal::AtomicSharedPtrMutex<int> holder;

  EXPECT_EQ(holder.load(), nullptr);
}

TEST(AtomicSharedPtrMutexTest, LoadTakesAReference) {
  internal::AtomicSharedPtrMutex<int> holder;
  const auto value = std::make_shared<int>(7);
  holder.store(value);

  const auto loaded = holder.load();

  EXPECT_EQ(loaded, value);
  EXPECT_EQ(value.use_count(), 3);
}

TEST(AtomicSharedPtrMutexTest, StoreReleasesTheOldPointerBeforeItReturns) {
  internal::AtomicSharedPtrMutex<int> holder;
  holder.store(std::make_shared<int>(1));
  const std::weak_ptr<int> old = holder.load();

  holder.store(nullptr);

  EXPECT_TRUE(old.expired());
  EXPECT_EQ(holder.load(), nullptr);
}

TEST(AtomicSharedPtrMutexTest, LoadsAndStoresOnManyThreadsKeepTheCountsRight) {
  internal::AtomicSharedPtrMutex<int> holder;
  const auto first = std::make_shared<int>(1);
  const auto second = std::make_shared<int>(2);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&, i] {
      for (int n = 0; n < 1000; ++n) {
        if (i % 2 == 0) holder.store(n % 2 == 0 ? first : second);
        const auto loaded = holder.load();
        EXPECT_TRUE(loaded == nullptr || *loaded == 1 || *loaded == 2);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  holder.store(nullptr);

  EXPECT_EQ(first.use_count(), 1);
  EXPECT_EQ(second.use_count(), 1);
}

}  // namespace
}  // namespace quenor::test
