// What only HTTP/1.1 can get wrong, by a ScriptedServer over TLS.
#include <poll.h>

#include "tests/integration/matrix/row.h"

namespace quenor::test {

namespace {

using Connection = ScriptedServer::Connection;

constexpr int kDripMs = 20;

Row Make(const std::string& name, Expected expected, std::function<bool(Connection&)> script) {
  Row row;
  row.name = name;
  row.expected = expected;
  row.http1 = std::move(script);
  row.closes_behind = true;  // The scripts end their connection when they have answered.
  return row;
}

// Answers with these bytes, and then ...
enum Then { kCloses, kResets, kStays, kHolds };
Row Bytes(const std::string& name, const std::string& bytes, Then then, Expected expected) {
  Row row = Make(name, expected, [bytes, then](Connection& connection) {
    if (!connection.Write(bytes)) return false;
    if (then == kResets) connection.ResetNow();
    if (then == kHolds) connection.HoldUntilClosed();
    return then == kStays;
  });
  row.is_slow = expected.state == HttpClient::State::kTimedOut;
  row.closes_behind = then != kStays;
  return row;
}

Row Slow(Row row) {
  row.is_slow = true;
  return row;
}

// Answers with `head` and then with `piece` for ever, with or without pauses.
Row Endless(const std::string& name, const std::string& head, const std::string& piece,
            int pause_ms, Expected expected) {
  Row row = Make(name, expected, [head, piece, pause_ms](Connection& connection) {
    if (!connection.Write(head)) return false;
    while (connection.Write(piece)) {
      if (pause_ms > 0) poll(nullptr, 0, pause_ms);
    }
    return false;
  });
  row.is_slow = pause_ms > 0;
  return row;
}

std::string Answer(const std::string& headers, const std::string& body) {
  return "HTTP/1.1 200 OK\r\n" + headers + "\r\n" + body;
}

Rows CutRows() {
  const std::string plain = Answer("Server: x\r\nContent-Length: 12\r\n", "{\"a\":\"bcdef\"}");
  const std::string chunked =
      Answer("Transfer-Encoding: chunked\r\n", "4\r\n{  }\r\n3\r\n   \r\n0\r\n\r\n");
  Rows rows;
  const auto cut = [&rows](const std::string& phase, const std::string& text, size_t size) {
    const std::string at = std::to_string(size);
    rows.push_back(Bytes("closed in the " + phase + ", after " + at + " bytes",
                         text.substr(0, size), kCloses, Expected::Fails()));
    rows.push_back(Bytes("reset in the " + phase + ", after " + at + " bytes", text.substr(0, size),
                         kResets, Expected::Fails()));
  };
  for (size_t size : {0, 1, 5, 9, 12, 16}) cut("status line", plain, size);
  for (size_t size : {17, 20, 28, 40, 48, 49}) cut("headers", plain, size);
  for (size_t size : {plain.find("\r\n\r\n") + 4, plain.size() - 2}) cut("body", plain, size);
  const size_t body = chunked.find("\r\n\r\n") + 4;
  for (size_t size : {body, body + 1, body + 5, body + 9, body + 17}) {
    cut("chunks", chunked, size);
  }
  return rows;
}

Rows StatusLineRows() {
  const auto line = [](const std::string& text, Expected expected = Expected::Fails()) {
    return Bytes("status line '" + text + "'", text + "\r\nContent-Length: 2\r\n\r\n{}", kCloses,
                 expected);
  };
  return {
      line("HTTP/1.1 000 None"),
      line("HTTP/1.1 99 Low"),
      line("HTTP/1.1 1000 High"),
      line("HTTP/1.1 -200 OK"),
      line("HTTP/1.1 2 OK"),
      line("HTTP/1.1 OK"),
      line("HTTP/1.1  200 OK", Expected::Delivered()),
      line("HTTP/1.1 200", Expected::Delivered()),
      line("HTTP/1.1"),
      line("HTTP/9.9 200 OK"),
      line("HTTP/2 200", Expected::Delivered()),
      line("HTTP/1.x 200 OK"),
      line("http/1.1 200 OK", Expected::Delivered()),
      line("HTPP/1.1 200 OK"),
      line("ICY 200 OK"),
      line("HTTP/1.0 200 OK", Expected::Delivered()),
      line("HTTP/1.1 101 Switching Protocols"),
      Bytes("HTTP/0.9", "{\"bytes_errinfo\":\"success\"}", kCloses, Expected::Fails()),
      Bytes("HTTP/1.0 with neither length nor chunks", "HTTP/1.0 200 OK\r\n\r\n{}", kCloses,
            Expected::Delivered()),
      Bytes("HTTP/2 frames in answer to HTTP/1.1", std::string("\0\0\0\4\0\0\0\0\0", 9), kCloses,
            Expected::Fails()),
      Bytes("empty lines before the status line",
            "\r\n\r\n" + Answer("Content-Length: 2\r\n", "{}"), kCloses, Expected::Fails()),
      Bytes("random bytes", "\x8f\x01\xff\x7f\x03\x99\r\n\r\n\x01\x02", kCloses, Expected::Fails()),
  };
}

Rows InterimRows() {
  const std::string good = Answer("Content-Length: 2\r\n", "{}");
  std::string many;
  for (int i = 0; i < 500; ++i) many += "HTTP/1.1 100 Continue\r\n\r\n";
  return {
      Bytes("100 before the answer", "HTTP/1.1 100 Continue\r\n\r\n" + good, kStays,
            Expected::Delivered()),
      Bytes("100 with headers before the answer",
            "HTTP/1.1 100 Continue\r\nContent-Length: 5\r\nX: y\r\n\r\n" + good, kStays,
            Expected::Delivered()),
      Bytes("102 and 103 before the answer",
            "HTTP/1.1 102 Processing\r\n\r\nHTTP/1.1 103 Early Hints\r\nLink: </x>\r\n\r\n" + good,
            kStays, Expected::Delivered()),
      Bytes("500 interim answers", many + good, kStays, Expected::Delivered()),
      Bytes("100 and then the end", "HTTP/1.1 100 Continue\r\n\r\n", kCloses, Expected::Fails()),
      Bytes("100 and then nothing", "HTTP/1.1 100 Continue\r\n\r\n", kHolds, Expected::TimesOut()),
      Bytes("417 after 100",
            "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 417 Failed\r\nContent-Length: 0\r\n\r\n", kStays,
            Expected::Status(417)),
      Endless("interim answers without end", "", "HTTP/1.1 100 Continue\r\nX: y\r\n\r\n", 0,
              Expected::TooLarge()),
      Bytes("199 alone", "HTTP/1.1 199 Odd\r\nContent-Length: 2\r\n\r\n{}", kCloses,
            Expected::Fails()),
  };
}

Rows LengthRows() {
  const auto length = [](const std::string& headers, const std::string& body, Then then,
                         Expected expected, const std::string& name) {
    return Bytes(name, Answer(headers, body), then, expected);
  };
  const Expected fails = Expected::Fails();
  return {
      length("Content-Length: 20\r\n", "{}", kCloses, fails, "length announced too long, closed"),
      length("Content-Length: 20\r\n", "{}", kHolds, Expected::TimesOut(),
             "length announced too long, held open"),
      length("Content-Length: 1\r\n", "{}", kCloses, Expected::Delivered(),
             "length announced too short"),
      length("Content-Length: 0\r\n", "{}", kCloses, Expected::Delivered(),
             "length zero before a body"),
      length("Content-Length: -1\r\n", "{}", kCloses, fails, "negative length"),
      length("Content-Length: 2\r\nContent-Length: 20\r\n", "{}", kCloses, fails,
             "two lengths, the later too long"),
      length("Content-Length: 2\r\nContent-Length: 2\r\n", "{}", kCloses, Expected::Delivered(),
             "the same length twice"),
      length("Content-Length: 99999999999999999999999\r\n", "{}", kCloses, Expected::Delivered(),
             "length beyond 64 bits"),
      length("Content-Length: 9223372036854775807\r\n", "{}", kCloses, Expected::TooLarge(),
             "length of 2^63 - 1"),
      length("Content-Length: 1073741824\r\n", "{}", kHolds, Expected::TooLarge(),
             "length of 1 GiB announced"),
      length("Content-Length: two\r\n", "{}", kCloses, fails, "length in words"),
      length("Content-Length:\r\n", "{}", kCloses, fails, "empty length"),
      length("Content-Length: 2\r\nTransfer-Encoding: chunked\r\n", "2\r\n{}\r\n0\r\n\r\n", kCloses,
             Expected::Delivered(), "length and chunks"),
      length("", "{}", kCloses, Expected::Delivered(), "no length, ended by closing"),
      length("", "{}", kHolds, Expected::TimesOut(), "no length and no end"),
  };
}

Rows ChunkRows() {
  const auto chunks = [](const std::string& name, const std::string& body,
                         Expected expected = Expected::Fails()) {
    return Bytes("chunks: " + name, Answer("Transfer-Encoding: chunked\r\n", body), kCloses,
                 expected);
  };
  return {
      chunks("no size", "\r\n{}\r\n0\r\n\r\n"),
      chunks("size in words", "two\r\n{}\r\n0\r\n\r\n"),
      chunks("negative size", "-2\r\n{}\r\n0\r\n\r\n"),
      chunks("size beyond 64 bits", "ffffffffffffffffffff\r\n{}\r\n0\r\n\r\n"),
      chunks("size of 2^63 - 1", "7fffffffffffffff\r\n{}\r\n0\r\n\r\n"),
      chunks("data longer than its size", "1\r\n{}\r\n0\r\n\r\n"),
      chunks("data shorter than its size", "9\r\n{}\r\n0\r\n\r\n"),
      chunks("extensions", "2;a=b;c=\"d\"\r\n{}\r\n0\r\n\r\n", Expected::Delivered()),
      chunks("trailers", "2\r\n{}\r\n0\r\nX: y\r\n\r\n", Expected::Delivered()),
      chunks("bare line feeds", "2\n{}\n0\n\n", Expected::Delivered()),
      chunks("nothing but the last one", "0\r\n\r\n", Expected::Delivered()),
      Bytes("chunks: unknown coding before them",
            Answer("Transfer-Encoding: rot13, chunked\r\n", "2\r\n{}\r\n0\r\n\r\n"), kCloses,
            Expected::Delivered()),
      Bytes("chunks: gzip before them, and it is rubbish",
            Answer("Transfer-Encoding: gzip, chunked\r\n", "2\r\n{}\r\n0\r\n\r\n"), kCloses,
            Expected::Delivered()),
      Endless("chunks: 1 GiB of them", Answer("Transfer-Encoding: chunked\r\n", ""),
              "4000\r\n" + std::string(16384, 'x') + "\r\n", 0, Expected::TooLarge()),
      Endless("chunks: trailers without end",
              Answer("Transfer-Encoding: chunked\r\n", "2\r\n{}\r\n0\r\n"), "X: y\r\n", 0,
              Expected::TooLarge()),
  };
}

Rows HeaderRows() {
  const auto header = [](const std::string& name, const std::string& line, Expected expected) {
    return Bytes("header: " + name, Answer(line + "Content-Length: 2\r\n", "{}"), kCloses,
                 expected);
  };
  std::string many;
  for (int i = 0; i < 2000; ++i) many += "X-" + std::to_string(i) + ": y\r\n";
  return {
      header("without a colon", "rubbish\r\n", Expected::Fails()),
      header("without a name", ": y\r\n", Expected::Delivered()),
      header("with a NUL", std::string("X: a\0b\r\n", 8), Expected::Fails()),
      header("folded", "X: a\r\n b\r\n", Expected::Delivered()),
      header("with bytes beyond ASCII", "X: \xff\xfe\x80\r\n", Expected::Delivered()),
      header("ended by bare line feeds", "X: y\n", Expected::Delivered()),
      header("asks to upgrade to HTTP/2", "Upgrade: h2c\r\nConnection: Upgrade\r\n",
             Expected::Delivered()),
      header("2,000 of them", many, Expected::Delivered()),
      header("10 MB in one line", "X: " + std::string(10 << 20, 'y') + "\r\n",
             Expected::TooLarge()),
      Endless("header: 10 MB in short lines", "HTTP/1.1 200 OK\r\n", "X: y\r\n", 0,
              Expected::TooLarge()),
      Endless("header: a line without end", "HTTP/1.1 200 OK\r\nX: ", std::string(16384, 'y'), 0,
              Expected::TooLarge()),
  };
}

Rows PaceRows() {
  Rows rows = {
      Endless("drip: status line", "HTTP/1.1 200 ", "O", kDripMs, Expected::TimesOut()),
      Endless("drip: headers", "HTTP/1.1 200 OK\r\n", "X: y\r\n", kDripMs, Expected::TimesOut()),
      Endless("drip: one header's bytes", "HTTP/1.1 200 OK\r\nX: ", "y", kDripMs,
              Expected::TimesOut()),
      Endless("drip: body", Answer("", ""), "x", kDripMs, Expected::TimesOut()),
      Endless("drip: chunks", Answer("Transfer-Encoding: chunked\r\n", ""), "1\r\nx\r\n", kDripMs,
              Expected::TimesOut()),
      Endless("1 GiB, not announced", Answer("", ""), std::string(65536, 'x'), 0,
              Expected::TooLarge()),
      Slow(Make("no answer at all", Expected::TimesOut(),
                [](Connection& connection) {
                  connection.HoldUntilClosed();
                  return false;
                })),
      Make("closed, once an answer was given, under the next request", Expected::Delivered(),
           [](Connection& connection) {
             if (!connection.Respond(200, "{}")) return false;
             ReceivedRequest request;
             connection.ReadRequest(&request);
             return false;
           }),
      Make("closed right after an answer that promised more", Expected::Delivered(),
           [](Connection& connection) {
             connection.Respond(200, "{}", {{"Connection", "keep-alive"}});
             return false;
           }),
      Make("reset right after the answer", Expected::Either(),
           [](Connection& connection) {
             connection.Respond(200, "{}");
             connection.ResetNow();
             return false;
           }),
      Bytes(
          "two answers to one request",
          Answer("Content-Length: 2\r\n", "{}") + "HTTP/1.1 500 Late\r\nContent-Length: 0\r\n\r\n",
          kCloses, Expected::Delivered()),
  };
  Row speed =
      Endless("drip below the speed limit", Answer("", ""), "x", kDripMs, Expected::TimesOut());
  speed.low_speed = true;
  rows.push_back(speed);
  return rows;
}

Row AtOnce(Row row) {
  row.at_once = true;
  return row;
}

Row Big(Row row) {
  row.is_big = true;
  return row;
}

// Before, or instead of, reading the whole request.
Rows EarlyRows() {
  return {
      AtOnce(Bytes("answer before the request", Answer("Content-Length: 2\r\n", "{}"), kCloses,
                   Expected::Either())),
      AtOnce(Make("TLS closed before the request is read", Expected::Fails(),
                  [](Connection&) { return false; })),
      AtOnce(Make("reset before the request is read", Expected::Fails(),
                  [](Connection& connection) {
                    connection.ResetNow();
                    return false;
                  })),
      Big(AtOnce(Make("reset in the middle of the upload", Expected::Fails(),
                      [](Connection& connection) {
                        ReceivedRequest request;
                        connection.ReadRequestHead(&request);
                        connection.ResetNow();
                        return false;
                      }))),
      Big(AtOnce(Make("status 413 in the middle of the upload", Expected::Status(413),
                      [](Connection& connection) {
                        ReceivedRequest request;
                        connection.ReadRequestHead(&request);
                        connection.Respond(413, "", {{"Connection", "close"}});
                        connection.HoldUntilClosed();
                        return false;
                      }))),
      Slow(Big(AtOnce(Make("upload that nobody reads", Expected::TimesOut(),
                           [](Connection& connection) {
                             ReceivedRequest request;
                             connection.ReadRequestHead(&request);
                             connection.WaitForEnd();
                             return false;
                           })))),
  };
}

}  // namespace

Rows Http1Rows() {
  Rows rows;
  for (const Rows& more : {CutRows(), StatusLineRows(), InterimRows(), LengthRows(), ChunkRows(),
                           HeaderRows(), PaceRows(), EarlyRows()}) {
    rows.insert(rows.end(), more.begin(), more.end());
  }
  return rows;
}

}  // namespace quenor::test
