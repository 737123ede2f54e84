// What is sent is what is recorded: bodies of every shape, through the program as built.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "collector/reports/digest.h"
#include "tests/collector/support/child.h"
#include "tests/collector/support/raw_http.h"
#include "tests/collector/support/record.h"
#include "tests/support/temp_folder.h"

namespace quenor::collector::test {
namespace {

class BodiesTest : public ::testing::Test {
 protected:
  std::vector<std::string> Recording(std::vector<std::string> more = {}) {
    more.insert(more.end(), {"--out", dir_ / "out", "--log", dir_ / "log"});
    return more;
  }

  // Content of the one file in the output folder whose number is `seq`.
  std::string Filed(uint64_t seq, const std::string& suffix = ".bin") {
    const std::string number = std::to_string(seq);
    const std::string prefix = std::string(10 - number.size(), '0') + number + "-";
    for (const std::string& name : FileNames(dir_ / "out")) {
      if (name.rfind(prefix, 0) == 0 && name.find(suffix) != std::string::npos) {
        return ReadWholeFile(dir_ / ("out/" + name));
      }
    }
    return "no file " + prefix;
  }

  TempFolder dir_;
};

TEST_F(BodiesTest, BodiesOfEveryShapeArriveWhole) {
  Collector collector(dir_ / "", Collector::Transport::kTls, Recording());
  const auto client = collector.NewClient();
  std::string all_bytes;
  for (int i = 0; i < 256; ++i) all_bytes.push_back(static_cast<char>(i));
  const std::vector<std::string> bodies = {"", "x", all_bytes, Noise(383 * 1024, 7)};

  for (const std::string& body : bodies) ASSERT_EQ(Post(*client, body), 200);

  ASSERT_EQ(collector.Stop().exit_code, 0);
  const auto log = ReadLog(dir_ / "log");
  ASSERT_EQ(log.size(), bodies.size());
  for (size_t i = 0; i < bodies.size(); ++i) {
    EXPECT_EQ(Filed(i + 1), bodies[i]);
    EXPECT_EQ(log[i]["size"].GetUint64(), bodies[i].size());
    EXPECT_EQ(log[i]["sha256"].GetString(), Sha256Hex(bodies[i]));
  }
}

TEST_F(BodiesTest, LogNamesPeerPathTypeAndTime) {
  Collector collector(dir_ / "", Collector::Transport::kTls, Recording());

  ASSERT_TRUE(collector.NewClient()->Post("/a/b?c=d%20e", "x", "text/csv"));

  ASSERT_EQ(collector.Stop().exit_code, 0);
  const auto log = ReadLog(dir_ / "log");
  EXPECT_EQ(log.at(0)["path"], "/a/b?c=d%20e");
  EXPECT_EQ(log.at(0)["content_type"], "text/csv");
  EXPECT_EQ(std::string(log.at(0)["peer"].GetString()).rfind("127.0.0.1:", 0), 0u);
  EXPECT_EQ(std::string(log.at(0)["time"].GetString()).back(), 'Z');
}

TEST_F(BodiesTest, FormAndCodingHeadersDoNotChangeTheBody) {
  Collector collector(dir_ / "", Collector::Transport::kPlain, Recording());
  const std::string big_form = "a=" + std::string(100'000, 'b');
  const std::vector<std::string> headers = {
      "Content-Type: application/x-www-form-urlencoded",
      "Content-Type: multipart/form-data; boundary=none",
      "Content-Encoding: gzip",
      "Content-Encoding: br",
      "Content-Encoding: deflate",
      "Range: bytes=0-3",
      "Accept-Encoding: gzip",
  };

  for (const std::string& header : headers) {
    const std::string reply =
        Exchange(collector.port(), "POST / HTTP/1.1\r\nHost: x\r\nConnection: close\r\n" + header +
                                       "\r\nContent-Length: " + std::to_string(big_form.size()) +
                                       "\r\n\r\n" + big_form);
    EXPECT_EQ(reply.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << header << "\n" << reply;
    EXPECT_NE(reply.find("\r\n\r\n{\"bytes_errinfo\":\"success\"}"), std::string::npos) << reply;
  }

  ASSERT_EQ(collector.Stop().exit_code, 0);
  const auto log = ReadLog(dir_ / "log");
  ASSERT_EQ(log.size(), headers.size());
  for (const auto& line : log) EXPECT_EQ(line["sha256"].GetString(), Sha256Hex(big_form));
}

TEST_F(BodiesTest, ChunkedBodyArrivesWhole) {
  Collector collector(dir_ / "", Collector::Transport::kTls, Recording());
  const std::string body = Noise(200'000, 9);
  const auto client = collector.NewClient();
  const auto provider = [&body](size_t offset, httplib::DataSink& sink) {
    const size_t step = std::min<size_t>(body.size() - offset, 7'001);
    if (step == 0) {
      sink.done();
      return true;
    }
    return sink.write(body.data() + offset, step);
  };

  const httplib::Result result = client->Post("/", provider, "application/octet-stream");

  ASSERT_TRUE(result);
  EXPECT_EQ(result->status, 200);
  EXPECT_EQ(Post(*client, "the connection goes on"), 200);
  EXPECT_EQ(Filed(1), body);
}

TEST_F(BodiesTest, ChunkExtensionsAndTrailersAreSkipped) {
  Collector collector(dir_ / "", Collector::Transport::kPlain, Recording());

  const std::string reply =
      Exchange(collector.port(),
               "POST / HTTP/1.1\r\nHost: x\r\nConnection: close\r\nTransfer-Encoding: Chunked\r\n"
               "\r\n3;a=b\r\nabc\r\n0a \r\n0123456789\r\n0\r\nTrailer: t\r\n\r\n");

  EXPECT_EQ(CountOf(reply, "HTTP/1.1 200 OK"), 1) << reply;
  EXPECT_EQ(Filed(1), "abc0123456789");
}

TEST_F(BodiesTest, BrokenChunkFramingIsRefused) {
  Collector collector(dir_ / "", Collector::Transport::kPlain, Recording());
  const std::string head = "POST / HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n";

  for (const char* chunks : {"3\r\nabcd\r\n0\r\n\r\n", "x\r\nabc\r\n0\r\n\r\n",
                             "-3\r\nabc\r\n0\r\n\r\n", "3\nabc\r\n0\r\n\r\n", "\r\n\r\n"}) {
    const std::string reply = Exchange(collector.port(), head + chunks);
    EXPECT_EQ(reply.rfind("HTTP/1.1 400 ", 0), 0u) << chunks << "\n" << reply;
    EXPECT_EQ(CountOf(reply, "HTTP/1.1 "), 1) << chunks << "\n" << reply;
  }

  const Ended ended = collector.Stop();
  EXPECT_EQ(ended.out, "requests=5 accepted=0 failed=5 distinct=0 bytes=0\n");
}

TEST_F(BodiesTest, PostWithoutAnyLengthHasAnEmptyBody) {
  Collector collector(dir_ / "", Collector::Transport::kPlain, Recording());
  RawClient client(collector.port());

  client.Send("POST / HTTP/1.1\r\nHost: x\r\n\r\n");

  EXPECT_EQ(client.ReadThrough("}").rfind("HTTP/1.1 200 OK", 0), 0u);
  EXPECT_EQ(Filed(1), "");
}

TEST_F(BodiesTest, AmbiguousOrWrongLengthsAreRefused) {
  Collector collector(dir_ / "", Collector::Transport::kPlain, Recording());
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"Content-Length: 3\r\nContent-Length: 4", "400"},
      {"Content-Length: 3\r\nTransfer-Encoding: chunked", "400"},
      {"Content-Length: -1", "400"},
      {"Content-Length: 3x", "400"},
      {"Content-Length: 99999999999999999999", "400"},
      {"Transfer-Encoding: gzip, chunked", "501"},
  };

  for (const auto& [headers, status] : cases) {
    const std::string reply =
        Exchange(collector.port(), "POST / HTTP/1.1\r\nHost: x\r\n" + headers + "\r\n\r\nabcdefgh");
    EXPECT_EQ(reply.rfind("HTTP/1.1 " + status, 0), 0u) << headers << "\n" << reply;
    EXPECT_NE(reply.find("Connection: close"), std::string::npos) << headers << "\n" << reply;
  }

  ASSERT_EQ(collector.Stop().exit_code, 0);
  for (const auto& line : ReadLog(dir_ / "log")) EXPECT_EQ(line["sha256"], "");
}

TEST_F(BodiesTest, BodyCutShortIsNoRequest) {
  Collector collector(dir_ / "", Collector::Transport::kPlain, Recording());
  RawClient client(collector.port());

  client.Send("POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 100\r\n\r\nonly this");
  client.EndSending();

  EXPECT_EQ(client.ReadAll(), "");
  const httplib::Result stats = collector.NewClient()->Get("/stats");
  ASSERT_TRUE(stats);
  EXPECT_EQ(stats->body, R"({"requests":0,"accepted":0,"failed":0,"bytes":0,"distinct_sha256":0,)"
                         R"("incomplete":1,"misbehaved":0,"misbehaved_connections":0})");
  EXPECT_EQ(ReadWholeFile(dir_ / "log"), "");
}

TEST_F(BodiesTest, BodyOverTheLimitIsRefusedAndTheConnectionGoesOn) {
  Collector collector(dir_ / "", Collector::Transport::kTls, Recording({"--max-body", "1000"}));
  const auto client = collector.NewClient();

  EXPECT_EQ(Post(*client, std::string(1001, 'x')), 413);
  EXPECT_EQ(Post(*client, std::string(1000, 'x')), 200);

  const Ended ended = collector.Stop();
  EXPECT_EQ(ended.out, "requests=2 accepted=1 failed=1 distinct=1 bytes=1000\n");
  const auto log = ReadLog(dir_ / "log");
  EXPECT_EQ(log.at(0)["size"].GetUint64(), 1001u);
  EXPECT_EQ(log.at(0)["status"].GetInt(), 413);
  EXPECT_EQ(log.at(0)["peer"], log.at(1)["peer"]);
}

TEST_F(BodiesTest, ChunkedBodyOverTheLimitIsRefusedAndTheConnectionGoesOn) {
  Collector collector(dir_ / "", Collector::Transport::kPlain, Recording({"--max-body", "4"}));
  RawClient client(collector.port());

  client.Send(
      "POST / HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n"
      "3\r\nabc\r\n2\r\nde\r\n0\r\n\r\n"
      "POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 4\r\n\r\nfits");

  EXPECT_EQ(client.ReadThrough("}").rfind("HTTP/1.1 413 ", 0), 0u);
  EXPECT_EQ(client.ReadThrough("}").rfind("HTTP/1.1 200 ", 0), 0u);
  EXPECT_EQ(Filed(2), "fits");
}

TEST_F(BodiesTest, WhoExpectsAContinueGetsOne) {
  Collector collector(dir_ / "", Collector::Transport::kPlain, Recording());
  RawClient client(collector.port());

  client.Send("POST / HTTP/1.1\r\nHost: x\r\nExpect: 100-continue\r\nContent-Length: 4\r\n\r\n");
  const std::string go_on = client.ReadThrough("\r\n\r\n");
  client.Send("body");

  EXPECT_EQ(go_on, "HTTP/1.1 100 Continue\r\n\r\n");
  EXPECT_EQ(client.ReadThrough("}").rfind("HTTP/1.1 200 OK", 0), 0u);
  EXPECT_EQ(Filed(1), "body");
}

TEST_F(BodiesTest, WhoExpectsAContinueForTooMuchIsToldBeforeSending) {
  Collector collector(dir_ / "", Collector::Transport::kPlain, Recording({"--max-body", "3"}));

  const std::string reply =
      Exchange(collector.port(),
               "POST / HTTP/1.1\r\nHost: x\r\nExpect: 100-continue\r\nContent-Length: 4\r\n\r\n");

  EXPECT_EQ(reply.rfind("HTTP/1.1 413 ", 0), 0u) << reply;
  EXPECT_EQ(CountOf(reply, "HTTP/1.1 "), 1) << reply;
  ASSERT_EQ(collector.Stop().exit_code, 0);
  EXPECT_EQ(ReadLog(dir_ / "log").at(0)["size"].GetUint64(), 4u);
}

TEST_F(BodiesTest, InflateTellsWholeFromTruncatedFromCorrupt) {
  Collector collector(dir_ / "", Collector::Transport::kTls, Recording({"--inflate"}));
  const auto client = collector.NewClient();
  const std::string plain = std::string(5'000, 'p') + Noise(5'000, 3);
  const std::string packed = Deflate(plain);
  const std::string half = packed.substr(0, packed.size() / 2);

  ASSERT_EQ(Post(*client, packed), 200);
  ASSERT_EQ(Post(*client, half), 200);
  ASSERT_EQ(Post(*client, "\x07 no deflate"), 200);

  ASSERT_EQ(collector.Stop().exit_code, 0);
  const auto log = ReadLog(dir_ / "log");
  EXPECT_EQ(log.at(0)["inflate"], "ok");
  EXPECT_EQ(log.at(0)["inflated_sha256"].GetString(), Sha256Hex(plain));
  EXPECT_EQ(log.at(1)["inflate"], "truncated");
  EXPECT_EQ(log.at(2)["inflate"], "corrupt");
  EXPECT_EQ(Filed(1), plain);
  EXPECT_EQ(plain.rfind(Filed(2), 0), 0u);
  EXPECT_EQ(Filed(2, ".deflate"), half);
  EXPECT_EQ(Filed(3, ".deflate"), "\x07 no deflate");
}

}  // namespace
}  // namespace quenor::collector::test
