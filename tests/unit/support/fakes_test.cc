// The other fakes keep the promises of what they stand for.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "quenor_base/platform/local_log.h"
#include "tests/support/fake_http_client.h"
#include "tests/support/memory_faults.h"
#include "tests/support/recording_log.h"
#include "tests/support/temp_folder.h"
#include "tests/support/virtual_time.h"

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
