// What a one-line change to the channel could do unnoticed by the tests of its parts.
#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>

#include "quenor_base/platform/base/path_service.h"
#include "quenor_base/platform/config_center.h"
#include "tests/support/channel_test_fixture.h"
#include "tests/support/fakes/fake_mmap_file.h"
#include "tests/support/temp_folder.h"

namespace quenor::test {
namespace {

// --- The server's reply ---

class ChannelReplyEdgeTest : public ChannelTest {
 protected:
  void SetUp() override { Start(); }
  void Handle(const std::string& body) {
    OnQueue([&body](Peer peer) {
      peer.HandleResponse(body.data(), static_cast<uint32_t>(body.size()), nullptr);
    });
  }
};

TEST_F(ChannelReplyEdgeTest, MissingOrZeroIntervalKeepsTheConfiguredOne) {
  Configure(2000);

  Handle(kSuccess);
  Handle("{\"bytes_errinfo\":\"success\",\"uint32_send_interval\":0}");

  EXPECT_EQ(peer().resend_interval_ms(), 2000u);
  EXPECT_EQ(peer().current_interval_ms(), 2000u);
}

TEST_F(ChannelReplyEdgeTest, ZeroByteBehindTheReplyKeepsItsFieldsFromBeingApplied) {
  const std::string reply = "{\"bytes_errinfo\":\"success\",\"uint32_report_duration\":30}";
  Handle(reply + std::string(1, '\0'));
  EXPECT_EQ(channel_->GetReportInterval(), 10000u);

  Handle(reply);

  EXPECT_EQ(channel_->GetReportInterval(), 30000u);
}

TEST_F(ChannelReplyEdgeTest, RetuningIsToldWithAllThreeSettings) {
  Send("one", false, true);

  Answer(0, 200,
         "{\"bytes_errinfo\":\"success\",\"uint32_send_interval\":3000,"
         "\"uint32_max_resend_count\":2,\"uint32_report_duration\":30}");

  const auto told = events_.OfKind(Kind::kRetuned);
  ASSERT_EQ(told.size(), 1u);
  EXPECT_EQ(told[0].send_interval_ms, 3000u);
  EXPECT_EQ(told[0].max_resend_count, 2u);
  EXPECT_EQ(told[0].report_interval_ms, 30000u);
}

TEST_F(ChannelReplyEdgeTest, IntervalEqualToTheBackOffDelayKeepsTheNextTick) {
  Send("one", false, true);
  Send("two", false, true);
  Fail(0);
  ASSERT_EQ(SendPeriod(), 1000);
  Advance(600);

  Answer(1, 200, "{\"bytes_errinfo\":\"success\",\"uint32_send_interval\":1000}");

  EXPECT_EQ(SendPeriod(), 1000);
  Advance(400);
  EXPECT_EQ(PendingBodies(), Texts{}) << "the message that failed is due a second after that";
}

// --- Compression ---

// The same steps by zlib itself: all input without a flush, then the end.
std::string ReferenceDeflate(const std::string& source) {
  z_stream stream{};
  if (deflateInit2(&stream, 9, Z_DEFLATED, -15, 9, Z_DEFAULT_STRATEGY) != Z_OK) return {};
  std::string out(source.size(), '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(source.data()));
  stream.avail_in = static_cast<uInt>(source.size());
  stream.next_out = reinterpret_cast<Bytef*>(out.data());
  stream.avail_out = static_cast<uInt>(out.size());
  const bool done = deflate(&stream, Z_NO_FLUSH) == Z_OK && deflate(&stream, Z_FINISH) == 1;
  out.resize(done ? stream.total_out : 0);
  deflateEnd(&stream);
  return out;
}

class ChannelStreamEdgeTest : public ChannelTest {};

TEST_F(ChannelStreamEdgeTest, CompressedBodyIsOneStreamWithoutAFlushInside) {
  Make(true);
  std::string text;
  std::minstd_rand random(1);
  for (int i = 0; i < 2000; ++i) text += "report " + std::to_string(random() % 100) + "\n";
  std::string out(text.size(), '\0');
  uint64_t length = out.size();

  ASSERT_EQ(peer().Compress(reinterpret_cast<const uint8_t*>(text.data()), text.size(),
                            reinterpret_cast<uint8_t*>(out.data()), &length),
            0);

  EXPECT_EQ(out.substr(0, length), ReferenceDeflate(text));
}

// --- Start ---

// In a process of its own: the cache option is read once.
[[noreturn]] void InitTwiceWithACacheThatFails() {
  config::ConfigCenterImpl::GetInstance()->SetHostOverride(config::BaseCfg().cache_option,
                                                           uint64_t{2});
  const TempFolder folder;
  if (!base::PathService::Override(base::DIR_RELIABLE_REPORT, base::FilePath(folder.path()))) {
    std::exit(3);
  }
  FakeMmapFiles().FailOpen(1);
  VirtualTime time;
  FakeHttp http([&time](base::OnceClosure task) { time.PostToNetwork(std::move(task)); });
  const auto channel = std::make_shared<ReliableReportChannelHttps>(kName, kUrl, 0u, false, false);
  channel->Initialize();
  time.RunUntilIdle();
  ReliableReportChannelHttpsTestPeer peer(channel.get());
  peer.queue()->PostTask(base::Location(), [&peer] { peer.DoInit(); });
  time.RunUntilIdle();
  std::fprintf(stderr, "opened %zu times\n",
               FakeMmapFiles().Calls(FileCall::Operation::kOpen).size());
  channel->Terminate();
  time.RunUntilIdle();
  std::exit(0);
}

TEST(ChannelStartDeathTest, SecondDoInitDoesNotOpenTheCacheAgain) {
  EXPECT_EXIT(InitTwiceWithACacheThatFails(), ::testing::ExitedWithCode(0), "^opened 1 times\n$");
}

}  // namespace
}  // namespace quenor::test
