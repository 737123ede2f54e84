#include "collector/reports/recorder.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "collector/fatal.h"
#include "collector/reports/digest.h"
#include "tests/collector/support/raw_http.h"
#include "tests/collector/support/record.h"
#include "tests/support/temp_folder.h"

namespace quenor::collector {
namespace {

using quenor::test::FileNames;
using quenor::test::ReadWholeFile;
using quenor::test::TempFolder;
using quenor::test::WriteWholeFile;
using test::Deflate;
using test::ReadLog;

class RecorderTest : public ::testing::Test {
 protected:
  RecorderTest() {
    options_.out_dir = dir_ / "out";
    options_.log_path = dir_ / "log";
  }

  static bool Record(Recorder& recorder, const std::string& body, int status = 200) {
    Received received;
    received.seq = recorder.NextSeq();
    received.time = UtcNow();
    received.peer = "127.0.0.1:1";
    received.path = "/p?q=\"";
    received.content_type = "a/b";
    received.body = body;
    received.status = status;
    return recorder.Record(received);
  }

  static std::string Name(const std::string& number, const std::string& body) {
    return number + "-" + Sha256Hex(body).substr(0, 16);
  }

  TempFolder dir_;
  RecorderOptions options_;
};

TEST_F(RecorderTest, AcceptedBodyHasFileLineAndCount) {
  Recorder recorder(options_);
  const std::string body("a\0b", 3);

  ASSERT_TRUE(Record(recorder, body));

  EXPECT_EQ(FileNames(options_.out_dir),
            std::vector<std::string>{Name("0000000001", body) + ".bin"});
  EXPECT_EQ(ReadWholeFile(options_.out_dir + "/" + Name("0000000001", body) + ".bin"), body);
  const auto lines = ReadLog(options_.log_path);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0]["seq"].GetUint64(), 1u);
  EXPECT_EQ(lines[0]["peer"], "127.0.0.1:1");
  EXPECT_EQ(lines[0]["path"], "/p?q=\"");
  EXPECT_EQ(lines[0]["content_type"], "a/b");
  EXPECT_EQ(lines[0]["size"].GetUint64(), 3u);
  EXPECT_EQ(lines[0]["sha256"].GetString(), Sha256Hex(body));
  EXPECT_EQ(lines[0]["status"].GetInt(), 200);
  EXPECT_FALSE(lines[0].HasMember("inflate"));
  EXPECT_EQ(CountsLine(recorder.GetCounts()), "requests=1 accepted=1 failed=0 distinct=1 bytes=3");
}

TEST_F(RecorderTest, FailedRequestHasALineButNoFile) {
  Recorder recorder(options_);

  ASSERT_TRUE(Record(recorder, "body", 503));

  EXPECT_EQ(FileNames(options_.out_dir), std::vector<std::string>{});
  EXPECT_EQ(ReadLog(options_.log_path).at(0)["status"].GetInt(), 503);
  EXPECT_EQ(CountsLine(recorder.GetCounts()), "requests=1 accepted=0 failed=1 distinct=0 bytes=0");
}

TEST_F(RecorderTest, EqualBodiesAreTwoRecordsButOneDistinct) {
  Recorder recorder(options_);

  ASSERT_TRUE(Record(recorder, "same"));
  ASSERT_TRUE(Record(recorder, "same"));

  EXPECT_EQ(FileNames(options_.out_dir).size(), 2u);
  EXPECT_EQ(CountsLine(recorder.GetCounts()), "requests=2 accepted=2 failed=0 distinct=1 bytes=8");
}

TEST_F(RecorderTest, WithoutOutputAndLogItStillCounts) {
  Recorder recorder(RecorderOptions{});

  ASSERT_TRUE(Record(recorder, "body"));

  EXPECT_EQ(recorder.GetCounts().accepted, 1u);
}

TEST_F(RecorderTest, InflatedBodyIsFiledPlainAndNamedByWhatCameIn) {
  options_.inflate = true;
  Recorder recorder(options_);
  const std::string packed = Deflate("plain");

  ASSERT_TRUE(Record(recorder, packed));

  const std::string name = Name("0000000001", packed) + ".bin";
  EXPECT_EQ(FileNames(options_.out_dir), std::vector<std::string>{name});
  EXPECT_EQ(ReadWholeFile(options_.out_dir + "/" + name), "plain");
  const auto lines = ReadLog(options_.log_path);
  EXPECT_EQ(lines.at(0)["size"].GetUint64(), packed.size());
  EXPECT_EQ(lines.at(0)["sha256"].GetString(), Sha256Hex(packed));
  EXPECT_EQ(lines.at(0)["inflated_size"].GetUint64(), 5u);
  EXPECT_EQ(lines.at(0)["inflated_sha256"].GetString(), Sha256Hex("plain"));
  EXPECT_EQ(lines.at(0)["inflate"], "ok");
}

TEST_F(RecorderTest, BodyThatDoesNotInflateIsAlsoFiledAsItCame) {
  options_.inflate = true;
  options_.max_inflated_bytes = 100;
  Recorder recorder(options_);
  const std::string packed = Deflate("plain");
  const std::vector<std::pair<std::string, std::string>> cases = {
      {packed.substr(0, packed.size() - 1), "truncated"},
      {"\x07", "corrupt"},
      {packed + "x", "trailing"},
      {Deflate(std::string(101, 'a')), "too-large"},
  };

  for (const auto& one : cases) ASSERT_TRUE(Record(recorder, one.first));

  const auto lines = ReadLog(options_.log_path);
  for (size_t i = 0; i < cases.size(); ++i) {
    const std::string stem =
        options_.out_dir + "/" + Name("000000000" + std::to_string(i + 1), cases[i].first);
    EXPECT_EQ(lines.at(i)["inflate"].GetString(), cases[i].second);
    EXPECT_EQ(ReadWholeFile(stem + ".deflate"), cases[i].first);
    EXPECT_EQ(ReadWholeFile(stem + ".bin").size(), lines.at(i)["inflated_size"].GetUint64());
  }
}

TEST_F(RecorderTest, NumbersGoOnAfterTheHighestInTheFolder) {
  {
    Recorder earlier(options_);
    ASSERT_TRUE(Record(earlier, "one"));
    ASSERT_TRUE(Record(earlier, "two"));
  }
  ASSERT_TRUE(WriteWholeFile(options_.out_dir + "/999notes.txt", "no record"));

  Recorder recorder(options_);
  ASSERT_TRUE(Record(recorder, "one"));

  EXPECT_EQ(ReadLog(options_.log_path).back()["seq"].GetUint64(), 3u);
  EXPECT_EQ(ReadWholeFile(options_.out_dir + "/" + Name("0000000001", "one") + ".bin"), "one");
  EXPECT_EQ(ReadWholeFile(options_.out_dir + "/" + Name("0000000003", "one") + ".bin"), "one");
}

TEST_F(RecorderTest, LineTornByAKillDoesNotSwallowTheNext) {
  ASSERT_TRUE(WriteWholeFile(options_.log_path, "{\"seq\":1,\"ti"));
  Recorder recorder(options_);

  ASSERT_TRUE(Record(recorder, "body"));

  const std::string log = ReadWholeFile(options_.log_path);
  const size_t line_end = log.find('\n');
  EXPECT_EQ(log.substr(0, line_end), "{\"seq\":1,\"ti");
  EXPECT_EQ(test::ParseObject(log.substr(line_end + 1))["size"].GetUint64(), 4u);
}

TEST_F(RecorderTest, BodyThatCannotBeFiledLeavesNothingBehind) {
  Recorder recorder(options_);
  const std::string name = Name("0000000001", "body") + ".bin";
  ASSERT_TRUE(std::filesystem::create_directory(options_.out_dir + "/" + name));

  EXPECT_FALSE(Record(recorder, "body"));

  EXPECT_EQ(FileNames(options_.out_dir), std::vector<std::string>{name});
}

TEST_F(RecorderTest, BodyThatCannotBeFiledIsNotAccepted) {
  Recorder recorder(options_);
  ASSERT_EQ(::rmdir(options_.out_dir.c_str()), 0);

  EXPECT_FALSE(Record(recorder, "body"));

  EXPECT_EQ(ReadLog(options_.log_path).at(0)["status"].GetInt(), 500);
  EXPECT_EQ(CountsLine(recorder.GetCounts()), "requests=1 accepted=0 failed=1 distinct=0 bytes=0");
}

TEST_F(RecorderTest, WhatAScriptDoesIsLoggedOnlyIfItIsDone) {
  Recorder recorder(options_);
  Received received;
  received.seq = recorder.NextSeq();
  received.status = 200;
  received.misbehaviour = "close=body";
  ASSERT_TRUE(recorder.Record(received));
  std::filesystem::remove_all(options_.out_dir);

  EXPECT_FALSE(recorder.Record(received));

  const auto log = ReadLog(options_.log_path);
  EXPECT_STREQ(log.at(0)["misbehaviour"].GetString(), "close=body");
  EXPECT_FALSE(log.at(1).HasMember("misbehaviour"));
  EXPECT_EQ(recorder.GetCounts().misbehaved, 1u);
}

TEST_F(RecorderTest, BodyThatCannotBeLoggedIsNotAccepted) {
  options_.log_path = "/dev/full";
  Recorder recorder(options_);

  EXPECT_FALSE(Record(recorder, "body"));

  EXPECT_EQ(recorder.GetCounts().accepted, 0u);
}

TEST_F(RecorderTest, LineThatCouldNotBeWrittenDoesNotSwallowTheNext) {
  Recorder recorder(options_);
  ASSERT_TRUE(Record(recorder, "one"));
  const auto whole_bytes = ReadWholeFile(options_.log_path).size();
  struct rlimit before {};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
  struct rlimit tight = before;
  tight.rlim_cur = whole_bytes + 10;
  ::signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &tight), 0);
  const bool recorded_when_full = Record(recorder, "two");
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);

  ASSERT_TRUE(Record(recorder, "three"));

  EXPECT_FALSE(recorded_when_full);
  const std::string log = ReadWholeFile(options_.log_path);
  EXPECT_EQ(test::CountOf(log, "\n"), 3);
  const std::string last = log.substr(log.rfind('\n', log.size() - 2) + 1);
  EXPECT_EQ(test::ParseObject(last)["seq"].GetUint64(), 3u);
  EXPECT_EQ(CountsLine(recorder.GetCounts()), "requests=3 accepted=2 failed=1 distinct=2 bytes=8");
}

TEST_F(RecorderTest, UnusablePathsAreNamed) {
  ASSERT_TRUE(WriteWholeFile(dir_ / "file", ""));
  options_.out_dir = dir_ / "file";
  try {
    Recorder recorder(options_);
    FAIL() << "opened a file as a folder";
  } catch (const Fatal& fatal) {
    EXPECT_EQ(fatal.exit_code(), kExitCannotCreate);
    EXPECT_NE(std::string(fatal.what()).find(options_.out_dir), std::string::npos);
  }

  options_.out_dir.clear();
  options_.log_path = dir_ / "none/log";
  try {
    Recorder recorder(options_);
    FAIL() << "opened a log in a folder that does not exist";
  } catch (const Fatal& fatal) {
    EXPECT_EQ(fatal.exit_code(), kExitCannotCreate);
    EXPECT_NE(std::string(fatal.what()).find(options_.log_path), std::string::npos);
  }
}

TEST(RecorderTextTest, TimeIsRfc3339InUtcWithMilliseconds) {
  std::string shape = UtcNow();
  for (char& c : shape) c = c >= '0' && c <= '9' ? '0' : c;

  EXPECT_EQ(shape, "0000-00-00T00:00:00.000Z");
}

TEST(RecorderTextTest, CountsAsJson) {
  Counts counts;
  counts.requests = 7;
  counts.accepted = 5;
  counts.failed = 2;
  counts.bytes = 99;
  counts.distinct_sha256 = 4;
  counts.incomplete = 1;

  EXPECT_EQ(CountsJson(counts),
            R"({"requests":7,"accepted":5,"failed":2,"bytes":99,"distinct_sha256":4,)"
            R"("incomplete":1,"misbehaved":0,"misbehaved_connections":0})");
}

}  // namespace
}  // namespace quenor::collector
