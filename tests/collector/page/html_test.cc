// What the page looks like as text: escapes, numbers, what is red.
#include "collector/page/html/html.h"

#include <gtest/gtest.h>

#include <string>

#include "collector/page/html/pages.h"
#include "collector/page/html/tables.h"

namespace quenor::collector {
namespace {

constexpr char kHostile[] = "<script>alert('\"&')</script>\n";
constexpr char kHarmless[] = "&lt;script&gt;alert(&#39;&quot;&amp;&#39;)&lt;/script&gt; ";

bool Has(const std::string& html, const std::string& part) {
  return html.find(part) != std::string::npos;
}

TEST(HtmlTest, TextStaysText) {
  EXPECT_EQ(Escape(kHostile), kHarmless);
  EXPECT_EQ(Escape("a\r\nb"), "a  b") << "an event is a line";
}

TEST(HtmlTest, Numbers) {
  EXPECT_EQ(CountText(0), "0");
  EXPECT_EQ(CountText(999), "999");
  EXPECT_EQ(CountText(1'000), "1,000");
  EXPECT_EQ(CountText(1'234'567), "1,234,567");
  EXPECT_EQ(SizeText(1023), "1023 B");
  EXPECT_EQ(SizeText(1536), "1.5 KiB");
  EXPECT_EQ(SizeText(500 * 1024 * 1024), "500 MiB");
  EXPECT_EQ(SizeText(UINT64_MAX), "16777216 TiB");
  EXPECT_EQ(RateText(0), "0/s");
  EXPECT_EQ(RateText(0.25), "0.2/s");
  EXPECT_EQ(RateText(1234.5), "1,235/s");
  EXPECT_EQ(PercentText(0.1234), "12.3 %");
  EXPECT_EQ(TookText(std::nullopt), "-");
  EXPECT_EQ(TookText(Quantile{0.0031, false}), "3.1 ms");
  EXPECT_EQ(TookText(Quantile{1.5, false}), "1.5 s");
  EXPECT_EQ(TookText(Quantile{20, true}), "> 20.0 s");
}

TEST(HtmlTest, CellSaysWhatItIsAndWhetherItIsBad) {
  EXPECT_EQ(Table("t", {"a", "b", "c", "d"}).Finish().rfind("<table class=\"wide\">", 0), 0u);
  Table table("all & some", {"a", "b", "c"});
  table.AddRow({{"1"}, {"2", true}, {"3"}});
  table.AddRow({{"4"}, {"5", true, true}});

  EXPECT_EQ(table.Finish(),
            "<table><caption>all &amp; some</caption><thead><tr><th scope=\"col\">a</th>"
            "<th scope=\"col\">b</th><th scope=\"col\">c</th></tr></thead><tbody>\n"
            "<tr><td data-head=\"a\">1</td><td data-head=\"b\" class=\"bad\">2</td>"
            "<td data-head=\"c\">3</td></tr>\n"
            "<tr><td data-head=\"a\">4</td><td data-head=\"b\" class=\"bad\" colspan=\"2\">5</td>"
            "</tr>\n</tbody></table>\n");
}

// Whatever a collector, a node or the store may say.
Overview Hostile() {
  Overview overview;
  overview.problems = {kHostile};
  CollectorRow collector;
  collector.url = collector.state = kHostile;
  overview.collectors = {collector};
  collector.problem = kHostile;
  overview.collectors.push_back(collector);
  NodeRow node;
  node.node.url = node.node.leader = node.problem = kHostile;
  overview.nodes = {node};
  node.answers = true;
  overview.nodes.push_back(node);
  overview.store.control_problem = kHostile;
  return overview;
}

TEST(HtmlTest, NothingThatIsShownIsMarkup) {
  const FieldChange change{kHostile, kHostile, kHostile};
  const FormValues values{7, {{"capacity", kHostile}, {"policy", kHostile}}, kHostile, ""};
  const FormValues none{7, {}, kHostile, kHostile};
  for (const std::string& html :
       {TablesOf(Hostile()), MainPage(kHostile, kHostile, "", values), MainPage("", "", "", none),
        FormPage(kHostile, kHostile, values), ConfirmPage(values, {change}, true),
        DonePage(7, {change}), MessagePage(kHostile, kHostile)}) {
    EXPECT_FALSE(Has(html, "<script>")) << html;
    EXPECT_TRUE(Has(html, kHarmless)) << html;
  }
  Overview silent;
  silent.store.problem = kHostile;
  EXPECT_FALSE(Has(TablesOf(silent), "<script>"));
  EXPECT_FALSE(Has(TablesOf(silent), "nothing is set")) << "nobody knows";
}

TEST(HtmlTest, WhatIsWrongStandsFirst) {
  Overview overview;
  overview.store.problem.clear();
  EXPECT_EQ(TablesOf(overview).rfind("<p class=\"good\">All is well.", 0), 0u);
  overview.problems = {"a is silent", "b, too"};
  EXPECT_EQ(TablesOf(overview).rfind("<div class=\"bad\" role=\"status\"><p>2 problems", 0), 0u);
}

TEST(HtmlTest, FiguresStandInTheirTables) {
  Overview overview;
  overview.store.problem.clear();
  overview.store.bytes = 512;
  overview.store.max_bytes = 1024;
  overview.store.replicas = 3;
  overview.store.control.revision = 12;
  overview.fill = 0.5;
  overview.reader_lag = 4'321;
  overview.traffic.per_second = 17'000;
  overview.answers[503] = {2.5, 99};
  CollectorRow collector;
  collector.state = "stalled";
  collector.control_revision = 11;
  collector.has_other_control = true;
  overview.collectors = {collector};
  const std::string html = TablesOf(overview);

  for (const char* part : {">17,000/s<", "class=\"bad\">2.5/s<", ">4,321<", ">512 B of 1.0 KiB<",
                           "data-head=\"replicas\">3<", ">50.0 %<", "class=\"bad\">stalled<",
                           "class=\"bad\">revision 11<", "Control: revision 12"}) {
    EXPECT_TRUE(Has(html, part)) << part;
  }
}

TEST(HtmlTest, TimeIsNoneOfWhatIsShownAnew) {
  const std::string page = MainPage("S", "12:00:00", "the tables", {7, {}, "t", ""});

  EXPECT_TRUE(Has(page, "<time id=\"time\">12:00:00</time></p>\n<main id=\"tables\">\nthe tables"));
}

TEST(HtmlTest, FormIsThereOnlyWhereWhatIsSetIsKnown) {
  const FormValues values{0, {{"capacity", "5000"}}, "t", ""};
  EXPECT_TRUE(Has(MainPage("S", "", "", values), "<form "));

  FormValues unknown = values;
  unknown.problem = "the store does not answer";
  const std::string page = MainPage("S", "", "", unknown);
  EXPECT_FALSE(Has(page, "<form ")) << "it would offer defaults as if they were set";
  EXPECT_TRUE(Has(page, "not known: the store does not answer. "));
}

}  // namespace
}  // namespace quenor::collector
