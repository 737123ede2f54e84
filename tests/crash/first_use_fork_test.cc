// A process forks while another of its threads is in the middle of its first use of a part of the
// library. The child uses the same part: it must find it whole, or make its own, and never wait for
// a thread that it does not have. Each fork has a process of its own, since a first use comes once.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <memory>
#include <random>
#include <string>
#include <thread>

#include "quenor_base/data_report/https/reliable_report_channel_https.h"
#include "quenor_base/object_pool/alloc_buffer_from_pool.h"
#include "quenor_base/platform/base/fork.h"
#include "quenor_base/platform/base/path_service.h"
#include "quenor_base/platform/config_center.h"
#include "quenor_base/platform/http_client.h"
#include "quenor_base/platform/local_log.h"
#include "quenor_base/platform/reliable_report_cache_file.h"
#include "quenor_base/platform/report_events.h"
#include "quenor_base/platform/socks5_proxy_config.h"
#include "quenor_base/platform/thread_manager.h"
#include "tests/support/forked.h"
#include "tests/support/temp_folder.h"

namespace quenor::test {
namespace {

constexpr unsigned kHungSeconds = 20;  // Whoever takes that long is ended by his alarm.
constexpr char kNobody[] = "http://127.0.0.1:1/";

// What a first use does, on the thread that is in it and then in the child; false when it failed.
struct Part {
  const char* name;
  bool (*use)();
};

void IgnoreLine(void*, int, const char*, int, const char*, size_t) {}

bool Drain() { return core::ThreadManager::WaitForDrain(base::TimeDelta::FromSeconds(10)); }

bool UsePool() {
  base::ThreadCreateFlag::SetThreadCreateByQuenor(true);
  return internal::AllocBufferTFromPool<uint8_t[]>(600) != nullptr;
}
bool UseConfigCenter() {
  auto* const center = config::ConfigCenterImpl::GetInstance();
  center->SetHostOverride("first_use.key", uint64_t{7});
  return center->GetValueWithPriority(config::BaseCfg().cache_option, uint64_t{2}) == 2u;
}
bool UseProxyConfig() {
  GetSocks5ProxyConfigHolder()->SetConfig({});
  return true;
}
bool UsePathService() {
  base::FilePath path;
  return base::PathService::Get(base::DIR_RELIABLE_REPORT, &path);
}
bool UseLog() {
  SetLogSink(&IgnoreLine, nullptr);
  LocalLog(2, "first_use_fork_test", __LINE__, "a line");
  return true;
}
bool UseEvents() {
  ReportEvents::SetListener(nullptr);
  return true;
}
bool UseQueue() {
  auto queue = core::ThreadManager::CreateNewDispatchQueue(core::BusinessID::kReliableReport,
                                                           "first_use", {});
  if (queue == nullptr) return false;
  queue.reset();
  return Drain();
}
std::string OwnName() { return "first_use_" + std::to_string(getpid()); }
bool UseCacheFile() {
  ReliableReportCacheFile file;
  return file.Open(base::FilePath(std::getenv("XDG_STATE_HOME")).AppendASCII(OwnName()));
}
bool UseHttpClient() {
  if (HttpClientFactory::ImplementationName() == nullptr) return false;
  const auto client = HttpClientFactory::Create(HttpClient::Config());
  HttpClient::Request request;
  request.url = kNobody;
  request.method = "POST";
  return client->SendRequest(request, {}) >= 1;
}
bool UseChannel() {
  const auto channel =
      std::make_shared<ReliableReportChannelHttps>(OwnName(), kNobody, 0, false, true);
  channel->Initialize();
  const std::string text = "a message a message a message";
  channel->SendPacket(reinterpret_cast<const uint8_t*>(text.data()),
                      static_cast<uint32_t>(text.size()), true, true);
  channel->Terminate();
  return Drain();
}

constexpr Part kParts[] = {
    {"Pool", &UsePool},
    {"ConfigCenter", &UseConfigCenter},
    {"ProxyConfig", &UseProxyConfig},
    {"PathService", &UsePathService},
    {"Log", &UseLog},
    {"Events", &UseEvents},
    {"Queue", &UseQueue},
    {"CacheFile", &UseCacheFile},
    {"HttpClient", &UseHttpClient},
    {"Channel", &UseChannel},
};

// 'S' and the like; see proc(5).
char StateOfThread(long thread) {
  std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
  std::string line;
  std::getline(file, line);
  const size_t end_of_name = line.rfind(')');
  return end_of_name == std::string::npos ? 'X' : line[end_of_name + 2];
}

// The thread that is in its first use, and the fork. One per process.
class FirstUser {
 public:
  explicit FirstUser(const Part& part)
      : thread_([this, &part] {
          id_ = syscall(SYS_gettid);
          while (!may_begin_) {
          }
          part.use();
          is_done_ = true;
        }) {
    while (id_ == 0) {
    }
  }
  ~FirstUser() { thread_.join(); }

  void Begin() { may_begin_ = true; }
  void WaitUntilDoneOrAsleep() {
    while (!is_done_ && StateOfThread(id_) != 'S') {
    }
  }

 private:
  std::atomic<long> id_{0};
  std::atomic<bool> may_begin_{false};
  std::atomic<bool> is_done_{false};
  std::thread thread_;
};

enum class When {
  kWhileForkHoldsAll,  // The first use begins when the fork has what is HeldAtFork.
  kAtRandom,           // The fork comes some turns of a loop after the first use has begun.
};

// The whole of a process that forks once; its exit code is 0 when its child ended well.
int ForkOnce(const Part& part, When when, uint32_t turns) {
  alarm(2 * kHungSeconds);
  FirstUser user(part);
  // What is made first is locked last.
  std::unique_ptr<base::HeldAtFork> held;
  if (when == When::kWhileForkHoldsAll) {
    const auto begin = [](void* first_user) {
      static_cast<FirstUser*>(first_user)->Begin();
      static_cast<FirstUser*>(first_user)->WaitUntilDoneOrAsleep();
    };
    held = std::make_unique<base::HeldAtFork>(&user, begin, [](void*) {});
  } else {
    user.Begin();
    for (volatile uint32_t i = 0; i < turns; i = i + 1) {
    }
  }
  return ResultOfChild([&] {
    alarm(kHungSeconds);
    return part.use() ? 0 : 1;
  });
}

class FirstUseForkTest : public ::testing::TestWithParam<Part> {
 protected:
  // How many of `count` processes had a child that hung or crashed, or did so themselves.
  int BadEnds(int count, When when) {
    const auto seed = std::random_device()();
    std::mt19937 random(seed);
    int bad = 0;
    for (int i = 0; i < count; ++i) {
      const uint32_t turns = random() % (1u << (1 + random() % 24));
      bad += ResultOfChild([&] { return ForkOnce(GetParam(), when, turns); }) != 0;
    }
    std::cout << GetParam().name << ": " << count << " forks, " << bad << " hung or crashed (seed "
              << seed << ")" << std::endl;
    return bad;
  }
  void SetUp() override {
#if defined(QUENOR_SANITIZED_THREAD)
    GTEST_SKIP() << "ThreadSanitizer ends children that start threads";
#elif defined(QUENOR_SANITIZED_ADDRESS)
    GTEST_SKIP() << "a fork may find AddressSanitizer's allocator locked: the child hangs in it";
#endif
    setenv("XDG_STATE_HOME", folder_.path().c_str(), 1);
  }

  TempFolder folder_;
};

TEST_P(FirstUseForkTest, ChildOfAForkThatHoldsEveryLockGoesOn) {
  EXPECT_EQ(0, BadEnds(3, When::kWhileForkHoldsAll));
}

// QUENOR_CRASH_FULL=1 in the environment: 3,000 forks.
TEST_P(FirstUseForkTest, ChildOfAForkAtAnyMomentGoesOn) {
  const char* const full = std::getenv("QUENOR_CRASH_FULL");
  EXPECT_EQ(0, BadEnds(full != nullptr && *full == '1' ? 300 : 20, When::kAtRandom));
}

INSTANTIATE_TEST_SUITE_P(Of, FirstUseForkTest, ::testing::ValuesIn(kParts),
                         [](const auto& part) { return std::string(part.param.name); });

}  // namespace
}  // namespace quenor::test
