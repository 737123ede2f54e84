// Senders that trickle, send without bound, or frame a request in two ways: each is answered as it
// should be, and nobody else waits.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/collector/support/child.h"
#include "tests/collector/support/raw_http.h"
#include "tests/collector/support/record.h"
#include "tests/support/temp_folder.h"

namespace quenor::collector::test {
namespace {

// A sender that says a little at a time, and nothing more once it has been answered.
class Trickler {
 public:
  Trickler(int port, const std::string& text) : client_(port) { client_.Send(text); }

  void SendMore(const std::string& text) {
    answer_ += client_.ReadWhatIsThere();
    if (answer_.empty() && !client_.has_ended()) client_.Send(text);
  }
  // All of it; waits for the connection's end.
  std::string Answer() { return answer_ + client_.ReadAll(); }

 private:
  RawClient client_;
  std::string answer_;
};

class AttacksTest : public ::testing::Test {
 protected:
  using Tricklers = std::vector<std::unique_ptr<Trickler>>;

  static void Add(Tricklers* tricklers, int count, int port, const std::string& text) {
    for (int i = 0; i < count; ++i) tricklers->push_back(std::make_unique<Trickler>(port, text));
  }

  TempFolder dir_;
};

constexpr char kTimeout[] = "HTTP/1.1 408 Request Timeout\r\n";

TEST_F(AttacksTest, TrickledHeadsStarveNobodyAndEndWith408) {
  Collector collector(dir_ / "", Collector::Transport::kPlain,
                      {"--threads", "2", "--head-timeout", "1"});
  Tricklers tricklers;
  Add(&tricklers, 64, collector.port(), "P");
  const auto healthy = collector.NewClient();

  for (const char* more : {"O", "S", "T", " ", "/", " HTTP/1.1\r\nHo", "st:"}) {
    for (const auto& trickler : tricklers) trickler->SendMore(more);
    EXPECT_EQ(Post(*healthy, "body"), 200);
  }

  for (const auto& trickler : tricklers) EXPECT_EQ(trickler->Answer().rfind(kTimeout, 0), 0u);
  EXPECT_EQ(Post(*healthy, "body"), 200);
}

TEST_F(AttacksTest, TrickledBodiesStarveNobodyAndEndWith408) {
  Collector collector(dir_ / "", Collector::Transport::kPlain,
                      {"--threads", "2", "--body-timeout", "1"});
  const std::string head = "POST / HTTP/1.1\r\nHost: x\r\n";
  Tricklers tricklers;
  Add(&tricklers, 8, collector.port(), head + "Content-Length: 100\r\n\r\nhalf");
  Add(&tricklers, 8, collector.port(), head + "Transfer-Encoding: chunked\r\n\r\n9\r\nx");
  const auto healthy = collector.NewClient();

  for (int i = 0; i < 3; ++i) {
    for (const auto& trickler : tricklers) trickler->SendMore("m");
    EXPECT_EQ(Post(*healthy, "body"), 200);
  }

  for (const auto& trickler : tricklers) EXPECT_EQ(trickler->Answer().rfind(kTimeout, 0), 0u);
  const auto stats = ParseObject(healthy->Get("/stats")->body);
  EXPECT_EQ(stats["incomplete"].GetInt(), 16);
  EXPECT_EQ(stats["requests"].GetInt(), 3);
}

TEST_F(AttacksTest, TrickledHandshakesStarveNobodyAndAreClosed) {
  Collector collector(dir_ / "", Collector::Transport::kTls,
                      {"--threads", "2", "--head-timeout", "1"});
  Tricklers tricklers;
  Add(&tricklers, 16, collector.port(), "\x16\x03\x01\x02");

  EXPECT_EQ(Post(*collector.NewClient(), "body"), 200);
  for (const auto& trickler : tricklers) EXPECT_EQ(trickler->Answer(), "");
}

TEST_F(AttacksTest, TheClockOfAHeadBeginsWithItsFirstByte) {
  Collector collector(dir_ / "", Collector::Transport::kPlain, {"--head-timeout", "1"});
  RawClient client(collector.port());
  client.Send("POST / HTTP/1.1\r\nContent-Length: 1\r\n\r\nx");
  ASSERT_EQ(client.ReadThrough("}").rfind("HTTP/1.1 200 ", 0), 0u);
  // Another one's second passes while this one is idle.
  EXPECT_EQ(Exchange(collector.port(), "P").rfind(kTimeout, 0), 0u);

  client.Send("POST / HTTP/1.1\r\nContent-Length: 1\r\n\r\ny");

  EXPECT_EQ(client.ReadThrough("}").rfind("HTTP/1.1 200 ", 0), 0u);
}

TEST_F(AttacksTest, HeadsOverTheirBoundsAreRefused) {
  Collector collector(dir_ / "", Collector::Transport::kPlain, {});
  const std::string line = "POST / HTTP/1.1\r\n";
  std::string many;
  for (int i = 0; many.size() < 64 * 1024; ++i) many += "X-" + std::to_string(i) + ": a\r\n";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {line + many, "HTTP/1.1 431 Request Header Fields Too Large\r\n"},
      {line + "X: " + std::string(8 * 1024, 'a'), "HTTP/1.1 431 "},
      {"POST /" + std::string(8 * 1024, 'a'), "HTTP/1.1 414 URI Too Long\r\n"},
      {"\r\n", "HTTP/1.1 400 Bad Request\r\n"},
  };

  for (const auto& [request, begin] : cases) {
    const std::string reply = Exchange(collector.port(), request);
    EXPECT_EQ(reply.rfind(begin, 0), 0u) << reply;
    EXPECT_NE(reply.find("\r\nConnection: close\r\n"), std::string::npos) << reply;
  }
  EXPECT_EQ(Post(*collector.NewClient(), "body"), 200);
}

TEST_F(AttacksTest, ABlankBeforeAColonIsRefusedAndNothingBehindItIsARequest) {
  Collector collector(dir_ / "", Collector::Transport::kPlain, {"--log", dir_ / "log"});

  for (const char* header : {"Content-Length : 2", "Transfer-Encoding : chunked"}) {
    const std::string reply =
        Exchange(collector.port(), "POST / HTTP/1.1\r\nHost: x\r\n" + std::string(header) +
                                       "\r\n\r\nPOST /smuggled HTTP/1.1\r\n\r\n");
    EXPECT_EQ(reply.rfind("HTTP/1.1 400 ", 0), 0u) << reply;
    EXPECT_EQ(CountOf(reply, "HTTP/1.1 "), 1) << reply;
  }

  EXPECT_EQ(collector.Stop().out, "requests=0 accepted=0 failed=0 distinct=0 bytes=0\n");
  EXPECT_EQ(ReadWholeFile(dir_ / "log"), "");
}

TEST_F(AttacksTest, BodiesThatNobodyWillReadAwayEndTheConnection) {
  Collector collector(dir_ / "", Collector::Transport::kPlain, {"--max-body", "4"});
  const std::string head = "POST / HTTP/1.1\r\nHost: x\r\n";
  std::string trailers;
  while (trailers.size() < 70'000) trailers += "T: x\r\n";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"Content-Length: 67108869\r\n\r\nabc", "413"},  // 64 MiB, 4 and 1 byte.
      {"Transfer-Encoding: chunked\r\n\r\n4000005\r\nabc", "413"},
      {"Transfer-Encoding: chunked\r\n\r\n0\r\n" + trailers, "431"},
  };

  for (const auto& [rest, status] : cases) {
    const std::string reply = Exchange(collector.port(), head + rest);
    EXPECT_EQ(reply.rfind("HTTP/1.1 " + status, 0), 0u) << reply;
  }
}

}  // namespace
}  // namespace quenor::collector::test
