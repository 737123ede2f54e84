// The reporter on its real queue, against an HTTP client that the test answers for. What takes time
// here is the channel's own: a message each 100 ms.
#include "quenor_base/reporter/reporter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "quenor_base/data_report/https/reliable_report_channel_https.h"
#include "quenor_base/platform/local_log.h"
#include "quenor_base/platform/thread_manager.h"
#include "tests/conformance/dispatch_queue_conformance.h"
#include "tests/support/fakes/fake_http_client.h"
#include "tests/support/fakes/fake_mmap_file.h"
#include "tests/support/forked.h"
#include "tests/support/patience.h"
#include "tests/support/temp_folder.h"

namespace quenor::test {
namespace {

using namespace std::chrono_literals;
using base::TimeDelta;
using conformance::Gate;
using std::chrono::milliseconds;
using Refusal = Reporter::Refusal;
using State = Reporter::State;

const std::string& Folder() {
  static const auto& folder = *new TempFolder;
  return folder.path();
}

class ReporterTest : public ::testing::Test {
 protected:
  ReporterTest()
      : network_(conformance::NewQueue("network")), http_([this](base::OnceClosure task) {
          network_->PostTask(base::Location(), std::move(task));
        }) {
    SetLogSink([](void*, int, const char*, int, const char*, size_t) {}, nullptr);
    http_.SetOnStarted([this] { network_->PostTask(base::Location(), [this] { AnswerAll(); }); });
    options_.name = ::testing::UnitTest::GetInstance()->current_test_info()->name();
    options_.url = "https://collector.example/reports";
    options_.shared.folder = Folder();
  }
  ~ReporterTest() override {
    http_.SetOnStarted(nullptr);
    Gate settled;
    network_->PostTask(base::Location(), [&] { settled.Open(); });
    EXPECT_TRUE(settled.Wait());
    network_.reset();
    EXPECT_TRUE(core::ThreadManager::WaitForDrain(TimeDelta::FromSeconds(60)));
    SetLogSink(nullptr, nullptr);
  }

  std::unique_ptr<Reporter> Create() {
    std::string error;
    auto reporter = Reporter::Create(options_, &error);
    EXPECT_NE(nullptr, reporter) << error;
    EXPECT_EQ("", error);
    return reporter;
  }
  static Reporter::Sent Send(Reporter* reporter, const std::string& text,
                             const Reporter::SendOptions& options = Reporter::SendOptions()) {
    return reporter->Send(text.data(), text.size(), options);
  }
  // At once; what Stop() itself says of it depends on how far the thread comes in its patience.
  static Reporter::Outcome StopAndSettle(Reporter* reporter) {
    reporter->Stop(0s);
    return reporter->Flush(600s);
  }
  // Below 100: the exchange fails. 0: it does not end.
  void AnswerAll() {
    const std::vector<FakeHttp::Sent> requests = http_.Requests();
    for (const size_t index : http_.Outstanding()) {
      const int status = status_;
      if (status == 0) continue;
      if (status < 100) {
        http_.Fail(index);
      } else {
        http_.Answer(index, status, "{\"bytes_errinfo\":\"success\"}");
      }
    }
  }
  std::set<std::string> Bodies() const {
    std::set<std::string> bodies;
    for (const FakeHttp::Sent& sent : http_.Requests()) bodies.insert(sent.body);
    return bodies;
  }

  std::atomic<int> status_{200};
  std::shared_ptr<DispatchQueue> network_;
  FakeHttp http_;
  Reporter::Options options_;
};

TEST_F(ReporterTest, FlushDeliversAndSaysSo) {
  const auto reporter = Create();
  for (const char* const text : {"one", "two", "three"}) EXPECT_TRUE(Send(reporter.get(), text));

  const Reporter::Outcome outcome = reporter->Flush(60s);

  EXPECT_TRUE(outcome.all_delivered());
  EXPECT_EQ(3u, outcome.acknowledged);
  EXPECT_EQ((std::set<std::string>{"one", "two", "three"}), Bodies());
  EXPECT_EQ(3u, reporter->Stop(60s).acknowledged);
  EXPECT_TRUE(reporter->ReadBooks().Closes());
}

TEST_F(ReporterTest, WhatAStopKeepsTheNextOneDelivers) {
  status_ = 1;
  {
    const auto reporter = Create();
    EXPECT_TRUE(Send(reporter.get(), "to keep"));
    EXPECT_TRUE(Send(reporter.get(), "in memory", {/*keep=*/false, false, 0}));
    const Reporter::Outcome outcome = StopAndSettle(reporter.get());
    EXPECT_EQ(1u, outcome.kept);
    EXPECT_EQ(1u, outcome.dropped);
    EXPECT_EQ(0u, outcome.out + outcome.acknowledged + outcome.rejected);
    EXPECT_TRUE(reporter->ReadBooks().Closes());
  }
  status_ = 200;

  const auto reporter = Create();
  EXPECT_EQ(1u, reporter->Now().kept);
  const Reporter::Outcome outcome = reporter->Flush(60s);

  EXPECT_EQ(1u, outcome.acknowledged);
  EXPECT_TRUE(outcome.all_delivered());
  EXPECT_EQ(1u, reporter->ReadBooks().loaded);
}

// Which takes ten seconds, here for a callback that blocks.
TEST_F(ReporterTest, NoCallbackBeginsOfOneThatCouldNotBeMade) {
  status_ = 1;
  {
    const auto before = Create();
    EXPECT_TRUE(Send(before.get(), "one"));
    EXPECT_TRUE(Send(before.get(), "two"));
    EXPECT_EQ(2u, StopAndSettle(before.get()).kept);
  }
  std::atomic<int> calls{0};
  Gate given_up;
  options_.on_update = [&](const Reporter::Update&) {
    ++calls;
    EXPECT_TRUE(given_up.Wait());
  };
  std::string error;

  EXPECT_EQ(nullptr, Reporter::Create(options_, &error));

  EXPECT_EQ(0u, error.find("name: the file")) << error;
  given_up.Open();
  EXPECT_TRUE(core::ThreadManager::WaitForDrain(TimeDelta::FromSeconds(60)));
  EXPECT_EQ(1, calls);
}

TEST_F(ReporterTest, StopBehindADeadServerTakesItsTimeAndNoMore) {
  status_ = 0;
  const auto reporter = Create();
  for (int i = 0; i < 20; ++i) EXPECT_TRUE(Send(reporter.get(), std::to_string(i)));

  const Reporter::Outcome outcome = reporter->Stop(300ms);

  EXPECT_EQ(20u, outcome.kept + outcome.out);
  EXPECT_EQ(0u, outcome.acknowledged + outcome.dropped);
  EXPECT_EQ(Refusal::kStopped, Send(reporter.get(), "late").refusal);
  EXPECT_EQ(20u, reporter->Flush(60s).kept);
}

TEST_F(ReporterTest, WaitsForAsLongAsAHostMaySay) {
  const auto reporter = Create();
  for (const milliseconds patience : {milliseconds::max(), milliseconds(24h * 365 * 300)}) {
    EXPECT_TRUE(Send(reporter.get(), "m"));
    EXPECT_TRUE(reporter->Flush(patience).all_delivered());
  }
  EXPECT_TRUE(Send(reporter.get(), "m"));
  reporter->Flush(milliseconds::min());
  EXPECT_EQ(3u, reporter->Stop(milliseconds::max()).acknowledged);
}

// A flush that comes between the place that a message takes and its being known as delayed.
TEST_F(ReporterTest, FlushDoesNotWaitForAMessageThatIsDelayedMeanwhile) {
  struct Host : ReportEventListener {  // Told before the reporter is.
    std::function<void()> act;
    void OnReportEvent(const ReportEvent& event) override {
      if (event.kind == ReportEventKind::kHandedOver && event.message.is_delayed) act();
    }
  } host;
  const auto reporter = Create();
  ReportEvents::SetListener(&host);
  std::thread flusher;
  std::atomic<pid_t> id{0};
  Gate done;
  host.act = [&] {
    flusher = std::thread([&] {
      id = gettid();
      reporter->Flush(600s);
      done.Open();
    });
    PollPatiently("the flush waits", [&] { return id != 0 && StatusLine(id, "State")[0] == 'S'; });
  };

  EXPECT_TRUE(Send(reporter.get(), "m", {true, false, 1000000}));

  EXPECT_TRUE(done.Wait());
  reporter->Stop(0s);
  flusher.join();
  ReportEvents::SetListener(nullptr);
}

TEST_F(ReporterTest, IsFullBeforeTheStoreDropsAnything) {
  status_ = 0;
  const auto reporter = Create();
  int taken = 0;
  Reporter::Sent sent;
  for (int i = 0; i < 1000; ++i) {
    sent = Send(reporter.get(), std::to_string(i));
    taken += sent.refusal == Refusal::kNone;
  }
  EXPECT_EQ(149, taken);
  EXPECT_EQ(Refusal::kFull, sent.refusal);

  PollPatiently("the saves", [&] { return reporter->Now().kept == 149; });

  const Reporter::Outcome outcome = StopAndSettle(reporter.get());
  EXPECT_EQ(149u, outcome.kept);
  EXPECT_EQ(0u, outcome.dropped);
}

TEST_F(ReporterTest, RefusesWhatCannotBeSent) {
  const auto reporter = Create();
  EXPECT_EQ(Refusal::kEmpty, reporter->Send("", 0).refusal);
  EXPECT_EQ(Refusal::kEmpty, reporter->Send(nullptr, 0).refusal);
  EXPECT_EQ(Refusal::kNoBytes, reporter->Send(nullptr, 3).refusal);
  EXPECT_EQ(Refusal::kTooLarge, reporter->Send("", Reporter::kMostBytes + 1).refusal);
  EXPECT_EQ(Refusal::kNowAndDelay, Send(reporter.get(), "m", {true, true, 1}).refusal);
  for (int i = 0; i <= static_cast<int>(Refusal::kForked); ++i) {
    EXPECT_STRNE("", Reporter::TextOf(static_cast<Refusal>(i))) << i;
  }

  EXPECT_EQ(0u, reporter->ReadBooks().handed_over);
}

TEST_F(ReporterTest, SaysWhatIsWrongWithItsOptions) {
  struct Case {
    const char* what;  // The error begins with it.
    std::function<void(Reporter::Options*)> spoil;
  };
  const Case cases[] = {
      {"name: ", [](auto* options) { options->name = ""; }},
      {"name: ", [](auto* options) { options->name = std::string(237, 'n'); }},
      {"name: ", [](auto* options) { options->name = std::string("a\0b", 3); }},
      {"name: ", [](auto* options) { options->name = "a/../b"; }},
      {"url: ", [](auto* options) { options->url = ""; }},
      {"url: ", [](auto* options) { options->url = "ftp://host/"; }},
      {"url: ", [](auto* options) { options->url = "https://host/a b"; }},
      {"url: ", [](auto* options) { options->url = "https://"; }},
      {"url: ", [](auto* options) { options->url = "http:///reports"; }},
      {"send_limit: ", [](auto* options) { options->send_limit = 0; }},
      {"send_interval_ms: ", [](auto* options) { options->send_interval_ms = 99; }},
      {"folder: ", [](auto* options) { options->shared.folder = "/another"; }},
      {"cache: ", [](auto* options) { options->shared.cache = SharedSettings::Cache::kFile; }},
      {"durability: ",
       [](auto* options) { options->shared.durability = SharedSettings::Durability::kOnDisk; }},
      {"socks5_proxy: ",
       [](auto* options) { options->shared.socks5_proxy.emplace().host = "proxy"; }},
      {"http: ", [](auto* options) { options->shared.http.emplace().require_tls = true; }},
  };
  const auto first = Create();  // Fixes the folder, and leaves the rest open.
  for (const Case& one : cases) {
    Reporter::Options options = options_;
    options.name = "another";
    one.spoil(&options);
    std::string error;

    EXPECT_EQ(nullptr, Reporter::Create(options, &error)) << one.what;

    EXPECT_EQ(0u, error.find(one.what)) << error;
  }
}

TEST_F(ReporterTest, LeavesNothingInForceOfSettingsThatAreRefused) {
  options_.shared.folder = "relative";
  options_.shared.http.emplace().require_tls = true;
  std::string error;

  EXPECT_EQ(nullptr, Reporter::Create(options_, &error));

  EXPECT_EQ(0u, error.find("folder: ")) << error;
  EXPECT_FALSE(GetHttpDefaults().require_tls);
}

TEST_F(ReporterTest, KeepsItsUrlWhenTheNextOneIsNone) {
  const auto reporter = Create();
  for (const char* const url : {"", "ftp://host/", "https://", "host"}) {
    EXPECT_FALSE(reporter->SetUrl(url)) << url;
  }
  EXPECT_TRUE(Send(reporter.get(), "m"));
  EXPECT_EQ(1u, reporter->Flush(60s).acknowledged);
  EXPECT_EQ(options_.url, http_.Requests()[0].request.url);

  EXPECT_TRUE(reporter->SetUrl("http://another/"));
  EXPECT_TRUE(Send(reporter.get(), "m"));
  EXPECT_EQ(2u, reporter->Stop(60s).acknowledged);
  EXPECT_EQ("http://another/", http_.Requests()[1].request.url);
}

TEST_F(ReporterTest, HasItsNameAloneUntilItHasStopped) {
  auto first = Create();
  std::string error;
  EXPECT_EQ(nullptr, Reporter::Create(options_, &error));
  EXPECT_EQ(0u, error.find("name: ")) << error;
  first->Stop(60s);

  const auto second = Create();
  EXPECT_TRUE(Send(second.get(), "m"));
  EXPECT_EQ(1u, second->Flush(60s).acknowledged);
  EXPECT_EQ(Refusal::kStopped, Send(first.get(), "m").refusal);
}

TEST_F(ReporterTest, TellsTheStatesOfEachMessageByItsId) {
  std::mutex mutex;
  std::map<uint64_t, std::vector<State>> states;
  options_.on_update = [&](const Reporter::Update& update) {
    std::lock_guard<std::mutex> hold(mutex);
    states[update.id].push_back(update.state);
  };
  const auto reporter = Create();
  const uint64_t id = Send(reporter.get(), "m").id;
  reporter->Stop(60s);

  EXPECT_EQ((std::map<uint64_t, std::vector<State>>{
                {id, {State::kAdmitted, State::kSent, State::kAcknowledged}}}),
            states);
}

TEST_F(ReporterTest, RejectsWhatTheServerRefusesForGoodAndDeliversTheRest) {
  status_ = 403;
  options_.send_interval_ms = 100;  // Failures wait no longer.
  std::atomic<int> rejected{0};
  Gate done;
  options_.on_update = [&](const Reporter::Update& update) {
    if (update.state != State::kRejected) return;
    status_ = 200;
    ++rejected;
    done.Open();
  };
  const auto reporter = Create();
  EXPECT_TRUE(Send(reporter.get(), "refused"));
  EXPECT_TRUE(done.Wait());
  EXPECT_TRUE(Send(reporter.get(), "good"));

  const Reporter::Outcome outcome = reporter->Flush(60s);

  EXPECT_EQ(1u, outcome.rejected);
  EXPECT_EQ(1u, outcome.acknowledged);
  EXPECT_EQ(1, rejected);
}

// Between the end of a message and the save behind it the file holds one more than is outstanding.
TEST_F(ReporterTest, CallsNothingKeptThatIsNotInTheFileYet) {
  std::unique_ptr<Reporter> reporter;
  Gate ready, done;
  Reporter::Outcome before, behind;
  options_.on_update = [&](const Reporter::Update& update) {
    if (update.state != State::kAcknowledged || behind.out + behind.kept != 0 || !ready.Wait())
      return;
    before = reporter->Now();
    EXPECT_TRUE(Send(reporter.get(), "behind"));
    behind = reporter->Now();
    done.Open();
  };
  reporter = Create();
  EXPECT_TRUE(Send(reporter.get(), "first"));
  ready.Open();
  EXPECT_TRUE(done.Wait());

  EXPECT_EQ(0u, before.kept + before.out);
  EXPECT_EQ(0u, behind.kept);
  EXPECT_EQ(1u, behind.out);
  EXPECT_EQ(2u, reporter->Stop(60s).acknowledged);
}

TEST_F(ReporterTest, MayBeUsedStoppedAndDestroyedInItsOwnCallback) {
  for (const char* const what : {"use", "stop", "destroy"}) {
    options_.name = what;
    std::unique_ptr<Reporter> reporter;
    Gate ready, done;
    options_.on_update = [&](const Reporter::Update& update) {
      if (update.state != State::kAdmitted || !ready.Wait()) return;
      if (*what == 'u') {
        EXPECT_TRUE(Send(reporter.get(), "again", {false, false, 1000000}));
        EXPECT_GT(reporter->Flush(60s).out + reporter->Now().kept, 0u) << "it does not wait";
      }
      if (*what == 's') reporter->Stop(60s);
      if (*what == 'd') reporter.reset();
      done.Open();
    };
    reporter = Create();
    Reporter* const borrowed = reporter.get();
    EXPECT_TRUE(Send(borrowed, "m"));
    ready.Open();
    EXPECT_TRUE(done.Wait()) << what;
    EXPECT_TRUE(*what == 'd' || reporter->Stop(60s).acknowledged <= 1u);
    reporter.reset();
    EXPECT_TRUE(core::ThreadManager::WaitForDrain(TimeDelta::FromSeconds(60)));
  }
}

// The callback may wait for a lock that the host holds in Send().
TEST_F(ReporterTest, IsCreatedWithoutWaitingForTheCallbacksOfOthers) {
  Gate entered, may_leave;
  options_.on_update = [&](const Reporter::Update&) {
    entered.Open();
    EXPECT_TRUE(may_leave.Wait());
  };
  const auto first = Create();
  EXPECT_TRUE(Send(first.get(), "m"));
  EXPECT_TRUE(entered.Wait());
  options_.name = "another";
  options_.on_update = nullptr;

  const auto second = Create();
  EXPECT_TRUE(Send(first.get(), "m"));

  may_leave.Open();
  EXPECT_EQ(2u, first->Stop(60s).acknowledged);
}

TEST_F(ReporterTest, StopsWithoutWaitingForTheEndOfOthers) {
  Gate entered, may_leave;
  const auto first = Create();
  options_.name = "another";
  options_.on_update = [&](const Reporter::Update&) {
    entered.Open();
    EXPECT_TRUE(may_leave.Wait());
  };
  const auto second = Create();
  EXPECT_TRUE(Send(second.get(), "m"));
  EXPECT_TRUE(entered.Wait());
  second->Stop(0s);
  EXPECT_TRUE(Send(first.get(), "m"));

  EXPECT_EQ(1u, first->Stop(600s).acknowledged);

  may_leave.Open();
}

TEST_F(ReporterTest, AChildThatACallbackForksHasItsOwn) {
#if defined(QUENOR_SANITIZED)
  GTEST_SKIP() << "a sanitizer's locks and threads do not survive a fork";
#endif
  std::atomic<int> result{-1};
  Reporter::Options own = options_;
  options_.on_update = [&](const Reporter::Update& update) {
    if (update.state != State::kAdmitted) return;
    result = ResultOfChild([&own] {
      std::string error;
      const auto reporter = Reporter::Create(own, &error);
      return reporter != nullptr && Send(reporter.get(), "of the child") ? 0 : 1;
    });
  };
  const auto reporter = Create();
  EXPECT_TRUE(Send(reporter.get(), "m"));

  EXPECT_EQ(1u, reporter->Stop(60s).acknowledged);
  EXPECT_EQ(0, result);
}

TEST_F(ReporterTest, InAForkedChildIsTheParentsAndTheChildHasItsOwn) {
#if defined(QUENOR_SANITIZED)
  GTEST_SKIP() << "a sanitizer's locks and threads do not survive a fork";
#endif
  const auto reporter = Create();
  EXPECT_TRUE(Send(reporter.get(), "of the parent"));
  const int result = ResultOfChild([&] {
    if (Send(reporter.get(), "m").refusal != Refusal::kForked) return 1;
    if (reporter->Flush(60s).acknowledged + reporter->Stop(60s).acknowledged != 0) return 2;
    std::string error;
    const auto own = Reporter::Create(options_, &error);
    if (own == nullptr) return 3;
    if (!Send(own.get(), "of the child")) return 4;
    return Reporter::ReadProcessBooks().handed_over == 1 ? 0 : 5;
  });

  EXPECT_EQ(0, result);
  EXPECT_EQ(1u, reporter->Flush(60s).acknowledged);
}

// A message that was in flight, and known to another listener, before there were any books.
TEST_F(ReporterTest, TheProcesssBooksCloseThoughAChannelWasAtWorkBefore) {
  struct Host : ReportEventListener {
    void OnReportEvent(const ReportEvent&) override {}
  } host;
  ReportEvents::SetListener(&host);
  status_ = 0;
  auto channel =
      std::make_shared<ReliableReportChannelHttps>("host", options_.url, 0u, true, false);
  channel->Initialize();
  channel->SendPacket(reinterpret_cast<const uint8_t*>("m"), 1, false, true);
  PollPatiently("it is in flight", [&] { return http_.RequestCount() == 1; });
  const auto reporter = Create();
  status_ = 200;
  EXPECT_TRUE(Send(reporter.get(), "behind"));

  EXPECT_EQ(1u, reporter->Flush(60s).acknowledged);
  EXPECT_EQ(1u, Reporter::ReadProcessBooks().acknowledged) << "told before the flush is over";
  channel->Terminate();
  reporter->Stop(60s);

  EXPECT_TRUE(core::ThreadManager::WaitForDrain(TimeDelta::FromSeconds(60)));
  const BooksEntry books = Reporter::ReadProcessBooks();
  EXPECT_TRUE(books.Closes());
  EXPECT_EQ(1u, books.handed_over);
  EXPECT_EQ(0u, books.Outstanding());
  ReportEvents::SetListener(nullptr);
}

TEST_F(ReporterTest, OperationsOnManyThreadsWhileItStopsLoseNoBook) {
  for (int round = 0; round < 20; ++round) {
    options_.name = "round " + std::to_string(round);
    std::atomic<uint64_t> ends{0};
    options_.on_update = [&ends](const Reporter::Update& update) {
      ends += update.state == State::kAcknowledged || update.state == State::kDropped ||
              update.state == State::kKept;
    };
    const auto reporter = Create();
    std::atomic<uint64_t> taken{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&, t] {
        for (int i = 0; i < 200; ++i) {
          const Reporter::SendOptions options{i % 2 == 0, i % 3 == 0, i % 3 == 1 ? 5u : 0u};
          taken +=
              Send(reporter.get(), std::to_string(t * 1000 + i), options).refusal == Refusal::kNone;
          if (i % 50 == t) reporter->Flush(0s);
          if (i == 150 && t == round % 4) reporter->Stop(0s);
          reporter->Now();
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    reporter->Stop(60s);

    PollPatiently("its end", [&] { return reporter->ReadBooks().Outstanding() == 0; });
    EXPECT_TRUE(reporter->ReadBooks().Closes()) << round;
    const Reporter::Outcome outcome = reporter->Now();
    EXPECT_EQ(taken, outcome.acknowledged + outcome.dropped + outcome.kept) << round;
    EXPECT_EQ(taken, ends) << round;
  }
}

}  // namespace
}  // namespace quenor::test
