// What only the mapped file is told: how it is opened, and how large each save will be.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/unit/channel_cache/channel_cache_fixture.h"

namespace quenor::test {
namespace {

class ChannelMmapTest : public ChannelCacheTest {
 protected:
  static std::vector<int64_t> ClearSizes() {
    std::vector<int64_t> sizes;
    for (const FileCall& call : Files().Calls(Operation::kClear)) sizes.push_back(call.size);
    return sizes;
  }
  using Sizes = std::vector<int64_t>;
};

TEST_F(ChannelMmapTest, FileIsOpenedToGrowByAccessTwoAndSizeZero) {
  Start();

  const auto opened = Files().Calls(Operation::kOpen);
  ASSERT_EQ(opened.size(), 1u);
  EXPECT_EQ(opened[0].path, "/reports/quenor_report/channel.mmap");
  EXPECT_EQ(opened[0].access, 2);
  EXPECT_EQ(opened[0].size, 0);
}

TEST_F(ChannelMmapTest, ClearIsToldTheBytesOfAllMessagesAndFourForEach) {
  Start();
  Send(std::string(10, 'a'), true, true);
  Files().ForgetCalls();

  Send(std::string(20, 'b'), true);

  EXPECT_EQ(ClearSizes(), Sizes{38});
  EXPECT_EQ(Writes(),
            (Texts{"clear", "append " + std::string(10, 'a'), "append " + std::string(20, 'b')}));
}

TEST_F(ChannelMmapTest, MessageWithoutNeedCacheTakesNoRoom) {
  Start();
  Send(std::string(10, 'a'), false, true);
  Send(std::string(20, 'b'), false);
  Send(std::string(5, 'c'), true);

  EXPECT_EQ(ClearSizes(), (Sizes{0, 0, 9}));
}

TEST_F(ChannelMmapTest, EmptyStoreClearsTheFileWithSizeZero) {
  Start();
  Send("one", true, true);
  Files().ForgetCalls();

  Answer(0, 200);

  EXPECT_EQ(ClearSizes(), Sizes{0});
  EXPECT_EQ(Content(), Packets{});
}

TEST_F(ChannelMmapTest, EmptyMessageTakesFourBytes) {
  Start();

  Send("", true);

  EXPECT_EQ(ClearSizes(), Sizes{4});
}

TEST_F(ChannelMmapTest, SizeIsReckonedModuloTwoToTheThirtySecond) {
  Make();
  const CopyOnWriteBuffer quarter_gib(uint32_t{1} << 28, uint32_t{1} << 28);  // Shared by all.
  ASSERT_EQ(quarter_gib.size(), uint32_t{1} << 28);
  for (int i = 0; i < 15; ++i) peer().pending().emplace_back(quarter_gib, true);
  EXPECT_EQ(peer().CalculateCacheSize(), 15 * ((uint32_t{1} << 28) + 4));

  peer().sending().emplace(1, peer().pending().front());

  EXPECT_EQ(peer().CalculateCacheSize(), 64u);
  peer().pending().clear();
  peer().sending().clear();
}

TEST_F(ChannelMmapTest, SecondChannelOfTheSameNameKeepsItsMessagesBesideTheFirstOnes) {
  Start();
  Send("first's", true);
  const auto second = std::make_shared<Channel>(kName, kUrl, 0u, false, false);
  second->Initialize();
  second->SendPacket(reinterpret_cast<const uint8_t*>("second's"), 8, true, false);
  time_.RunUntilIdle();
  EXPECT_EQ(PendingBodies(), Texts{"first's"});
  EXPECT_EQ(Content(), (Packets{"first's", "second's"}));

  second->Terminate();
  Restart();

  EXPECT_EQ(PendingBodies(), (Texts{"first's", "second's"}));
}

}  // namespace
}  // namespace quenor::test
