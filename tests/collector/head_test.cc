// Heads of requests: what is taken, what is refused with which status, and the exact bounds.
#include "collector/http/head.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

namespace quenor::collector {
namespace {

using Result = HeadCheck::Result;

constexpr char kLine[] = "POST / HTTP/1.1\r\n";

// The status that refuses `head`, 200 when it is whole, 0 when more may come. However it is cut up,
// the answer is the same.
int StatusOf(const std::string& head) {
  HeadCheck at_once;
  const Result result = at_once.Check(head);
  HeadCheck bytewise;
  Result last = Result::kMore;
  for (size_t size = 1; size <= head.size() && last == Result::kMore; ++size) {
    last = bytewise.Check(std::string_view(head).substr(0, size));
  }
  EXPECT_EQ(result, last) << head.substr(0, 80);
  EXPECT_EQ(at_once.status(), bytewise.status()) << head.substr(0, 80);
  return result == Result::kWhole ? 200 : at_once.status();
}

// A request line, or a header line, of so many bytes.
std::string RequestLineOf(size_t bytes) {
  return "POST /" + std::string(bytes - 17, 'a') + " HTTP/1.1\r\n";
}
std::string HeaderLineOf(size_t bytes) { return "X: " + std::string(bytes - 5, 'a') + "\r\n"; }

// A head of so many bytes, of long lines.
std::string HeadOf(size_t bytes) {
  std::string head = kLine;
  while (bytes - head.size() > 4'000) head += HeaderLineOf(2'000);
  return head + HeaderLineOf(bytes - head.size() - 2) + "\r\n";
}

TEST(HeadTest, AWholeHeadIsTakenAndWhatFollowsIsNotLookedAt) {
  EXPECT_EQ(200, StatusOf("POST /a?b HTTP/1.1\r\nHost: x\r\nContent-Length:2\r\n\r\n"));
  EXPECT_EQ(200, StatusOf("GET / HTTP/1.0\r\n\r\n"));
  EXPECT_EQ(200, StatusOf("POST / HTTP/1.1\r\nX-a_b.c~1!: \t\xff\xfe:,; \t\r\nY:\r\n\r\n"));
  HeadCheck head;
  EXPECT_EQ(Result::kWhole, head.Check("POST / HTTP/1.1\r\n\r\n\x01 body : \n\n"));
}

TEST(HeadTest, EveryBeginningOfAHeadMayBecomeOne) {
  const std::string head = "POST / HTTP/1.1\r\nHost: x\r\n\r\n";
  for (size_t size = 0; size < head.size(); ++size) EXPECT_EQ(0, StatusOf(head.substr(0, size)));
}

TEST(HeadTest, WhatTwoReadersCouldReadDifferentlyIsRefused) {
  const std::string line = kLine;
  for (const std::string& head : {
           line + "Content-Length : 2\r\n\r\n",
           line + "Content-Length\t: 2\r\n\r\n",
           line + "Transfer-Encoding : chunked\r\n\r\n",
           line + "A: 1\r\n folded\r\n\r\n",
           line + "A: 1\r\n\tfolded\r\n\r\n",
           line + " A: 1\r\n\r\n",
           line + "A: 1\n\r\n",
           line + "A: 1\r\n\n",
           line + "A: 1\rB: 2\r\n\r\n",
           line + "no colon\r\n\r\n",
           line + ": no name\r\n\r\n",
           line + "A(b): 1\r\n\r\n",
           line + "\x80: 1\r\n\r\n",
           line + std::string("A: \0\r\n\r\n", 9),
           line + "A: \x7f\r\n\r\n",
           line + "A: \x1b[31m\r\n\r\n",
           std::string("POST / HTTP/1.1\n\r\n"),
           std::string("POST /\x1b HTTP/1.1\r\n\r\n"),
           std::string("POST /\t HTTP/1.1\r\n\r\n"),
           std::string("POST / a HTTP/1.1\r\n\r\n"),
           std::string("nonsense\r\n\r\n"),
           std::string("\r\nPOST / HTTP/1.1\r\n\r\n"),
           std::string("\n"),
       }) {
    EXPECT_EQ(400, StatusOf(head)) << head;
  }
}

TEST(HeadTest, LinesAndHeadsAreTakenUpToTheirBounds) {
  const std::string line = kLine;
  EXPECT_EQ(200, StatusOf(RequestLineOf(kMaxLineBytes) + "\r\n"));
  EXPECT_EQ(414, StatusOf(RequestLineOf(kMaxLineBytes + 1) + "\r\n"));
  EXPECT_EQ(200, StatusOf(line + HeaderLineOf(kMaxLineBytes) + "\r\n"));
  EXPECT_EQ(431, StatusOf(line + HeaderLineOf(kMaxLineBytes + 1) + "\r\n"));
  EXPECT_EQ(kMaxHeadBytes, HeadOf(kMaxHeadBytes).size());
  EXPECT_EQ(200, StatusOf(HeadOf(kMaxHeadBytes)));
  EXPECT_EQ(431, StatusOf(HeadOf(kMaxHeadBytes + 1)));
}

TEST(HeadTest, WhatHasNoEndIsRefusedAtTheBoundAlready) {
  const std::string line = kLine;
  EXPECT_EQ(0, StatusOf(std::string(kMaxLineBytes - 1, 'P')));
  EXPECT_EQ(414, StatusOf(std::string(kMaxLineBytes, 'P')));
  EXPECT_EQ(0, StatusOf(line + "X:" + std::string(kMaxLineBytes - 3, 'a')));
  EXPECT_EQ(431, StatusOf(line + "X:" + std::string(kMaxLineBytes - 2, 'a')));
  EXPECT_EQ(0, StatusOf(HeadOf(kMaxHeadBytes + 1).substr(0, kMaxHeadBytes - 1)));
  EXPECT_EQ(431, StatusOf(HeadOf(kMaxHeadBytes + 1).substr(0, kMaxHeadBytes)));
}

}  // namespace
}  // namespace quenor::collector
