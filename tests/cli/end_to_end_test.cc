// quenor-report against quenor-collector over TLS, as a person would run them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "tests/cli/reporting.h"
#include "tests/support/process.h"

namespace quenor::test {
namespace {

// Noise with so many repetitions of three bytes that deflate's blocks drift against its window, and
// so few that they save nothing: of this many bytes the output is full while input remains.
std::string BodyThatIsCutShort() {
  std::mt19937_64 random(1);
  std::string body(5701696, '\0');
  for (size_t i = 0; i < body.size(); i += sizeof(uint64_t)) {
    const uint64_t noise = random();
    std::memcpy(body.data() + i, &noise, sizeof(noise));
  }
  for (size_t i = 8192; i + 3 < body.size(); i += 400) {
    std::memcpy(body.data() + i, body.data() + i - 4000, 3);
  }
  return body;
}

// What is written to `side` can be read from `screen`.
struct Terminal {
  Terminal() : screen(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
    EXPECT_EQ(0, ::grantpt(screen.get()));
    EXPECT_EQ(0, ::unlockpt(screen.get()));
    side.Reset(::open(::ptsname(screen.get()), O_RDWR | O_NOCTTY | O_CLOEXEC));
    EXPECT_GE(side.get(), 0);
  }

  Fd screen;
  Fd side;
};

TEST_F(ReportTest, DeliversAThousandLinesOnceEachAndUnaltered) {
  Collector collector(certificates_, {});
  const std::vector<std::string> lines = NumberedLines(1000);

  const Result result = Send(collector.url(), {"--send-now"}, Joined(lines));

  EXPECT_EQ("handed_over=1000 delivered=1000 failed_attempts=0 dropped=0 left=0 loaded=0 kept=0\n",
            result.out);
  EXPECT_EQ("", result.err);
  EXPECT_EQ(0, result.exit_code);
  EXPECT_EQ(DigestsOf(lines), collector.Stop());
}

TEST_F(ReportTest, DeliversLargeEmptyAndBinaryMessagesUnaltered) {
  Collector collector(certificates_, {});
  std::string all_bytes;
  for (int i = 0; i < (383 << 10); ++i) all_bytes += static_cast<char>(i % 256);
  const std::vector<std::string> messages = {all_bytes, "", std::string("\0", 1), "x\r\n"};
  Arguments files = {"--send-now"};
  for (size_t i = 0; i < messages.size(); ++i) {
    files.push_back(certificates_.Write("file" + std::to_string(i), messages[i]));
  }

  const Result result = Send(collector.url(), files, "");

  EXPECT_EQ("handed_over=4 delivered=4 failed_attempts=0 dropped=0 left=0 loaded=0 kept=0\n",
            result.out);
  EXPECT_EQ(0, result.exit_code);
  EXPECT_EQ(DigestsOf(messages), collector.Stop());
}

TEST_F(ReportTest, DeliversLinesOfAllBytesWithoutTheirEnds) {
  Collector collector(certificates_, {});
  std::string line;
  for (int byte = 0; byte < 256; ++byte) {
    if (byte != '\n') line += static_cast<char>(byte);
  }
  const std::string large(383 << 10, 'l');

  const Result result =
      Send(collector.url(), {"--send-now", "--lines"}, line + "\n\n" + large + "\n" + "no end\r");

  EXPECT_EQ(0, result.exit_code) << result.err;
  EXPECT_EQ(DigestsOf({line, "", large, "no end\r"}), collector.Stop());
}

TEST_F(ReportTest, DeliversStandardInputWholeForADash) {
  Collector collector(certificates_, {});

  const Result result = Send(collector.url(), {"--http1", "-"}, "a\nb\n");

  EXPECT_EQ(0, result.exit_code) << result.err;
  EXPECT_EQ(DigestsOf({"a\nb\n"}), collector.Stop());
}

TEST_F(ReportTest, DeliversWithoutSendNowAtTheTimersPace) {
  Collector collector(certificates_, {});

  const Result result = Send(collector.url(), {}, "a\nb\nc\n");

  EXPECT_EQ("handed_over=3 delivered=3 failed_attempts=0 dropped=0 left=0 loaded=0 kept=0\n",
            result.out);
  EXPECT_EQ(DigestsOf({"a", "b", "c"}), collector.Stop());
}

TEST_F(ReportTest, CompressedLinesArriveWholeAndThoseThatDoNotShrinkAreNamed) {
  Collector collector(certificates_, {"--inflate"});
  std::vector<std::string> lines;
  std::vector<std::string> shorter;
  for (int i = 1; i <= 100; ++i) {
    const bool repeats = i % 4 != 0;
    lines.push_back("line " + std::to_string(i) + (repeats ? std::string(100, 'r') : ""));
    if (repeats) shorter.push_back(lines.back());
  }

  const Result result = Send(collector.url(), {"--compress", "--send-now"}, Joined(lines));

  EXPECT_EQ("handed_over=100 delivered=75 failed_attempts=0 dropped=25 left=0 loaded=0 kept=0\n",
            result.out);
  EXPECT_EQ(69, result.exit_code);
  EXPECT_EQ(25u, CountIn(result.err, "was dropped: deflate does not make it shorter"));
  EXPECT_TRUE(Mentions(result.err, "line 4 was dropped")) << result.err;
  EXPECT_TRUE(Mentions(result.err, "line 100 was dropped")) << result.err;
  EXPECT_EQ(DigestsOf(shorter), collector.Stop());
}

TEST_F(ReportTest, CompressedMessagesSurviveAServerThatFailsAndLimitsResends) {
  Collector collector(certificates_,
                      {"--inflate", "--misbehave", "every 3: status=503", "--max-resend", "1"});
  std::vector<std::string> lines = NumberedLines(8);
  for (std::string& line : lines) line += std::string(200, 'r');

  const Result result =
      Send(collector.url(), {"--compress", "--send-now", "--wait", "120"}, Joined(lines));

  EXPECT_EQ(0, result.exit_code) << result.err;
  EXPECT_EQ(8, Field(result.out, "delivered"));
  ExpectEachArrived(lines, collector.Stop());
}

TEST_F(ReportTest, AMessageWhoseCompressionIsCutShortIsNamedAndNeverCalledDelivered) {
  Collector collector(certificates_, {"--inflate"});
  const std::string body = certificates_.Write("core.dmp", BodyThatIsCutShort());

  const Result result = Send(collector.url(), {"--compress", "--send-now", body}, "");

  EXPECT_EQ("handed_over=1 delivered=0 failed_attempts=0 dropped=1 left=0 loaded=0 kept=0\n",
            result.out);
  EXPECT_EQ(69, result.exit_code);
  EXPECT_TRUE(Mentions(result.err,
                       "core.dmp was dropped: deflate does not make it shorter and was "
                       "cut short"))
      << result.err;
  // It may have reached the server, but not as a whole stream.
  for (const auto& [digest, count] : collector.Stop()) EXPECT_EQ("truncated", digest) << count;
}

TEST_F(ReportTest, AnEmptyInputIsDelivered) {
  RefusingPort nobody;

  const Result result = Send("https://" + nobody.Address() + "/", {}, "");

  EXPECT_EQ("handed_over=0 delivered=0 failed_attempts=0 dropped=0 left=0 loaded=0 kept=0\n",
            result.out);
  EXPECT_EQ(0, result.exit_code);
}

TEST_F(ReportTest, LosesNothingToAServerThatFailsEveryThirdRequest) {
  Collector collector(certificates_, {"--misbehave", "every 3: status=503"});
  const std::vector<std::string> lines = NumberedLines(8);

  const Result result = Send(collector.url(), {"--send-now", "--wait", "120"}, Joined(lines));

  EXPECT_EQ(0, result.exit_code) << result.err;
  EXPECT_EQ(8, Field(result.out, "delivered"));
  EXPECT_GE(Field(result.out, "failed_attempts"), 2);
  ExpectEachArrived(lines, collector.Stop());
}

TEST_F(ReportTest, LosesNothingToAServerThatLowersTheResendLimit) {
  Collector collector(certificates_, {"--misbehave", "every 3: status=503", "--max-resend", "1"});
  const std::vector<std::string> lines = NumberedLines(8);

  const Result result = Send(collector.url(), {"--send-now", "--wait", "120"}, Joined(lines));

  EXPECT_EQ(0, result.exit_code) << result.err;
  EXPECT_EQ(8, Field(result.out, "delivered"));
  EXPECT_EQ(0, Field(result.out, "dropped"));
  EXPECT_EQ(1u, CountIn(result.err, "the server has set the resend limit to 1; it is lifted again"))
      << result.err;
  ExpectEachArrived(lines, collector.Stop());
}

TEST_F(ReportTest, SaysOnceThatTheServersIntervalSwitchesSendNowOff) {
  Collector collector(certificates_, {"--send-interval", "100"});

  const Result result = Send(collector.url(), {"--send-now"}, Joined(NumberedLines(5)));

  EXPECT_EQ(0, result.exit_code);
  EXPECT_EQ(
      "quenor-report: the send interval is now 100 ms: the server has set it; --send-now is off "
      "while an interval is set\n",
      result.err);
}

TEST_F(ReportTest, SaysThatItsOwnIntervalSwitchesSendNowOff) {
  Collector collector(certificates_, {});

  const Result result = Send(collector.url(), {"--send-now", "--interval", "150"}, "a\nb\n");

  EXPECT_EQ(0, result.exit_code);
  EXPECT_EQ("quenor-report: --send-now is off while an interval is set, here by --interval 150\n",
            result.err);
}

TEST_F(ReportTest, NamesWhatIsDroppedAtTheResendLimit) {
  Collector collector(certificates_, {"--misbehave", "all: status=503"});
  const std::string file = certificates_.Write("crash.dmp", "x");

  const Result lines = Send(collector.url(), {"--send-now", "--max-resend", "1"}, "a\nb\n");
  const Result files = Send(collector.url(), {"--send-now", "--max-resend", "1", file}, "");

  EXPECT_EQ("handed_over=2 delivered=0 failed_attempts=2 dropped=2 left=0 loaded=0 kept=0\n",
            lines.out);
  EXPECT_EQ(69, lines.exit_code);
  for (const char* name : {"line 1", "line 2"}) {
    EXPECT_TRUE(Mentions(lines.err, "quenor-report: " + std::string(name) +
                                        " was dropped: 1 failed send; the last time the server "
                                        "answered with HTTP status 503\n"))
        << lines.err;
  }
  EXPECT_EQ(69, files.exit_code);
  EXPECT_TRUE(Mentions(files.err, file + " was dropped")) << files.err;
}

TEST_F(ReportTest, WhenTheServerIsDownEverythingIsLeftAndNamed) {
  RefusingPort nobody;

  const Result result =
      Send("https://" + nobody.Address() + "/", {"--wait", "2", "--no-persist"}, "a\nb\nc\n");

  EXPECT_EQ(75, result.exit_code);
  EXPECT_EQ(3, Field(result.out, "left"));
  EXPECT_EQ(0, Field(result.out, "kept"));
  EXPECT_EQ(0, Field(result.out, "delivered"));
  EXPECT_TRUE(Mentions(result.err,
                       "3 messages left undelivered (line 1, line 2, line 3) and not kept on "
                       "disk; at the last failed send the server's machine refused the "
                       "connection (refused)"))
      << result.err;
}

TEST_F(ReportTest, WaitZeroDoesNotWait) {
  Collector collector(certificates_, {"--misbehave", "all: hang"});

  const Result result = Send(collector.url(), {"--wait", "0", "--no-persist"}, "a\n");

  EXPECT_EQ(75, result.exit_code);
  EXPECT_EQ("handed_over=1 delivered=0 failed_attempts=0 dropped=0 left=1 loaded=0 kept=0\n",
            result.out);
}

TEST_F(ReportTest, StopsReadingAtOneHundredAndFortyNineWhileTheServerIsDown) {
  RefusingPort nobody;

  const Result result = Send("https://" + nobody.Address() + "/", {"--send-now", "--wait", "1"},
                             Joined(NumberedLines(1000)));

  EXPECT_EQ(75, result.exit_code);
  EXPECT_EQ(149, Field(result.out, "handed_over"));
  EXPECT_EQ(149, Field(result.out, "left"));
  EXPECT_EQ(0, Field(result.out, "dropped"));
  EXPECT_TRUE(Mentions(result.err,
                       "the input was not read to its end, but up to line 149: the "
                       "server has failed for longer than --wait; hand over what "
                       "follows when it answers again"))
      << result.err;
}

TEST_F(ReportTest, SendsNothingToAServerThatItCannotVerify) {
#if defined(QUENOR_SANITIZED)
  constexpr char kUntilOneHasFailed[] = "20";
#else
  constexpr char kUntilOneHasFailed[] = "2";
#endif
  Collector collector(certificates_, {});

  const Result result = RunWhole({QUENOR_REPORT_PATH, "send", "--url", collector.url(), "--wait",
                                  kUntilOneHasFailed, "--cache-dir", certificates_.Path("state")},
                                 "secret\n");

  EXPECT_EQ(77, result.exit_code);
  EXPECT_TRUE(Mentions(result.err, "led to no trusted CA (tls_untrusted)")) << result.err;
  EXPECT_EQ(1, Field(result.out, "left"));
  EXPECT_TRUE(collector.Stop().empty());
  EXPECT_EQ(0u, collector.requests());
}

TEST_F(ReportTest, NeverGoesAroundAProxyThatIsDown) {
  Collector collector(certificates_, {});
  RefusingPort nobody;

  const Result result =
      Send(collector.url(), {"--socks5", "me:pa%40ss@" + nobody.Address(), "--wait", "2"}, "a\n");

  EXPECT_EQ(75, result.exit_code);
  collector.Stop();
  EXPECT_EQ(0u, collector.requests());
  EXPECT_FALSE(Mentions(result.err, "pa@ss")) << result.err;
  EXPECT_FALSE(Mentions(result.err, "pa%40ss")) << result.err;
}

class StopSignalTest : public ReportTest, public ::testing::WithParamInterface<int> {};

TEST_P(StopSignalTest, EndsInOrderAndSaysWhatIsLeft) {
  Collector collector(certificates_, {"--misbehave", "every 3: hang"});
  Pipe input;
  Process report(SendCommand(certificates_, collector.url(), {"--send-now", "--wait", "300"}),
                 std::move(input.reader));
  ASSERT_EQ(6, ::write(input.writer.get(), "a\nb\nc\n", 6));
  collector.WaitForRequests(3);

  report.Signal(GetParam());
  const Result result = ResultOf(&report);

  EXPECT_EQ(75, result.exit_code);
  EXPECT_EQ(3, Field(result.out, "handed_over"));
  EXPECT_GE(Field(result.out, "left"), 1);
  EXPECT_EQ(3, Field(result.out, "left") + Field(result.out, "delivered"));
  EXPECT_EQ(0, Field(result.out, "dropped"));
  EXPECT_TRUE(Mentions(result.err, "left undelivered (line ")) << result.err;
}

INSTANTIATE_TEST_SUITE_P(Each, StopSignalTest, ::testing::Values(SIGINT, SIGTERM, SIGHUP));

TEST_F(ReportTest, ASignalEndsItWhileItWaitsForInput) {
  Collector collector(certificates_, {});
  Pipe input;
  Process report(SendCommand(certificates_, collector.url(), {"--send-now"}),
                 std::move(input.reader));
  ASSERT_EQ(2, ::write(input.writer.get(), "a\n", 2));
  collector.WaitForRequests(1);
  report.WaitUntilAsleep();

  report.Signal(SIGTERM);
  const Result result = ResultOf(&report);

  EXPECT_EQ(1, Field(result.out, "handed_over"));
  EXPECT_EQ(Field(result.out, "delivered") == 1 ? 0 : 75, result.exit_code);
}

TEST_F(ReportTest, ASecondSignalEndsItAtOnce) {
  Collector collector(certificates_, {"--misbehave", "all: hang"});
  Pipe input;
  // Nobody reads this pipe and it is full: the line about what is left cannot be written.
  Pipe error;
  ::fcntl(error.writer.get(), F_SETFL, O_NONBLOCK);
  const std::string block(4096, 'x');
  while (::write(error.writer.get(), block.data(), block.size()) > 0) {
  }
  ::fcntl(error.writer.get(), F_SETFL, 0);
  // As shells start what they put into the background.
  Arguments command = {"sh", "-c", "trap '' INT TERM; exec \"$@\"", "sh"};
  const Arguments send = SendCommand(certificates_, collector.url(), {"--send-now"});
  command.insert(command.end(), send.begin(), send.end());
  Process report(command, std::move(input.reader), std::move(error.writer));
  ASSERT_EQ(2, ::write(input.writer.get(), "a\n", 2));
  collector.WaitForRequests(1);

  report.Signal(SIGINT);
  report.Signal(SIGTERM);

  EXPECT_EQ(-SIGTERM, report.Wait());
}

TEST_F(ReportTest, AnEndlessPipeIsEndedBySigint) {
  Collector collector(certificates_, {});
  Pipe lines;
  // Its lines go to standard error, so that they reach the pipe and not this test.
  Process yes({"sh", "-c", "exec yes >&2"}, Containing(""), std::move(lines.writer));
  Process report(SendCommand(certificates_, collector.url(), {"--send-now"}),
                 std::move(lines.reader));
  collector.WaitForRequests(500);

  report.Signal(SIGINT);
  const Result result = ResultOf(&report);

  EXPECT_GE(Field(result.out, "delivered"), 500 - 149);
  EXPECT_LE(Field(result.out, "left"), 149);
  EXPECT_EQ(0, Field(result.out, "dropped"));
  EXPECT_EQ(Field(result.out, "left") > 0 ? 75 : 0, result.exit_code);
}

TEST_F(ReportTest, ShowsProgressOnATerminalOnly) {
  Collector collector(certificates_, {});
  Terminal terminal;
  Collected shown(std::move(terminal.screen));
  {
    Process report(SendCommand(certificates_, collector.url(), {"--send-now"}),
                   Containing(Joined(NumberedLines(20))), std::move(terminal.side));
    EXPECT_EQ(0, report.Wait());
    EXPECT_EQ("handed_over=20 delivered=20 failed_attempts=0 dropped=0 left=0 loaded=0 kept=0\n",
              report.out().Whole());
  }

  EXPECT_TRUE(Mentions(shown.Whole(), "delivered 20, in flight 0, queued 0, retries 0, "))
      << shown.Whole();
  EXPECT_EQ("/s\r\n", shown.Whole().substr(shown.Whole().size() - 4));
}

TEST_F(ReportTest, ShowsWhatHappensAfterALongRest) {
  Collector collector(certificates_, {"--misbehave", "all: status=503"});
  Terminal terminal;
  Collected shown(std::move(terminal.screen));
  Pipe input;
  Process report(SendCommand(certificates_, collector.url(), {"--send-now"}),
                 std::move(input.reader), std::move(terminal.side));
  ASSERT_EQ(2, ::write(input.writer.get(), "a\n", 2));

  EXPECT_TRUE(shown.WaitFor("retries 2", 1));

  report.Signal(SIGTERM);
  EXPECT_EQ(75, report.Wait());
}

TEST_F(ReportTest, AnUnreadableFileIsFoundBeforeAnythingIsSent) {
  Collector collector(certificates_, {});
  const std::string good = certificates_.Write("good", "x");

  const Result result = Send(collector.url(), {"--send-now", good, good + ".missing"}, "");

  EXPECT_EQ(65, result.exit_code);
  EXPECT_EQ("", result.out);
  EXPECT_EQ("quenor-report: cannot read " + good +
                ".missing: No such file or directory; nothing was sent; correct it and start "
                "again\n",
            result.err);
  collector.Stop();
  EXPECT_EQ(0u, collector.requests());
}

TEST_F(ReportTest, AnInputThatFailsInTheMiddleNamesWhatWasHandedOver) {
  Collector collector(certificates_, {});
  const std::string a = certificates_.Write("a", "1");
  const std::string b = certificates_.Write("b", "2");

  // A regular file by its kind, whose first page cannot be read.
  const Result result = Send(collector.url(), {"--send-now", a, b, "/proc/self/mem", a}, "");

  EXPECT_EQ(65, result.exit_code);
  EXPECT_EQ("handed_over=2 delivered=2 failed_attempts=0 dropped=0 left=0 loaded=0 kept=0\n",
            result.out);
  EXPECT_EQ(
      "quenor-report: cannot read /proc/self/mem: Input/output error; handed over before it: " + a +
          " to " + b + "; correct it and hand over the rest\n",
      result.err);
  EXPECT_EQ(DigestsOf({"1", "2"}), collector.Stop());
}

TEST_F(ReportTest, UnreadableStandardInputIsFoundBeforeAnythingIsSent) {
  Process report(SendCommand(certificates_, "https://127.0.0.1:1/", {}),
                 Fd(::open("/", O_RDONLY | O_CLOEXEC)));

  const Result result = ResultOf(&report);

  EXPECT_EQ(65, result.exit_code);
  EXPECT_TRUE(Mentions(result.err, "cannot read standard input: Is a directory")) << result.err;
}

TEST_F(ReportTest, WrongUsageIsNamedInOneLine) {
  const std::string url = "https://127.0.0.1:1/";
  const std::string no_pem = certificates_.Write("no.pem", "this is no certificate\n");
  const struct {
    Arguments arguments;
    std::string named;
  } cases[] = {
      {{"--url", "https://host:99999/"}, "https://host:99999/"},
      {{"--url", url, "--cacert", "/nowhere/ca.pem"}, "/nowhere/ca.pem"},
      {{"--url", url, "--cacert", no_pem}, no_pem},
      {{"--url", url, "--socks5", "proxy"}, "\"proxy\""},
      {{"--url", url, "--cache", "disk"}, "disk"},
      {{"--url", url, "--cache-dir", no_pem}, no_pem},
      {{"--url", url, "--saved-list", "/nowhere/saved"}, "/nowhere/saved"},
      {{"--url", url, "--metrics-file", "/nowhere/quenor.prom"}, "/nowhere/quenor.prom"},
      {{"--url", url, "--frobnicate"}, "--frobnicate"},
      {{}, "--url"},
  };
  for (const auto& test : cases) {
    Arguments arguments = {QUENOR_REPORT_PATH, "send"};
    arguments.insert(arguments.end(), test.arguments.begin(), test.arguments.end());
    const Result result = RunWhole(arguments, "a\n");

    EXPECT_EQ(64, result.exit_code) << result.err;
    EXPECT_EQ("", result.out);
    EXPECT_TRUE(Mentions(result.err, test.named)) << result.err;
    EXPECT_EQ(1u, CountIn(result.err, "\n")) << result.err;
  }
}

TEST_F(ReportTest, TheMetricsFileHasWhatTheClosingLineHas) {
  Collector collector(certificates_, {"--misbehave", "1: status=503"});
  const std::string file = certificates_.Path("quenor.prom");
  const Result result = Send(collector.url(), {"--compress", "--send-now", "--metrics-file", file},
                             std::string(100, 'a') + "\nb\n" + std::string(100, 'c') + "\n");
  EXPECT_EQ("handed_over=3 delivered=2 failed_attempts=1 dropped=1 left=0 loaded=0 kept=0\n",
            result.out);

  const std::string text = ReadWholeFile(file);
  const std::string label = "{reporter=\"quenor-report\"";
  for (const std::string& line : {
           "quenor_messages_handed_over_total" + label + "} 3",
           "quenor_messages_ended_total" + label + ",end=\"acknowledged\",cause=\"\"} 2",
           "quenor_messages_ended_total" + label + ",end=\"dropped\",cause=\"not_compressed\"} 1",
           "quenor_attempts_failed_total" + label + ",reason=\"status_5xx\"} 1",
           "quenor_messages_pending" + label + "} 0",
       }) {
    EXPECT_TRUE(Mentions(text, line + "\n")) << line << "\n" << text;
  }
  const Result check = RunWhole({"python3", "-B", QUENOR_CHECK_METRICS}, text);
  EXPECT_EQ(0, check.exit_code) << check.out;
}

TEST_F(ReportTest, NohupKeepsAHangUpFromEndingIt) {
  Collector collector(certificates_, {});
  Pipe input;
  // glibc then fills the memory that it gives out.
  Arguments arguments = {"env",
                         "GLIBC_TUNABLES=glibc.malloc.tcache_count=0:glibc.malloc.perturb=2",
                         "sh",
                         "-c",
                         "trap '' HUP; exec \"$@\"",
                         "sh"};
  for (const std::string& word : SendCommand(certificates_, collector.url(), {"--send-now"})) {
    arguments.push_back(word);
  }
  Process report(arguments, std::move(input.reader));
  ASSERT_EQ(2, ::write(input.writer.get(), "a\n", 2));
  collector.WaitForRequests(1);

  report.Signal(SIGHUP);
  ASSERT_EQ(2, ::write(input.writer.get(), "b\n", 2));
  input.writer.Reset();
  const Result result = ResultOf(&report);

  EXPECT_EQ(0, result.exit_code) << result.err;
  EXPECT_EQ(2, Field(result.out, "delivered"));
}

TEST_F(ReportTest, AClosingLineThatCannotBeWrittenIsAFailure) {
  Collector collector(certificates_, {});
  Arguments arguments = {"sh", "-c", "exec \"$@\" >/dev/full", "sh"};
  for (const std::string& word : SendCommand(certificates_, collector.url(), {"--send-now"})) {
    arguments.push_back(word);
  }

  const Result result = RunWhole(arguments, "a\n");
  const Result help =
      RunWhole({"sh", "-c", "exec \"$0\" --help >/dev/full", QUENOR_REPORT_PATH}, "");

  EXPECT_EQ(74, result.exit_code);
  EXPECT_TRUE(Mentions(result.err,
                       "cannot write to standard output: No space left on device; "
                       "handed_over=1 delivered=1 "))
      << result.err;
  EXPECT_EQ(74, help.exit_code) << help.err;
}

TEST_F(ReportTest, AChannelsNameMayLeadIntoAFolderOfTheCache) {
  RefusingPort nobody;
  const Arguments arguments = {"--channel", "a/b", "--wait", "0"};
  const std::string folder = certificates_.Path("state/quenor_report/a");

  const Result without = Send("https://" + nobody.Address() + "/", arguments, "x\n");
  ASSERT_TRUE(std::filesystem::create_directories(folder));
  const Result with = Send("https://" + nobody.Address() + "/", arguments, "x\n");

  EXPECT_EQ(75, without.exit_code);
  EXPECT_EQ(0, Field(without.out, "kept"));
  EXPECT_TRUE(Mentions(without.err, folder + "/b.mmap could not be opened")) << without.err;
  EXPECT_EQ(1, Field(with.out, "kept")) << with.err;
  EXPECT_TRUE(std::filesystem::exists(folder + "/b.mmap"));
}

TEST(ReportProgramTest, HelpFitsTheTerminal) {
  for (const char* command : {"", "send", "cache", "doctor"}) {
    const Result result =
        RunWhole({"script", "-qec",
                  "stty cols 60; exec " QUENOR_REPORT_PATH " " + std::string(command) + " --help",
                  "/dev/null"},
                 "");
    std::istringstream lines(result.out);
    for (std::string line; std::getline(lines, line);) EXPECT_LE(line.size(), 61u) << line;
    EXPECT_TRUE(Mentions(result.out, "Usage: quenor-report")) << result.out;
  }
}

TEST(ReportProgramTest, TheExampleThatFollowsALogSendsAtOnce) {
  const Result result = RunWhole({QUENOR_REPORT_PATH, "send", "--help"}, "");

  const size_t example = result.out.find("tail -F ");
  ASSERT_NE(std::string::npos, example);
  EXPECT_TRUE(Mentions(result.out.substr(example, result.out.find("goes on", example) - example),
                       " --send-now"))
      << result.out;
}

TEST(ReportProgramTest, HelpHasExamples) {
  const Result result = RunWhole({QUENOR_REPORT_PATH, "send", "--help"}, "");

  EXPECT_EQ(0, result.exit_code);
  EXPECT_TRUE(Mentions(result.out, "quenor-report send --url https://")) << result.out;
}

TEST(ReportProgramTest, HelpOfTheCacheCommandsHasTheirExitCodes) {
  const Result result = RunWhole({QUENOR_REPORT_PATH, "cache", "--help"}, "");

  EXPECT_EQ(0, result.exit_code);
  EXPECT_TRUE(Mentions(result.out, "quenor-report cache verify ")) << result.out;
  EXPECT_TRUE(Mentions(result.out, "Exit codes: 0 fine, 1 ")) << result.out;
}

TEST(ReportProgramTest, VersionNamesEveryServiceOnALineOfItsOwn) {
  const Result result = RunWhole({QUENOR_REPORT_PATH, "--version"}, "");

  EXPECT_EQ(0, result.exit_code);
  EXPECT_EQ(0u, result.out.find("quenor-report "));
  for (const char* service :
       {"http_client", "json", "timer", "dispatch_queue", "config_center", "mmap_file",
        "cache_file", "path_service", "report_events", "proxy_config", "throtter", "log"}) {
    EXPECT_EQ(1u, CountIn(result.out, "\n" + std::string(service) + ": ")) << result.out;
  }
}

}  // namespace
}  // namespace quenor::test
