// What every log must do. An embedder runs it on his own by linking that and writing
//   INSTANTIATE_TYPED_TEST_SUITE_P(Mine, LogConformance, quenor::conformance::LinkedLog);
// in namespace quenor::conformance. The parameter names the two functions of the log.
#ifndef QUENOR_TESTS_CONFORMANCE_LOG_CONFORMANCE_H_
#define QUENOR_TESTS_CONFORMANCE_LOG_CONFORMANCE_H_

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "quenor_base/platform/local_log.h"

namespace quenor::conformance {

// The log that is linked.
struct LinkedLog {
  static constexpr auto kLog = &LocalLog;
  static constexpr auto kSetSink = &SetLogSink;
};

template <typename Log>
class LogConformance : public testing::Test {
 protected:
  struct Line {
    int level;
    std::string file;
    int line;
    std::string text;
    char after;  // The byte behind the text.
  };

  LogConformance() { Log::kSetSink(&LogConformance::Keep, &lines_); }
  ~LogConformance() override { Log::kSetSink(nullptr, nullptr); }

  static void Keep(void* context, int level, const char* file, int line, const char* text,
                   size_t size) {
    static_cast<std::vector<Line>*>(context)->push_back(
        {level, file, line, std::string(text, size), text[size]});
  }
  // The text that `raw` comes out as.
  std::string Logged(const std::string& raw) {
    lines_.clear();
    Log::kLog(2, "file", 1, "%s", raw.c_str());
    return lines_.size() == 1 ? lines_[0].text : "not one line";
  }

  std::vector<Line> lines_;
};
TYPED_TEST_SUITE_P(LogConformance);

TYPED_TEST_P(LogConformance, GivesTheSinkEveryLevelWithPlaceAndText) {
  for (int level = 0; level < 3; ++level) {
    TypeParam::kLog(level, "some/file", 42, "%s of %d, %5.2f", "three", 7, 1.5);

    ASSERT_EQ(level + 1u, this->lines_.size());
    EXPECT_EQ(level, this->lines_[level].level);
    EXPECT_EQ("some/file", this->lines_[level].file);
    EXPECT_EQ(42, this->lines_[level].line);
    EXPECT_EQ("three of 7,  1.50", this->lines_[level].text);
  }
  EXPECT_EQ("", this->Logged(""));
}

TYPED_TEST_P(LogConformance, GivesTheSinkLinesOfAnyLengthWhole) {
  std::vector<size_t> sizes = {1, 100, 100000, 3000000};
  for (size_t power = 64; power <= 8192; power *= 2) {
    for (size_t near = power - 3; near <= power + 3; ++near) sizes.push_back(near);
  }
  for (const size_t size : sizes) {
    std::string raw(size, 'x');
    raw.back() = 'y';
    EXPECT_EQ(raw, this->Logged(raw)) << size;
    EXPECT_EQ('\0', this->lines_[0].after) << size;
  }
}

TYPED_TEST_P(LogConformance, EscapesEveryControlByte) {
  const char kHex[] = "0123456789abcdef";
  for (int byte = 1; byte < 0x80; ++byte) {
    const char c = static_cast<char>(byte);
    std::string expected(1, c);
    if (byte < 0x20 || byte == 0x7f) {
      expected = std::string("\\x") + kHex[byte >> 4] + kHex[byte & 15];
    }
    if (c == '\n') expected = "\\n";
    if (c == '\r') expected = "\\r";
    if (c == '\t') expected = "\\t";
    EXPECT_EQ("a" + expected + "b", this->Logged(std::string("a") + c + "b")) << byte;
  }
}

TYPED_TEST_P(LogConformance, EscapesANulByteToo) {
  TypeParam::kLog(2, "f", 1, "a%cb", '\0');

  ASSERT_EQ(1u, this->lines_.size());
  EXPECT_EQ("a\\x00b", this->lines_[0].text);
}

TYPED_TEST_P(LogConformance, LeavesBytesBeyondAsciiAsTheyAre) {
  std::string raw;
  for (int byte = 0x80; byte < 0x100; ++byte) raw += static_cast<char>(byte);
  raw += "\xE2\x82\xAC \\ %d";

  EXPECT_EQ(raw, this->Logged(raw));
}

TYPED_TEST_P(LogConformance, GivesALineThatEscapingLengthensWhole) {
  for (const size_t size : {250u, 255u, 256u, 257u, 511u, 512u, 513u, 1023u, 1024u, 5000u}) {
    const std::string raw(size, '\n');
    std::string expected;
    for (size_t i = 0; i < size; ++i) expected += "\\n";
    EXPECT_EQ(expected, this->Logged(raw)) << size;
    EXPECT_EQ(std::string(size, 'x') + "\\x01", this->Logged(std::string(size, 'x') + '\x01'));
  }
}

TYPED_TEST_P(LogConformance, GivesALineAboutAFormatThatFails) {
  const wchar_t no_character[] = {static_cast<wchar_t>(0x7fffffff), 0};

  TypeParam::kLog(2, "file", 7, "before %ls after", no_character);

  ASSERT_EQ(1u, this->lines_.size());
  EXPECT_EQ(2, this->lines_[0].level);
  EXPECT_EQ("file", this->lines_[0].file);
  EXPECT_EQ(7, this->lines_[0].line);
  EXPECT_NE(std::string::npos, this->lines_[0].text.find("before %ls after"));
}

TYPED_TEST_P(LogConformance, LeavesErrnoAlone) {
  const wchar_t no_character[] = {static_cast<wchar_t>(0x7fffffff), 0};
  const std::string long_text(100000, 'x');

  errno = 12345;
  TypeParam::kLog(2, "f", 1, "x");
  EXPECT_EQ(12345, errno);
  TypeParam::kLog(2, "f", 1, "%s", long_text.c_str());
  EXPECT_EQ(12345, errno);
  TypeParam::kLog(2, "f", 1, "%ls", no_character);
  EXPECT_EQ(12345, errno);
}

TYPED_TEST_P(LogConformance, GivesNothingToASinkThatWasReplaced) {
  std::vector<typename TestFixture::Line> others;
  TypeParam::kLog(2, "f", 1, "first");

  TypeParam::kSetSink(&TestFixture::Keep, &others);
  TypeParam::kLog(2, "f", 1, "second");

  ASSERT_EQ(1u, this->lines_.size());
  EXPECT_EQ("first", this->lines_[0].text);
  ASSERT_EQ(1u, others.size());
  EXPECT_EQ("second", others[0].text);
  TypeParam::kSetSink(nullptr, nullptr);
}

TYPED_TEST_P(LogConformance, GivesNothingToASinkThatWasTakenBack) {
  TypeParam::kSetSink(nullptr, nullptr);

  TypeParam::kLog(0, "f", 1, "not to be seen");

  EXPECT_TRUE(this->lines_.empty());
}

TYPED_TEST_P(LogConformance, SurvivesASinkThatLogs) {
  static int calls;
  calls = 0;
  TypeParam::kSetSink(
      [](void*, int, const char*, int, const char*, size_t) {
        ++calls;
        TypeParam::kLog(0, "f", 1, "from inside the sink");
      },
      nullptr);

  TypeParam::kLog(2, "f", 1, "outer");

  EXPECT_EQ(1, calls);
}

TYPED_TEST_P(LogConformance, LetsASinkReplaceItself) {
  TypeParam::kSetSink([](void* context, int, const char*, int, const char*,
                         size_t) { TypeParam::kSetSink(&TestFixture::Keep, context); },
                      &this->lines_);

  TypeParam::kLog(2, "f", 1, "first");
  TypeParam::kLog(2, "f", 1, "second");

  ASSERT_EQ(1u, this->lines_.size());
  EXPECT_EQ("second", this->lines_[0].text);
}

TYPED_TEST_P(LogConformance, CallsTheSinkFromOneThreadAtATimeWithEveryLine) {
  struct Context {
    std::atomic<int> inside{0};
    std::atomic<int> overlaps{0};
    int lines = 0;
  } context;
  TypeParam::kSetSink(
      [](void* raw, int, const char*, int, const char*, size_t) {
        auto* const c = static_cast<Context*>(raw);
        if (c->inside.fetch_add(1) != 0) c->overlaps.fetch_add(1);
        ++c->lines;
        c->inside.fetch_sub(1);
      },
      &context);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([i] {
      for (int n = 0; n < 500; ++n) TypeParam::kLog(n % 3, "f", n, "thread %d line %d", i, n);
    });
  }
  for (std::thread& thread : threads) thread.join();
  TypeParam::kSetSink(nullptr, nullptr);

  EXPECT_EQ(0, context.overlaps.load());
  EXPECT_EQ(2000, context.lines);
}

TYPED_TEST_P(LogConformance, LetsTheContextBeFreedOnceTheSinkIsReplaced) {
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (int i = 0; i < 2; ++i) {
    threads.emplace_back([&stop] {
      while (!stop.load()) TypeParam::kLog(0, "f", 1, "x");
    });
  }

  for (int round = 0; round < 300; ++round) {
    auto count = std::make_unique<int>(0);
    TypeParam::kSetSink([](void* context, int, const char*, int, const char*,
                           size_t) { ++*static_cast<int*>(context); },
                        count.get());
    TypeParam::kSetSink(nullptr, nullptr);
    const int called = *count;
    count.reset();  // A call to come would be found by the sanitizers.
    EXPECT_GE(called, 0);
  }
  stop.store(true);
  for (std::thread& thread : threads) thread.join();
}

REGISTER_TYPED_TEST_SUITE_P(LogConformance, GivesTheSinkEveryLevelWithPlaceAndText,
                            GivesTheSinkLinesOfAnyLengthWhole, EscapesEveryControlByte,
                            EscapesANulByteToo, LeavesBytesBeyondAsciiAsTheyAre,
                            GivesALineThatEscapingLengthensWhole, GivesALineAboutAFormatThatFails,
                            LeavesErrnoAlone, GivesNothingToASinkThatWasReplaced,
                            GivesNothingToASinkThatWasTakenBack, SurvivesASinkThatLogs,
                            LetsASinkReplaceItself, CallsTheSinkFromOneThreadAtATimeWithEveryLine,
                            LetsTheContextBeFreedOnceTheSinkIsReplaced);

}  // namespace quenor::conformance

#endif  // QUENOR_TESTS_CONFORMANCE_LOG_CONFORMANCE_H_
