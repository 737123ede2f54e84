// What every distributor of report events must do. An embedder runs it on his own by linking that
// and writing
//   INSTANTIATE_TYPED_TEST_SUITE_P(Mine, ReportEventsConformance, quenor::ReportEvents);
// in namespace quenor::conformance. The parameter has the static members of ReportEvents.
#ifndef QUENOR_TESTS_CONFORMANCE_REPORT_EVENTS_CONFORMANCE_H_
#define QUENOR_TESTS_CONFORMANCE_REPORT_EVENTS_CONFORMANCE_H_

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "quenor_base/platform/report_events.h"
#include "tests/conformance/captured_log.h"

namespace quenor::conformance {

// Calls a function for each event.
class FunctionListener : public ReportEventListener {
 public:
  explicit FunctionListener(std::function<void(const ReportEvent&)> function)
      : function_(std::move(function)) {}
  void OnReportEvent(const ReportEvent& event) override { function_(event); }

 private:
  const std::function<void(const ReportEvent&)> function_;
};

class CountingListener : public ReportEventListener {
 public:
  void OnReportEvent(const ReportEvent&) override { count_.fetch_add(1); }
  int count() const { return count_.load(); }

 private:
  std::atomic<int> count_{0};
};

template <typename Events>
class ReportEventsConformance : public testing::Test {
 protected:
  ~ReportEventsConformance() override { Events::SetListener(nullptr); }

  void Tell(ReportEventKind kind = ReportEventKind::kAdmitted) {
    Events::Tell({kind, ReportEventCause::kNone, channel_name_});
  }

  const std::string channel_name_ = "channel";
};
TYPED_TEST_SUITE_P(ReportEventsConformance);

TYPED_TEST_P(ReportEventsConformance, TellsTheListenerOnTheCallersThreadWithEveryField) {
  const uint8_t bytes[] = {1, 2, 3};
  ReportEvent event{ReportEventKind::kFailed, ReportEventCause::kStatus, this->channel_name_};
  event.data = bytes;
  event.size = sizeof(bytes);
  event.request_id = int64_t{1} << 40;
  event.send_count = 4;
  event.http_state = 2;
  event.status_code = 503;
  event.need_cache = true;
  int calls = 0;
  FunctionListener listener([&](const ReportEvent& told) {
    ++calls;
    EXPECT_EQ(&event, &told);
    EXPECT_EQ(bytes, told.data);
    EXPECT_EQ(503, told.status_code);
    EXPECT_EQ("channel", told.channel_name);
  });
  const std::thread::id here = std::this_thread::get_id();
  FunctionListener place([&](const ReportEvent&) {
    ++calls;
    EXPECT_EQ(here, std::this_thread::get_id());
  });

  TypeParam::SetListener(&listener);
  TypeParam::Tell(event);
  TypeParam::SetListener(&place);
  TypeParam::Tell(event);

  EXPECT_EQ(2, calls);
}

TYPED_TEST_P(ReportEventsConformance, TellsTheListenerThatThereIsAndNoOther) {
  CountingListener first;
  CountingListener second;
  EXPECT_FALSE(TypeParam::HasListener());
  this->Tell();

  TypeParam::SetListener(&first);
  EXPECT_TRUE(TypeParam::HasListener());
  this->Tell();
  TypeParam::SetListener(&second);
  this->Tell();
  this->Tell();
  TypeParam::SetListener(nullptr);
  EXPECT_FALSE(TypeParam::HasListener());
  this->Tell();

  EXPECT_EQ(1, first.count());
  EXPECT_EQ(2, second.count());
}

TYPED_TEST_P(ReportEventsConformance, KeepsTheOrderOfAThreadsEvents) {
  std::vector<ReportEventKind> told;
  FunctionListener listener([&](const ReportEvent& event) { told.push_back(event.kind); });
  TypeParam::SetListener(&listener);
  const std::vector<ReportEventKind> kinds = {ReportEventKind::kHandedOver,
                                              ReportEventKind::kAdmitted, ReportEventKind::kSent,
                                              ReportEventKind::kAcknowledged};

  for (const ReportEventKind kind : kinds) this->Tell(kind);

  EXPECT_EQ(kinds, told);
}

TYPED_TEST_P(ReportEventsConformance, TellsEveryListenerUntilItIsTakenAway) {
  std::vector<CountingListener> all(TypeParam::kMostListeners + 1);
  CountingListener& host = all.back();
  for (size_t i = 0; i + 1 < all.size(); ++i) EXPECT_TRUE(TypeParam::AddListener(&all[i])) << i;
  EXPECT_TRUE(TypeParam::AddListener(&all[0])) << "it is there";
  EXPECT_FALSE(TypeParam::AddListener(&host)) << "there are so many";
  EXPECT_FALSE(TypeParam::AddListener(nullptr));
  TypeParam::SetListener(&host);

  this->Tell();
  for (const CountingListener& each : all) EXPECT_EQ(1, each.count());
  TypeParam::SetListener(nullptr);
  TypeParam::RemoveListener(&all[0]);
  TypeParam::RemoveListener(&all[0]);
  TypeParam::RemoveListener(nullptr);
  EXPECT_TRUE(TypeParam::HasListener());
  this->Tell();
  for (size_t i = 1; i + 1 < all.size(); ++i) TypeParam::RemoveListener(&all[i]);
  EXPECT_FALSE(TypeParam::HasListener());
  this->Tell();

  EXPECT_EQ(1, all[0].count());
  EXPECT_EQ(2, all[1].count());
  EXPECT_EQ(1, host.count());
}

TYPED_TEST_P(ReportEventsConformance, DoesNotAddOrRemoveInsideAListener) {
  CountingListener other;
  FunctionListener listener([&](const ReportEvent&) {
    EXPECT_FALSE(TypeParam::AddListener(&other));
    TypeParam::RemoveListener(&listener);
  });
  ASSERT_TRUE(TypeParam::AddListener(&listener));
  {
    const CapturedLog log;
    this->Tell();
    EXPECT_EQ(2u, log.lines().size());
  }

  EXPECT_TRUE(TypeParam::HasListener());
  TypeParam::RemoveListener(&listener);
  EXPECT_EQ(0, other.count());
}

// A host may hold a lock here that its listener is waiting for.
TYPED_TEST_P(ReportEventsConformance, ToAddAgainWaitsForNoCall) {
  std::promise<void> entered, may_leave;
  FunctionListener listener([&](const ReportEvent&) {
    entered.set_value();
    EXPECT_EQ(std::future_status::ready, may_leave.get_future().wait_for(std::chrono::seconds(10)));
  });
  ASSERT_TRUE(TypeParam::AddListener(&listener));
  std::thread teller([this] { this->Tell(); });
  entered.get_future().wait();

  EXPECT_TRUE(TypeParam::AddListener(&listener));

  may_leave.set_value();
  teller.join();
  TypeParam::RemoveListener(&listener);
}

TYPED_TEST_P(ReportEventsConformance, TellsAListenerInsideItsOwnCall) {
  int depth = 0;
  int deepest = 0;
  FunctionListener listener([&](const ReportEvent&) {
    ++depth;
    deepest = std::max(deepest, depth);
    if (depth < 5) this->Tell();
    --depth;
  });
  TypeParam::SetListener(&listener);

  this->Tell();

  EXPECT_EQ(5, deepest);
  EXPECT_EQ(0, depth);
}

TYPED_TEST_P(ReportEventsConformance, TellsInsideACallWhileAnotherThreadChangesTheListener) {
  for (int round = 0; round < 100; ++round) {
    std::thread changer;
    std::atomic<bool> about_to_change{false};
    std::atomic<int> inner{0};
    FunctionListener listener([&](const ReportEvent& event) {
      if (event.kind == ReportEventKind::kSent) {
        inner.fetch_add(1);
        return;
      }
      changer = std::thread([&] {
        about_to_change.store(true);
        TypeParam::SetListener(nullptr);
      });
      while (!about_to_change.load()) std::this_thread::yield();
      // The changer now waits for this call, or soon will: tell before, while and after it begins.
      for (int i = 0; i < 50; ++i) {
        this->Tell(ReportEventKind::kSent);
        std::this_thread::yield();
      }
    });
    TypeParam::SetListener(&listener);

    this->Tell();
    changer.join();

    EXPECT_EQ(50, inner.load());
    EXPECT_FALSE(TypeParam::HasListener());
  }
}

TYPED_TEST_P(ReportEventsConformance, ALaterListenerIsToldOfAllThatComesBehindTheNewestMessage) {
  CountingListener first;
  TypeParam::SetListener(&first);
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&] {
      while (!stop.load()) {
        const MessageTag tag = TypeParam::NewMessage(false, false);
        for (const auto kind : {ReportEventKind::kHandedOver, ReportEventKind::kAdmitted}) {
          TypeParam::Tell({kind, ReportEventCause::kNone, this->channel_name_, tag});
        }
      }
    });
  }

  for (int round = 0; round < 100; ++round) {
    std::mutex mutex;
    std::set<uint64_t> handed_over;
    int without_begin = 0, whole = 0;
    uint64_t newest_before = 0;
    FunctionListener later([&](const ReportEvent& event) {
      std::lock_guard<std::mutex> hold(mutex);
      if (event.message.id <= newest_before) return;
      if (event.kind == ReportEventKind::kHandedOver) {
        handed_over.insert(event.message.id);
      } else {
        ++(handed_over.count(event.message.id) > 0 ? whole : without_begin);
      }
    });
    ASSERT_TRUE(TypeParam::AddListener(&later, &newest_before));
    for (;; std::this_thread::yield()) {
      std::lock_guard<std::mutex> hold(mutex);
      if (whole >= 3) break;
    }
    TypeParam::RemoveListener(&later);
    EXPECT_EQ(0, without_begin);
  }
  stop.store(true);
  for (std::thread& thread : threads) thread.join();
}

TYPED_TEST_P(ReportEventsConformance, WaitsForACallInProgressBeforeItLetsTheListenerGo) {
  std::promise<void> entered;
  std::promise<void> may_leave;
  std::future<void> leave = may_leave.get_future();
  std::atomic<bool> left{false};
  FunctionListener listener([&](const ReportEvent&) {
    entered.set_value();
    leave.wait();
    left.store(true);
  });
  TypeParam::SetListener(&listener);
  std::thread teller([this] { this->Tell(); });
  entered.get_future().wait();

  bool left_when_replaced = false;
  std::thread changer([&] {
    TypeParam::SetListener(nullptr);
    left_when_replaced = left.load();
  });
  for (int i = 0; i < 100; ++i) std::this_thread::yield();
  may_leave.set_value();
  teller.join();
  changer.join();

  EXPECT_TRUE(left_when_replaced);
}

TYPED_TEST_P(ReportEventsConformance, TellsOnManyThreadsAtOnce) {
  // Each call waits for the other: they can only end if they overlap.
  std::atomic<int> inside{0};
  FunctionListener listener([&](const ReportEvent&) {
    inside.fetch_add(1);
    while (inside.load() < 2) std::this_thread::yield();
  });
  TypeParam::SetListener(&listener);

  std::thread other([this] { this->Tell(); });
  this->Tell();
  other.join();

  EXPECT_EQ(2, inside.load());
}

TYPED_TEST_P(ReportEventsConformance, LosesNoEventWhileListenersAreReplaced) {
  constexpr int kThreads = 3;
  constexpr int kEvents = 2000;
  auto current = std::make_unique<CountingListener>();
  TypeParam::SetListener(current.get());
  std::atomic<int> running{kThreads};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      for (int n = 0; n < kEvents; ++n) this->Tell();
      running.fetch_sub(1);
    });
  }

  int told = 0;
  while (running.load() > 0) {
    auto next = std::make_unique<CountingListener>();
    TypeParam::SetListener(next.get());
    told += current->count();
    current = std::move(next);  // Frees the old one: a call to come would be found.
  }
  for (std::thread& thread : threads) thread.join();

  EXPECT_EQ(kThreads * kEvents, told + current->count());
  TypeParam::SetListener(nullptr);
}

TYPED_TEST_P(ReportEventsConformance, ChangesTheListenerThoughOthersNeverStopTelling) {
  // A call lasts longer than the pause between two, so that hardly ever no thread is inside: who
  // lets new calls pass a waiting change does not come to an end here.
  std::atomic<bool> stop{false};
  std::atomic<int> calls[2] = {};
  const auto slow = [](std::atomic<int>* count) {
    return [count](const ReportEvent&) {
      count->fetch_add(1);
      for (int i = 0; i < 20; ++i) std::this_thread::yield();
    };
  };
  FunctionListener first(slow(&calls[0]));
  FunctionListener second(slow(&calls[1]));
  TypeParam::SetListener(&first);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      while (!stop.load()) this->Tell();
    });
  }
  while (calls[0].load() < 4) std::this_thread::yield();

  for (int i = 0; i < 200; ++i) TypeParam::SetListener(i % 2 == 0 ? &second : &first);
  TypeParam::SetListener(nullptr);
  const int told = calls[0].load() + calls[1].load();
  stop.store(true);
  for (std::thread& thread : threads) thread.join();

  EXPECT_EQ(told, calls[0].load() + calls[1].load());
}

TYPED_TEST_P(ReportEventsConformance, KeepsTheListenerThatTriesToReplaceItself) {
  const CapturedLog log;
  CountingListener other;
  int calls = 0;
  FunctionListener listener([&](const ReportEvent&) {
    ++calls;
    TypeParam::SetListener(&other);
  });
  TypeParam::SetListener(&listener);

  this->Tell();
  this->Tell();

  EXPECT_EQ(2, calls);
  EXPECT_EQ(0, other.count());
  ASSERT_EQ(2u, log.lines().size());
  EXPECT_EQ(2, log.lines()[0].level);
}

REGISTER_TYPED_TEST_SUITE_P(ReportEventsConformance,
                            TellsTheListenerOnTheCallersThreadWithEveryField,
                            TellsTheListenerThatThereIsAndNoOther, KeepsTheOrderOfAThreadsEvents,
                            TellsEveryListenerUntilItIsTakenAway, DoesNotAddOrRemoveInsideAListener,
                            ToAddAgainWaitsForNoCall, TellsAListenerInsideItsOwnCall,
                            TellsInsideACallWhileAnotherThreadChangesTheListener,
                            ALaterListenerIsToldOfAllThatComesBehindTheNewestMessage,
                            WaitsForACallInProgressBeforeItLetsTheListenerGo,
                            TellsOnManyThreadsAtOnce, LosesNoEventWhileListenersAreReplaced,
                            ChangesTheListenerThoughOthersNeverStopTelling,
                            KeepsTheListenerThatTriesToReplaceItself);

}  // namespace quenor::conformance

#endif  // QUENOR_TESTS_CONFORMANCE_REPORT_EVENTS_CONFORMANCE_H_
