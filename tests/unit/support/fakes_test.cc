// What the fakes do beyond the contracts that they keep (tests/conformance/runs/fake_test.cc).
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "quenor_base/platform/local_log.h"
#include "quenor_base/platform/multi_process_safety_mmap_file.h"
#include "quenor_base/platform/reliable_report_cache_file.h"
#include "quenor_base/platform/throtter.h"
#include "tests/support/fakes/fake_cache_file.h"
#include "tests/support/fakes/fake_http_client.h"
#include "tests/support/fakes/fake_mmap_file.h"
#include "tests/support/fakes/recording_log.h"
#include "tests/support/fakes/virtual_time.h"
#include "tests/support/memory_faults.h"
#include "tests/support/temp_folder.h"

namespace quenor::test {
namespace {

class FakeHttpTest : public ::testing::Test {
 protected:
  FakeHttpTest()
      : http_([this](base::OnceClosure task) { time_.PostToNetwork(std::move(task)); }) {}

  HttpClient::CompletionCallback Note() {
    return [this](HttpClient::State state, const HttpClient::Request& request,
                  std::unique_ptr<HttpClient::Response> response) {
      states_.push_back(state);
      ids_.push_back(request.request_id);
      statuses_.push_back(response == nullptr ? -1 : response->status_code);
    };
  }

  std::vector<HttpClient::State> states_;
  std::vector<int64_t> ids_;
  std::vector<int> statuses_;
  VirtualTime time_;
  FakeHttp http_;
};

TEST_F(FakeHttpTest, AnswersOnlyWhenToldAndOnlyByPosting) {
  const auto client = HttpClientFactory::Create(HttpClient::Config());
  const int64_t id = client->SendRequest(HttpClient::Request(), Note());
  EXPECT_EQ(time_.RunUntilIdle(), 0u);

  EXPECT_TRUE(http_.Answer(0, 204));
  EXPECT_TRUE(states_.empty());
  time_.RunUntilIdle();

  EXPECT_EQ(states_, std::vector<HttpClient::State>{HttpClient::State::kCompleted});
  EXPECT_EQ(ids_, std::vector<int64_t>{id});
  EXPECT_EQ(statuses_, std::vector<int>{204});
  EXPECT_FALSE(http_.Answer(0, 204));
}

TEST_F(FakeHttpTest, DestroyedClientCancelsEachRequestOnce) {
  auto client = HttpClientFactory::Create(HttpClient::Config());
  auto other = HttpClientFactory::Create(HttpClient::Config());
  client->SendRequest(HttpClient::Request(), Note());
  client->SendRequest(HttpClient::Request(), Note());
  other->SendRequest(HttpClient::Request(), Note());

  client.reset();
  EXPECT_TRUE(states_.empty());
  time_.RunUntilIdle();

  EXPECT_EQ(states_.size(), 2u);
  EXPECT_EQ(states_[0], HttpClient::State::kCancelled);
  EXPECT_EQ(statuses_[0], -1);
  EXPECT_EQ(http_.Outstanding(), std::vector<size_t>{2});
  EXPECT_EQ(http_.LiveClients(), 1u);
}

TEST_F(FakeHttpTest, RefusedRequestDestroysItsCallbackInsideTheCall) {
  const auto client = HttpClientFactory::Create(HttpClient::Config());
  const auto bound = std::make_shared<int>(0);
  http_.ReturnNextIds({-3});

  EXPECT_EQ(client->SendRequest(HttpClient::Request(),
                                [bound](HttpClient::State, const HttpClient::Request&,
                                        std::unique_ptr<HttpClient::Response>) {}),
            -3);

  EXPECT_EQ(bound.use_count(), 1);
  EXPECT_TRUE(http_.Outstanding().empty());
  EXPECT_EQ(http_.RequestCount(), 1u);
}

TEST_F(FakeHttpTest, CreationFailsAsOftenAsTold) {
  http_.FailNextCreations(1);

  EXPECT_EQ(HttpClientFactory::Create(HttpClient::Config()), nullptr);
  EXPECT_NE(HttpClientFactory::Create(HttpClient::Config()), nullptr);
  EXPECT_EQ(http_.Configs().size(), 2u);
}

TEST_F(FakeHttpTest, DroppedRequestIsNeverAnswered) {
  const auto client = HttpClientFactory::Create(HttpClient::Config());
  client->SendRequest(HttpClient::Request(), Note());

  EXPECT_TRUE(http_.Drop(0));
  time_.RunUntilIdle();

  EXPECT_TRUE(states_.empty());
  EXPECT_TRUE(http_.Outstanding().empty());
}

// --- The cache files ---

using Packets = FakePacketFiles::Packets;

template <typename File>
Packets ReadAll(File* file) {
  Packets packets;
  for (auto packet = file->GetNextDataPacket(); packet.size > 0;
       packet = file->GetNextDataPacket()) {
    packets.emplace_back(reinterpret_cast<const char*>(packet.data), packet.size);
  }
  return packets;
}

template <typename File>
bool Append(File* file, const std::string& bytes) {
  using Packet = decltype(file->GetNextDataPacket());
  return file->AppendDataPacket(
      Packet{reinterpret_cast<const uint8_t*>(bytes.data()), static_cast<uint32_t>(bytes.size())});
}

class FakeMmapFileTest : public ::testing::Test {
 protected:
  FakeMmapFileTest() {
    RecordingLog::Clear();
    FakeMmapFiles().Clear();
    FakeMmapFiles().Put(kPath, {"old"});
  }
  static bool Open(MultiProcessSafetyMmapFile* file) {
    return file->Open(base::FilePath(kPath), base::MemoryMappedFile::READ_WRITE_EXTEND, 0);
  }
  static Packets Content() { return FakeMmapFiles().Content(kPath); }

  static constexpr char kPath[] = "/folder/a.mmap";
};

TEST_F(FakeMmapFileTest, RefusedClearAndRefusedPacketKeepTheOldContent) {
  MultiProcessSafetyMmapFile file;
  ASSERT_TRUE(Open(&file));
  EXPECT_FALSE(file.Clear(-1));
  FakeMmapFiles().FailClear(1);
  EXPECT_FALSE(file.Clear(7));
  EXPECT_FALSE(Append(&file, "one"));
  EXPECT_FALSE(file.IsSaveComplete());
  FakeMmapFiles().FailAppend(1);
  EXPECT_TRUE(file.Clear(7));
  EXPECT_FALSE(Append(&file, "one"));

  EXPECT_FALSE(file.IsSaveComplete());
  EXPECT_EQ(Content(), Packets{"old"});
}

TEST_F(FakeMmapFileTest, UnreadablePacketIsAnEndMarkAndRefusesEverySave) {
  FakeMmapFiles().FailNext(1);
  MultiProcessSafetyMmapFile file;
  ASSERT_TRUE(Open(&file));

  EXPECT_EQ(ReadAll(&file), Packets{});
  EXPECT_FALSE(file.Clear(0));

  EXPECT_FALSE(file.IsSaveComplete());
  EXPECT_EQ(Content(), Packets{"old"});
}

class FakeCacheFileTest : public ::testing::Test {
 protected:
  FakeCacheFileTest() {
    RecordingLog::Clear();
    FakeCacheFiles().Clear();
    FakeCacheFiles().Put(kPath, {"old"});
  }
  static bool Open(ReliableReportCacheFile* file) { return file->Open(base::FilePath(kPath)); }
  static Packets Content() { return FakeCacheFiles().Content(kPath); }

  static constexpr char kPath[] = "/folder/a.cache";
};

TEST_F(FakeCacheFileTest, RefusedPacketVoidsItsSaveAndTheOneBeforeStays) {
  ReliableReportCacheFile file;
  ASSERT_TRUE(Open(&file));
  EXPECT_TRUE(file.Clear() && Append(&file, "whole"));
  EXPECT_TRUE(file.Clear() && Append(&file, "one"));
  FakeCacheFiles().FailAppend(1);

  EXPECT_FALSE(Append(&file, "two"));
  EXPECT_FALSE(Append(&file, "three"));

  EXPECT_FALSE(file.IsSaveComplete());
  EXPECT_EQ(Content(), Packets{"whole"});
}

TEST_F(FakeCacheFileTest, RefusedClearKeepsTheSaveBefore) {
  ReliableReportCacheFile file;
  ASSERT_TRUE(Open(&file));
  EXPECT_TRUE(file.Clear() && Append(&file, "whole"));
  FakeCacheFiles().FailClear(1);

  EXPECT_FALSE(file.Clear());
  EXPECT_FALSE(Append(&file, "one"));

  EXPECT_FALSE(file.IsSaveComplete());
  EXPECT_EQ(Content(), Packets{"whole"});
}

TEST(FakeThrotterTest, OpensExactlyAfterAPeriodOfVirtualTime) {
  VirtualTime time;
  Throtter throtter(60000);
  ASSERT_TRUE(throtter.ShouldGo());

  time.AdvanceBy(base::TimeDelta::FromMicroseconds(59999999));
  EXPECT_FALSE(throtter.ShouldGo());

  time.AdvanceBy(base::TimeDelta::FromMicroseconds(1));
  EXPECT_TRUE(throtter.ShouldGo());
  EXPECT_FALSE(throtter.ShouldGo());
}

TEST(RecordingLogTest, KeepsLevelFileLineAndTheWholeText) {
  RecordingLog::Clear();
  const std::string text(100000, 'x');

  LocalLog(2, "file", 7, "%s%d", text.c_str(), 1);

  const auto lines = RecordingLog::Lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].level, 2);
  EXPECT_EQ(lines[0].file, "file");
  EXPECT_EQ(lines[0].line, 7);
  EXPECT_EQ(lines[0].text, text + "1");
  RecordingLog::Clear();
  EXPECT_TRUE(RecordingLog::Lines().empty());
}

TEST(MemoryFaultsTest, CountsNewOfThisThread) {
  MemoryFaults::Counter counter;

  const auto one = std::make_unique<int>(1);

  EXPECT_EQ(counter.count(), 1u);
}

TEST(TempFolderTest, FolderIsNewAndGoesWithEverythingInIt) {
  std::string path;
  {
    const TempFolder first;
    const TempFolder second;
    path = first.File("a");
    EXPECT_NE(first.path(), second.path());
    EXPECT_TRUE(WriteWholeFile(path, "content"));
    EXPECT_EQ(ReadWholeFile(path), "content");
  }
  EXPECT_FALSE(WriteWholeFile(path, "content"));
}

}  // namespace
}  // namespace quenor::test
