// What is particular to the plain file.
#include <gtest/gtest.h>

#include <string>

#include "tests/unit/channel_cache/channel_cache_fixture.h"

namespace quenor::test {
namespace {

class ChannelFileTest : public ChannelCacheTest {};

TEST_F(ChannelFileTest, FileIsNamedAfterTheChannelWithTheSuffixCache) {
  Start();

  const auto opened = Files().Calls(Operation::kOpen);
  ASSERT_EQ(opened.size(), 1u);
  EXPECT_EQ(opened[0].path, "/reports/quenor_report/channel.cache");
}

TEST_F(ChannelFileTest, SecondChannelOfTheSameNameHasNoCache) {
  Start();
  const auto second = std::make_shared<Channel>(kName, kUrl, 0u, false, false);
  RecordingLog::Clear();

  second->Initialize();
  time_.RunUntilIdle();
  Send("one", true);

  EXPECT_EQ(ChannelLog(2), Texts{"open mmap file failed!"});
  EXPECT_EQ(Content(), Packets{"one"});
  second->Terminate();
  time_.RunUntilIdle();
}

}  // namespace
}  // namespace quenor::test
