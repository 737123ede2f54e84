// Every contract on what stands in for its service: on the fakes that the other tests see, and on a
// second, plain implementation of what they take the default for (plain_services.cc). What holds
// for the real ones holds for those. (The HTTP client's: http_client_fake_test.cc.)
#include <memory>

#include "tests/conformance/cache_file_conformance.h"
#include "tests/conformance/config_center_conformance.h"
#include "tests/conformance/json_conformance.h"
#include "tests/conformance/log_conformance.h"
#include "tests/conformance/mmap_file_conformance.h"
#include "tests/conformance/path_service_conformance.h"
#include "tests/conformance/proxy_config_conformance.h"
#include "tests/conformance/report_events_conformance.h"
#include "tests/conformance/throtter_conformance.h"
#include "tests/conformance/timer_conformance.h"
#include "tests/support/fakes/virtual_time.h"

namespace quenor::conformance {
namespace {

class VirtualHost : public QueueHost {
 public:
  bool WaitFor(Gate& gate) override {
    time_.RunUntilIdle();
    for (int ms = 0; ms < 60000 && !gate.IsOpen(); ++ms) {
      time_.AdvanceBy(base::TimeDelta::FromMilliseconds(1));
    }
    return gate.IsOpen();
  }

 private:
  test::VirtualTime time_;
};

std::unique_ptr<QueueHost> MakeVirtualHost() { return std::make_unique<VirtualHost>(); }

struct VirtualThrotter {
  // Each throttle of the suite brings the clock that it reads, if there is none yet.
  class Type {
   public:
    explicit Type(uint32_t period_ms)
        : time_(test::VirtualTime::Current() == nullptr ? std::make_unique<test::VirtualTime>()
                                                        : nullptr),
          throtter_(period_ms) {}
    bool ShouldGo() { return throtter_.ShouldGo(); }

   private:
    const std::unique_ptr<test::VirtualTime> time_;
    Throtter throtter_;
  };
  static void LetTimePass() {
    test::VirtualTime::Current()->AdvanceBy(base::TimeDelta::FromMicroseconds(100));
  }
};

INSTANTIATE_TYPED_TEST_SUITE_P(Fake, JsonConformance, base::JSONReader);
// The timers are the default's: what is faked is the queue that they run on.
INSTANTIATE_TEST_SUITE_P(Fake, TimerConformance, ::testing::Values(&MakeVirtualHost));
INSTANTIATE_TEST_SUITE_P(Fake, DispatchQueueConformance, ::testing::Values(&MakeVirtualHost));
using CacheFiles = ::testing::Types<LinkedMmapFile, LinkedCacheFile>;
INSTANTIATE_TYPED_TEST_SUITE_P(Fake, PacketFileConformance, CacheFiles);
INSTANTIATE_TYPED_TEST_SUITE_P(Fake, MmapFileConformance, LinkedMmapFile);
INSTANTIATE_TYPED_TEST_SUITE_P(Fake, CacheFileConformance, LinkedCacheFile);
INSTANTIATE_TYPED_TEST_SUITE_P(Fake, ConfigCenterConformance, config::ConfigCenterImpl);
INSTANTIATE_TYPED_TEST_SUITE_P(Fake, PathServiceConformance, base::PathService);
// The fake's folders are in memory, with no file system to agree with.
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(PathFoldersConformance);
INSTANTIATE_TYPED_TEST_SUITE_P(Fake, ReportEventsConformance, ReportEvents);
INSTANTIATE_TYPED_TEST_SUITE_P(Fake, ProxyConfigConformance, LinkedProxyConfig);
INSTANTIATE_TYPED_TEST_SUITE_P(Fake, ThrotterConformance, VirtualThrotter);
INSTANTIATE_TYPED_TEST_SUITE_P(Fake, LogConformance, LinkedLog);

}  // namespace
}  // namespace quenor::conformance
