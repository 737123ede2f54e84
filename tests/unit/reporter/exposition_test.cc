// The text that monitoring systems scrape: what it says, and that they accept it.
#include "quenor_base/reporter/exposition.h"

#include <gtest/gtest.h>

#include <clocale>
#include <string>

#include "tests/support/process.h"

namespace quenor::test {
namespace {

bool Has(const std::string& text, const std::string& line) {
  return ("\n" + text).find("\n" + line + "\n") != std::string::npos;
}

BooksEntry SomeBooks() {
  BooksEntry books;
  books.handed_over = 12;
  books.rejected = 3;
  books.dropped[static_cast<size_t>(ReportEventCause::kTrimmed)] = 2;
  books.refused[static_cast<size_t>(ReportEventCause::kNoServer)] = 1;
  books.failed_by_status[0] = 7;
  books.failed_by_status[5] = 4;
  books.failed_by_reason[static_cast<size_t>(HttpReason::kTlsExpired)] = 5;
  books.failed_by_reason[static_cast<size_t>(HttpReason::kHttpStatus)] = 11;
  books.latency[0] = 1;
  books.latency[14] = 2;
  books.latency[15] = 4;
  books.latency_sum_ms = 1024;
  books.last_failure_time = 1700000000;
  return books;
}

TEST(ExpositionTest, SaysWhatTheBooksHave) {
  const std::string text = Exposition({{"", BooksEntry()}, {"usage", SomeBooks()}});

  for (const char* const line : {
           R"(quenor_messages_ended_total{reporter="usage",end="rejected",cause=""} 3)",
           R"(quenor_messages_ended_total{reporter="usage",end="dropped",cause="trimmed"} 2)",
           R"(quenor_messages_ended_total{reporter="usage",end="refused",cause="no_server"} 1)",
           R"(quenor_attempts_failed_total{reporter="usage",reason="status_0xx"} 7)",
           R"(quenor_attempts_failed_total{reporter="usage",reason="status_5xx"} 4)",
           R"(quenor_attempts_failed_total{reporter="usage",reason="tls_expired"} 5)",
           R"(quenor_attempts_failed_total{reporter="",reason="status_5xx"} 0)",
           R"(quenor_delivery_seconds_bucket{reporter="usage",le="0.010"} 1)",
           R"(quenor_delivery_seconds_bucket{reporter="usage",le="86400.000"} 3)",
           R"(quenor_delivery_seconds_bucket{reporter="usage",le="+Inf"} 7)",
           R"(quenor_delivery_seconds_count{reporter="usage"} 7)",
           R"(quenor_delivery_seconds_sum{reporter="usage"} 1.024)",
           R"(quenor_last_failure_timestamp_seconds{reporter="usage"} 1700000000)",
       }) {
    EXPECT_TRUE(Has(text, line)) << line << "\n" << text;
  }
  EXPECT_EQ(text.find("reason=\"http_status\""), text.npos) << "it is counted by its hundreds";
  EXPECT_FALSE(Has(text, R"(quenor_attempts_failed_total{reporter="",reason="status_0xx"} 0)"));
}

// A name may have any byte but NUL; of two texts one that is no UTF-8 spoils both.
TEST(ExpositionTest, AnyNameIsALabelThatScrapersTake) {
  const struct {
    std::string name, label;
  } cases[] = {
      {"a\"b\\c\nd", R"(a\"b\\c\nd)"},
      {"gr\xc3\xbc\xc3\x9f \xe2\x82\xac \xf0\x9f\x93\xa6",
       "gr\xc3\xbc\xc3\x9f \xe2\x82\xac \xf0\x9f\x93\xa6"},
      {"gr\xfc\xdf", "gr%FC%DF"},
      {"cut \xe2\x82", "cut %E2%82"},
      {"\xc0\xaf \xe0\x80\xaf \xed\xa0\x80 \xf4\x90\x80\x80 \xff",
       "%C0%AF %E0%80%AF %ED%A0%80 %F4%90%80%80 %FF"},
  };
  for (const auto& one : cases) {
    const std::string text = Exposition({{one.name, BooksEntry()}});

    EXPECT_TRUE(Has(text, "quenor_attempts_total{reporter=\"" + one.label + "\"} 0")) << one.label;
  }
}

TEST(ExpositionTest, DoesNotHeedTheLocaleOfTheHost) {
  const std::string text = Exposition({{"", SomeBooks()}});
  for (const char* const locale : {"de_DE.UTF-8", "fr_FR.UTF-8", "C.UTF-8"}) {
    std::setlocale(LC_ALL, locale);  // If there is one.
    EXPECT_EQ(text, Exposition({{"", SomeBooks()}})) << locale;
  }
  std::setlocale(LC_ALL, "C");
}

TEST(ExpositionTest, IsAcceptedByWhoeverReadsIt) {
  const std::string text =
      Exposition({{"", BooksEntry()}, {"usage", SomeBooks()}, {"gr\xfc\xdf \"\n\\", SomeBooks()}});

  Process check({"python3", "-B", QUENOR_CHECK_METRICS}, Containing(text));

  EXPECT_EQ(0, check.Wait()) << check.out().Whole() << check.err().Whole();
}

}  // namespace
}  // namespace quenor::test
