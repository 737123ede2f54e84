// Bodies out of a scripted stream: framing, and the exact bounds.
#include "collector/http/body.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "collector/http/head.h"

namespace quenor::collector {
namespace {

// Reads `text`, then so many bytes that nobody looks at, then the end.
class Scripted : public httplib::Stream {
 public:
  explicit Scripted(std::string text, uint64_t more_bytes = 0)
      : text_(std::move(text)), more_bytes_(more_bytes) {}

  ssize_t read(char* data, size_t size) override {
    const size_t count = std::min(size, text_.size() - used_);
    std::memcpy(data, text_.data() + used_, count);
    used_ += count;
    if (count > 0) return static_cast<ssize_t>(count);
    const uint64_t blind = std::min<uint64_t>(size, more_bytes_);
    more_bytes_ -= blind;
    return static_cast<ssize_t>(blind);
  }
  // Of the text or of the rest.
  uint64_t unread() const { return text_.size() - used_ + more_bytes_; }

  bool is_readable() const override { return true; }
  bool is_writable() const override { return true; }
  ssize_t write(const char*, size_t) override { return -1; }
  void get_remote_ip_and_port(std::string&, int&) const override {}
  void get_local_ip_and_port(std::string&, int&) const override {}
  socket_t socket() const override { return -1; }

 private:
  const std::string text_;
  size_t used_ = 0;
  uint64_t more_bytes_;
};

struct Taken {
  BodyOutcome outcome;
  std::string body;
  uint64_t size_bytes = 0;
  uint64_t unread_bytes = 0;
};

Taken TakeFrom(Scripted input, const BodyFraming& framing, uint64_t limit_bytes) {
  Taken taken{};
  taken.outcome = ReadBody(&input, framing, limit_bytes, &taken.body, &taken.size_bytes);
  taken.unread_bytes = input.unread();
  return taken;
}

Taken TakeChunks(const std::string& text, uint64_t limit_bytes, uint64_t more_bytes = 0) {
  return TakeFrom(Scripted(text, more_bytes), {true, 0}, limit_bytes);
}

std::string Hex(uint64_t number) {
  char text[20];
  std::snprintf(text, sizeof(text), "%llx", static_cast<unsigned long long>(number));
  return text;
}

TEST(BodyTest, ABodyOfExactlyTheLimitIsWholeAndOneByteMoreIsTooLarge) {
  const Taken fits = TakeFrom(Scripted("abcdNEXT"), {false, 4}, 4);
  EXPECT_EQ(BodyOutcome::kWhole, fits.outcome);
  EXPECT_EQ("abcd", fits.body);
  EXPECT_EQ(4u, fits.unread_bytes);

  const Taken more = TakeFrom(Scripted("abcdeNEXT"), {false, 5}, 4);
  EXPECT_EQ(BodyOutcome::kTooLarge, more.outcome);
  EXPECT_EQ("", more.body);
  EXPECT_EQ(5u, more.size_bytes);
  EXPECT_EQ(4u, more.unread_bytes);
}

TEST(BodyTest, ChunksOfExactlyTheLimitAreWholeAndOneByteMoreIsTooLarge) {
  for (const char* chunks : {"4\r\nabcd\r\n", "3\r\nabc\r\n1\r\nd\r\n", "1\r\na\r\n3\r\nbcd\r\n"}) {
    const Taken fits = TakeChunks(std::string(chunks) + "0\r\n\r\nNEXT", 4);
    EXPECT_EQ(BodyOutcome::kWhole, fits.outcome) << chunks;
    EXPECT_EQ("abcd", fits.body) << chunks;
    EXPECT_EQ(4u, fits.size_bytes) << chunks;
    EXPECT_EQ(4u, fits.unread_bytes) << chunks;

    const Taken more = TakeChunks(std::string(chunks) + "1\r\ne\r\n0\r\n\r\nNEXT", 4);
    EXPECT_EQ(BodyOutcome::kTooLarge, more.outcome) << chunks;
    EXPECT_EQ("", more.body) << chunks;
    EXPECT_EQ(5u, more.size_bytes) << chunks;
    EXPECT_EQ(4u, more.unread_bytes) << chunks;
  }
}

TEST(BodyTest, NothingFitsIntoNothing) {
  EXPECT_EQ(BodyOutcome::kWhole, TakeFrom(Scripted(""), {false, 0}, 0).outcome);
  EXPECT_EQ(BodyOutcome::kWhole, TakeChunks("0\r\n\r\n", 0).outcome);
  EXPECT_EQ(BodyOutcome::kTooLarge, TakeFrom(Scripted("a"), {false, 1}, 0).outcome);
}

TEST(BodyTest, WhatIsFarTooLargeIsLeftUnread) {
  const uint64_t most = 10 + kMaxReadAwayBytes;

  EXPECT_EQ(BodyOutcome::kTooLarge, TakeFrom(Scripted("", most), {false, most}, 10).outcome);
  const Taken more = TakeFrom(Scripted("", most + 1), {false, most + 1}, 10);
  EXPECT_EQ(BodyOutcome::kFarTooLarge, more.outcome);
  EXPECT_EQ(most + 1, more.size_bytes);
  EXPECT_EQ(most + 1, more.unread_bytes);

  // The chunk is read away; what follows it is not there.
  EXPECT_EQ(BodyOutcome::kIncomplete, TakeChunks(Hex(most) + "\r\n", 10, most).outcome);
  const Taken chunks = TakeChunks(Hex(most + 1) + "\r\n", 10, 99);
  EXPECT_EQ(BodyOutcome::kFarTooLarge, chunks.outcome);
  EXPECT_EQ(99u, chunks.unread_bytes);
}

TEST(BodyTest, ChunkLinesAreTakenUpToTheirBound) {
  const auto line_of = [](size_t bytes) { return "1;" + std::string(bytes - 4, 'x') + "\r\n"; };

  EXPECT_EQ(BodyOutcome::kWhole, TakeChunks(line_of(kMaxLineBytes) + "a\r\n0\r\n\r\n", 4).outcome);
  EXPECT_EQ(BodyOutcome::kMalformed,
            TakeChunks(line_of(kMaxLineBytes + 1) + "a\r\n0\r\n\r\n", 4).outcome);
  EXPECT_EQ(BodyOutcome::kMalformed, TakeChunks("1" + std::string(kMaxLineBytes, '0'), 4).outcome);
}

TEST(BodyTest, TrailersAreTakenUpToTheBoundOfAHead) {
  const auto trailers_of = [](size_t bytes) {
    std::string text;
    while (bytes - text.size() > 2'000) text += "T: " + std::string(995, 't') + "\r\n";
    return text + "T: " + std::string(bytes - text.size() - 7, 't') + "\r\n\r\n";
  };
  ASSERT_EQ(kMaxHeadBytes, trailers_of(kMaxHeadBytes).size());

  EXPECT_EQ(BodyOutcome::kWhole, TakeChunks("0\r\n" + trailers_of(kMaxHeadBytes), 4).outcome);
  EXPECT_EQ(BodyOutcome::kTrailersTooLarge,
            TakeChunks("0\r\n" + trailers_of(kMaxHeadBytes + 1), 4).outcome);
}

TEST(BodyTest, NumbersAreTakenUpToTheirLastDigit) {
  uint64_t number = 7;
  EXPECT_TRUE(ParseDigits("999999999999999999", 10, &number));
  EXPECT_EQ(999'999'999'999'999'999u, number);
  EXPECT_TRUE(ParseDigits("fffffffffffffFF", 16, &number));
  EXPECT_EQ(0xfffffffffffffffu, number);
  for (const char* text : {"", "1000000000000000000", "a", "+1", "-1", " 1", "1 ", "0x1"}) {
    EXPECT_FALSE(ParseDigits(text, 10, &number)) << text;
  }
  EXPECT_FALSE(ParseDigits("1000000000000000", 16, &number));
  EXPECT_EQ(0xfffffffffffffffu, number);
}

TEST(BodyTest, WhatEndsEarlyIsIncomplete) {
  for (const char* text : {"", "4", "4\r\n", "4\r\nabc", "4\r\nabcd", "4\r\nabcd\r\n",
                           "4\r\nabcd\r\n0\r\n", "4\r\nabcd\r\n0\r\nT: x\r\n"}) {
    EXPECT_EQ(BodyOutcome::kIncomplete, TakeChunks(text, 4).outcome) << text;
  }
  EXPECT_EQ(BodyOutcome::kIncomplete, TakeFrom(Scripted("abc"), {false, 4}, 4).outcome);
  EXPECT_EQ(BodyOutcome::kIncomplete, TakeFrom(Scripted("abc"), {false, 4}, 3).outcome);
}

}  // namespace
}  // namespace quenor::collector
