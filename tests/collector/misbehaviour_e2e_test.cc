// Scripts of --misbehave on plain connections, as a sender sees them and as the record shows them.

#include <gtest/gtest.h>
#include <signal.h>

#include <string>
#include <thread>
#include <vector>

#include "tests/collector/support/child.h"
#include "tests/collector/support/raw_http.h"
#include "tests/collector/support/record.h"
#include "tests/support/temp_folder.h"

namespace quenor::collector::test {
namespace {

using Arguments = std::vector<std::string>;

constexpr char kReply[] = R"({"bytes_errinfo":"success"})";
constexpr char kPost[] = "POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 1\r\n\r\nx";
// The server closes when it has answered this one.
constexpr char kLastPost[] =
    "POST / HTTP/1.1\r\nHost: x\r\nConnection: close\r\nContent-Length: 1\r\n\r\nx";

std::string HeadOf(const std::string& answer) {
  return answer.substr(0, answer.find("\r\n\r\n") + 4);
}

std::string BodyOf(const std::string& answer) { return answer.substr(HeadOf(answer).size()); }

bool Has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

class MisbehaviourTest : public ::testing::Test {
 protected:
  Arguments Recording(Arguments arguments) const {
    for (const std::string& word :
         {std::string("--log"), dir_ / "log", std::string("--out"), dir_ / "out"}) {
      arguments.push_back(word);
    }
    return arguments;
  }

  std::vector<int> LoggedStatuses() {
    std::vector<int> statuses;
    for (const auto& line : ReadLog(dir_ / "log")) statuses.push_back(line["status"].GetInt());
    return statuses;
  }

  // The statuses of `count` posts, one after the other, on one client.
  static std::vector<int> PostMany(Collector& collector, int count) {
    const auto client = collector.NewClient();
    std::vector<int> statuses;
    for (int i = 0; i < count; ++i) statuses.push_back(Post(*client, std::to_string(i)));
    return statuses;
  }

  struct Observed {
    std::string bytes;
    bool was_reset = false;
  };

  // Everything that comes for `request` until the connection ends.
  Observed Observe(const std::string& line, const std::string& request = kLastPost) {
    Collector collector(dir_ / "", Collector::Transport::kPlain, {"--misbehave", line});
    RawClient client(collector.port());
    client.Send(request);
    Observed observed;
    observed.bytes = client.ReadAll();
    observed.was_reset = client.was_reset();
    const Ended ended = collector.Stop();
    EXPECT_EQ(ended.exit_code, 0) << ended.err;
    return observed;
  }

  TempFolder dir_;
};

// ---- Statuses and the record -------------------------------------------------------------------

TEST_F(MisbehaviourTest, RefusalsAreLoggedButNotFiled) {
  Collector collector(dir_ / "", Collector::Transport::kTls,
                      Recording({"--misbehave", "every 3: status=503"}));
  const std::vector<int> expected = {200, 200, 503, 200, 200, 503, 200};

  EXPECT_EQ(PostMany(collector, 7), expected);

  EXPECT_EQ(LoggedStatuses(), expected);
  EXPECT_EQ(FileNames(dir_ / "out").size(), 5u);
  EXPECT_EQ(collector.Stop().out, "requests=7 accepted=5 failed=2 distinct=5 bytes=5\n");
}

TEST_F(MisbehaviourTest, LogAndStatsSayWhatWasDone) {
  Collector collector(dir_ / "", Collector::Transport::kTls,
                      Recording({"--misbehave", "all: delay=1\n2: status=429"}));

  EXPECT_EQ(PostMany(collector, 2), (std::vector<int>{200, 429}));

  const auto log = ReadLog(dir_ / "log");
  ASSERT_EQ(log.size(), 2u);
  EXPECT_STREQ(log[0]["misbehaviour"].GetString(), "delay=1");
  EXPECT_STREQ(log[1]["misbehaviour"].GetString(), "delay=1 status=429");
  EXPECT_TRUE(Has(collector.NewClient()->Get("/stats")->body, R"("misbehaved":2,)"));
}

TEST_F(MisbehaviourTest, UntouchedRequestsAreLoggedWithoutTheMember) {
  Collector collector(dir_ / "", Collector::Transport::kTls,
                      Recording({"--misbehave", "2: status=429"}));

  EXPECT_EQ(PostMany(collector, 1), std::vector<int>{200});

  EXPECT_FALSE(ReadLog(dir_ / "log")[0].HasMember("misbehaviour"));
}

TEST_F(MisbehaviourTest, ScriptsCountTheRequestsOfTheirOwnRun) {
  const Arguments arguments = Recording({"--misbehave", "2: status=503"});
  for (int run = 0; run < 2; ++run) {
    Collector collector(dir_ / "", Collector::Transport::kTls, arguments);
    EXPECT_EQ(PostMany(collector, 3), (std::vector<int>{200, 503, 200})) << run;
    collector.Stop();
  }

  EXPECT_EQ(LoggedStatuses(), (std::vector<int>{200, 503, 200, 200, 503, 200}));
}

TEST_F(MisbehaviourTest, StatusCarriesTheUsualReply) {
  Collector collector(dir_ / "", Collector::Transport::kTls, {"--misbehave", "all: status=202"});

  const httplib::Result result = collector.NewClient()->Post("/", "x", "text/plain");

  ASSERT_TRUE(result);
  EXPECT_EQ(result->status, 202);
  EXPECT_EQ(result->body, kReply);
  EXPECT_EQ(collector.Stop().out, "requests=1 accepted=0 failed=1 distinct=0 bytes=0\n");
}

TEST_F(MisbehaviourTest, NoContentReallyHasNone) {
  Collector collector(dir_ / "", Collector::Transport::kTls, {"--misbehave", "all: status=204"});

  EXPECT_EQ(PostMany(collector, 2), (std::vector<int>{204, 204}));
}

TEST_F(MisbehaviourTest, WhatCannotBeRecordedIsNotAcknowledged) {
  for (const char* line : {"9: close", "all: body=x"}) {
    Collector collector(dir_ / "", Collector::Transport::kTls,
                        {"--log", "/dev/full", "--misbehave", line});

    EXPECT_EQ(PostMany(collector, 1), std::vector<int>{500});

    EXPECT_TRUE(Has(collector.NewClient()->Get("/stats")->body, R"("misbehaved":0,)"));
    const Ended ended = collector.Stop();
    EXPECT_EQ(ended.out, "requests=1 accepted=0 failed=1 distinct=0 bytes=0\n");
    EXPECT_TRUE(Has(ended.err, "/dev/full"));
  }
}

TEST_F(MisbehaviourTest, ARequestRefusedForItsSizeIsRefusedWhateverTheScriptSays) {
  Collector collector(dir_ / "", Collector::Transport::kTls,
                      Recording({"--max-body", "3", "--misbehave", "all: status=201"}));

  EXPECT_EQ(Post(*collector.NewClient(), "four"), 413);

  EXPECT_FALSE(ReadLog(dir_ / "log")[0].HasMember("misbehaviour"));
}

// ---- Heads -------------------------------------------------------------------------------------

TEST_F(MisbehaviourTest, HeadersAreAddedAndTheTypeIsReplaced) {
  const std::string head = HeadOf(
      Observe(R"(all: status=307 header="Location: /b" header="content-type: text/html")").bytes);

  EXPECT_EQ(head.rfind("HTTP/1.1 307 Temporary Redirect\r\n", 0), 0u) << head;
  EXPECT_TRUE(Has(head, "\r\nLocation: /b\r\n")) << head;
  EXPECT_TRUE(Has(head, "\r\ncontent-type: text/html\r\n")) << head;
  EXPECT_FALSE(Has(head, "application/json")) << head;
}

TEST_F(MisbehaviourTest, ARedirectedPostArrivesTwice) {
  Collector collector(dir_ / "", Collector::Transport::kPlain,
                      Recording({"--misbehave", "1: status=308 header=Location:/there"}));
  const auto client = collector.NewClient();
  client->set_follow_location(true);

  EXPECT_EQ(Post(*client, "body"), 200);

  const auto log = ReadLog(dir_ / "log");
  ASSERT_EQ(log.size(), 2u);
  EXPECT_STREQ(log[1]["path"].GetString(), "/there");
}

TEST_F(MisbehaviourTest, InterimAnswersComeBeforeTheAnswer) {
  const std::string answer = Observe("all: interim=103*3").bytes;

  const std::string interim = "HTTP/1.1 103 Early Hints\r\n\r\n";
  EXPECT_EQ(answer.rfind(interim + interim + interim + "HTTP/1.1 200 OK\r\n", 0), 0u) << answer;
  EXPECT_EQ(BodyOf(answer.substr(3 * interim.size())), kReply);
}

TEST_F(MisbehaviourTest, HeadsOfTenMebibytesAreFollowedByTheBody) {
  const std::string answer = Observe("all: pad-head=10MiB").bytes;

  EXPECT_GE(HeadOf(answer).size(), 10u << 20);
  EXPECT_LT(HeadOf(answer).size(), (10u << 20) + 4096);
  EXPECT_EQ(BodyOf(answer), kReply);
}

TEST_F(MisbehaviourTest, RawReplacesTheWholeAnswer) {
  EXPECT_EQ(Observe(R"(all: raw="SSH-2.0-x\r\n")").bytes, "SSH-2.0-x\r\n");
  ASSERT_TRUE(WriteWholeFile(dir_ / "raw", std::string("\0\r\n\r\n", 5)));
  EXPECT_EQ(Observe("all: raw-file=" + dir_ / "raw").bytes, std::string("\0\r\n\r\n", 5));
}

// ---- Bodies ------------------------------------------------------------------------------------

TEST_F(MisbehaviourTest, BodiesAreLiteralOrFromAFile) {
  const std::string literal = Observe(R"(all: body="\x1f\"no json")").bytes;
  ASSERT_TRUE(WriteWholeFile(dir_ / "body", "from a file\n"));
  const std::string from_file = Observe("all: body-file=" + dir_ / "body").bytes;

  EXPECT_EQ(BodyOf(literal), "\x1f\"no json");
  EXPECT_TRUE(Has(HeadOf(literal), "\r\nContent-Length: 9\r\n")) << literal;
  EXPECT_EQ(BodyOf(from_file), "from a file\n");
}

TEST_F(MisbehaviourTest, RubbishWithAStatusOfSuccessIsAccepted) {
  Collector collector(dir_ / "", Collector::Transport::kTls, {"--misbehave", "all: body=<html>"});

  EXPECT_EQ(PostMany(collector, 1), std::vector<int>{200});

  EXPECT_EQ(collector.Stop().out, "requests=1 accepted=1 failed=0 distinct=1 bytes=1\n");
}

TEST_F(MisbehaviourTest, GzipLabelledRubbishIsTheSameForTheSameSeed) {
  std::vector<std::string> bodies;
  for (const char* seed : {"1", "1", "2"}) {
    Collector collector(
        dir_ / "", Collector::Transport::kPlain,
        {"--seed", seed, "--misbehave", "all: header=Content-Encoding:gzip body-size=100KiB"});
    const std::string answer = Exchange(collector.port(), kLastPost);
    EXPECT_TRUE(Has(HeadOf(answer), "\r\nContent-Encoding: gzip\r\n"));
    bodies.push_back(BodyOf(answer));
  }

  EXPECT_EQ(bodies[0].size(), 100u << 10);
  EXPECT_EQ(bodies[0], bodies[1]);
  EXPECT_NE(bodies[0], bodies[2]);
}

TEST_F(MisbehaviourTest, HugeBodiesComeWhole) {
  const std::string answer = Observe("all: body-size=64MiB").bytes;

  EXPECT_TRUE(Has(HeadOf(answer), "\r\nContent-Length: 67108864\r\n"));
  EXPECT_EQ(BodyOf(answer).size(), 64u << 20);
}

TEST_F(MisbehaviourTest, EndlessBodiesGoOnUntilTheClientLeavesOrTheServerStops) {
  for (const char* length : {"", " length=chunked", " length=5"}) {
    Collector collector(dir_ / "", Collector::Transport::kPlain,
                        {"--misbehave", std::string("all: body-size=endless") + length});
    {
      RawClient leaves(collector.port());
      leaves.Send(kPost);
      EXPECT_EQ(leaves.Read(8 << 20).size(), 8u << 20);
    }
    RawClient stays(collector.port());
    stays.Send(kPost);
    EXPECT_EQ(stays.Read(1 << 20).size(), 1u << 20);

    collector.child().Signal(SIGTERM);
    stays.ReadAll();
    const Ended ended = collector.child().Wait();

    EXPECT_EQ(ended.exit_code, 0) << ended.err;
    EXPECT_EQ(ended.out, "requests=2 accepted=2 failed=0 distinct=1 bytes=2\n") << length;
  }
}

TEST_F(MisbehaviourTest, WrongLengthsAreAnnounced) {
  const std::vector<std::pair<std::string, std::string>> announced = {
      {"+10", "37"}, {"-7", "20"}, {"-1000", "0"}, {"5", "5"}, {"1GiB", "1073741824"}};
  for (const auto& [length, number] : announced) {
    const std::string answer = Observe("all: length=" + length + " close=end", kPost).bytes;

    EXPECT_TRUE(Has(HeadOf(answer), "\r\nContent-Length: " + number + "\r\n")) << answer;
    EXPECT_EQ(BodyOf(answer), kReply);
  }
}

TEST_F(MisbehaviourTest, WithoutALengthTheEndOfTheConnectionEndsTheBody) {
  const Observed observed = Observe("all: length=none", kPost);

  EXPECT_FALSE(Has(observed.bytes, "Content-Length")) << observed.bytes;
  EXPECT_FALSE(Has(observed.bytes, "Transfer-Encoding")) << observed.bytes;
  EXPECT_EQ(BodyOf(observed.bytes), kReply);
  EXPECT_FALSE(observed.was_reset);
}

TEST_F(MisbehaviourTest, ChunkedBodiesAreWellFormed) {
  const std::string answer = Observe("all: length=chunked").bytes;

  EXPECT_TRUE(Has(HeadOf(answer), "\r\nTransfer-Encoding: chunked\r\n")) << answer;
  EXPECT_FALSE(Has(answer, "Content-Length")) << answer;
  EXPECT_EQ(BodyOf(answer), std::string("1b\r\n") + kReply + "\r\n0\r\n\r\n");
}

TEST_F(MisbehaviourTest, ChunkedRubbishIsALiteralBodyUnderTheHeader) {
  const std::string answer =
      Observe(R"(all: length=none header=Transfer-Encoding:chunked body="zz\r\nhm")", kPost).bytes;

  EXPECT_TRUE(Has(HeadOf(answer), "\r\nTransfer-Encoding: chunked\r\n")) << answer;
  EXPECT_EQ(BodyOf(answer), "zz\r\nhm");
}

// ---- Pace --------------------------------------------------------------------------------------

TEST_F(MisbehaviourTest, DelayIsCutShortByTheEndAndTheReplyStillGoesOut) {
  Collector collector(dir_ / "", Collector::Transport::kTls,
                      {"--misbehave", "all: delay=86400s", "--log", "-"});
  const auto client = collector.NewClient();
  int status = -1;
  std::thread delayed([&] { status = Post(*client, "body"); });

  const std::string line = collector.child().ReadLine().value_or("");
  const Ended ended = collector.Stop();
  delayed.join();

  EXPECT_EQ(ParseObject(line)["status"].GetInt(), 200);
  EXPECT_EQ(status, 200);
  EXPECT_EQ(ended.exit_code, 0) << ended.err;
  EXPECT_EQ(ended.out, "requests=1 accepted=1 failed=0 distinct=1 bytes=4\n");
}

TEST_F(MisbehaviourTest, ShortDelaysAndDripsAreAnsweredWhole) {
  Collector collector(dir_ / "", Collector::Transport::kTls,
                      {"--misbehave", "all: delay=1 drip-head=7/0 drip-body=1/1ms"});

  EXPECT_EQ(PostMany(collector, 3), (std::vector<int>{200, 200, 200}));
}

TEST_F(MisbehaviourTest, DripsSendSoManyBytesAtATime) {
  struct Case {
    const char* action;
    size_t body_bytes;  // That come before the first pause; 0: only bytes of the head do.
  };
  for (const Case& drip : {Case{"drip-head=20/86400s", 0}, Case{"drip-body=5/86400s", 5}}) {
    Collector collector(dir_ / "", Collector::Transport::kPlain,
                        {"--misbehave", std::string("all: ") + drip.action});
    RawClient client(collector.port());
    client.Send(kLastPost);

    std::string answer = drip.body_bytes == 0 ? client.Read(20) : client.ReadThrough("\r\n\r\n");
    answer += client.Read(drip.body_bytes);
    // Round trips give what should not come the time to come.
    const auto other = collector.NewClient();
    for (int i = 0; i < 20; ++i) ASSERT_TRUE(other->Get("/healthz"));
    EXPECT_EQ(client.ReadWhatIsThere(), "") << drip.action;
    collector.child().Signal(SIGTERM);
    answer += client.ReadAll();

    EXPECT_EQ(BodyOf(answer), kReply) << drip.action;
    EXPECT_EQ(collector.child().Wait().exit_code, 0);
  }
}

// ---- Endings -----------------------------------------------------------------------------------

TEST_F(MisbehaviourTest, AnswersEndAtTheirOffset) {
  const std::string whole = Observe("all: delay=0").bytes;
  const std::string head = HeadOf(whole);
  ASSERT_GT(whole.size(), 20u);
  struct Case {
    const char* place;
    std::string left;
  };
  for (const Case& end :
       {Case{"", ""}, Case{"=0", ""}, Case{"=1", "H"}, Case{"=20", whole.substr(0, 20)},
        Case{"=body", head}, Case{"=body+7", head + std::string(kReply).substr(0, 7)},
        Case{"=99999", whole}, Case{"=end", whole}}) {
    for (const char* kind : {"close", "cut", "reset"}) {
      const Observed observed = Observe("all: " + (kind + std::string(end.place)));

      EXPECT_EQ(observed.bytes, end.left) << kind << end.place;
      EXPECT_EQ(observed.was_reset, kind == std::string("reset")) << kind << end.place;
    }
  }
}

TEST_F(MisbehaviourTest, AResetComesAfterAllThatWasSentBeforeIt) {
  const Observed observed = Observe("all: body-size=20MiB reset=body+8MiB");

  EXPECT_EQ(BodyOf(observed.bytes).size(), 8u << 20);
  EXPECT_TRUE(observed.was_reset);
}

TEST_F(MisbehaviourTest, RequestsWithoutAStatusAreLoggedButNotFiled) {
  Collector collector(dir_ / "", Collector::Transport::kTls,
                      Recording({"--misbehave", "every 2: close"}));

  EXPECT_EQ(PostMany(collector, 4), (std::vector<int>{200, 0, 200, 0}));

  EXPECT_EQ(LoggedStatuses(), (std::vector<int>{200, 0, 200, 0}));
  EXPECT_EQ(FileNames(dir_ / "out").size(), 2u);
}

TEST_F(MisbehaviourTest, ATruncatedSuccessIsOnRecord) {
  Collector collector(dir_ / "", Collector::Transport::kPlain,
                      Recording({"--misbehave", "all: reset=15"}));

  Exchange(collector.port(), kPost);

  EXPECT_EQ(LoggedStatuses(), std::vector<int>{200});
  EXPECT_EQ(FileNames(dir_ / "out").size(), 1u);
}

TEST_F(MisbehaviourTest, RequestsAreCutOffBeforeOrInTheirBody) {
  const std::string head = "POST /cut HTTP/1.1\r\nHost: x\r\nContent-Length: 1000\r\n\r\n";
  struct Case {
    const char* ending;
    std::string request;
    int size;
  };
  for (const Case& cut :
       {Case{"close=request", head, 0}, Case{"reset=request", head + "some", 0},
        Case{"close=request+4", head + "some", 4}, Case{"reset=request+2", head + "some", 2},
        Case{"close=request+500", std::string(kPost), 1}}) {
    const TempFolder dir;
    Collector collector(dir_ / "", Collector::Transport::kPlain,
                        {"--misbehave", std::string("all: ") + cut.ending, "--log", dir / "log"});
    RawClient client(collector.port());
    client.Send(cut.request);

    EXPECT_EQ(client.ReadAll(), "") << cut.ending;

    EXPECT_EQ(client.was_reset(), cut.ending[0] == 'r') << cut.ending;
    const auto log = ReadLog(dir / "log");
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0]["status"].GetInt(), 0) << cut.ending;
    EXPECT_EQ(log[0]["size"].GetInt(), cut.size) << cut.ending;
    EXPECT_STREQ(log[0]["misbehaviour"].GetString(), cut.ending);
    EXPECT_EQ(collector.Stop().out, "requests=1 accepted=0 failed=1 distinct=0 bytes=0\n");
  }
}

TEST_F(MisbehaviourTest, AChunkedRequestIsCutOffInItsBodyToo) {
  const Observed observed =
      Observe("all: close=request+5",
              "POST / HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n400\r\nsome");

  EXPECT_EQ(observed.bytes, "");
  EXPECT_FALSE(observed.was_reset);
}

TEST_F(MisbehaviourTest, WhoWaitsForAContinueIsCutOffWithoutOne) {
  const std::string request =
      "POST / HTTP/1.1\r\nHost: x\r\nExpect: 100-continue\r\nContent-Length: 5\r\n\r\n";

  EXPECT_EQ(Observe("all: close=request", request).bytes, "");
  EXPECT_EQ(Observe("all: close=request+1", request + "b").bytes, "HTTP/1.1 100 Continue\r\n\r\n");
}

TEST_F(MisbehaviourTest, NeverAnswerHoldsTheRequestAndSparesTheWorker) {
  Collector collector(dir_ / "", Collector::Transport::kTls,
                      {"--misbehave", "every 2: hang", "--threads", "1", "--log", "-"});
  const auto patient = collector.NewClient();
  ASSERT_EQ(Post(*patient, "first"), 200);
  ASSERT_TRUE(collector.child().ReadLine());
  int held_status = -1;
  std::thread held([&] { held_status = Post(*patient, "second"); });

  const std::string line = collector.child().ReadLine().value_or("");
  const int next_status = Post(*collector.NewClient(), "third");
  const Ended ended = collector.Stop();
  held.join();

  EXPECT_EQ(ParseObject(line)["status"].GetInt(), 0);
  EXPECT_EQ(next_status, 200);
  EXPECT_EQ(held_status, 0);
  EXPECT_EQ(ended.exit_code, 0) << ended.err;
  EXPECT_TRUE(Has(ended.out, "\nrequests=3 accepted=2 failed=1 ")) << ended.out;
}

TEST_F(MisbehaviourTest, AHangInTheBodyOrInTheRequestSparesTheWorkerToo) {
  for (const char* line : {"1: hang=body+3", "1: hang=request+10", "1: hang=end"}) {
    Collector collector(dir_ / "", Collector::Transport::kPlain,
                        {"--misbehave", line, "--threads", "1", "--log", "-"});
    RawClient held(collector.port());
    held.Send("POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 100\r\n\r\n" + std::string(100, 'x'));
    ASSERT_TRUE(collector.child().ReadLine());

    EXPECT_EQ(Post(*collector.NewClient(), "next"), 200) << line;
    const std::string held_back = held.ReadWhatIsThere();
    EXPECT_FALSE(held.has_ended()) << line;
    collector.child().Signal(SIGTERM);
    const std::string rest = held.ReadAll();

    const bool in_request = Has(line, "request");
    EXPECT_EQ(BodyOf(held_back + rest), in_request ? "" : Has(line, "end") ? kReply : "{\"b");
    EXPECT_EQ(rest, "") << line;
    EXPECT_EQ(collector.child().Wait().exit_code, 0);
  }
}

TEST_F(MisbehaviourTest, KeepAliveIsEndedUnderTheNextRequest) {
  for (const char* kind : {"close", "cut", "reset"}) {
    const TempFolder dir;
    Collector collector(dir_ / "", Collector::Transport::kPlain,
                        {"--misbehave", "1: " + std::string(kind) + "=next", "--log", dir / "log"});
    RawClient client(collector.port());
    client.Send(kPost);
    const std::string answer = client.ReadThrough(kReply);
    EXPECT_EQ(client.ReadWhatIsThere(), "");
    client.Send(kPost);

    EXPECT_EQ(client.ReadAll(), "") << kind;

    EXPECT_FALSE(Has(answer, "Connection: close")) << answer;
    EXPECT_EQ(client.was_reset(), kind == std::string("reset")) << kind;
    EXPECT_EQ(ReadLog(dir / "log").size(), 1u) << kind;
  }
}

TEST_F(MisbehaviourTest, AConnectionServesOnAfterAScriptedAnswer) {
  Collector collector(dir_ / "", Collector::Transport::kPlain,
                      {"--misbehave", "1: body=scripted\n2: length=chunked"});
  RawClient client(collector.port());

  client.Send(std::string(kPost) + kPost + kLastPost);

  const std::string answers = client.ReadAll();
  EXPECT_EQ(CountOf(answers, "HTTP/1.1 200 OK"), 3) << answers;
  EXPECT_EQ(CountOf(answers, "scripted"), 1) << answers;
  EXPECT_EQ(CountOf(answers, kReply), 2) << answers;
}

TEST_F(MisbehaviourTest, ConnectionsEndAtTheirFirstBytes) {
  Collector collector(dir_ / "", Collector::Transport::kPlain,
                      {"--misbehave", "connection 1: close\nconnection 2: reset"});
  std::vector<bool> resets;
  for (int i = 0; i < 2; ++i) {
    RawClient client(collector.port());
    client.Send(kPost);
    EXPECT_EQ(client.ReadAll(), "");
    resets.push_back(client.was_reset());
  }

  EXPECT_EQ(resets, (std::vector<bool>{false, true}));
  EXPECT_TRUE(Has(collector.NewClient()->Get("/stats")->body, R"("misbehaved_connections":2})"));
  EXPECT_EQ(collector.Stop().out, "requests=0 accepted=0 failed=0 distinct=0 bytes=0\n");
}

TEST_F(MisbehaviourTest, ReplyCarriesTheControlFields) {
  Collector collector(dir_ / "", Collector::Transport::kTls,
                      {"--errinfo", "busy", "--send-interval", "1500", "--max-resend", "3",
                       "--report-duration", "60", "--misbehave", "2: delay=1"});
  const auto client = collector.NewClient();

  for (int i = 0; i < 2; ++i) {
    const httplib::Result result = client->Post("/", "x", "text/plain");

    ASSERT_TRUE(result);
    EXPECT_EQ(result->get_header_value("Content-Type"), "application/json");
    EXPECT_EQ(result->body, R"({"bytes_errinfo":"busy","uint32_send_interval":1500,)"
                            R"("uint32_max_resend_count":3,"uint32_report_duration":60})");
  }
}

}  // namespace
}  // namespace quenor::collector::test
