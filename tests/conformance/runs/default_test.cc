// Every contract on the default of its service (the HTTP client's: http_client_default_test.cc).
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

namespace quenor::conformance {
namespace {

INSTANTIATE_TYPED_TEST_SUITE_P(Default, JsonConformance, base::JSONReader);
INSTANTIATE_TEST_SUITE_P(Default, TimerConformance, ::testing::Values(&MakeThreadedHost));
INSTANTIATE_TEST_SUITE_P(Default, DispatchQueueConformance, ::testing::Values(&MakeThreadedHost));
using CacheFiles = ::testing::Types<LinkedMmapFile, LinkedCacheFile>;
INSTANTIATE_TYPED_TEST_SUITE_P(Default, PacketFileConformance, CacheFiles);
INSTANTIATE_TYPED_TEST_SUITE_P(Default, MmapFileConformance, LinkedMmapFile);
INSTANTIATE_TYPED_TEST_SUITE_P(Default, CacheFileConformance, LinkedCacheFile);
INSTANTIATE_TYPED_TEST_SUITE_P(Default, ConfigCenterConformance, config::ConfigCenterImpl);
INSTANTIATE_TYPED_TEST_SUITE_P(Default, PathServiceConformance, base::PathService);
INSTANTIATE_TYPED_TEST_SUITE_P(Default, PathFoldersConformance, base::PathService);
INSTANTIATE_TYPED_TEST_SUITE_P(Default, ReportEventsConformance, ReportEvents);
INSTANTIATE_TYPED_TEST_SUITE_P(Default, ProxyConfigConformance, LinkedProxyConfig);
INSTANTIATE_TYPED_TEST_SUITE_P(Default, ThrotterConformance, LinkedThrotter);
INSTANTIATE_TYPED_TEST_SUITE_P(Default, LogConformance, LinkedLog);

// A table that shrank by accident would pass.
static_assert(std::size(kJsonToAccept) >= 95);
static_assert(std::size(kJsonToRefuse) >= 188);

TEST(DefaultServicesTest, NameTheirImplementations) {
  EXPECT_EQ(0u, std::string(base::JSONReader::ImplementationName()).find("RapidJSON "));
  EXPECT_STREQ("posix", MultiProcessSafetyMmapFile::ImplementationName());
  EXPECT_STREQ("posix", ReliableReportCacheFile::ImplementationName());
  EXPECT_STREQ("std", config::ConfigCenterImpl::ImplementationName());
  EXPECT_STREQ("posix", base::PathService::ImplementationName());
  EXPECT_STREQ("std", ReportEvents::ImplementationName());
  EXPECT_STREQ("std", Socks5ProxyConfigHolder::ImplementationName());
  EXPECT_STREQ("std", Throtter::ImplementationName());
  EXPECT_STREQ("stderr", LocalLogImplementationName());
}

}  // namespace
}  // namespace quenor::conformance
