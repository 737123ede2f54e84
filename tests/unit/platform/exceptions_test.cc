// What the host's code throws, and memory that runs out past the copy of a message, end the process
// with a line that says whose exception it was; nothing is left locked or half done before that.
#include <gtest/gtest.h>
#if defined(QUENOR_SANITIZED_ADDRESS)
#include <sanitizer/lsan_interface.h>
#endif
#include <pthread.h>

#include <csignal>
#include <cstdio>
#include <functional>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>

#include "quenor_base/data_report/https/reliable_report_channel_https.h"
#include "quenor_base/object_pool/alloc_buffer_from_pool.h"
#include "quenor_base/platform/base/check.h"
#include "quenor_base/platform/base/path_service.h"
#include "quenor_base/platform/config_center.h"
#include "quenor_base/platform/exception_barrier.h"
#include "quenor_base/platform/local_log.h"
#include "quenor_base/platform/report_events.h"
#include "quenor_base/platform/socks5_proxy_config.h"
#include "quenor_base/platform/thread_manager.h"
#include "tests/conformance/dispatch_queue_conformance.h"
#include "tests/support/channel_test_peer.h"
#include "tests/support/fakes/fake_http_client.h"
#include "tests/support/memory_faults.h"

namespace quenor::test {
namespace {

using base::TimeDelta;

constexpr uint8_t kBody[] = "body";
const std::string kLong(300, 'x');

struct ThrowingListener : ReportEventListener {
  void OnReportEvent(const ReportEvent&) override { throw std::runtime_error("from the host"); }
};

// What a host starts with. Its requests stay unanswered.
struct Host {
  Host() : http([](base::OnceClosure) {}) {
    config::ConfigCenterImpl::GetInstance()->SetHostOverride(config::BaseCfg().cache_option,
                                                             uint64_t{0});
  }
  static std::shared_ptr<ReliableReportChannelHttps> NewChannel() {
    return std::make_shared<ReliableReportChannelHttps>("exceptions", "https://x.example/", 0u,
                                                        false, false);
  }
  FakeHttp http;
};

struct Case {
  const char* name;
  const char* line;  // Of standard error, behind "an exception left".
  void (*act)();
};

std::string NameOf(const ::testing::TestParamInfo<Case>& named) { return named.param.name; }

// --- The host's code throws ---

class HostThrowsDeathTest : public ::testing::TestWithParam<Case> {
 protected:
  HostThrowsDeathTest() { ::testing::FLAGS_gtest_death_test_style = "threadsafe"; }
};

TEST_P(HostThrowsDeathTest, EndsTheProcessWithALineThatSaysWhose) {
  EXPECT_EXIT(
      {
        Host host;
        try {
          GetParam().act();
        } catch (...) {
        }
      },
      ::testing::KilledBySignal(SIGABRT),
      std::string("quenor: fatal: an exception left ") + GetParam().line);
}

void RunOnAQueue(base::OnceClosure task) {
  const auto queue = core::ThreadManager::CreateNewDispatchQueue(core::BusinessID::kReliableReport,
                                                                 "host", base::nullopt);
  conformance::Gate never;
  queue->PostTask(base::Location(), std::move(task));
  never.Wait();
}

const Case kThrows[] = {
    {"Listener", "the host's report event listener: std::runtime_error: from the host",
     [] {
       static ThrowingListener listener;
       ReportEvents::SetListener(&listener);
       Host::NewChannel()->SendPacket(kBody, sizeof(kBody), false, false);
     }},
    {"ListenerOnTheQueuesThread", "the host's report event listener: std::runtime_error",
     [] {
       static struct : ReportEventListener {
         void OnReportEvent(const ReportEvent& event) override {
           if (event.kind == ReportEventKind::kAdmitted) throw std::runtime_error("from the host");
         }
       } listener;
       ReportEvents::SetListener(&listener);
       const auto channel = Host::NewChannel();
       channel->Initialize();
       channel->SendPacket(kBody, sizeof(kBody), false, false);
       conformance::Gate().Wait();
     }},
    {"LogSink", "the host's log sink: int",
     [] {
       SetLogSink([](void*, int, const char*, int, const char*, size_t) { throw 5; }, nullptr);
       Host::NewChannel()->SendPacket(kBody, sizeof(kBody), false, false);
     }},
    {"ThreadThatEndsInTheLogSink", "the host's log sink: .*the thread was cancelled or ended",
     [] {
       SetLogSink([](void*, int, const char*, int, const char*, size_t) { pthread_exit(nullptr); },
                  nullptr);
       std::thread([] { LocalLog(2, "f", 1, "line"); }).join();
     }},
    {"TaskOnAQueueOfTheHosts", "a task on a dispatch queue: std::runtime_error: from a task",
     [] { RunOnAQueue([] { throw std::runtime_error("from a task"); }); }},
};
INSTANTIATE_TEST_SUITE_P(All, HostThrowsDeathTest, ::testing::ValuesIn(kThrows), NameOf);

// --- Memory runs out ---

// Each operation with its first, second, third ... operator new failing, in a process of its own,
// until it needs no more.
class OutOfMemoryDeathTest : public ::testing::TestWithParam<Case> {
 protected:
  OutOfMemoryDeathTest() { ::testing::FLAGS_gtest_death_test_style = "threadsafe"; }
};

size_t nth_to_fail = 0;

// What comes before this in an operation's test has all the memory it wants.
void FromHereOn() { MemoryFaults::FailNew(nth_to_fail); }

constexpr int kReachedTheHost = 1;
constexpr int kSwallowed = 2;

[[noreturn]] void ActWithoutMemory(const Case& tested, size_t nth) {
  Host host;
  nth_to_fail = nth;
  int code = 0;
  try {
    tested.act();
    if (MemoryFaults::HasFailed()) code = kSwallowed;
  } catch (const std::bad_alloc&) {
    code = kReachedTheHost;
  }
  std::_Exit(code);
}

TEST_P(OutOfMemoryDeathTest, EndsTheProcessWithALineAndNeverReachesTheHost) {
  bool needs_no_more = false;
  const auto ended = [&](int status) {
    needs_no_more = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    return needs_no_more || (WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT);
  };
  const std::string line =
      std::string("^$|fatal: an exception left quenor's ") + GetParam().line + ".*: std::bad_alloc";
  size_t nth = 0;
  while (++nth < 100 && !needs_no_more && !HasFailure()) {
    EXPECT_EXIT(ActWithoutMemory(GetParam(), nth), ended, line) << "operator new number " << nth;
  }

  EXPECT_TRUE(needs_no_more);
  EXPECT_GT(nth, 2u) << "nothing could fail";
}

using Channel = ReliableReportChannelHttps;

// Running, never dropped, its thread standing still, so that its list of tasks has to grow.
Channel* BusyChannel() {
  static const std::shared_ptr<Channel> channel = Host::NewChannel();
  static conformance::Gate inside;
  static conformance::Gate never;
  channel->Initialize();
  ReliableReportChannelHttpsTestPeer(channel.get()).queue()->PostTask(base::Location(), [] {
    inside.Open();
    never.Wait();
  });
  inside.Wait();
  return channel.get();
}

void Often(void (*operation)(Channel*)) {
  Channel* const channel = BusyChannel();
  FromHereOn();
  for (int i = 0; i < 18; ++i) operation(channel);
  std::_Exit(MemoryFaults::HasFailed() ? kSwallowed : 0);
}

constexpr char kChannelOrQueue[] =
    "(report channel, in an op|dispatch queue, as a task was posted)";

const Case kOperations[] = {
    {"Initialize", "(report channel|thread manager|dispatch queue)",
     [] {
       const auto channel = Host::NewChannel();
       FromHereOn();
       channel->Initialize();
       std::_Exit(MemoryFaults::HasFailed() ? kSwallowed : 0);
     }},
    {"Terminate", kChannelOrQueue,
     [] {
       Channel* const channel = BusyChannel();
       for (int i = 0; i < 15; ++i) channel->FlushPacket();
       // Up to the first that needs room, whichever it is.
       FromHereOn();
       for (int i = 0; i < 2; ++i) channel->FlushPacket();
       channel->Terminate();
       std::_Exit(MemoryFaults::HasFailed() ? kSwallowed : 0);
     }},
    {"SendPacket", kChannelOrQueue,
     [] { Often([](Channel* c) { c->SendPacket(kBody, sizeof(kBody), true, true); }); }},
    {"SendPacketWithDelay", kChannelOrQueue,
     [] {
       Often([](Channel* c) {
         c->SendPacketWithDelay(kBody, sizeof(kBody), true, TimeDelta::FromSeconds(3));
       });
     }},
    {"FlushPacket", kChannelOrQueue, [] { Often([](Channel* c) { c->FlushPacket(); }); }},
    {"SetResendInterval", kChannelOrQueue,
     [] { Often([](Channel* c) { c->SetResendInterval(5); }); }},
    {"SetMaxResendCount", kChannelOrQueue,
     [] { Often([](Channel* c) { c->SetMaxResendCount(5); }); }},
    {"SetServerDomain", kChannelOrQueue,
     [] { Often([](Channel* c) { c->SetServerDomain(kLong); }); }},
    {"CreateNewDispatchQueue", "thread manager",
     [] {
       FromHereOn();
       core::ThreadManager::CreateNewDispatchQueue(core::BusinessID::kReliableReport, "queue",
                                                   base::nullopt);
     }},
    {"Configuration", "configuration centre",
     [] {
       auto* const centre = config::ConfigCenterImpl::GetInstance();
       static const std::string other = "another" + kLong;
       FromHereOn();
       centre->SetHostOverride(kLong, uint64_t{1});
       centre->GetValueWithPriority(other, base::nullopt);
     }},
    {"Folders", "path service",
     [] {
       static base::FilePath path(std::string(200, '/'));
       static base::FilePath out;
       (void)base::PathService::Override(base::DIR_RELIABLE_REPORT, path);
       FromHereOn();
       (void)base::PathService::Get(base::DIR_RELIABLE_REPORT, &out);
     }},
    {"Proxy", "proxy configuration",
     [] {
       Socks5ProxyConfigHolder::Socks5ProxyConfig config;
       config.user = std::string(200, 'u');
       GetSocks5ProxyConfigHolder()->SetConfig(config);
       FromHereOn();
       (void)GetSocks5ProxyConfigHolder()->GetConfig();
     }},
};
INSTANTIATE_TEST_SUITE_P(All, OutOfMemoryDeathTest, ::testing::ValuesIn(kOperations), NameOf);

// --- What the host may catch ---

TEST(CaughtExceptionTest, FailedScratchArrayThrowsAndTheNextOneIsServed) {
  constexpr uint64_t kBeyondThePools = uint64_t{8} << 20;
  MemoryFaults::FailNew(1);
  EXPECT_THROW(internal::AllocBufferTFromPool<uint8_t[]>(kBeyondThePools), std::bad_alloc);

  EXPECT_NE(internal::AllocBufferTFromPool<uint8_t[]>(kBeyondThePools).get(), nullptr);
}

// What the constructor had made by then is not freed: the library is built without exceptions.
TEST(CaughtExceptionTest, FailedConstructionOfAChannelThrowsAndTheNextOneWorks) {
#if defined(QUENOR_SANITIZED_ADDRESS)
  const __lsan::ScopedDisabler leaks_allowed;
#endif
  size_t failed = 0;
  for (size_t nth = 1; nth < 100; ++nth) {
    MemoryFaults::FailNew(nth);
    try {
      (void)std::make_shared<Channel>(kLong, kLong, 0u, false, false);
    } catch (const std::bad_alloc&) {
      ++failed;
      continue;
    }
    break;
  }
  MemoryFaults::FailNew(0);

  EXPECT_GT(failed, 2u);
  Host host;
  const auto channel = Host::NewChannel();
  channel->Initialize();
  channel->Terminate();
  EXPECT_TRUE(core::ThreadManager::WaitForDrain(TimeDelta::FromSeconds(60)));
}

// --- The line ---

TEST(FatalLineDeathTest, IsWrittenThoughTheHostBuffersStandardError) {
  const auto buffered = [](void (*act)()) {
    std::setvbuf(stderr, nullptr, _IOFBF, BUFSIZ);
    act();
  };
  EXPECT_DEATH(buffered([] { QUENOR_CHECK(false, "broken"); }), "quenor: fatal: broken");
  EXPECT_DEATH(buffered([] { base::EndOnException("a test", [] { throw 5; }); }),
               "quenor: fatal: an exception left a test");
}

}  // namespace
}  // namespace quenor::test
