// What quenor-report keeps on disk, with the cache files as a person has them, against
// quenor-collector over TLS.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "quenor_base/platform/multi_process_safety_mmap_file.h"
#include "quenor_base/platform/reliable_report_cache_file.h"
#include "tests/cli/reporting.h"
#include "tests/support/process.h"

namespace quenor::test {
namespace {

bool Exists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }

int Total(const Digests& digests) {
  int total = 0;
  for (const auto& [digest, count] : digests) total += count;
  return total;
}

Digests Together(Digests a, const Digests& b) {
  for (const auto& [digest, count] : b) a[digest] += count;
  return a;
}

// The lines whose numbers are not in the list.
std::vector<std::string> NotListed(const std::vector<std::string>& lines, const std::string& list) {
  std::set<std::string> listed;
  std::istringstream numbers(list);
  for (std::string number; std::getline(numbers, number);) listed.insert(number);
  std::vector<std::string> rest;
  for (size_t i = 0; i < lines.size(); ++i) {
    if (listed.count(std::to_string(i + 1)) == 0) rest.push_back(lines[i]);
  }
  return rest;
}

// Leaves packets in a new cache file as an owner that has ended.
bool LeaveBehind(const std::string& kind, const std::string& path,
                 const std::vector<std::string>& packets) {
  const auto data = [](const std::string& packet) {
    return reinterpret_cast<const uint8_t*>(packet.data());
  };
  bool done = true;
  if (kind == "mmap") {
    MultiProcessSafetyMmapFile file;
    if (!file.Open(base::FilePath(path), base::MemoryMappedFile::READ_WRITE_EXTEND, 0))
      return false;
    int64_t size = 0;
    for (const std::string& packet : packets) size += static_cast<int64_t>(packet.size()) + 4;
    done &= file.Clear(size);
    for (const std::string& packet : packets) {
      done &= file.AppendDataPacket({data(packet), static_cast<uint32_t>(packet.size())});
    }
    return done && file.IsSaveComplete();
  }
  ReliableReportCacheFile file;
  if (!file.Open(base::FilePath(path)) || !file.Clear()) return false;
  for (const std::string& packet : packets) {
    done &= file.AppendDataPacket({data(packet), static_cast<uint32_t>(packet.size())});
  }
  return done && file.IsSaveComplete();
}

class CachedReportTest : public ReportTest {
 protected:
  std::string CacheFolder() const { return certificates_.Path("state") + "/quenor_report"; }
  std::string CacheFile(const std::string& kind) const {
    return CacheFolder() + "/quenor-report." + (kind == "file" ? "cache" : kind);
  }
  std::string SavedList() const { return certificates_.Path("saved"); }

  // A run that reaches no server and ends with everything left.
  Result LeaveAll(const Arguments& more, const std::string& input) {
    RefusingPort nobody;
    Arguments arguments = {"--wait", "0.3"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return Send("https://" + nobody.Address() + "/", arguments, input);
  }

  Result Cache(const Arguments& more) {
    Arguments arguments = {QUENOR_REPORT_PATH, "cache"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return RunWhole(arguments, "");
  }
};

class EachCacheTest : public CachedReportTest, public ::testing::WithParamInterface<std::string> {};

INSTANTIATE_TEST_SUITE_P(Kinds, EachCacheTest, ::testing::Values("mmap", "file"),
                         [](const auto& kind) { return kind.param; });

TEST_P(EachCacheTest, ARestartDeliversWhatWasLeft) {
  const std::vector<std::string> lines = NumberedLines(3);
  const std::string file = CacheFile(GetParam());

  const Result first = LeaveAll({"--cache", GetParam()}, Joined(lines));

  EXPECT_EQ(75, first.exit_code);
  EXPECT_EQ(3, Field(first.out, "left"));
  EXPECT_EQ(3, Field(first.out, "kept"));
  EXPECT_TRUE(Mentions(first.err, "3 messages left undelivered (line 1, line 2, line 3), kept in " +
                                      file + " for the next run"))
      << first.err;

  Collector collector(certificates_, {});
  const Result second = Send(collector.url(), {"--cache", GetParam()}, "");

  EXPECT_EQ(0, second.exit_code);
  EXPECT_EQ("handed_over=0 delivered=3 failed_attempts=0 dropped=0 left=0 loaded=3 kept=0\n",
            second.out);
  EXPECT_EQ("quenor-report: delivering 3 messages that earlier runs left in " + file + "\n",
            second.err);

  const Result third = Send(collector.url(), {"--cache", GetParam()}, "");

  EXPECT_EQ("handed_over=0 delivered=0 failed_attempts=0 dropped=0 left=0 loaded=0 kept=0\n",
            third.out);
  EXPECT_EQ(DigestsOf(lines), collector.Stop());
}

TEST_P(EachCacheTest, LeftoversAndNewLinesGoTogether) {
  ASSERT_EQ(75, LeaveAll({"--cache", GetParam()}, "old 1\nold 2\n").exit_code);
  Collector collector(certificates_, {});

  const Result result = Send(collector.url(), {"--cache", GetParam(), "--send-now"}, "a\nb\nc\n");

  EXPECT_EQ(0, result.exit_code) << result.err;
  EXPECT_EQ("handed_over=3 delivered=5 failed_attempts=0 dropped=0 left=0 loaded=2 kept=0\n",
            result.out);
  EXPECT_EQ(DigestsOf({"old 1", "old 2", "a", "b", "c"}), collector.Stop());
}

TEST_P(EachCacheTest, LeftoversAreKeptUntilAServerTakesThem) {
  const Arguments cache = {"--cache", GetParam()};
  ASSERT_EQ(75, LeaveAll(cache, "a\nb\n").exit_code);

  const Result second = LeaveAll(cache, "c\n");

  EXPECT_EQ(1, Field(second.out, "handed_over"));
  EXPECT_EQ(2, Field(second.out, "loaded"));
  EXPECT_EQ(3, Field(second.out, "kept"));
  EXPECT_TRUE(Mentions(second.err, "(a message of an earlier run (1 byte), ")) << second.err;
  Collector collector(certificates_, {});
  EXPECT_EQ(3, Field(Send(collector.url(), cache, "").out, "loaded"));
  EXPECT_EQ(DigestsOf({"a", "b", "c"}), collector.Stop());
}

TEST_P(EachCacheTest, AKilledRunHasItsSavedLinesDeliveredByTheNext) {
  const std::vector<std::string> lines = NumberedLines(60);
  const std::string some = Joined({lines.begin(), lines.begin() + 40});
  Collector first_collector(certificates_, {"--misbehave", "every 3: hang"});
  {
    Pipe input;
    Process report(SendCommand(certificates_, first_collector.url(),
                               {"--cache", GetParam(), "--send-now", "--saved-list", SavedList()}),
                   std::move(input.reader));
    ASSERT_EQ(static_cast<ssize_t>(some.size()),
              ::write(input.writer.get(), some.data(), some.size()));
    first_collector.WaitForRequests(12);
    report.Signal(SIGKILL);
    ASSERT_EQ(-SIGKILL, report.Wait());
  }
  const Digests before = first_collector.Stop();
  const std::vector<std::string> rest = NotListed(lines, ReadWholeFile(SavedList()));
  ASSERT_GE(rest.size(), 20u) << "these were never handed over";
  ASSERT_LT(rest.size(), 60u);

  Collector second_collector(certificates_, {});
  const Result second =
      Send(second_collector.url(), {"--cache", GetParam(), "--send-now"}, Joined(rest));

  EXPECT_EQ(0, second.exit_code) << second.err;
  EXPECT_GE(Field(second.out, "loaded"), 3) << "the last but one of those never answered is saved";
  const Digests arrived = Together(before, second_collector.Stop());
  ExpectEachArrived(lines, arrived);
  EXPECT_LE(Total(arrived), 60 + 40) << "only what was outstanding may have arrived twice";
}

TEST_P(EachCacheTest, MoreLeftoversThanTheChannelQueuesAreNotTrimmed) {
  ASSERT_EQ(75, LeaveAll({"--cache", GetParam()}, "x\n").exit_code) << "makes the folder";
  ASSERT_EQ(0, ::unlink(CacheFile(GetParam()).c_str()));
  ASSERT_TRUE(LeaveBehind(GetParam(), CacheFile(GetParam()), NumberedLines(201)));
  Collector collector(certificates_, {});

  // The new line is taken in once 148 are left, and then nothing is waited for.
  const Result result =
      Send(collector.url(), {"--cache", GetParam(), "--wait", "0"}, "the new line\n");

  EXPECT_EQ(75, result.exit_code);
  EXPECT_EQ(201, Field(result.out, "loaded"));
  EXPECT_EQ(1, Field(result.out, "handed_over"));
  EXPECT_EQ(0, Field(result.out, "dropped")) << result.err;
  EXPECT_GE(Field(result.out, "delivered"), 53);
  EXPECT_EQ(202, Field(result.out, "delivered") + Field(result.out, "left"));
  EXPECT_EQ(Field(result.out, "left"), Field(result.out, "kept")) << result.err;
}

TEST_P(EachCacheTest, AnEmptyLineStaysOutOfTheCacheAndHidesNothing) {
  const Result first = LeaveAll({"--cache", GetParam(), "--saved-list", SavedList()}, "a\n\nb\n");

  EXPECT_EQ(3, Field(first.out, "left"));
  EXPECT_EQ(2, Field(first.out, "kept"));
  EXPECT_TRUE(Mentions(first.err, "2 messages left undelivered (line 1, line 3), kept in "))
      << first.err;
  EXPECT_TRUE(Mentions(first.err, "1 message left undelivered (line 2) and not kept on disk; "))
      << first.err;
  EXPECT_EQ("1\n3\n", ReadWholeFile(SavedList()));
  Collector collector(certificates_, {});
  EXPECT_EQ(0, Send(collector.url(), {"--cache", GetParam()}, "").exit_code);
  EXPECT_EQ(DigestsOf({"a", "b"}), collector.Stop());
}

TEST_P(EachCacheTest, NoPersistKeepsNothingNewButDeliversLeftovers) {
  ASSERT_EQ(75, LeaveAll({"--cache", GetParam()}, "old\n").exit_code);

  const Result second = LeaveAll({"--cache", GetParam(), "--no-persist"}, "a\nb\n");

  EXPECT_EQ(1, Field(second.out, "loaded"));
  EXPECT_EQ(3, Field(second.out, "left"));
  EXPECT_EQ(1, Field(second.out, "kept"));
  EXPECT_TRUE(Mentions(second.err, "2 messages left undelivered (line 1, line 2) and not kept"))
      << second.err;
  Collector collector(certificates_, {});
  EXPECT_EQ("handed_over=1 delivered=2 failed_attempts=0 dropped=0 left=0 loaded=1 kept=0\n",
            Send(collector.url(), {"--cache", GetParam(), "--no-persist"}, "c\n").out);
  EXPECT_EQ(DigestsOf({"old", "c"}), collector.Stop());
}

TEST_P(EachCacheTest, ACacheThatCannotBeOpenedIsNamedAndTheRunGoesOn) {
  ASSERT_EQ(0, ::mkdir(certificates_.Path("state").c_str(), 0700));
  certificates_.Write("state/quenor_report", "a file where the folder should be");
  Collector collector(certificates_, {});

  const Result result = Send(collector.url(), {"--cache", GetParam(), "--send-now"}, "a\nb\n");

  EXPECT_EQ(0, result.exit_code);
  EXPECT_EQ("handed_over=2 delivered=2 failed_attempts=0 dropped=0 left=0 loaded=0 kept=0\n",
            result.out);
  EXPECT_EQ(1u, CountIn(result.err, "the cache " + CacheFile(GetParam()) +
                                        " could not be opened: this run keeps its messages in "
                                        "memory only"))
      << result.err;
  EXPECT_FALSE(Mentions(result.err, "has been loaded!")) << result.err;
  EXPECT_EQ(DigestsOf({"a", "b"}), collector.Stop());
}

TEST_P(EachCacheTest, WithoutAnOpenCacheWhatIsLeftIsNotCalledKept) {
  ASSERT_EQ(0, ::mkdir(certificates_.Path("state").c_str(), 0700));
  certificates_.Write("state/quenor_report", "a file where the folder should be");

  const Result result = LeaveAll({"--cache", GetParam(), "--saved-list", SavedList()}, "a\nb\n");

  EXPECT_EQ(2, Field(result.out, "left"));
  EXPECT_EQ(0, Field(result.out, "kept"));
  EXPECT_EQ("", ReadWholeFile(SavedList()));
}

TEST_P(EachCacheTest, CommandsShowAndRemoveWhatARunLeft) {
  ASSERT_EQ(75, LeaveAll({"--cache", GetParam()}, "one\ntwo\\three\n").exit_code);
  const std::string file = CacheFile(GetParam());

  const Result list = Cache({"list", file});
  EXPECT_EQ(0, list.exit_code) << list.err;
  EXPECT_TRUE(Mentions(list.out, "owner=1 live=no ")) << list.out;
  EXPECT_TRUE(Mentions(list.out, "kind=" + GetParam() + " ")) << list.out;
  EXPECT_TRUE(Mentions(list.out, " owners=1 packets=2 bytes=12 ")) << list.out;

  EXPECT_EQ("owner=1 packet=1 bytes=3 text=one\nowner=1 packet=2 bytes=9 text=two\\\\three\n",
            Cache({"dump", file}).out);
  EXPECT_EQ("onetwo\\three", Cache({"dump", file, "--raw", "-"}).out);
  EXPECT_EQ(0, Cache({"dump", file, "--raw", certificates_.Path("raw")}).exit_code);
  EXPECT_EQ("one", ReadWholeFile(certificates_.Path("raw/owner-01-packet-000001")));

  const Result verify = Cache({"verify", file});
  EXPECT_EQ(0, verify.exit_code) << verify.err;
  EXPECT_EQ(0u, verify.out.find("whole kind=" + GetParam())) << verify.out;

  EXPECT_EQ(64, Cache({"purge", file}).exit_code);
  EXPECT_TRUE(Exists(file));
  const Result purge = Cache({"purge", file, "--yes"});
  EXPECT_EQ(0, purge.exit_code) << purge.err;
  EXPECT_EQ("purged_packets=2\n", purge.out);
  EXPECT_FALSE(Exists(file));
  EXPECT_EQ(66, Cache({"verify", file}).exit_code);
}

TEST_P(EachCacheTest, CommandsLeaveALiveRunAlone) {
  Collector collector(certificates_, {"--misbehave", "all: hang"});
  Pipe input;
  Process report(SendCommand(certificates_, collector.url(), {"--cache", GetParam(), "--send-now"}),
                 std::move(input.reader));
  ASSERT_EQ(4, ::write(input.writer.get(), "a\nb\n", 4));
  collector.WaitForRequests(2);
  const std::string file = CacheFile(GetParam());

  const Result purge = Cache({"purge", file, "--yes"});
  const Result list = Cache({"list", file});
  report.Signal(SIGTERM);
  const Result result = ResultOf(&report);

  EXPECT_EQ(75, purge.exit_code);
  EXPECT_EQ("", purge.out);
  EXPECT_EQ(1u, CountIn(purge.err, "\n")) << purge.err;
  EXPECT_EQ(0, list.exit_code) << list.err;
  EXPECT_TRUE(Mentions(list.out, "owner=1 live=yes ")) << list.out;
  EXPECT_EQ(2, Field(result.out, "kept")) << result.err;
}

TEST_P(EachCacheTest, VerifyFindsAChangedByteAndTheRestIsStillDelivered) {
  const std::vector<std::string> lines = NumberedLines(3);
  ASSERT_EQ(75, LeaveAll({"--cache", GetParam()}, Joined(lines)).exit_code);
  const std::string file = CacheFile(GetParam());
  const size_t at = ReadWholeFile(file).find(lines[1]);
  ASSERT_NE(std::string::npos, at);
  std::fstream changed(file, std::ios::in | std::ios::out | std::ios::binary);
  changed.seekp(static_cast<std::streamoff>(at));
  changed.put('R');
  changed.close();

  const Result verify = Cache({"verify", file});

  EXPECT_EQ(1, verify.exit_code);
  EXPECT_EQ(0u, verify.out.find("damaged kind=" + GetParam())) << verify.out;
  EXPECT_TRUE(Mentions(verify.err, file + " is damaged: ")) << verify.err;
  Collector collector(certificates_, {});
  EXPECT_EQ(2, Field(Send(collector.url(), {"--cache", GetParam()}, "").out, "loaded"));
  EXPECT_EQ(DigestsOf({lines[0], lines[2]}), collector.Stop());
}

TEST_P(EachCacheTest, CompressedLeftoversArriveAsTheyWere) {
  std::vector<std::string> lines = NumberedLines(3);
  for (std::string& line : lines) line += std::string(200, 'r');
  const Arguments arguments = {"--cache", GetParam(), "--compress"};
  ASSERT_EQ(75, LeaveAll(arguments, Joined(lines)).exit_code);
  Collector collector(certificates_, {"--inflate"});

  EXPECT_EQ(3, Field(Send(collector.url(), arguments, "").out, "delivered"));

  EXPECT_EQ(DigestsOf(lines), collector.Stop());
}

TEST_F(CachedReportTest, TheMappedFileIsTheDefaultInTheUsersOwnFolder) {
  RefusingPort nobody;
  const std::string home = certificates_.Path("home");

  const Result result =
      RunWhole({"env", "-u", "XDG_STATE_HOME", "HOME=" + home, QUENOR_REPORT_PATH, "send", "--url",
                "https://" + nobody.Address() + "/", "--channel", "usage", "--wait", "0"},
               "a\n");

  EXPECT_EQ(1, Field(result.out, "kept")) << result.err;
  EXPECT_TRUE(Exists(home + "/.local/state/quenor/quenor_report/usage.mmap"));
}

TEST_F(CachedReportTest, ARelativeCacheFolderIsOfTheWorkingFolder) {
  RefusingPort nobody;
  const std::string folder = certificates_.Path("");

  const Result result =
      RunWhole({"env", "-C", folder, QUENOR_REPORT_PATH, "send", "--url",
                "https://" + nobody.Address() + "/", "--cache-dir", "here", "--wait", "0"},
               "a\n");

  EXPECT_EQ(1, Field(result.out, "kept")) << result.err;
  EXPECT_TRUE(Exists(folder + "here/quenor_report/quenor-report.mmap"));
}

TEST_F(CachedReportTest, CacheNoneTouchesNothing) {
  const Result alone = LeaveAll({"--cache", "none"}, "a\n");
  EXPECT_EQ(1, Field(alone.out, "left"));
  EXPECT_EQ(0, Field(alone.out, "kept"));
  EXPECT_FALSE(Exists(certificates_.Path("state")));

  ASSERT_EQ(75, LeaveAll({}, "old\n").exit_code);
  const std::string before = ReadWholeFile(CacheFile("mmap"));
  EXPECT_EQ(0, Field(LeaveAll({"--cache", "none"}, "b\n").out, "loaded"));

  EXPECT_EQ(before, ReadWholeFile(CacheFile("mmap")));
}

TEST_F(CachedReportTest, WithoutACacheTheSavedListHasWhatWasDelivered) {
  Collector collector(certificates_, {"--misbehave", "all: status=503"});
  const Arguments arguments = {"--cache",      "none", "--saved-list", SavedList(), "--send-now",
                               "--max-resend", "1"};
  EXPECT_EQ(69, Send(collector.url(), arguments, "a\n").exit_code);
  EXPECT_EQ("", ReadWholeFile(SavedList()));
  Collector good(certificates_, {});

  EXPECT_EQ(0, Send(good.url(), arguments, "a\n\nb\n").exit_code);

  std::istringstream lines(ReadWholeFile(SavedList()));
  std::multiset<std::string> numbers;
  for (std::string line; std::getline(lines, line);) numbers.insert(line);
  EXPECT_EQ((std::multiset<std::string>{"1", "2", "3"}), numbers);
}

TEST_F(CachedReportTest, TheSavedListNamesFiles) {
  const std::string a = certificates_.Write("a", "1");
  const std::string b = certificates_.Write("b", "2");

  LeaveAll({"--saved-list", SavedList(), a, b}, "");

  EXPECT_EQ(a + "\n" + b + "\n", ReadWholeFile(SavedList()));
}

TEST_F(CachedReportTest, TwoRunsShareTheMappedFileAndEachKeepsItsOwn) {
  Collector silent(certificates_, {"--misbehave", "all: hang"});
  Collector collector(certificates_, {});
  Pipe input;
  Process first(SendCommand(certificates_, silent.url(), {"--send-now"}), std::move(input.reader));
  ASSERT_EQ(4, ::write(input.writer.get(), "a\nb\n", 4));
  silent.WaitForRequests(2);

  const Result second = Send(collector.url(), {"--send-now"}, "c\n");
  const Result left = LeaveAll({}, "d\n");
  first.Signal(SIGKILL);
  first.Wait();
  const Result last = Send(collector.url(), {}, "");

  EXPECT_EQ("handed_over=1 delivered=1 failed_attempts=0 dropped=0 left=0 loaded=0 kept=0\n",
            second.out);
  EXPECT_EQ("", second.err);
  EXPECT_EQ(0, Field(left.out, "loaded"));
  EXPECT_EQ(1, Field(left.out, "kept"));
  EXPECT_EQ(3, Field(last.out, "loaded")) << last.err;
  EXPECT_EQ(DigestsOf({"a", "b", "c", "d"}), collector.Stop());
}

TEST_F(CachedReportTest, ASecondRunOnThePlainFileGoesOnInMemoryAndSaysWhatToDo) {
  Collector silent(certificates_, {"--misbehave", "all: hang"});
  Collector collector(certificates_, {});
  Pipe input;
  Process first(SendCommand(certificates_, silent.url(), {"--cache", "file", "--send-now"}),
                std::move(input.reader));
  ASSERT_EQ(4, ::write(input.writer.get(), "a\nb\n", 4));
  silent.WaitForRequests(2);

  const Result second = Send(collector.url(), {"--cache", "file", "--send-now"}, "c\n");
  first.Signal(SIGTERM);
  const Result of_first = ResultOf(&first);

  EXPECT_EQ(0, second.exit_code);
  EXPECT_EQ("handed_over=1 delivered=1 failed_attempts=0 dropped=0 left=0 loaded=0 kept=0\n",
            second.out);
  EXPECT_TRUE(Mentions(second.err,
                       "if another run has it open, give each a --channel of its own, or share "
                       "with --cache mmap\n"))
      << second.err;
  EXPECT_EQ(2, Field(of_first.out, "kept"));
  EXPECT_EQ(DigestsOf({"c"}), collector.Stop());
}

TEST_F(CachedReportTest, CommandsTellFilesThatAreNotOurs) {
  const std::string other = certificates_.Write("other", "some other content\n");

  EXPECT_EQ(65, Cache({"list", other}).exit_code);
  EXPECT_EQ(65, Cache({"purge", other, "--yes"}).exit_code);
  EXPECT_EQ("some other content\n", ReadWholeFile(other));
  EXPECT_EQ(66, Cache({"dump", other + ".none"}).exit_code);
}

}  // namespace
}  // namespace quenor::test
