// GET /metrics: what was refused is counted by its reason, and scrapers accept the text.

#include <gtest/gtest.h>

#include <string>

#include "tests/collector/support/child.h"
#include "tests/collector/support/raw_http.h"
#include "tests/support/temp_folder.h"

namespace quenor::collector::test {
namespace {

using quenor::test::Containing;
using quenor::test::Process;

std::string RequestOf(const std::string& headers, const std::string& body = "",
                      const std::string& method = "POST") {
  return method + " /x HTTP/1.1\r\nHost: h\r\n" + headers + "\r\n" + body;
}

TEST(MetricsTest, CountsWhatIsStoredAndWhatIsRefusedByItsReason) {
  const TempFolder dir;
  Collector collector(dir / "", Collector::Transport::kPlain,
                      {"--max-body", "1000", "--head-timeout", "1", "--body-timeout", "1",
                       "--misbehave", "2: status=503"});
  const auto client = collector.NewClient();
  for (const int status : {200, 503, 200, 200}) ASSERT_EQ(status, Post(*client, "body"));
  ASSERT_EQ(200, Post(*client, "another"));
  for (const std::string& request : {
           RequestOf("Content-Length : 2\r\n", "ab"),
           "GET /" + std::string(9000, 'x') + " HTTP/1.1\r\n\r\n",
           RequestOf("X: " + std::string(9000, 'x') + "\r\n"),
           std::string("POST /x HTTP/1.1\r\nHost"),
           RequestOf("", "", "PUT"),
           RequestOf("Transfer-Encoding: gzip\r\n"),
           RequestOf("Content-Length: 2000\r\nExpect: 100-continue\r\n"),
           RequestOf("Content-Length: 2000\r\nConnection: close\r\n", std::string(2000, 'x')),
           RequestOf("Transfer-Encoding: chunked\r\n", "zz\r\n"),
           RequestOf("Content-Length: 2\r\n", "a"),
       }) {
    Exchange(collector.port(), request);
  }

  const httplib::Result answer = client->Get("/metrics");

  ASSERT_TRUE(answer);
  EXPECT_EQ("text/plain; version=0.0.4; charset=utf-8", answer->get_header_value("Content-Type"));
  for (const char* const line : {
           R"(requests_total{status="200"} 4)",
           R"(requests_total{status="503"} 1)",
           R"(refused_total{part="head",status="400"} 1)",
           R"(refused_total{part="head",status="405"} 1)",
           R"(refused_total{part="head",status="408"} 1)",
           R"(refused_total{part="head",status="413"} 1)",
           R"(refused_total{part="head",status="414"} 1)",
           R"(refused_total{part="head",status="431"} 1)",
           R"(refused_total{part="head",status="501"} 1)",
           R"(refused_total{part="body",status="400"} 1)",
           R"(refused_total{part="body",status="408"} 1)",
           R"(refused_total{part="body",status="413"} 1)",
           R"(refused_total{part="record",status="500"} 0)",
           "reports_stored_total 4",
           "reports_repeated_total 2",
           "report_bytes_total 19",
           "incomplete_total 1",
           "misbehaved_total 1",
           "connections_total 11",
           "connections_open ",
           "uptime_seconds ",
           "build_info{version=\"",
       }) {
    const std::string whole = line;
    const std::string end = whole.back() >= '0' && whole.back() <= '9' ? "\n" : "";
    EXPECT_NE(std::string::npos, answer->body.find("\nquenor_collector_" + whole + end))
        << line << "\n"
        << answer->body;
  }
  Process check({"python3", "-B", QUENOR_CHECK_METRICS}, Containing(answer->body));
  EXPECT_EQ(0, check.Wait()) << check.out().Whole() << check.err().Whole();
}

TEST(MetricsTest, WhatCannotBePutOnRecordIsCountedAsThat) {
  const TempFolder dir;
  Collector collector(dir / "", Collector::Transport::kPlain, {"--log", "/dev/full"});
  const auto client = collector.NewClient();

  ASSERT_EQ(500, Post(*client, "body"));

  const std::string text = client->Get("/metrics")->body;
  EXPECT_NE(std::string::npos, text.find(R"(refused_total{part="record",status="500"} 1)")) << text;
  EXPECT_NE(std::string::npos, text.find(R"(requests_total{status="500"} 1)")) << text;
  EXPECT_NE(std::string::npos, text.find("reports_stored_total 0")) << text;
}

}  // namespace
}  // namespace quenor::collector::test
