// Scripts of --misbehave: what they select, what their actions add up to, what wrong lines say.
#include "collector/http/misbehaviour.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "collector/fatal.h"

namespace quenor::collector {
namespace {

Misbehaviour ScriptOf(const std::string& text, uint64_t seed = 0) {
  Misbehaviour script;
  script.AddText(text, "script");
  script.set_seed(seed);
  return script;
}

// Which of the first twelve requests a selector selects.
std::vector<int> SelectedBy(const std::string& selector) {
  const Misbehaviour script = ScriptOf(selector + ": status=503");
  std::vector<int> selected;
  for (int number = 1; number <= 12; ++number) {
    if (script.PlanFor(number).status == 503) selected.push_back(number);
  }
  return selected;
}

std::string ErrorOf(const std::string& text) {
  try {
    ScriptOf(text);
  } catch (const Fatal& fatal) {
    EXPECT_EQ(fatal.exit_code(), kExitUsage);
    return fatal.what();
  }
  return "accepted";
}

std::string Draws(const Misbehaviour& script, int count) {
  std::string draws;
  for (int number = 1; number <= count; ++number) {
    draws += script.PlanFor(number).words.empty() ? '.' : 'x';
  }
  return draws;
}

TEST(ScriptTest, WithoutOneEveryRequestIsServedAsUsual) {
  const Plan plan = Misbehaviour().PlanFor(1);

  EXPECT_EQ(plan.words, "");
  EXPECT_EQ(StatusOnRecord(plan), 200);
  EXPECT_EQ(Misbehaviour().ConnectionEnding(1).kind, EndKind::kNone);
}

TEST(ScriptTest, SelectorsSelectByNumber) {
  using Numbers = std::vector<int>;

  EXPECT_EQ(SelectedBy("3"), Numbers{3});
  EXPECT_EQ(SelectedBy("3-5"), (Numbers{3, 4, 5}));
  EXPECT_EQ(SelectedBy("from 11"), (Numbers{11, 12}));
  EXPECT_EQ(SelectedBy("every 4"), (Numbers{4, 8, 12}));
  EXPECT_EQ(SelectedBy("from 5 every 4"), (Numbers{8, 12}));
  EXPECT_EQ(SelectedBy("2-9 every 3"), (Numbers{3, 6, 9}));
  EXPECT_EQ(SelectedBy("all").size(), 12u);
  EXPECT_EQ(SelectedBy("chance 0"), Numbers{});
  EXPECT_EQ(SelectedBy("chance 1").size(), 12u);
}

TEST(ScriptTest, ChanceStrikesAboutAsOftenAsItSays) {
  const std::string draws = Draws(ScriptOf("chance 0.25: close", 3), 4'000);

  const auto struck = std::count(draws.begin(), draws.end(), 'x');
  EXPECT_GT(struck, 900);
  EXPECT_LT(struck, 1'100);
}

TEST(ScriptTest, ChanceRepeatsWithItsSeedAndDiffersWithAnother) {
  const std::string line = "chance 0.5: close";

  EXPECT_EQ(Draws(ScriptOf(line, 7), 64), Draws(ScriptOf(line, 7), 64));
  EXPECT_NE(Draws(ScriptOf(line, 7), 64), Draws(ScriptOf(line, 8), 64));
}

TEST(ScriptTest, TwoLinesDrawApart) {
  const Misbehaviour script = ScriptOf("chance 0.5: status=500\nchance 0.5: delay=1", 7);
  int apart = 0;
  for (int number = 1; number <= 64; ++number) {
    const Plan plan = script.PlanFor(number);
    apart += (plan.status == 500) != (plan.delay_ms == 1) ? 1 : 0;
  }

  EXPECT_GT(apart, 10);
}

TEST(ScriptTest, LinesAddUpAndTheLaterOneDecides) {
  const Misbehaviour script =
      ScriptOf("all: status=503 delay=2s\nevery 2: status=429 close=body+7\n4: hang");

  EXPECT_EQ(script.PlanFor(1).words, "status=503 delay=2s");
  EXPECT_EQ(script.PlanFor(2).words, "delay=2s status=429 close=body+7");
  EXPECT_EQ(script.PlanFor(2).delay_ms, 2'000u);
  EXPECT_EQ(script.PlanFor(2).status, 429);
  EXPECT_EQ(script.PlanFor(2).ending.place, Place::kBody);
  EXPECT_EQ(script.PlanFor(4).words, "delay=2s hang");
  EXPECT_EQ(script.PlanFor(4).ending.kind, EndKind::kHang);
  EXPECT_EQ(script.PlanFor(4).ending.place, Place::kAnswer);
}

TEST(ScriptTest, WordsTellOnlyWhatTakesEffect) {
  const auto words_of = [](const std::string& actions) {
    return ScriptOf("1: " + actions).PlanFor(1).words;
  };

  EXPECT_EQ(words_of("delay=1 status=503 close=request"), "close=request");
  EXPECT_EQ(words_of("delay=1 status=503 close"), "delay=1 close");
  EXPECT_EQ(words_of("delay=1 status=503 close=1"), "delay=1 status=503 close=1");
  EXPECT_EQ(words_of("delay=1 status=503 raw=x drip-body=1/1 drip-head=1/1 cut=end"),
            "delay=1 raw=x drip-body=1/1 cut=end");
}

TEST(ScriptTest, HeadersOfSeveralNamesAddUp) {
  const Plan plan = ScriptOf("all: header=\"A: 1\" header=B:2\nall: header=\"A:  3\"").PlanFor(1);

  const std::vector<std::pair<std::string, std::string>> expected = {{"B", "2"}, {"A", "3"}};
  EXPECT_EQ(plan.headers, expected);
}

TEST(ScriptTest, BlankLinesCommentsAndCarriageReturnsMeanNothing) {
  const Misbehaviour script =
      ScriptOf("\n  # all: hang\r\n\t1 : status=503 # close\r\n1: delay=1\r\n\n");

  EXPECT_EQ(script.PlanFor(1).words, "status=503 delay=1");
  EXPECT_EQ(script.PlanFor(2).words, "");
}

TEST(ScriptTest, TextTakesQuotesAndEscapes) {
  const auto text_of = [](const std::string& body) {
    return *ScriptOf("1: body=" + body).PlanFor(1).text;
  };

  EXPECT_EQ(text_of(R"({"a":"b"})"), R"({"a":"b"})");
  EXPECT_EQ(text_of(R"("two words # no comment")"), "two words # no comment");
  EXPECT_EQ(text_of(R"("\r\n\t\\\"\x00\xfF")"), std::string("\r\n\t\\\"\0\xff", 7));
  EXPECT_EQ(text_of("\"\""), "");
  EXPECT_EQ(text_of(""), "");
}

TEST(ScriptTest, ConnectionsAreSelectedApartFromRequests) {
  const Misbehaviour script =
      ScriptOf("connection 2: reset\nconnection every 3: refuse=unknown_ca");

  EXPECT_EQ(script.ConnectionEnding(1).kind, EndKind::kNone);
  EXPECT_EQ(script.ConnectionEnding(2).kind, EndKind::kReset);
  EXPECT_EQ(script.ConnectionEnding(3).kind, EndKind::kRefuse);
  EXPECT_EQ(script.ConnectionEnding(3).alert, 48);
  EXPECT_EQ(script.PlanFor(2).words, "");
  EXPECT_EQ(script.needs_tls(), "script:2");
}

TEST(ScriptTest, StatusOnRecordIsWhatASenderMayHaveSeen) {
  const std::vector<std::pair<std::string, int>> statuses = {
      {"delay=1", 200},
      {"status=503", 503},
      {"close", 0},
      {"hang", 0},
      {"close=11", 0},
      {"close=12", 200},
      {"close=body", 200},
      {"status=429 reset=body+3", 429},
      {"close=end", 200},
      {"hang=next", 200},
      {"reset=request", 0},
      {"hang=request+99999", 0},
      {"interim=100 close=36", 0},  // "HTTP/1.1 100 Continue" and two line ends are 25 bytes.
      {"interim=100 close=37", 200},
      {"interim=100*2 close=61", 0},
      {"interim=100*2 close=62", 200},
      {"raw=HTTP/1.1", 0},
      {"raw=\"HTTP/1.0 200\"", 200},
      {"raw=\"HTTP/1.0 200\" reset=11", 0},
      {"raw=\"HTTP/1.0 200\" reset=12", 200},
  };
  for (const auto& [actions, status] : statuses) {
    EXPECT_EQ(StatusOnRecord(ScriptOf("1: " + actions).PlanFor(1)), status) << actions;
  }
}

TEST(ScriptTest, WrongLinesAreNamedWithWhatToWrite) {
  struct Wrong {
    const char* text;
    const char* named;
    const char* advice;
  };
  const Wrong wrong[] = {
      {"1: statsu=503", "\"statsu\" is no action for a request", "status, delay, interim"},
      {"connection 1: status=503", "\"status\" is no action for a connection", "close, reset"},
      {"1: status=99", "\"status=99\"", "from 100 to 999"},
      {"1: status", "\"status\"", "status=CODE"},
      {"1: delay=1.5", "\"delay=1.5\"", "delay=250ms"},
      {"1: delay=86401s", "\"delay=86401s\"", "delay=250ms"},
      {"1: drip-body=0/1s", "\"drip-body=0/1s\"", "drip-body=1KiB/1s"},
      {"1: drip-head=5", "\"drip-head=5\"", "drip-head=1/100ms"},
      {"1: interim=200", "\"interim=200\"", "from 100 to 199"},
      {"1: interim=103*0", "\"interim=103*0\"", "interim=103*5"},
      {"1: header=x", "\"header=x\"", "Name: value"},
      {"1: pad-head=10MB", "\"pad-head=10MB\"", "10MiB"},
      {"1: body-size=forever", "\"body-size=forever\"", "endless"},
      {"1: body-file=/none/such", "\"body-file=/none/such\"", "one that can be read"},
      {"1: length=?", "\"length=?\"", "chunked"},
      {"1: length=", "\"length=\"", "chunked"},
      {"1: close=tail", "\"close=tail\"", "body+N"},
      {"1: close=end+1", "\"close=end+1\"", "body+N"},
      {"1: close=body-1", "\"close=body-1\"", "body+N"},
      {"connection 1: close=5", "\"close=5\"", "close alone"},
      {"connection 1: refuse=nobody", "\"refuse=nobody\"", "unknown_ca"},
      {"1: body=\"no end", "quoted value of \"body\"", "closing \""},
      {"1: body=\"a\"b", "no blank after body=\"a\"", "write one"},
      {"1: body=\\q", "\"\\q\" is no escape", "\\xHH"},
      {"1: body=\\x4", "\"\\x\" is no escape", "\\xHH"},
      {"1: close reset", "\"close\" and \"reset\" exclude each other", "one of them"},
      {"1: body=a raw=b", "\"body=a\" and \"raw=b\" exclude each other", "one of them"},
      {"1:", "nothing after the colon", "status=503"},
      {"1", "\"1\" does not select", "every N"},
      {"0: close", "\"0\" does not select", "every N"},
      {"5-3: close", "\"5-3\" does not select", "every N"},
      {"every: close", "\"every\" does not select", "every N"},
      {"every 0: close", "\"every 0\" does not select", "every N"},
      {"chance 1.5: close", "\"chance 1.5\" does not select", "0 to 1"},
      {"chance 0x1: close", "\"chance 0x1\" does not select", "0 to 1"},
      {"chance -1: close", "\"chance -1\" does not select", "0 to 1"},
      {"connection: close", "\"connection\" does not select", "connection"},
      {": close", "\"\" does not select", "every N"},
  };
  for (const Wrong& line : wrong) {
    const std::string error = ErrorOf("# first\nall: delay=1\n" + std::string(line.text));

    EXPECT_EQ(error.rfind("script:3: ", 0), 0u) << line.text << "\n" << error;
    EXPECT_NE(error.find(line.named), std::string::npos) << line.text << "\n" << error;
    EXPECT_NE(error.find(line.advice, error.find("; ")), std::string::npos) << error;
  }
}

TEST(ScriptTest, EachNumberIsTakenUpToItsBoundsAndNoFurther) {
  const std::string most_digits(18, '9');
  const std::string taken[] = {
      "1: status=100",
      "1: status=999",
      "1: interim=100",
      "1: interim=199",
      "1: interim=103*1",
      "1: interim=103*" + most_digits,
      "1: delay=0",
      "1: delay=86400s",
      "1: delay=86400000ms",
      "1: drip-head=1/0",
      "1: drip-body=1/86400s",
      "1: body-size=4294967296GiB",
      "1: pad-head=0",
      "chance 0: close",
      "chance 1.0: close",
      "1: close=body+" + most_digits,
      most_digits + ": close",
      "from 1: close",
      "every 1: close",
      "7-7: close",
      "1-" + most_digits + ": close",
  };
  const std::string refused[] = {
      "1: status=99",
      "1: status=1000",
      "1: interim=99",
      "1: interim=200",
      "1: interim=103*0",
      "1: interim=103*1" + most_digits,
      "1: delay=-1",
      "1: delay=86401s",
      "1: delay=86400001ms",
      "1: drip-head=0/0",
      "1: drip-body=1/86401s",
      "1: body-size=4294967297GiB",
      "1: pad-head=-1",
      "chance -0.1: close",
      "chance 1.000001: close",
      "1: close=body+1" + most_digits,
      "1" + most_digits + ": close",
      "from 0: close",
      "every 0: close",
      "7-6: close",
      "0-1: close",
  };
  for (const std::string& line : taken) EXPECT_EQ("accepted", ErrorOf(line)) << line;
  for (const std::string& line : refused) EXPECT_NE("accepted", ErrorOf(line)) << line;
}

TEST(ScriptTest, AScriptThatCannotBeReadIsNamed) {
  for (const char* path : {"/none/such", "/"}) {
    try {
      Misbehaviour().AddFile(path);
      ADD_FAILURE() << "accepted";
    } catch (const Fatal& fatal) {
      EXPECT_EQ(fatal.exit_code(), kExitNoInput);
      EXPECT_NE(std::string(fatal.what()).find(path + std::string(": ")), std::string::npos);
    }
  }
}

}  // namespace
}  // namespace quenor::collector
